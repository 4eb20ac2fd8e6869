// The agent against the fake behaving as Drive does where the two could
// agree and both be wrong: indented answers unless asked otherwise, pages
// past a megabyte, answers past any sane size.
#include <gtest/gtest.h>
#include <httplib.h>

#include <chrono>
#include <fstream>

#include "agent_fixture.h"
#include "googledrive_client.h"
#include "utf8.h"

using namespace AgentTest;

namespace {

class RealService : public ::testing::Test, public AgentOnFake {};

}  // namespace

TEST_F(RealService, LargePagesAreReadWholeAndNothingAsksForIndentedAnswers) {
    DriveEmulator::Settings settings = drive->settings();
    settings.pageSize = 1000;
    drive->setSettings(settings);
    std::string folder = drive->mkdir(drive->rootId(), "long names");
    int const count = 400;  // 400 names of 3,000 bytes: a page of 1.3 MB
    for (int i = 0; i < count; ++i) {
        drive->put(folder, std::to_string(i) + std::string(3000, 'n'), "x");
    }
    auto agent = start();
    Json::Value page =
        agent->call(req({{"fn", "listObjects"}, {"queryFilter", "'" + folder + "' in parents"}}));
    ASSERT_TRUE(page["success"].asBool()) << page.toStyledString().substr(0, 300);
    EXPECT_EQ(count, static_cast<int>(page["objects"].size()));
    writeFile(scratch + "/in", "data");
    Json::Value up = agent->transfer(EmulatorTest::upload(folder, scratch + "/in")).back();
    ASSERT_TRUE(up["success"].asBool()) << up;
    Json::Value down = download(*agent, up["id"].asString());
    EXPECT_TRUE(down["success"].asBool()) << down;
    EXPECT_TRUE(agent->call(req({{"fn", "getAccountInfo"}}))["success"].asBool());
    EXPECT_TRUE(
        agent->call(req({{"fn", "createFolder"}, {"name", "d"}, {"parentId", folder}}))["success"]
            .asBool());
    EXPECT_EQ(0, fake->counters().prettyPrinted.load());
}

TEST_F(RealService, AnAnswerPastTheBoundFailsWithAReasonAndIsNotRetried) {
    auto agent = start();
    fake->padNextAnswer(std::int64_t{64} << 20);  // the agent's bound
    Json::Value answer = agent->call(req({{"fn", "getObjectMeta"}, {"id", "root"}}));
    EXPECT_FALSE(answer["success"].asBool());
    EXPECT_EQ(-5, answer["error_code"].asInt()) << answer;
    EXPECT_NE(std::string::npos, answer["error_message"].asString().find("larger than 64 MiB"));
    // The agent goes on with the next request.
    EXPECT_TRUE(agent->call(req({{"fn", "getObjectMeta"}, {"id", "root"}}))["success"].asBool());
}

TEST_F(RealService, GoogleNativeFilesAndShortcutsHaveNoBytesToDownloadOrCompare) {
    std::string doc = drive->put(drive->rootId(), "notes", "editor data");
    std::string shortcut = drive->put(drive->rootId(), "link", "");
    fake->makeNative(doc, "application/vnd.google-apps.document");
    fake->makeNative(shortcut, "application/vnd.google-apps.shortcut");
    auto agent = start();
    struct Case {
        std::string id;
        char const* words;
    } const cases[] = {{doc, "a Google Docs file: no stored bytes to download"},
                       {shortcut, "a shortcut (never followed): no stored bytes to download"}};
    for (Case const& c : cases) {
        SCOPED_TRACE(c.words);
        Json::Value meta = agent->call(req({{"fn", "getObjectMeta"}, {"id", c.id}}));
        EXPECT_EQ(0, meta["properties"]["size"].asInt()) << meta;
        EXPECT_EQ("", meta["properties"]["md5Checksum"].asString()) << meta;
        Json::Value down = download(*agent, c.id);
        EXPECT_EQ(403, down["error_code"].asInt()) << down;
        EXPECT_EQ(c.words, down["error_message"].asString());
        Json::Value verdict = down;
        EXPECT_FALSE(TAVO::Backup::needRetry(verdict));
    }
}

TEST_F(RealService, TransfersGoOnAfterPassingFailuresFromWhereTheyWere) {
    std::string input = scratch + "/in";
    writePattern(input, 40 * MiB);
    auto agent = start({{"TAVO_AGENT_PAUSE_UNIT_MS", "1"}});
    // The second chunk meets a rate limit, the status query after it a 429
    // that asks for a second. (The fake answers a failing chunk before it
    // reads the body, so that answer may reach the agent as a cut
    // connection instead; the bodiless status query's always arrives.)
    fake->addFailure(
        {"upload chunk", 1, 403, "userRateLimitExceeded", "User rate limit", 0, false, 0, 1});
    fake->addFailure({"upload chunk", 1, 429, "rateLimitExceeded", "Rate Limit Exceeded", 1});
    auto started = std::chrono::steady_clock::now();
    Json::Value up = agent->transfer(EmulatorTest::upload(drive->rootId(), input, "x")).back();
    ASSERT_TRUE(up["success"].asBool()) << up;
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(950));
    EXPECT_EQ(2, fake->counters().failuresServed.load());
    EXPECT_EQ(1, fake->counters().sessions.load());
    EXPECT_EQ(fileMd5(input), drive->stat(up["id"].asString()).md5);

    // Downloads in 16 MiB answers; each resume meets a failure first.
    fake->limitMediaAnswers(16 * MiB);
    fake->addFailure({"files.get media", 1, 503, "backendError", "Backend Error", 0, false, 0, 1});
    fake->addFailure({"files.get media", 1, 429, "rateLimitExceeded", "Rate Limit Exceeded"});
    fake->addFailure(
        {"files.get media", 1, 403, "rateLimitExceeded", "Rate Limit Exceeded", 0, false, 0, 1});
    fake->redirectNextMedia(1);
    Json::Value down = download(*agent, up["id"].asString());
    ASSERT_TRUE(down["success"].asBool()) << down;
    EXPECT_EQ(fileMd5(input), fileMd5(scratch + "/out"));
    EXPECT_EQ(40 * MiB, fake->counters().mediaBytes.load());  // nothing fetched twice
    // The first answer came from the redirect's host, which never saw the token.
    EXPECT_EQ(1, fake->counters().redirected.load());
    EXPECT_EQ(0, fake->counters().leakedTokens.load());
}

TEST_F(RealService, AnApiUsageQuotaIsARateLimitNotAFullAccount) {
    auto agent = start();
    fake->addFailure({"about.get", 1, 403, "quotaExceeded", "Quota exceeded for quota metric."});
    Json::Value answer = agent->call(req({{"fn", "getAccountInfo"}}));
    EXPECT_EQ(403, answer["error_code"].asInt()) << answer;
    EXPECT_EQ("Rate Limit Exceeded", answer["error_message"].asString());
    EXPECT_TRUE(TAVO::Backup::needRetry(answer));
}

TEST_F(RealService, AFileFlaggedAsAbusiveIsRestoredByItsOwner) {
    std::string id = drive->put(drive->rootId(), "flagged", "bytes Drive dislikes");
    fake->flagAbusive(id);
    auto agent = start();
    Json::Value down = download(*agent, id);
    ASSERT_TRUE(down["success"].asBool()) << down;
    EXPECT_EQ("bytes Drive dislikes", readFile(scratch + "/out"));
}

TEST_F(RealService, TheFakeAnswersOnlyTheFieldsAskedForAndKnowsItsClients) {
    httplib::Client direct("127.0.0.1", fake->port());
    std::string grant = "grant_type=refresh_token&refresh_token=1//0gRefreshToken";
    auto stranger = direct.Post("/token", grant + "&client_id=other&client_secret=x",
                                "application/x-www-form-urlencoded");
    ASSERT_TRUE(stranger);
    EXPECT_EQ(401, stranger->status);
    httplib::Headers auth = bearer();
    std::string id = drive->put(drive->rootId(), "f", "x");
    struct Case {
        std::string target;
        std::string body;  // compact
    } const cases[] = {
        {"/drive/v3/files/" + id + "?fields=id&prettyPrint=false", "{\"id\":\"" + id + "\"}"},
        {"/drive/v3/files?q=name%3D%27f%27&fields=files(name)&prettyPrint=false",
         "{\"files\":[{\"name\":\"f\"}]}"},
        {"/drive/v3/about?fields=user(displayName)&prettyPrint=false",
         "{\"user\":{\"displayName\":\"" + drive->account().userName + "\"}}"},
    };
    for (Case const& c : cases) {
        auto answer = direct.Get(c.target.c_str(), auth);
        ASSERT_TRUE(answer) << c.target;
        EXPECT_EQ(c.body, answer->body) << c.target;
    }
    // The agent, against this fake, still finds everything it reads.
    auto agent = start();
    Json::Value record = agent->call(req({{"fn", "getObjectMeta"}, {"id", id}}));
    EXPECT_EQ("f", record["name"].asString()) << record;
    EXPECT_EQ(1, record["properties"]["size"].asInt());
    EXPECT_EQ(drive->stat(id).md5, record["properties"]["md5Checksum"].asString());
    EXPECT_LT(0, record["properties"]["lastModified"].asInt64());
    EXPECT_FALSE(record["properties"]["isTrash"].isNull());
}

TEST_F(RealService, ADestinationInASharedDriveLivesBelowTheDrivesRootAndWithinItsLimit) {
    std::string const team = drive->mkdir(drive->rootId(), "Team");
    drive->put(drive->rootId(), "mine", "in My Drive");
    fake->makeSharedDrive(team, 3);
    std::ofstream(scratch + "/drive_agent.conf", std::ios::app)
        << "shared_drive = " << team << "\n";
    auto agent = start();
    EXPECT_EQ(team, agent->call(req({{"fn", "getObjectMeta"}, {"id", "root"}}))["id"].asString());
    Json::Value folder =
        agent->call(req({{"fn", "createFolder"}, {"name", "Backups"}, {"parentId", "root"}}));
    ASSERT_TRUE(folder["success"].asBool()) << folder;
    Json::Value top =
        agent->call(req({{"fn", "listObjects"}, {"queryFilter", "'root' in parents"}}));
    ASSERT_EQ(1u, top["objects"].size()) << top;  // neither "mine" nor the drive itself
    EXPECT_EQ("Backups", top["objects"][0]["name"].asString());
    writeFile(scratch + "/in", "backup data");
    std::string const into = folder["id"].asString();
    Json::Value up = agent->transfer(EmulatorTest::upload(into, scratch + "/in")).back();
    ASSERT_TRUE(up["success"].asBool()) << up;
    EXPECT_TRUE(download(*agent, up["id"].asString())["success"].asBool());
    EXPECT_TRUE(
        agent->call(req({{"fn", "createFolder"}, {"name", "third"}, {"parentId", into}}))["success"]
            .asBool());
    Json::Value full =
        agent->transfer(EmulatorTest::upload(into, scratch + "/in", "fourth")).back();
    EXPECT_EQ(403, full["error_code"].asInt()) << full;
    EXPECT_EQ(
        "the shared drive holds Drive's limit of 400,000 items; nothing more can be stored in it",
        full["error_message"].asString());
    EXPECT_FALSE(TAVO::Backup::needRetry(full));
    EXPECT_TRUE(agent->call(req({{"fn", "deleteObject"}, {"id", up["id"].asString()}}))["success"]
                    .asBool());
}

TEST_F(RealService, NamesThatAreNotUtf8TravelAsValidTextAndComeBackByteForByte) {
    auto agent = start();
    std::string const root = drive->rootId();
    // Latin-1, bytes never valid in UTF-8, valid UTF-8, and one of the
    // stand-ins' own code points (U+10FE80), which must not be taken for one.
    for (std::string name :
         {"latin1-\xe9t\xe9", "\xff\xfe", "\xc3\xa9t\xc3\xa9", "\xf4\x8f\xba\x80"}) {
        SCOPED_TRACE(name);
        Json::Value made =
            agent->call(req({{"fn", "createFolder"}, {"name", name}, {"parentId", root}}));
        ASSERT_TRUE(made["success"].asBool()) << made;
        EXPECT_EQ(name, made["name"].asString());
        std::string stored = drive->stat(made["id"].asString()).name;
        EXPECT_TRUE(Utf8::isValid(stored));
        EXPECT_EQ(name == "\xc3\xa9t\xc3\xa9", stored == name);
        Json::Value found = agent->call(
            req({{"fn", "listObjects"},
                 {"queryFilter", "name = '" + name + "' and '" + root + "' in parents"}}));
        ASSERT_EQ(1u, found["objects"].size()) << found;
        EXPECT_EQ(name, found["objects"][0]["name"].asString());
    }
    writeFile(scratch + "/in", "x");
    Json::Value up = agent->transfer(EmulatorTest::upload(root, scratch + "/in", "caf\xe9")).back();
    EXPECT_EQ("caf\xe9", up["name"].asString()) << up;
}
