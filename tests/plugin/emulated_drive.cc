#include "emulated_drive.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

using namespace TAVO::Backup;
namespace fs = std::filesystem;

EmulatedAccount::EmulatedAccount() {
    _dir = TestSupport::makeTempFolder("gdrive-test");
    reset();
    DriveEmulator::makeAgentRoot(_dir + "/root", _dir + "/data");
    setenv("TAVO_ROOT", (_dir + "/root").c_str(), 1);
    unsetenv("DRIVE_EMULATOR_DATA");
    // Retry pauses last no time at all.
    setenv("TAVO_AGENT_PAUSE_UNIT_MS", "0", 1);
    _repository.options().set(Repository::SZK_REMOTE_BUCKET, "C");
    _repository.options().set(Repository::SZK_REMOTE_ACCESS_TOKEN, "access");
    _repository.options().set(Repository::SZK_REMOTE_REFRESH_TOKEN, "cmVmcmVzaA==");
    _repository.setCacheRoot(_dir + "/cache");
}

EmulatedAccount::~EmulatedAccount() {
    drive.reset();
    std::error_code ignored;
    fs::remove_all(_dir, ignored);
}

void EmulatedAccount::reset() {
    drive = std::make_unique<DriveEmulator::Drive>(DriveEmulator::Drive::init(_dir + "/data"));
    fs::remove_all(_dir + "/cache");
    fs::remove_all(_dir + "/local");
    fs::create_directory(_dir + "/local");
}

std::unique_ptr<TransferAgentGoogleDrive> EmulatedAccount::newAgent() {
    auto agent = std::make_unique<TransferAgentGoogleDrive>(_repository);
    agent->setTargetId("T");
    agent->setTransferOption(Task("T"));
    return agent;
}

std::string EmulatedAccount::writeLocal(std::string const& name, std::string const& content) {
    writeFile(localPath(name), content);
    return localPath(name);
}

bool EmulatedAccount::fileExists(std::string const& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

int EmulatedAccount::countTempFilesBeside(std::string const& path) {
    int count = 0;
    std::error_code ignored;
    for (auto const& entry : fs::directory_iterator(fs::path(path).parent_path(), ignored))
        count += entry.path().filename().string().find(".tmp.") != std::string::npos;
    return count;
}

void EmulatedDriveTest::SetUp() {
    rootId = drive->rootId();
    containerId = drive->mkdir(rootId, "C");
    targetId = drive->mkdir(containerId, "T");
    recreateAgent();
}

void EmulatedDriveTest::recreateAgent() {
    agent.reset();
    agent = newAgent();
}
