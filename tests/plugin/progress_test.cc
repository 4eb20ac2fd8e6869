// The transfer loop against a drive agent that plays an exact transcript:
// how progress messages become byte counts, and what a re-sent request does
// to them.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "backup/error.h"
#include "transfer_googledrive.h"

using namespace TAVO::Backup;

class ProgressTest : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/progress-test-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        _dir = tmpl;
        std::string bin = _dir + "/root/usr/bin";
        ASSERT_EQ(0, system(("mkdir -p '" + bin + "'").c_str()));
        ASSERT_EQ(0, symlink(SCRIPTED_AGENT_PATH, (bin + "/python").c_str()));
        setenv("TAVO_ROOT", (_dir + "/root").c_str(), 1);
        setenv("TAVO_AGENT_PAUSE_UNIT_MS", "0", 1);
        setenv("SCRIPTED_AGENT_TRANSCRIPT", (_dir + "/transcript").c_str(), 1);
        Repository repo;
        repo.options().set(Repository::SZK_REMOTE_BUCKET, "C");
        repo.options().set(Repository::SZK_REMOTE_REFRESH_TOKEN, "cmVmcmVzaA==");
        agent = std::make_unique<TransferAgentGoogleDrive>(repo);
    }
    void TearDown() override {
        agent.reset();
        EXPECT_EQ(0, system(("rm -rf '" + _dir + "'").c_str()));
    }

    void transcript(std::string const& text) { std::ofstream(_dir + "/transcript") << text; }

    int requestsSent() {
        std::ifstream in(_dir + "/transcript.requests");
        int n = 0;
        for (std::string line; std::getline(in, line);) ++n;
        return n;
    }

    // Runs one transfer of `size` bytes and returns the increments reported.
    std::vector<long> run(long size, bool& ok) {
        std::vector<long> increments;
        Json::Value request;
        request["fn"] = "downloadFile";
        request["id"] = "x";
        request["outputPath"] = _dir + "/out";
        ok = agent->checkAndCreateClient() &&
             agent->sendRequestAndUpdateProgress(request, size, [&](long delta) {
                 increments.push_back(delta);
                 return true;
             });
        return increments;
    }

    std::unique_ptr<TransferAgentGoogleDrive> agent;

private:
    std::string _dir;
};

TEST_F(ProgressTest, ReportsOnlyGrowthOfTheHighestPosition) {
    transcript(
        "<\n"
        "> {\"success\":true,\"complete\":false,\"progress\":0.5}\n"
        "> {\"success\":true,\"complete\":false,\"progress\":0.5}\n"
        "> {\"success\":true,\"complete\":false,\"progress\":0.25}\n"
        "> {\"success\":true,\"complete\":false,\"progress\":1.0}\n"
        "> {\"success\":true}\n");
    bool ok = false;
    EXPECT_EQ((std::vector<long>{500, 500}), run(1000, ok));
    EXPECT_TRUE(ok);  // a final message without "complete" ends the transfer
}

TEST_F(ProgressTest, ResentRequestKeepsThePositionAlreadyReported) {
    transcript(
        "<\n"
        "> {\"success\":true,\"complete\":false,\"progress\":0.6}\n"
        "> {\"success\":false,\"error_code\":503,\"error_message\":\"Backend Error\"}\n"
        "<\n"
        "> {\"success\":true,\"complete\":false,\"progress\":0.3}\n"
        "> {\"success\":true,\"complete\":false,\"progress\":0.8}\n"
        "> {\"success\":true,\"complete\":false,\"progress\":1.0}\n"
        "> {\"success\":true,\"complete\":true}\n");
    bool ok = false;
    EXPECT_EQ((std::vector<long>{600, 200, 200}), run(1000, ok));
    EXPECT_TRUE(ok);
    EXPECT_EQ(2, requestsSent());
}

TEST_F(ProgressTest, EmptyFileNeverReportsProgress) {
    transcript(
        "<\n"
        "> {\"success\":true,\"complete\":false,\"progress\":0.5}\n"
        "> {\"success\":true,\"complete\":false,\"progress\":1.0}\n"
        "> {\"success\":true,\"complete\":true}\n");
    bool ok = false;
    EXPECT_TRUE(run(0, ok).empty());
    EXPECT_TRUE(ok);
}

TEST_F(ProgressTest, NonRetryableFailureEndsTheTransferWithItsCode) {
    transcript(
        "<\n"
        "> {\"success\":true,\"complete\":false,\"progress\":0.4}\n"
        "> {\"success\":false,\"error_code\":404,\"error_message\":\"File not found\"}\n");
    bool ok = true;
    EXPECT_EQ((std::vector<long>{400}), run(1000, ok));
    EXPECT_FALSE(ok);
    EXPECT_EQ(2003, getError());
    EXPECT_EQ(1, requestsSent());
}

TEST_F(ProgressTest, AgentThatStopsMidTransferFailsIt) {
    transcript(
        "<\n"
        "> {\"success\":true,\"complete\":false,\"progress\":0.4}\n");
    bool ok = true;
    run(1000, ok);
    EXPECT_FALSE(ok);
    EXPECT_EQ(1, getError());
    // Nothing more can be sent on the closed channel.
    setError(0);
    long size = 1000;
    EXPECT_FALSE(agent->sendRequestAndUpdateProgress(Json::Value(), size, {}));
    EXPECT_EQ(1, getError());
}
