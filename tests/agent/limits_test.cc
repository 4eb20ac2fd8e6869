// Drive's limits as the fake models them and the agent meets them: a write rate,
// one multipart request per small file, ids in batches that grow with the work.
#include <gtest/gtest.h>
#include <httplib.h>
#include <sys/stat.h>

#include <chrono>
#include <thread>

#include "agent_fixture.h"
#include "googledrive_client.h"
#include "upload.h"

using namespace AgentTest;

namespace {

class Limits : public ::testing::Test, public AgentOnFake {
  protected:
    bool mkdir(EmulatorProcess& agent, std::string const& name) {
        return agent
            .call(req({{"fn", "createFolder"}, {"name", name}, {"parentId", "root"}}))["success"]
            .asBool();
    }
};

}  // namespace

TEST_F(Limits, WritesPastTheBurstAreRefusedAsDriveRefusesThemAndReadsNever) {
    auto agent = start();
    fake->setLatency(20);
    auto started = std::chrono::steady_clock::now();
    EXPECT_TRUE(agent->call(req({{"fn", "getObjectMeta"}, {"id", "root"}}))["success"].asBool());
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(40));
    fake->setLatency(0);
    fake->throttleWrites(3, 10);
    started = std::chrono::steady_clock::now();
    int made = 0;
    Json::Value refused;
    writePattern(scratch + "/in", 64 << 10);
    while (refused.isNull() && made < 40) {
        Json::Value answer = agent
                                 ->transfer(EmulatorTest::upload(drive->rootId(), scratch + "/in",
                                                                 std::to_string(made)))
                                 .back();
        if (answer["success"].asBool())
            ++made;
        else
            refused = answer;
    }
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    EXPECT_GE(made, 10);
    EXPECT_LE(made, 11 + int(seconds * 3));
    // The request rate limit, retried by the plug-in; never the daily limit.
    EXPECT_EQ(403, refused["error_code"].asInt()) << refused;
    EXPECT_EQ("User Rate Limit Exceeded", refused["error_message"].asString());
    EXPECT_TRUE(TAVO::Backup::needRetry(refused));
    EXPECT_EQ(1, fake->counters().throttled.load());
    // The refused body is not taken for the next request on the connection.
    EXPECT_TRUE(agent->call(req({{"fn", "getObjectMeta"}, {"id", "root"}}))["success"].asBool());
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    EXPECT_TRUE(mkdir(*agent, "later"));
    fake->throttleWrites(0);
    for (int i = 0; i < 20; ++i) EXPECT_TRUE(mkdir(*agent, "e" + std::to_string(i)));
    // One call of 250 ids served every create so far; the 251st asks for twice that.
    EXPECT_EQ(1, fake->requestCounts()["files.generateIds"]);
    for (int i = made + 22; i <= 250; ++i) EXPECT_TRUE(mkdir(*agent, "f" + std::to_string(i)));
    EXPECT_EQ(2, fake->requestCounts()["files.generateIds"]);
    EXPECT_EQ(750, fake->counters().idsGenerated.load());
}

TEST_F(Limits, FilesUpToTheCutoffGoInOneRequestWithTheirModifiedTime) {
    std::string id = drive->put(drive->rootId(), "full", "some bytes");
    std::string const in = scratch + "/in";
    auto agent = start();
    struct Case {
        char const* fn;
        std::int64_t size;
        int sessions;  // resumable sessions opened so far
    } const cases[] = {{"uploadEmptyFile", 0, 0},
                       {"uploadFile", 1, 0},
                       {"updateFile", DriveAgent::kWholeUpload, 0},
                       {"updateEmptyFile", 0, 0},
                       {"updateFile", DriveAgent::kWholeUpload + 1, 1}};
    std::int64_t when = 1500000000;
    for (Case const& c : cases) {
        SCOPED_TRACE(std::string(c.fn) + " " + std::to_string(c.size));
        writePattern(in, c.size, static_cast<unsigned>(++when));
        struct timespec const times[2] = {{when, 0}, {when, 250000000}};
        ASSERT_EQ(0, ::utimensat(AT_FDCWD, in.c_str(), times, 0));
        Json::Value request = req({{"fn", c.fn}, {"inputPath", in}, {"id", id}});
        if (c.fn[1] == 'p' && c.fn[2] == 'l')
            request = req({{"fn", c.fn}, {"inputPath", in}, {"name", "new"}, {"parentId", "root"}});
        Json::Value done = agent->transfer(request).back();
        ASSERT_TRUE(done["success"].asBool()) << done;
        EXPECT_EQ(when, done["properties"]["lastModified"].asInt64());
        DriveEmulator::Object stored = drive->stat(done["id"].asString());
        EXPECT_EQ(when, stored.mtime);
        EXPECT_EQ(fileMd5(in), stored.md5);
        EXPECT_EQ(c.sessions, fake->counters().sessions.load());
    }
    auto counts = fake->requestCounts();
    EXPECT_EQ(2, counts["files.create upload"]);
    EXPECT_EQ(3, counts["files.update upload"]);  // the large one's session start among them
    EXPECT_EQ(1, counts["upload chunk"]);
}

TEST_F(Limits, TheFakeTakesOnlyMultipartBodiesAsDriveDocumentsThem) {
    httplib::Client direct("127.0.0.1", fake->port());
    httplib::Headers auth = bearer();
    std::string const meta = "{\"name\":\"m\",\"parents\":[\"" + drive->rootId() + "\"]}";
    auto part = [](std::string const& type, std::string const& body) {
        return "--b\r\n" + (type.empty() ? "" : "Content-Type: " + type + "\r\n") + "\r\n" + body +
               "\r\n";
    };
    std::string const json = part("application/json; charset=UTF-8", meta);
    std::string const data = part("application/octet-stream", "data");
    struct Case {
        char const* what;
        std::string type;
        std::string body;
        int status;
    } const cases[] = {
        {"well formed", "multipart/related; boundary=b", json + data + "--b--", 200},
        {"quoted boundary", "multipart/related; boundary=\"b\"", json + data + "--b--\r\n", 200},
        {"no boundary", "multipart/related", json + data + "--b--", 400},
        {"other boundary", "multipart/related; boundary=c", json + data + "--b--", 400},
        {"one part", "multipart/related; boundary=b", json + "--b--", 400},
        {"three parts", "multipart/related; boundary=b", json + data + data + "--b--", 400},
        {"not closed", "multipart/related; boundary=b", json + data, 400},
        {"metadata not JSON", "multipart/related; boundary=b",
         part("application/json", "{name") + data + "--b--", 400},
        {"content first", "multipart/related; boundary=b", data + json + "--b--", 400},
        {"content without type", "multipart/related; boundary=b", json + part("", "x") + "--b--",
         400},
        {"bytes after the end", "multipart/related; boundary=b", json + data + "--b--junk", 400},
        {"past 5 MB", "multipart/related; boundary=b",
         json + part("application/octet-stream", std::string(5000001, 'x')) + "--b--", 400},
    };
    for (Case const& c : cases) {
        auto answer = direct.Post("/upload/drive/v3/files?uploadType=multipart", auth, c.body,
                                  c.type.c_str());
        ASSERT_TRUE(answer) << c.what;
        EXPECT_EQ(c.status, answer->status) << c.what << ": " << answer->body;
    }
    EXPECT_EQ(2u, drive->lookup(drive->rootId(), "m").size());
}
