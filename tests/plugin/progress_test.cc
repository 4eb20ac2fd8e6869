// The plug-in against a drive agent that plays an exact transcript, for
// message sequences no service sends on demand: how progress messages become
// byte counts, what a re-sent request does to them, and listing pages that
// loop.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "backup/error.h"
#include "support/files.h"
#include "support/syslog_capture.h"
#include "transfer_googledrive.h"

using namespace TAVO::Backup;

class ScriptedAgentTest : public ::testing::Test {
  protected:
    void SetUp() override {
        _dir = TestSupport::makeTempFolder("progress-test");
        std::string bin = _dir + "/root/usr/bin";
        ASSERT_EQ(0, system(("mkdir -p '" + bin + "'").c_str()));
        ASSERT_EQ(0, symlink(SCRIPTED_AGENT_PATH, (bin + "/python").c_str()));
        setenv("TAVO_ROOT", (_dir + "/root").c_str(), 1);
        setenv("TAVO_AGENT_PAUSE_UNIT_MS", "0", 1);
        setenv("SCRIPTED_AGENT_TRANSCRIPT", (_dir + "/transcript").c_str(), 1);
        repo.options().set(Repository::SZK_REMOTE_BUCKET, "C");
        repo.options().set(Repository::SZK_REMOTE_REFRESH_TOKEN, "cmVmcmVzaA==");
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

    Repository repo;
    std::unique_ptr<TransferAgentGoogleDrive> agent;
    std::string _dir;
};

// Transcript lines: one progress message for each fraction, then `final`.
std::string progressing(std::vector<double> const& fractions, std::string const& final) {
    std::string out;
    for (double f : fractions)
        out += "> {\"success\":true,\"complete\":false,\"progress\":" + std::to_string(f) + "}\n";
    return out + (final.empty() ? "" : "> " + final + "\n");
}

TEST_F(ScriptedAgentTest, ReportsOnlyGrowthAndEndsOnTheFinalAnswer) {
    auto expect = [&](long size, std::vector<long> want, bool wantOk, int error, int requests,
                      std::string const& text) {
        SCOPED_TRACE(text);
        transcript(text);
        agent = std::make_unique<TransferAgentGoogleDrive>(repo);
        setError(0);
        Json::Value request;
        request["fn"] = "downloadFile";
        std::vector<long> increments;
        ASSERT_TRUE(agent->checkAndCreateClient());
        EXPECT_EQ(wantOk, agent->sendRequestAndUpdateProgress(request, size, [&](long delta) {
            increments.push_back(delta);
            return true;
        }));
        EXPECT_EQ(want, increments);
        EXPECT_EQ(error, getError());
        EXPECT_EQ(requests, requestsSent());
        unlink((_dir + "/transcript.requests").c_str());
    };
    // A final message without "complete" ends the transfer.
    expect(1000, {500, 500}, true, 0, 1,
           "<\n" + progressing({0.5, 0.5, 0.25, 1.0}, R"({"success":true})"));
    // A re-sent request keeps the position already reported.
    expect(1000, {600, 200, 200}, true, 0, 2,
           "<\n" + progressing({0.6}, R"({"success":false,"error_code":503})") + "<\n" +
               progressing({0.3, 0.8, 1.0}, R"({"success":true,"complete":true})"));
    expect(0, {}, true, 0, 1,
           "<\n" + progressing({0.5, 1.0}, R"({"success":true,"complete":true})"));
    // A final failure ends the transfer with its code; so does an agent that stops.
    expect(1000, {400}, false, 2003, 1,
           "<\n" + progressing({0.4}, R"({"success":false,"error_code":404})"));
    expect(1000, {400}, false, 1, 1, "<\n" + progressing({0.4}, ""));
    // Nothing more can be sent on the channel the last agent closed.
    setError(0);
    long size = 1000;
    EXPECT_FALSE(agent->sendRequestAndUpdateProgress(Json::Value(), size, {}));
    EXPECT_EQ(1, getError());
}

TEST_F(ScriptedAgentTest, ATokenSeenBeforeEndsTheListing) {
    transcript(
        "<\n> {\"success\":true,\"nextPageToken\":\"t1\"}\n"
        "<\n> {\"success\":true,\"nextPageToken\":\"t2\"}\n"
        "<\n> {\"success\":true,\"nextPageToken\":\"t1\"}\n"
        "<\n> {\"success\":true}\n");
    agent = std::make_unique<TransferAgentGoogleDrive>(repo);
    std::list<GoogleDrive::FileMeta> list;
    EXPECT_FALSE(agent->listObjects("p", "", list));
    EXPECT_EQ(1, getError());
    EXPECT_TRUE(TestSupport::syslogHas("page token [t1] repeats", LOG_ERR));
    EXPECT_EQ(3, requestsSent());
}
