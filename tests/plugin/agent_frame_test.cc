// The agent object without a drive agent: settings, remote paths, the
// operation trace, and the plug-in as the engine loads it.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdio>
#include <set>

#include "backup/error.h"
#include "support/syslog_capture.h"
#include "transfer_googledrive.h"

using namespace TAVO::Backup;

namespace {
Repository makeRepository(bool withContainer, bool withRefresh) {
    Repository repo;
    if (withContainer) repo.options().set(Repository::SZK_REMOTE_BUCKET, "C");
    if (withRefresh) repo.options().set(Repository::SZK_REMOTE_REFRESH_TOKEN, "dG9rZW4=");
    return repo;
}
}  // namespace

TEST(AgentSettings, IsValidNeedsContainerAndRefreshToken) {
    TestSupport::clearSyslog();
    TransferAgentGoogleDrive noContainer(makeRepository(false, true));
    setError(0);
    EXPECT_FALSE(noContainer.isValid());
    EXPECT_EQ(3, getError());
    EXPECT_TRUE(TestSupport::capturedSyslog().empty());

    TransferAgentGoogleDrive noRefresh(makeRepository(true, false));
    setError(0);
    EXPECT_FALSE(noRefresh.isValid());
    EXPECT_EQ(3, getError());
    EXPECT_TRUE(TestSupport::syslogHas("transfer_googledrive:", LOG_ERR));
    EXPECT_TRUE(TestSupport::syslogHas(" getRemoteConnect failed", LOG_ERR));
    // Remote operations fail before starting anything.
    AccountInfo info;
    setError(0);
    EXPECT_FALSE(noRefresh.getAccountInfo(info));
    EXPECT_EQ(3, getError());
    EXPECT_TRUE(TestSupport::syslogHas("create client failed [3]", LOG_ERR));

    // The access token is optional: the agent refreshes it.
    EXPECT_TRUE(TransferAgentGoogleDrive(makeRepository(true, true)).isValid());
}

TEST(RemotePath, MapsUnderContainerAndTarget) {
    TransferAgentGoogleDrive agent(makeRepository(true, true));
    TransferAgentGoogleDrive noTarget(makeRepository(true, true));
    TransferAgentGoogleDrive nothing(makeRepository(false, true));
    agent.setTargetId("T");
    struct Row {
        TransferAgentGoogleDrive const& agent;
        char const* path;
        bool trim;
        char const* want;
    } const rows[] = {
        {agent, "", true, "/C/T"},          {agent, "/", true, "/C/T"},
        {agent, "a/b/", true, "/C/T/a/b"},  {agent, "a/b", true, "/C/T/a/b"},
        {agent, "a//", true, "/C/T/a"},     {agent, "///", true, "/C/T"},
        {agent, "a//b", true, "/C/T/a//b"}, {agent, "a/", false, "/C/T/a/"},
        {noTarget, "x", true, "/C/x"},      {nothing, "", true, "/"},
        {nothing, "/", true, "/"},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.path);
        EXPECT_EQ(row.want, row.agent.getRemotePath(row.path, row.trim));
    }
    EXPECT_EQ("", nothing.getContainer());
}

TEST(OperationTrace, WritesOneLineOnlyWhenDebugging) {
    std::vector<std::string> lines;
    TransferAgent::setDebugSink([&](std::string const& line) { lines.push_back(line); });
    TransferAgentGoogleDrive agent(makeRepository(false, true));
    FileInfo info;

    TransferAgent::setDebug(false);
    setError(77);
    EXPECT_FALSE(agent.sendFile("/tmp/x", "a", TransferAgent::ProgressHook(), true, info));
    EXPECT_TRUE(lines.empty());

    TransferAgent::setDebug(true);
    EXPECT_FALSE(agent.sendFile("/tmp/x", "a", TransferAgent::ProgressHook(), true, info));
    EXPECT_FALSE(agent.sendFile("/tmp/x", "", TransferAgent::ProgressHook(), true, info));
    TransferAgent::setDebug(false);
    TransferAgent::setDebugSink(boost::function<void(std::string const&)>());

    ASSERT_EQ(2u, lines.size());
    double seconds = -1;
    char rest[256] = {};
    ASSERT_EQ(2, sscanf(lines[0].c_str(), "%lf %255[^\n]", &seconds, rest));
    EXPECT_STREQ("sendFile(/tmp/x, a) [3]", rest);
    EXPECT_NE(std::string::npos, lines[1].find(" sendFile(/tmp/x) [3]"));
}

TEST(PluginModule, ExportsOnlyTheThreeEntryPoints) {
    // The host tool loads the module and makes its agents; only the export list is checked here.
    void* handle = dlopen(PLUGIN_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, handle) << dlerror();
    typedef void* (*GetManager)();
    auto getTarget = reinterpret_cast<GetManager>(dlsym(handle, "getTargetManager"));
    ASSERT_NE(nullptr, getTarget);
    EXPECT_EQ(nullptr, getTarget());
    std::set<std::string> exported;
    FILE* nm = popen("nm -D --defined-only " PLUGIN_MODULE_PATH, "r");
    ASSERT_NE(nullptr, nm);
    char type = 0;
    char name[512];
    unsigned long long address = 0;
    while (fscanf(nm, "%llx %c %511s", &address, &type, name) == 3) exported.insert(name);
    pclose(nm);
    EXPECT_EQ((std::set<std::string>{"getTargetManager", "getTransferAgent", "getVersionManager"}),
              exported);
    dlclose(handle);
}
