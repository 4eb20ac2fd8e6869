// A test fixture that puts a fresh emulated Drive account behind the
// plug-in: the emulator is laid out under a private TAVO_ROOT, so the agent
// starts it exactly as it would start the real drive agent.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "drive_control.h"
#include "transfer_googledrive.h"

class EmulatedDriveTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // The options the agent is built from: container "C", a valid refresh
    // token, and a cache root in the test's folder.
    TAVO::Backup::Repository& repository() { return _repository; }
    // Replaces the agent by a new one on the current repository (target "T").
    void recreateAgent();

    // Local files in the test's private folder.
    std::string localPath(std::string const& name) const { return _dir + "/local/" + name; }
    std::string writeLocal(std::string const& name, std::string const& content);
    static std::string readFile(std::string const& path);
    static bool fileExists(std::string const& path);
    // Names in the folder of `path` that look like our temporary files.
    static int countTempFilesBeside(std::string const& path);

    // The node cache file of target "T".
    std::string cacheFile() const { return _dir + "/cache/T/ta_cache.node"; }

    // Requests the agent made since the log was last cleared.
    int64_t requests(std::string const& fn = "*") { return drive->countRequests(fn); }

    std::unique_ptr<DriveEmulator::Drive> drive;
    std::unique_ptr<TAVO::Backup::TransferAgentGoogleDrive> agent;
    std::string rootId;       // the Drive root
    std::string containerId;  // "/C"
    std::string targetId;     // "/C/T"

  private:
    std::string _dir;
    TAVO::Backup::Repository _repository;
};
