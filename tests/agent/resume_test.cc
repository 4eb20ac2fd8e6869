// Transfers that survive a flaky network and a service that misbehaves:
// dropped connections, expired upload sessions, short Range answers, tokens
// that expire, refused grants and failing requests.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "agent_fixture.h"
#include "background_digest.h"
#include "backup/error.h"
#include "googledrive_client.h"
#include "googledrive_error.h"
#include "http.h"
#include "upload.h"

using namespace AgentTest;

namespace {

class Transfers : public ::testing::Test, public AgentOnFake {};

}  // namespace

TEST_F(Transfers, ExpiredSessionStartsAgainAndShortOrIgnoredRangesAreFollowedUp) {
    std::string input = scratch + "/in";
    writePattern(input, 40 * MiB);
    auto agent = start();
    fake->expireSessions(1);
    Json::Value up = agent->transfer(EmulatorTest::upload(drive->rootId(), input, "x")).back();
    ASSERT_TRUE(up["success"].asBool()) << up;
    EXPECT_EQ(2, fake->counters().sessions.load());
    EXPECT_EQ(fileMd5(input), drive->stat(up["id"].asString()).md5);

    fake->limitMediaAnswers(3 * MiB);
    // The second answer starts at the beginning again: the file and its hash
    // must start over with it.
    fake->ignoreNextRanges(2);
    Json::Value down = download(*agent, up["id"].asString());
    ASSERT_TRUE(down["success"].asBool()) << down;
    EXPECT_EQ(fileMd5(input), fileMd5(scratch + "/out"));
}

// Drive stored a create and failed it all the same (the one request of a
// small file, every answer to a large one's last chunk): the file is asked
// for by its id, or the repeated upload meets it under its id (409) and
// brings it up to date; a folder create sent again reuses its id and meets
// the folder the first one made.
TEST_F(Transfers, ACreateStoredThenFailedMakesOneObject) {
    auto agent = start();
    auto committedThenFailed = [&](char const* match, int times) {
        DriveFake::FailRule rule;
        rule.match = match;
        rule.times = times;
        rule.afterCommit = true;
        fake->addFailure(rule);
    };
    struct Case {
        std::int64_t size;
        int failures;  // a large file: the chunk and each status query after it
        int attempts;  // a small file: the first answer is the failure
    } const cases[] = {{DriveAgent::kWholeUpload, 1, 2}, {DriveAgent::kWholeUpload + 1, 7, 1}};
    for (Case const& c : cases) {
        SCOPED_TRACE(c.size);
        std::string input = scratch + "/in", name = std::to_string(c.size);
        writePattern(input, c.size);
        committedThenFailed("/upload/drive/v3/files", c.failures);
        Json::Value up;
        for (int i = 0; i < c.attempts; ++i)
            up = agent->transfer(EmulatorTest::upload(drive->rootId(), input, name)).back();
        EXPECT_TRUE(up["success"].asBool()) << up;
        auto made = drive->lookup(drive->rootId(), name);
        ASSERT_EQ(1u, made.size());
        EXPECT_EQ(fileMd5(input), made[0].md5);
    }

    Json::Value mkdir = req({{"fn", "createFolder"}, {"name", "d"}, {"parentId", drive->rootId()}});
    committedThenFailed("files.create", 1);
    EXPECT_EQ(503, agent->call(mkdir)["error_code"].asInt());
    Json::Value again = agent->call(mkdir);
    EXPECT_TRUE(again["success"].asBool()) << again;
    auto made = drive->lookup(drive->rootId(), "d");
    ASSERT_EQ(1u, made.size());
    EXPECT_EQ(made[0].id, again["id"].asString());
}

TEST(BackgroundDigest, LapsItsRingAndStartsOverWhateverItWasStillHashing) {
    DriveAgent::BackgroundDigest digest(EVP_md5());
    // Three times round its ring of a MiB, in pieces that straddle its end,
    // coming slower than they are hashed (as a download's do), so that the
    // whole ring is free when the end is reached; bytes that differ from one
    // lap to the next.
    std::string bulk(3 * MiB, '\0');
    for (size_t i = 0; i < bulk.size(); ++i) bulk[i] = static_cast<char>(i % 251);
    for (size_t at = 0; at < bulk.size(); at += 100000) {
        digest.add(bulk.data() + at, std::min<size_t>(100000, bulk.size() - at));
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    EXPECT_EQ("b9e8be962fa541bad8cd7e526acd4ffc", digest.hexDigest());
    digest.add(bulk.data(), bulk.size());  // still being hashed when reset comes
    digest.reset();
    digest.add("abc", 3);
    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", digest.hexDigest());
}

TEST(Tokens, RenewedBeforeExpiryAndOnceAfterARefusal) {
    AgentOnFake onFake;
    // A 1 s life is renewed after 750 ms. The calls come 1.1 s apart, past
    // that point, so each renews first: a 401 would take a whole second
    // between grant and request. (Calls just before the renewal point would
    // leave the old token 250 ms to arrive: too little on a loaded machine.)
    onFake.fake->setTokenLife(1);
    auto agent = onFake.start({{"GOOGLEDRIVE_ACCESS_TOKEN", std::string()}});
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(
            agent->call(req({{"fn", "getObjectMeta"}, {"id", "root"}}))["success"].asBool());
        std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    }
    EXPECT_EQ(0, onFake.fake->counters().unauthorized.load());
    EXPECT_EQ(3, onFake.fake->counters().tokenGrants.load());
    // A token the service stops honouring early costs one refused request.
    onFake.fake->setTokenLife(3600);
    EXPECT_TRUE(agent->call(req({{"fn", "getObjectMeta"}, {"id", "root"}}))["success"].asBool());
    onFake.fake->expireAccessTokens();
    EXPECT_TRUE(agent->call(req({{"fn", "getAccountInfo"}}))["success"].asBool());
    EXPECT_EQ(1, onFake.fake->counters().unauthorized.load());
}

TEST(Tokens, RevokedGrantIsRefusedCredentialsOnTheFirstRequest) {
    AgentOnFake onFake;
    onFake.fake->revokeGrant();
    auto agent = onFake.start({{"GOOGLEDRIVE_ACCESS_TOKEN", std::string()}});
    Json::Value answer = agent->call(req({{"fn", "getObjectMeta"}, {"id", "root"}}));
    TAVO::Backup::setError(0);
    EXPECT_FALSE(TAVO::Backup::googledriveConverTransferResponse(false, answer, true, "test", 1));
    EXPECT_EQ(2107, TAVO::Backup::getError()) << answer;
}

TEST(ServiceFailures, ReachThePluginByReasonAfterRetryAfter) {
    AgentOnFake onFake;
    auto agent = onFake.start();
    DriveFake::FailRule quota{"POST /upload", 1, 403,  "storageQuotaExceeded",
                              "Quota gone",   0, false};
    DriveFake::FailRule proxyPage{"GET /drive/v3/files/root", 1, 502, "", "", 0, true};
    DriveFake::FailRule slowDown{"GET /drive/v3/about", 1, 503,  "backendError",
                                 "Backend Error",       1, false};
    onFake.fake->addFailure(quota);
    onFake.fake->addFailure(proxyPage);
    onFake.fake->addFailure(slowDown);
    writeFile(onFake.scratch + "/in", "data");
    Json::Value refused =
        agent->transfer(EmulatorTest::upload("root", onFake.scratch + "/in")).back();
    EXPECT_EQ(403, refused["error_code"].asInt());
    EXPECT_EQ("The user's Drive storage quota has been exceeded.",
              refused["error_message"].asString());
    EXPECT_EQ(502,
              agent->call(req({{"fn", "getObjectMeta"}, {"id", "root"}}))["error_code"].asInt());
    auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(503, agent->call(req({{"fn", "getAccountInfo"}}))["error_code"].asInt());
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(950));
    // The next attempt is served.
    EXPECT_TRUE(agent->call(req({{"fn", "getAccountInfo"}}))["success"].asBool());
}

TEST(ServiceFailures, UploadStoredWrongIsRetryableAndLeavesNoObject) {
    AgentOnFake onFake;
    auto agent = onFake.start();
    writeFile(onFake.scratch + "/in", "data");
    onFake.fake->corruptNextUpload();
    Json::Value answer =
        agent->transfer(EmulatorTest::upload("root", onFake.scratch + "/in")).back();
    EXPECT_EQ(-4, answer["error_code"].asInt()) << answer;
    EXPECT_TRUE(onFake.drive->children(onFake.drive->rootId()).empty());
}

TEST(ServiceFailures, DownloadOfOtherBytesIsRefusedWhicheverChecksumTheFileHas) {
    AgentOnFake onFake;
    auto agent = onFake.start();
    std::string input = onFake.scratch + "/in";
    writePattern(input, 3 * MiB);
    std::string uploaded =
        agent->transfer(EmulatorTest::upload(onFake.drive->rootId(), input, "new"))
            .back()["id"]
            .asString();
    // Stored without the service's help: only an MD5, as the oldest files.
    std::string stored = onFake.drive->put(onFake.drive->rootId(), "old", readFile(input));
    for (std::string const& id : {uploaded, stored}) {
        SCOPED_TRACE(id == uploaded ? "SHA-256" : "MD5 only");
        auto download = [&] { return onFake.download(*agent, id); };
        onFake.fake->corruptNextDownload();
        Json::Value damaged = download();
        EXPECT_EQ(-4, damaged["error_code"].asInt()) << damaged;
        Json::Value intact = download();
        ASSERT_TRUE(intact["success"].asBool()) << intact;
        EXPECT_EQ(fileMd5(input), fileMd5(onFake.scratch + "/out"));
    }
}

TEST(Tls, VerifiedAlwaysAndATestCaOnlyForLoopback) {
    AgentOnFake onFake(false, true);
    auto trusting = onFake.start();
    EXPECT_TRUE(trusting->call(req({{"fn", "getObjectMeta"}, {"id", "root"}}))["success"].asBool());
    // The handshake's User-Agent goes with every request.
    EXPECT_EQ("Coffervault/1.0", onFake.fake->lastUserAgent());
    onFake.configure("");
    auto plain = onFake.start();
    // A certificate nobody vouches for (a proxy, a wrong clock) does not pass:
    // said in words, under a code the plug-in does not retry.
    Json::Value refused = plain->call(req({{"fn", "getObjectMeta"}, {"id", "root"}}));
    EXPECT_EQ(-6, refused["error_code"].asInt()) << refused;
    EXPECT_NE(std::string::npos,
              refused["error_message"].asString().find("certificate was refused"));
    EXPECT_FALSE(TAVO::Backup::needRetry(refused));
    for (char const* url : {"https://127.0.0.1:8080/x", "http://[::1]/", "https://localhost"}) {
        EXPECT_TRUE(DriveAgent::isLoopbackUrl(url)) << url;
    }
    for (char const* url : {"https://127.0.0.1.example.com/", "https://localhost.example.com",
                            "https://www.googleapis.com"}) {
        EXPECT_FALSE(DriveAgent::isLoopbackUrl(url)) << url;
    }
}
