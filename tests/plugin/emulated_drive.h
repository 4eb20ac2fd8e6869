// A fresh emulated Drive account behind the plug-in: the emulator is laid
// out under a private TAVO_ROOT, so an agent starts it exactly as it would
// start the real drive agent. The plug-in's tests and the fault sweep share it.
//
// With TAVO_TEST_BACKEND=drive_agent the plug-in starts drive_agent instead,
// in front of the REST fake serving the same account, through protocol_tap,
// which logs every request in the account's request log as the emulator does.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "drive_control.h"
#include "fake_drive.h"
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

    // True on the run against drive_agent and the REST fake.
    static bool onDriveAgent();
    // Records why the running test is skipped on that run and returns the reason.
    static std::string noteSkip(std::string const& why);

    // A fault of the service: the emulator's rule, or on drive_agent the
    // fake's failure, stall or listing lag that the plug-in sees alike. A
    // fault without such a counterpart fails the test there: skip it instead.
    void addFault(DriveEmulator::Fault const& fault);

    std::unique_ptr<DriveEmulator::Drive> drive;
    std::unique_ptr<DriveFake::FakeDrive> fake;  // only on drive_agent

  protected:
    std::string _dir;

  private:
    TAVO::Backup::Repository _repository;
};

// The account with container "/C" and target "/C/T" made, and an agent on them.
class EmulatedDriveTest : public ::testing::Test, public EmulatedAccount {
  protected:
    void SetUp() override;
    void TearDown() override;
    // Replaces the agent by a new one on the current repository.
    void recreateAgent();

    // Requests the agent made since the log was last cleared.
    int64_t requests(std::string const& fn = "*") { return drive->countRequests(fn); }

    std::unique_ptr<TAVO::Backup::TransferAgentGoogleDrive> agent;
    std::string rootId;       // the Drive root
    std::string containerId;  // "/C"
    std::string targetId;     // "/C/T"
};

// Skips the running test on the drive_agent run, where its fault would live
// inside the agent's own process; the run lists every such skip at its end.
#define SKIP_ON_DRIVE_AGENT(why)                                                             \
    do {                                                                                     \
        if (EmulatedAccount::onDriveAgent()) GTEST_SKIP() << EmulatedAccount::noteSkip(why); \
    } while (0)
