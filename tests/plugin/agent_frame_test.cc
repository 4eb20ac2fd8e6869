// The agent object without a drive agent: settings and remote paths.
#include <gtest/gtest.h>
#include <syslog.h>

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
