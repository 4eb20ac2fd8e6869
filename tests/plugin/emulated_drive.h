// A fresh emulated Drive account behind the plug-in: the emulator is laid
// out under a private TAVO_ROOT, so an agent starts it exactly as it would
// start the real drive agent. The plug-in's tests and the fault sweep share it.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "drive_control.h"
#include "support/files.h"
#include "transfer_googledrive.h"

using TestSupport::readFile;
using TestSupport::writeFile;

class EmulatedAccount {
  public:
    // An empty account in a new private folder, removed by the destructor.
    EmulatedAccount();
    ~EmulatedAccount();
    // Back to an empty account, no cache folder and an empty local folder.
    void reset();

    // The options agents are built from: container "C", a valid refresh
    // token, and a cache root in the private folder.
    TAVO::Backup::Repository& repository() { return _repository; }
    // A new agent on the current repository, as the engine builds one: target "T".
    std::unique_ptr<TAVO::Backup::TransferAgentGoogleDrive> newAgent();

    // Local files in the private folder.
    std::string localPath(std::string const& name) const { return _dir + "/local/" + name; }
    std::string writeLocal(std::string const& name, std::string const& content);
    static bool fileExists(std::string const& path);
    // Names in the folder of `path` that look like our temporary files.
    static int countTempFilesBeside(std::string const& path);

    // The node cache file of target "T".
    std::string cacheFile() const { return _dir + "/cache/T/ta_cache.node"; }

    std::unique_ptr<DriveEmulator::Drive> drive;

  protected:
    std::string _dir;

  private:
    TAVO::Backup::Repository _repository;
};

// The account with container "/C" and target "/C/T" made, and an agent on them.
class EmulatedDriveTest : public ::testing::Test, public EmulatedAccount {
  protected:
    void SetUp() override;
    // Replaces the agent by a new one on the current repository.
    void recreateAgent();

    // Requests the agent made since the log was last cleared.
    int64_t requests(std::string const& fn = "*") { return drive->countRequests(fn); }

    std::unique_ptr<TAVO::Backup::TransferAgentGoogleDrive> agent;
    std::string rootId;       // the Drive root
    std::string containerId;  // "/C"
    std::string targetId;     // "/C/T"
};
