// Fault rules, each kind seen through the pipe as the plug-in would see it,
// and their persistence from one emulator process to the next.
#include <gtest/gtest.h>

#include <chrono>

#include "drive_control.h"
#include "emulator_process.h"

using namespace DriveEmulator;
using namespace EmulatorTest;

namespace {

class Faults : public ::testing::Test {
  protected:
    void SetUp() override { drive.emplace(Drive::init(data)); }
    void TearDown() override {
        drive.reset();
        removeTree(data);
    }

    // A started emulator; the test fails if it does not say "start".
    std::unique_ptr<EmulatorProcess> start() {
        auto process = std::make_unique<EmulatorProcess>(data);
        EXPECT_TRUE(process->handshake());
        return process;
    }

    static Json::Value meta(std::string const& id) {
        Json::Value r;
        r["fn"] = "getObjectMeta";
        r["id"] = id;
        return r;
    }
    static Json::Value mkdir(std::string const& name) {
        Json::Value r;
        r["fn"] = "createFolder";
        r["name"] = name;
        r["parentId"] = "root";
        return r;
    }
    Json::Value download(std::string const& id) {
        Json::Value r;
        r["fn"] = "downloadFile";
        r["id"] = id;
        r["outputPath"] = data + "/out";
        return r;
    }
    void progressEvery(std::int64_t bytes) {
        Settings s = drive->settings();
        s.progressBytes = bytes;
        drive->setSettings(s);
    }
    static std::vector<double> fractions(std::vector<Json::Value> const& messages) {
        std::vector<double> result;
        for (auto const& m : messages) {
            if (!m.get("complete", true).asBool()) result.push_back(m["progress"].asDouble());
        }
        return result;
    }

    std::string data = makeTempFolder("emulator-faults");
    std::optional<Drive> drive;
};

}  // namespace

TEST_F(Faults, FailWithEachCodeOnce) {
    struct Case {
        int code;
        char const* message;  // empty: the code's usual message
        char const* expected;
    } const cases[] = {
        {500, "", "Internal Error"},
        {503, "Backend Error", "Backend Error"},
        {408, "", "Request Timeout"},
        {401, "", "Invalid Credentials"},
        {403, "User Rate Limit Exceeded", "User Rate Limit Exceeded"},
        {-2, "", "connection to the service failed"},
        {-4, "", "the service did not answer in time"},
        {-3, "", "user canceled"},
    };
    auto emulator = start();
    for (auto const& c : cases) {
        SCOPED_TRACE(c.code);
        drive->addFault(Fault::fail("getObjectMeta", c.code, c.message));
        Json::Value failed = emulator->call(meta("root"));
        EXPECT_FALSE(failed["success"].asBool());
        EXPECT_EQ(c.code, failed["error_code"].asInt());
        EXPECT_EQ(c.expected, failed["error_message"].asString());
        EXPECT_TRUE(emulator->call(meta("root"))["success"].asBool());  // transient: once
        LogEntry logged = drive->requestLog().at(drive->requestLog().size() - 2);
        EXPECT_EQ(c.code, logged.errorCode);
        drive->clearFaults();
    }
}

TEST_F(Faults, TriggersCountMatchingRequestsOnly) {
    auto emulator = start();
    auto outcomes = [&](int n) {
        std::string result;
        for (int i = 0; i < n; ++i) {
            result += emulator->call(meta("root"))["success"].asBool() ? "+" : "-";
            // Requests of another name never count against the rule.
            EXPECT_TRUE(emulator->call(mkdir("d"))["success"].asBool());
        }
        drive->clearFaults();
        return result;
    };
    for (int n = 1; n <= 3; ++n) {
        SCOPED_TRACE(n);
        drive->addFault(Fault::fail("getObjectMeta", 503).onNth(n));
        std::string expected(4, '+');
        expected[n - 1] = '-';
        EXPECT_EQ(expected, outcomes(4));
    }
    drive->addFault(Fault::fail("getObjectMeta", 503).forNext(2));
    EXPECT_EQ("--++", outcomes(4));
    drive->addFault(Fault::fail("getObjectMeta", 503).always());
    EXPECT_EQ("----", outcomes(4));
    drive->addFault(Fault::fail("getObjectMeta", 503).onNth(2).always());
    EXPECT_EQ("+---", outcomes(4));

    // "*" watches every request; a failed creation creates nothing.
    drive->addFault(Fault::fail("*", 500).forNext(1));
    size_t before = drive->children("root").size();
    EXPECT_EQ(500, emulator->call(mkdir("never"))["error_code"].asInt());
    EXPECT_EQ(before, drive->children("root").size());
    auto rules = drive->faults();
    ASSERT_EQ(1u, rules.size());
    EXPECT_EQ(1, rules[0].fired);
    EXPECT_TRUE(emulator->call(meta("root"))["success"].asBool());
    EXPECT_EQ(2, drive->faults()[0].seen);
}

TEST_F(Faults, RulesReachTheNextProcess) {
    drive->addFault(Fault::fail("getObjectMeta", 500).onNth(2));
    {
        auto first = start();
        EXPECT_TRUE(first->call(meta("root"))["success"].asBool());
        EXPECT_EQ(0, first->finish());
    }
    auto second = start();
    EXPECT_EQ(500, second->call(meta("root"))["error_code"].asInt());
    EXPECT_TRUE(second->call(meta("root"))["success"].asBool());
    std::vector<LogEntry> log = drive->requestLog();
    ASSERT_EQ(3u, log.size());
    EXPECT_NE(log[0].pid, log[1].pid);
}

TEST_F(Faults, DelayThenServe) {
    drive->addFault(Fault::delay("getAccountInfo", 300));
    auto emulator = start();
    Json::Value r;
    r["fn"] = "getAccountInfo";
    auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(emulator->call(r)["success"].asBool());
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(300));
}

TEST_F(Faults, ExitBeforeAnsweringLeavesTheModelUntouched) {
    drive->addFault(Fault::exitBeforeAnswer("createFolder"));
    auto emulator = start();
    emulator->send(mkdir("lost"));
    EXPECT_FALSE(emulator->readLine().has_value());
    EXPECT_EQ(3, emulator->finish());
    EXPECT_TRUE(drive->lookup("root", "lost").empty());
    EXPECT_EQ(1, drive->countRequests("createFolder"));
}

// A creation applied whose answer is lost, by an exit or a line cut short,
// with its object missing from the next name listing as well: what makes a
// retry create a duplicate.
TEST_F(Faults, CreationAppliedAnswerLostAndNameListingLagging) {
    std::string local = data + "/in";
    writeFile(local, "content");
    Json::Value upload = mkdir("made");
    upload["fn"] = "uploadFile";
    upload["inputPath"] = local;
    for (auto const& request : {mkdir("made"), upload}) {
        for (Fault answerLost : {Fault::exitAfterApply("*"), Fault::cutAnswer("*")}) {
            SCOPED_TRACE(request["fn"].asString() + " " + faultKindName(answerLost.kind));
            drive->addFault(answerLost);
            drive->addFault(Fault::listingLag(1));
            auto emulator = start();
            EXPECT_TRUE(emulator->transfer(request).back().isNull());  // no final answer
            EXPECT_EQ(3, emulator->finish());
            bool cut = answerLost.kind == FaultKind::CutAnswer;
            EXPECT_EQ(cut, emulator->unfinished().rfind("{\"", 0) == 0) << emulator->unfinished();
            auto made = drive->lookup("root", "made");
            ASSERT_EQ(1u, made.size());

            Json::Value byName;
            byName["fn"] = "listObjects";
            byName["queryFilter"] = "('root' in parents) and (name = 'made')";
            auto next = start();
            EXPECT_EQ(0u, next->call(byName)["objects"].size());
            EXPECT_EQ(1u, next->call(byName)["objects"].size());
            drive->remove(made[0].id);
            drive->clearFaults();
        }
    }
}

TEST_F(Faults, ExitAfterSomeProgressMessages) {
    std::string file = drive->put("root", "f", std::string(1000, 'x'));
    progressEvery(100);
    drive->addFault(Fault::exitAfterProgress("downloadFile", 2));
    auto emulator = start();
    auto messages = emulator->transfer(download(file));
    ASSERT_EQ(3u, messages.size());
    EXPECT_EQ((std::vector<double>{0.1, 0.2}), fractions(messages));
    EXPECT_TRUE(messages[2].isNull());  // then nothing: the process is gone
    EXPECT_EQ(3, emulator->finish());

    // An upload that dies half-way stores nothing.
    std::string local = data + "/in";
    writeFile(local, std::string(1000, 'y'));
    drive->addFault(Fault::exitAfterProgress("uploadFile", 5));
    auto again = start();
    Json::Value up = mkdir("f2");
    up["fn"] = "uploadFile";
    up["inputPath"] = local;
    EXPECT_EQ(6u, again->transfer(up).size());
    EXPECT_TRUE(drive->lookup("root", "f2").empty());
}

TEST_F(Faults, GarbageLineInsteadOfAnAnswer) {
    drive->addFault(Fault::garbage("getObjectMeta", "Traceback (most recent call last):"));
    auto emulator = start();
    emulator->send(meta("root"));
    EXPECT_EQ(std::optional<std::string>("Traceback (most recent call last):"),
              emulator->readLine());
    EXPECT_TRUE(emulator->call(meta("root"))["success"].asBool());
}

TEST_F(Faults, DownloadsOneByteShortOrLong) {
    std::string file = drive->put("root", "f", "0123456789");
    drive->addFault(Fault::shortDownload());
    auto emulator = start();
    EXPECT_TRUE(emulator->transfer(download(file)).back()["success"].asBool());
    EXPECT_EQ("012345678", readFile(data + "/out"));
    drive->addFault(Fault::longDownload());
    EXPECT_TRUE(emulator->transfer(download(file)).back()["success"].asBool());
    EXPECT_EQ(11u, readFile(data + "/out").size());
    EXPECT_EQ(0u, readFile(data + "/out").find("0123456789"));
    EXPECT_TRUE(emulator->transfer(download(file)).back()["success"].asBool());
    EXPECT_EQ("0123456789", readFile(data + "/out"));
}

TEST_F(Faults, PlaysAGivenProgressSequence) {
    std::string local = data + "/in";
    writeFile(local, std::string(1000, 'y'));
    progressEvery(100);
    drive->addFault(Fault::progress("uploadFile", {0.5, 0.5, 0.25, 1.0}));
    auto emulator = start();
    Json::Value up = mkdir("f");
    up["fn"] = "uploadFile";
    up["inputPath"] = local;
    auto messages = emulator->transfer(up);
    EXPECT_EQ((std::vector<double>{0.5, 0.5, 0.25, 1.0}), fractions(messages));
    EXPECT_TRUE(messages.back()["complete"].asBool());
    EXPECT_EQ(1000u, messages.back()["properties"]["size"].asUInt64());
}

TEST_F(Faults, RefusedHandshake) {
    drive->addFault(
        Fault::refuseHandshake("GOOGLEDRIVE_REFRESH_TOKEN is not a valid base64 string"));
    drive->addFault(Fault::refuseHandshake("ImportError: No module named drive").onNth(2));
    {
        EmulatorProcess first(data);
        EXPECT_EQ(
            std::optional<std::string>("GOOGLEDRIVE_REFRESH_TOKEN is not a valid base64 string"),
            first.readLine());
        EXPECT_NE(0, first.finish());
    }
    {
        EmulatorProcess second(data);
        EXPECT_EQ(std::optional<std::string>("ImportError: No module named drive"),
                  second.readLine());
        EXPECT_NE(0, second.finish());
    }
    auto third = start();
    EXPECT_TRUE(third->call(meta("root"))["success"].asBool());
    EXPECT_EQ(1, drive->countRequests());  // starts are not requests
}

TEST_F(Faults, NewObjectsLagBehindNameListings) {
    drive->addFault(Fault::listingLag(2, "createFolder"));
    auto emulator = start();
    std::string id = emulator->call(mkdir("Lagging"))["id"].asString();
    ASSERT_FALSE(id.empty());
    Json::Value byName;
    byName["fn"] = "listObjects";
    byName["queryFilter"] = "('root' in parents) and (name = 'lagging')";
    Json::Value byParent;
    byParent["fn"] = "listObjects";
    byParent["queryFilter"] = "('root' in parents)";

    EXPECT_EQ(0u, emulator->call(byName)["objects"].size());
    EXPECT_TRUE(emulator->call(meta(id))["success"].asBool());  // lookups by id do not lag
    EXPECT_EQ(1u, emulator->call(byParent)["objects"].size());  // nor unfiltered listings
    EXPECT_EQ(0u, emulator->call(byName)["objects"].size());
    EXPECT_EQ(1u, emulator->call(byName)["objects"].size());           // caught up after two
    EXPECT_TRUE(emulator->call(mkdir("Prompt"))["success"].asBool());  // the rule fired once
    byName["queryFilter"] = "('root' in parents) and (name = 'Prompt')";
    EXPECT_EQ(1u, emulator->call(byName)["objects"].size());
}
