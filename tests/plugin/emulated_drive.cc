#include "emulated_drive.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <vector>

using namespace TAVO::Backup;
using DriveEmulator::Fault;
using DriveEmulator::FaultKind;
namespace fs = std::filesystem;

namespace {

// The API method each protocol request calls first, as the fake's failure
// rules name it.
std::string restRoute(std::string const& fn) {
    static std::map<std::string, std::string> const routes = {
        {"getObjectMeta", "files.get"},        {"listObjects", "files.list"},
        {"createFolder", "files.create"},      {"deleteObject", "files.delete"},
        {"getAccountInfo", "about.get"},       {"downloadFile", "files.get media"},
        {"uploadFile", "files.create upload"}, {"uploadEmptyFile", "files.create upload"},
        {"updateFile", "files.update upload"}, {"updateEmptyFile", "files.update upload"},
    };
    auto found = routes.find(fn);
    return found == routes.end() ? "" : found->second;
}

// The emulator's failure answer as Drive sends it: the reason is what the
// agent goes by, the wording what it passes on.
DriveFake::FailRule driveFailure(std::string const& route, Fault const& fault) {
    namespace M = DriveEmulator::Messages;
    std::string message =
        fault.text.empty() ? DriveEmulator::defaultFailureMessage(fault.code) : fault.text;
    std::string reason = message == M::kRateLimit           ? "userRateLimitExceeded"
                         : message == "Rate Limit Exceeded" ? "rateLimitExceeded"
                         : message == M::kQuotaExceeded     ? "storageQuotaExceeded"
                         : fault.code == 404                ? "notFound"
                         : fault.code == 400                ? "badRequest"
                                                            : "backendError";
    return DriveFake::FailRule{route, fault.times, fault.code, reason, message};
}

std::vector<std::string>& skipped() {
    static std::vector<std::string> list;
    return list;
}

// Lists the skips once every test has run.
class SkipReport : public ::testing::Environment {
    void TearDown() override {
        if (skipped().empty()) return;
        std::printf("%zu test(s) skipped against drive_agent and the REST fake:\n",
                    skipped().size());
        for (auto const& line : skipped()) std::printf("  %s\n", line.c_str());
    }
};
::testing::Environment* const kSkipReport = ::testing::AddGlobalTestEnvironment(new SkipReport);

}  // namespace

bool EmulatedAccount::onDriveAgent() {
    static bool const on = [] {
        char const* backend = std::getenv("TAVO_TEST_BACKEND");
        return backend && std::string(backend) == "drive_agent";
    }();
    return on;
}

std::string EmulatedAccount::noteSkip(std::string const& why) {
    auto const* test = ::testing::UnitTest::GetInstance()->current_test_info();
    skipped().push_back(std::string(test->test_suite_name()) + "." + test->name() + ": " + why);
    return "on drive_agent: " + why;
}

void EmulatedAccount::addFault(Fault const& fault) {
    if (!onDriveAgent()) {
        drive->addFault(fault);
        return;
    }
    std::string route = restRoute(fault.fn);
    bool const plain = !route.empty() && fault.nth == 0;
    if (plain && fault.kind == FaultKind::Fail && fault.code >= 400) {
        fake->addFailure(driveFailure(route, fault));
    } else if (plain && fault.kind == FaultKind::FailAfterApply && fault.code >= 400) {
        // The create, or the upload (one request, or a session's last chunk),
        // is committed and then failed.
        bool const upload = fault.fn.rfind("upload", 0) == 0 || fault.fn.rfind("update", 0) == 0;
        DriveFake::FailRule rule = driveFailure(upload ? "/upload/drive/v3/files" : route, fault);
        rule.afterCommit = true;
        fake->addFailure(rule);
    } else if (plain && fault.kind == FaultKind::Delay) {
        DriveFake::FailRule stall;
        stall.match = route;
        stall.times = fault.times;
        stall.delayMs = static_cast<int>(fault.number);
        fake->addFailure(stall);
    } else if (plain && fault.kind == FaultKind::ListingLag && fault.times == 1 &&
               (fault.fn == "createFolder" || fault.fn.rfind("upload", 0) == 0)) {
        fake->lagNextCreation(static_cast<int>(fault.number));
    } else {
        ADD_FAILURE() << "the fault " << DriveEmulator::faultKindName(fault.kind) << " on "
                      << fault.fn << " has no counterpart on the REST fake: skip the test there";
    }
}

EmulatedAccount::EmulatedAccount() {
    _dir = TestSupport::makeTempFolder("gdrive-test");
    DriveEmulator::makeAgentRoot(_dir + "/root", _dir + "/data");
    if (onDriveAgent()) {
        std::string program = _dir + "/root" + DriveEmulator::kAgentProgram;
        fs::remove(program);
        fs::create_symlink(PROTOCOL_TAP_BINARY, program);
    }
    reset();
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
    fake.reset();
    drive.reset();
    std::error_code ignored;
    fs::remove_all(_dir, ignored);
}

void EmulatedAccount::reset() {
    fake.reset();
    drive = std::make_unique<DriveEmulator::Drive>(DriveEmulator::Drive::init(_dir + "/data"));
    fs::remove_all(_dir + "/cache");
    fs::remove_all(_dir + "/local");
    fs::create_directory(_dir + "/local");
    if (onDriveAgent()) {
        fake = std::make_unique<DriveFake::FakeDrive>(_dir + "/data");
        fake->setRefreshToken("refresh");  // what the repository's token decodes to
        std::ofstream(_dir + "/root/usr/bin/drive_agent.conf")
            << "api_url = " << fake->url() << "\ntoken_url = " << fake->url() << "/token\n";
    }
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

void EmulatedDriveTest::TearDown() {
    if (onDriveAgent()) {
        EXPECT_TRUE(drive->faults().empty())
            << "a rule in the emulator's table does nothing on drive_agent: use addFault";
    }
}

void EmulatedDriveTest::recreateAgent() {
    agent.reset();
    agent = newAgent();
}
