// Starting the drive agent against the emulator: handshake outcomes, the
// environment left behind.
#include <syslog.h>

#include <cstdlib>
#include <functional>
#include <set>

#include "backup/error.h"
#include "core/core_error.h"
#include "emulated_drive.h"
#include "support/syslog_capture.h"

using namespace TAVO::Backup;
using DriveEmulator::Fault;

namespace {

char const* const kCredentialVars[] = {"GOOGLEDRIVE_ACCESS_TOKEN", "GOOGLEDRIVE_REFRESH_TOKEN",
                                       "TAVO_USER_AGENT", "GOOGLEDRIVE_CLIENT_ID",
                                       "GOOGLEDRIVE_CLIENT_SECRET"};

void expectNoCredentialsInEnvironment() {
    for (char const* var : kCredentialVars) EXPECT_EQ(nullptr, getenv(var)) << var;
}

std::set<int> servingPids(DriveEmulator::Drive& drive) {
    std::set<int> pids;
    for (auto const& entry : drive.requestLog()) pids.insert(entry.pid);
    return pids;
}

}  // namespace

class DriveAgentTest : public EmulatedDriveTest {};

TEST_F(DriveAgentTest, HandshakeSucceedsAndLeavesNoCredentialsBehind) {
    setenv("LANG", "C.UTF-8", 1);
    AccountInfo info;
    ASSERT_TRUE(agent->getAccountInfo(info)) << getError();
    EXPECT_EQ("tester@example.com", info.account);
    EXPECT_EQ("Test User", info.userName);
    EXPECT_TRUE(info.isUnlimitedQuota);
    expectNoCredentialsInEnvironment();
    EXPECT_STREQ("C.UTF-8", getenv("LANG"));

    // A second operation reuses the running agent.
    drive->setQuota(1000);
    drive->put(targetId, "f", std::string(10, 'x'));
    info = AccountInfo();
    ASSERT_TRUE(agent->getAccountInfo(info));
    EXPECT_EQ(2, requests("getAccountInfo"));
    EXPECT_EQ(1u, servingPids(*drive).size());
    EXPECT_EQ(1000, info.quota);
    EXPECT_EQ(10, info.usedSize);
    EXPECT_FALSE(info.isUnlimitedQuota);
}

TEST_F(DriveAgentTest, FailedStartsAreToldApartAndLeaveNoCredentials) {
    SKIP_ON_DRIVE_AGENT("a refused handshake is the first line of the agent process itself");
    std::string const root = getenv("TAVO_ROOT");
    struct Row {
        std::function<void()> arrange;
        int wantError;
        int wantCoreError;
        char const* logged;
    } const rows[] = {
        {[&] { addFault(Fault::refuseHandshake("startle")); }, 1, 0x2a00,
         "agent start failed: startle"},
        {[&] { setenv("TAVO_ROOT", "/nonexistent-root", 1); }, 1, 0x2a00, "TAVOPipeOpen failed"},
        {[&] {
             setenv("TAVO_ROOT", root.c_str(), 1);
             repository().options().set(Repository::SZK_REMOTE_REFRESH_TOKEN, "not base64!");
             recreateAgent();
         },
         2107, 0x300, "connect failed"},
    };
    AccountInfo info;
    for (auto const& row : rows) {
        SCOPED_TRACE(row.logged);
        unsetenv("LANG");
        TestSupport::clearSyslog();
        row.arrange();
        EXPECT_FALSE(agent->getAccountInfo(info));
        EXPECT_EQ(row.wantError, getError());
        EXPECT_EQ(row.wantCoreError, TLIBCErrGet());
        EXPECT_TRUE(TestSupport::syslogHas(row.logged, LOG_ERR));
        expectNoCredentialsInEnvironment();
        EXPECT_EQ(nullptr, getenv("LANG"));
    }
    // Once the cause is gone the next operation starts an agent.
    repository().options().set(Repository::SZK_REMOTE_REFRESH_TOKEN, "cmVmcmVzaA==");
    recreateAgent();
    ASSERT_TRUE(agent->getAccountInfo(info));
}
