#include "emulated_drive.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

using namespace TAVO::Backup;
namespace fs = std::filesystem;

void EmulatedDriveTest::SetUp() {
    char tmpl[] = "/tmp/gdrive-test-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(tmpl));
    _dir = tmpl;
    ASSERT_EQ(0, mkdir((_dir + "/local").c_str(), 0700));

    drive = std::make_unique<DriveEmulator::Drive>(DriveEmulator::Drive::init(_dir + "/data"));
    DriveEmulator::makeAgentRoot(_dir + "/root", _dir + "/data");
    setenv("TAVO_ROOT", (_dir + "/root").c_str(), 1);
    unsetenv("DRIVE_EMULATOR_DATA");
    // Retry pauses in tests last no time at all.
    setenv("TAVO_AGENT_PAUSE_UNIT_MS", "0", 1);

    rootId = drive->rootId();
    containerId = drive->mkdir(rootId, "C");
    targetId = drive->mkdir(containerId, "T");

    _repository.options().set(Repository::SZK_REMOTE_BUCKET, "C");
    _repository.options().set(Repository::SZK_REMOTE_ACCESS_TOKEN, "access");
    _repository.options().set(Repository::SZK_REMOTE_REFRESH_TOKEN, "cmVmcmVzaA==");
    _repository.setCacheRoot(_dir + "/cache");
    recreateAgent();
}

void EmulatedDriveTest::recreateAgent() {
    agent.reset();
    agent = std::make_unique<TransferAgentGoogleDrive>(_repository);
    agent->setTargetId("T");
    agent->setTransferOption(Task("T"));
}

void EmulatedDriveTest::TearDown() {
    agent.reset();
    drive.reset();
    std::error_code ignored;
    if (!_dir.empty()) fs::remove_all(_dir, ignored);
}

std::string EmulatedDriveTest::writeLocal(std::string const& name, std::string const& content) {
    std::string path = localPath(name);
    std::ofstream(path, std::ios::binary) << content;
    return path;
}

std::string EmulatedDriveTest::readFile(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

bool EmulatedDriveTest::fileExists(std::string const& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

int EmulatedDriveTest::countTempFilesBeside(std::string const& path) {
    int count = 0;
    std::error_code ignored;
    for (auto const& entry : fs::directory_iterator(fs::path(path).parent_path(), ignored))
        count += entry.path().filename().string().find(".tmp.") != std::string::npos;
    return count;
}
