// Starting the drive agent and exchanging requests with it, against the
// emulator: handshake outcomes, the environment left behind, reconnection,
// and the retry policy as the emulator's request log shows it.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <set>

#include "backup/error.h"
#include "core/core_error.h"
#include "emulated_drive.h"
#include "googledrive_client.h"
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

// Exposes the child's pid to tell one drive agent from the next.
class InspectableClient : public GoogleDriveClient {
  public:
    pid_t pid() const { return _child_pid; }
};

bool processGone(pid_t pid) { return kill(pid, 0) != 0 && errno == ESRCH; }

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
    std::string const root = getenv("TAVO_ROOT");
    struct Row {
        std::function<void()> arrange;
        int wantError;
        int wantCoreError;
        char const* logged;
    } const rows[] = {
        {[&] { drive->addFault(Fault::refuseHandshake("startle")); }, 1, 0x2a00,
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

TEST_F(DriveAgentTest, ReconnectingReplacesTheAgentAndReapsIt) {
    InspectableClient client;
    ASSERT_TRUE(client.connect("a", "cmVmcmVzaA==", true));
    pid_t first = client.pid();
    ASSERT_TRUE(client.connect("a", "cmVmcmVzaA==", true));
    pid_t second = client.pid();
    EXPECT_NE(first, second);
    EXPECT_TRUE(processGone(first));
    client.close();
    EXPECT_FALSE(client.isConnected());
    EXPECT_TRUE(processGone(second));
    // A cancel hook that fires stops the start without side effects.
    client.setCancelHook([] { return true; });
    EXPECT_FALSE(client.connect("a", "cmVmcmVzaA==", true));
    EXPECT_FALSE(client.isConnected());
    expectNoCredentialsInEnvironment();
}

TEST_F(DriveAgentTest, TransientFailuresAreRetriedUntilSuccess) {
    drive->addFault(Fault::fail("getAccountInfo", 503).forNext(3));
    AccountInfo info;
    ASSERT_TRUE(agent->getAccountInfo(info));
    EXPECT_EQ(4, requests("getAccountInfo"));
}

TEST_F(DriveAgentTest, RateLimitThatOutlastsTheRetriesIsARefusal) {
    drive->addFault(Fault::fail("getAccountInfo", 403, "User Rate Limit Exceeded").always());
    AccountInfo info;
    EXPECT_FALSE(agent->getAccountInfo(info));
    EXPECT_EQ(2000, getError());
    EXPECT_EQ(10, requests("getAccountInfo"));
}

TEST_F(DriveAgentTest, CancelHookStopsRequestsThatChangeThings) {
    AccountInfo info;
    GoogleDrive::FileMeta meta;
    // Before any agent runs, a canceled start is a failed connection.
    agent->setCancelHook([] { return true; });
    EXPECT_FALSE(agent->getAccountInfo(info));
    EXPECT_EQ(1, getError());
    EXPECT_EQ(0, requests());

    bool cancel = false;
    agent->setCancelHook([&] { return cancel; });
    ASSERT_TRUE(agent->getAccountInfo(info));
    drive->clearRequestLog();
    cancel = true;
    EXPECT_FALSE(agent->getAccountInfo(info));
    EXPECT_EQ(4, getError());
    EXPECT_FALSE(agent->createFolder("x", targetId, meta));
    EXPECT_EQ(4, getError());
    EXPECT_FALSE(agent->removeObject(targetId));
    EXPECT_EQ(4, getError());
    EXPECT_EQ(0, requests());
    EXPECT_TRUE(drive->exists(targetId));
}

// ---- Node cache attachment and persistence ----

class NodeCacheFileTest : public EmulatedDriveTest {};

TEST_F(NodeCacheFileTest, WrittenOnlyWhenChangedAndNeverByTheDestructor) {
    std::string id;
    ASSERT_TRUE(agent->findNodeIdByPath(false, "/C/T", id)) << getError();
    EXPECT_FALSE(fileExists(cacheFile()));  // learning is not saving
    ASSERT_TRUE(agent->flushCache());
    ASSERT_TRUE(fileExists(cacheFile()));
    std::string saved = readFile(cacheFile());
    EXPECT_NE(std::string::npos, saved.find("\"i\":\"" + targetId + "\""));

    // Nothing new learned: flushing again leaves the file alone.
    ASSERT_EQ(0, unlink(cacheFile().c_str()));
    ASSERT_TRUE(agent->flushCache());
    EXPECT_FALSE(fileExists(cacheFile()));

    // Changed but not flushed: the destructor writes nothing.
    GoogleDrive::FileMeta meta;
    ASSERT_TRUE(agent->createFolder("new", targetId, meta));
    agent.reset();
    EXPECT_FALSE(fileExists(cacheFile()));
}

TEST_F(NodeCacheFileTest, ANewAgentResolvesFromTheSavedCacheOrMemoryWithoutAFolder) {
    for (bool withFolder : {true, false}) {
        SCOPED_TRACE(withFolder);
        if (!withFolder) repository().setCacheRoot("");
        recreateAgent();
        std::string id;
        ASSERT_TRUE(agent->findNodeIdByPath(false, "/C/T", id));
        ASSERT_TRUE(agent->flushCache());
        EXPECT_EQ(withFolder, fileExists(cacheFile()));
        if (withFolder) recreateAgent();
        drive->clearRequestLog();
        ASSERT_TRUE(agent->findNodeIdByPath(true, "/C/T", id));
        EXPECT_EQ(targetId, id);
        EXPECT_EQ(0, requests());
        if (withFolder) {
            ASSERT_EQ(0, unlink(cacheFile().c_str()));
        }
    }
}

TEST_F(NodeCacheFileTest, UnreadableOrGarbageFileIsReplacedByTheNextFlush) {
    std::string dir = cacheFile().substr(0, cacheFile().rfind('/'));
    for (bool folderInItsPlace : {true, false}) {
        SCOPED_TRACE(folderInItsPlace);
        ASSERT_EQ(0, system(("rm -rf '" + dir + "' && mkdir -p '" + dir + "'").c_str()));
        if (folderInItsPlace) {
            // Cannot be read, not even by root.
            ASSERT_EQ(0, mkdir(cacheFile().c_str(), 0700));
        } else {
            writeLocal("junk", std::string("\x00\x01garbage\n{\"broken\n", 18));
            ASSERT_EQ(0, rename(localPath("junk").c_str(), cacheFile().c_str()));
        }
        recreateAgent();
        std::string id;
        ASSERT_TRUE(agent->findNodeIdByPath(false, "/C/T", id));
        ASSERT_TRUE(agent->flushCache());
        std::string saved = readFile(cacheFile());
        EXPECT_EQ(std::string::npos, saved.find("garbage"));
        EXPECT_NE(std::string::npos, saved.find(targetId));
    }
}
