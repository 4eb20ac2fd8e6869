// The emulator process over real pipes: every request, paging, transfers,
// refusals, and how it copes with lines that are not requests.
#include <gtest/gtest.h>

#include <set>

#include "drive_control.h"
#include "emulator_process.h"

using namespace DriveEmulator;
using namespace EmulatorTest;

namespace {

class Protocol : public AccountTest {
  protected:
    void SetUp() override {
        AccountTest::SetUp();
        emulator = start();
    }
    Json::Value list(std::string const& query, std::string const& token = "") {
        Json::Value r = req({{"fn", "listObjects"}, {"queryFilter", query}});
        if (!token.empty()) r["pageToken"] = token;
        return emulator->call(r);
    }
    std::vector<std::string> names(Json::Value const& listing) {
        std::vector<std::string> result;
        for (auto const& o : listing["objects"]) result.push_back(o["name"].asString());
        return result;
    }
    std::unique_ptr<EmulatorProcess> emulator;
};

void expectFailure(Json::Value const& response, int code, std::string const& message) {
    EXPECT_FALSE(response["success"].asBool()) << response;
    EXPECT_EQ(code, response["error_code"].asInt()) << response;
    if (!message.empty()) {
        EXPECT_EQ(message, response["error_message"].asString());
    }
}

}  // namespace

TEST_F(Protocol, ObjectRecordsCarryEveryField) {
    std::string dir = drive->mkdir("root", "dir");
    std::string file = drive->put(dir, "f.bin", "hello");
    drive->setMtime(file, 4000000000);  // beyond 31 bits: sent unsigned
    drive->trash(file);
    Json::Value r = emulator->call(req({{"fn", "getObjectMeta"}, {"id", file}}));
    EXPECT_TRUE(r["success"].asBool());
    EXPECT_EQ(file, r["id"].asString());
    EXPECT_EQ("f.bin", r["name"].asString());
    EXPECT_EQ(1u, r["parents"].size());
    EXPECT_EQ(dir, r["parents"][0].asString());
    Json::Value const& p = r["properties"];
    EXPECT_FALSE(p["isDir"].asBool());
    EXPECT_EQ(5u, p["size"].asUInt64());
    EXPECT_EQ(4000000000u, p["lastModified"].asUInt64());
    EXPECT_EQ("5d41402abc4b2a76b9719d911017c592", p["md5Checksum"].asString());
    EXPECT_TRUE(p["isTrash"].asBool());  // lookups by id still see the trash

    Json::Value root = emulator->call(req({{"fn", "getObjectMeta"}, {"id", "root"}}));
    EXPECT_EQ(drive->rootId(), root["id"].asString());
    EXPECT_FALSE(root.isMember("name"));
    EXPECT_EQ(0u, root["parents"].size());
    EXPECT_TRUE(root["properties"]["isDir"].asBool());

    drive->put("root", "f", "1234");
    drive->setQuota(5000000000000LL);
    Json::Value account = emulator->call(req({{"fn", "getAccountInfo"}}));
    EXPECT_EQ("tester@example.com", account["account"].asString());
    EXPECT_EQ("Test User", account["userName"].asString());
    EXPECT_EQ(5000000000000LL, account["quota"].asInt64());
    EXPECT_EQ(9, account["usedSize"].asInt64());
}

// Every refusal as the service words it; nothing is changed by any.
TEST_F(Protocol, Refusals) {
    std::string file = drive->put("root", "file", "x");
    std::string dir = drive->mkdir("root", "d");
    std::string local = data + "/in.bin";
    writeFile(local, "0123456789");
    drive->setQuota(10);
    struct Case {
        Json::Value request;
        int code;
        std::string message;  // empty: not checked
    } const cases[] = {
        {req({{"fn", "getObjectMeta"}, {"id", "1missing"}}), 404, "File not found: 1missing."},
        {req({{"fn", "createFolder"}, {"name", "x"}, {"parentId", "1nope"}}), 404,
         "File not found: 1nope."},
        {req({{"fn", "createFolder"}, {"name", "x"}, {"parentId", file}}), 400,
         "The specified parent is not a folder."},
        {req({{"fn", "deleteObject"}, {"id", "1gone"}}), 404, "File not found: 1gone."},
        {req({{"fn", "deleteObject"}, {"id", "root"}}), 403, ""},
        {req({{"fn", "downloadFile"}, {"id", dir}, {"outputPath", data + "/out"}}), 403,
         "Only files with binary content can be downloaded."},
        {req({{"fn", "downloadFile"}, {"id", "1gone"}, {"outputPath", data + "/out"}}), 404, ""},
        {req({{"fn", "downloadFile"}, {"id", file}, {"outputPath", data + "/no/such/out"}}), -1,
         ""},
        {req({{"fn", "uploadFile"}, {"name", "f"}, {"parentId", "1nope"}, {"inputPath", local}}),
         404, "File not found: 1nope."},
        {req({{"fn", "uploadFile"}, {"name", "f"}, {"parentId", file}, {"inputPath", local}}), 400,
         ""},
        {req({{"fn", "uploadFile"},
              {"name", "f"},
              {"parentId", "root"},
              {"inputPath", data + "/missing"}}),
         -1, ""},
        {req({{"fn", "uploadFile"}, {"name", "f"}, {"parentId", "root"}, {"inputPath", local}}),
         403, "The user's Drive storage quota has been exceeded."},
        {req({{"fn", "updateFile"}, {"id", dir}, {"inputPath", local}}), 400, ""},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.request.toStyledString());
        expectFailure(emulator->transfer(c.request).back(), c.code, c.message);
    }
    EXPECT_EQ(2u, drive->children("root").size());
    EXPECT_EQ(1, drive->account().usedSize);
    // An update that keeps within the quota (10 bytes in place of 1) is fine.
    EXPECT_TRUE(emulator->transfer(req({{"fn", "updateFile"}, {"id", file}, {"inputPath", local}}))
                    .back()["success"]
                    .asBool());
}

TEST_F(Protocol, ListingsFilterByParentAndNameWithoutCase) {
    std::string a = drive->mkdir("root", "a");
    drive->put(a, "Target", "1");
    drive->put(a, "other", "2");
    std::string trashed = drive->put(a, "target", "3");
    drive->trash(trashed);
    drive->put("root", "target", "elsewhere");

    Json::Value all = list("('" + a + "' in parents)");
    EXPECT_EQ((std::vector<std::string>{"Target", "other"}), names(all));
    EXPECT_FALSE(all.isMember("nextPageToken"));
    EXPECT_EQ((std::vector<std::string>{"Target"}),
              names(list("('" + a + "' in parents) and (name = 'TARGET')")));
    EXPECT_TRUE(names(list("('" + a + "' in parents) and (name = 'nothing')")).empty());
    // "and" binds tighter than "or"; "contains" matches the start of a word.
    EXPECT_EQ((std::vector<std::string>{"Target", "other"}),
              names(list("name = 'other' or name = 'target' and '" + a + "' in parents")));
    EXPECT_EQ((std::vector<std::string>{"Target"}),
              names(list("'" + a + "' in parents and not name = 'other'")));
    EXPECT_EQ((std::vector<std::string>{"Target"}),
              names(list("'" + a + "' in parents and name contains 'tar'")));
    EXPECT_TRUE(names(list("'" + a + "' in parents and name contains 'arg'")).empty());

    // Raw Drive lists the trash too; the setting switches to that.
    Settings s = drive->settings();
    s.listTrashed = true;
    drive->setSettings(s);
    Json::Value raw = list("('" + a + "' in parents) and (name = 'target')");
    ASSERT_EQ(2u, raw["objects"].size());
    EXPECT_TRUE(raw["objects"][1]["properties"]["isTrash"].asBool());
    EXPECT_EQ(2u, list("('" + a + "' in parents) and trashed = false")["objects"].size());

    // A name with an apostrophe must come escaped.
    drive->put(a, "it's", "4");
    EXPECT_EQ(1u, list("'" + a + "' in parents and name = 'it\\'s'")["objects"].size());
    expectFailure(list("('" + a + "' in parents) and (name = 'it's')"), 400, "Invalid Value");
    // An unknown parent lists nothing rather than failing, as Drive does.
    EXPECT_EQ(0u, list("'1unknown' in parents")["objects"].size());
}

TEST_F(Protocol, PagesFollowEachOtherWithOpaqueTokens) {
    std::string a = drive->mkdir("root", "a");
    std::set<std::string> made;
    for (int i = 0; i < 7; ++i) made.insert(drive->put(a, "f" + std::to_string(i), "x"));
    Settings s = drive->settings();
    s.pageSize = 3;
    drive->setSettings(s);

    std::string query = "'" + a + "' in parents";
    std::set<std::string> seen;
    std::vector<size_t> sizes;
    std::string token, firstToken;
    do {
        Json::Value page = list(query, token);
        sizes.push_back(page["objects"].size());
        for (auto const& o : page["objects"]) EXPECT_TRUE(seen.insert(o["id"].asString()).second);
        token = page.get("nextPageToken", "").asString();
        if (firstToken.empty()) firstToken = token;
    } while (!token.empty() && sizes.size() < 10);
    EXPECT_EQ((std::vector<size_t>{3, 3, 1}), sizes);
    EXPECT_EQ(made, seen);

    // A token belongs to its query.
    expectFailure(list("'root' in parents", firstToken), 400, "Invalid Value");
    expectFailure(list(query, "garbage"), 400, "Invalid Value");
    // An object created between pages still shows on a later page.
    Json::Value first = list(query);
    drive->put(a, "late", "x");
    Json::Value rest = list(query, first["nextPageToken"].asString());
    Json::Value last = list(query, rest["nextPageToken"].asString());
    EXPECT_EQ("late", last["objects"][last["objects"].size() - 1]["name"].asString());
}

TEST_F(Protocol, BadLinesAreAnsweredAndServingGoesOn) {
    struct Case {
        char const* line;
        char const* message;
    } const cases[] = {
        {"not json", "Malformed request: not a JSON object"},
        {"{\"fn\": \"getObjectMeta\", \"id\": \"x\"} trailing",
         "Malformed request: not a JSON object"},
        {"{\"id\": \"x\"}", "Missing member 'fn'"},
        {"{\"fn\": \"renameObject\"}", "Unknown function: renameObject"},
        {"{\"fn\": \"getObjectMeta\"}", "Missing member 'id'"},
        {"{\"fn\": \"getObjectMeta\", \"id\": 12}", "Member 'id' must be a string"},
        {"{\"fn\": \"uploadFile\", \"name\": \"n\", \"parentId\": \"root\"}",
         "Missing member 'inputPath'"},
        {"{\"fn\": \"listObjects\", \"queryFilter\": \"'root' in parents\", \"pageToken\": 3}",
         "Member 'pageToken' must be a string"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.line);
        emulator->writeLine(c.line);
        expectFailure(emulator->receive(), 400, c.message);
    }
    // Still serving, and every line was logged.
    EXPECT_TRUE(emulator->call(req({{"fn", "getObjectMeta"}, {"id", "root"}}))["success"].asBool());
    EXPECT_EQ(9, drive->countRequests());
    EXPECT_EQ(3, drive->countRequests("getObjectMeta"));  // the two bad ones count by name
    EXPECT_EQ(0, emulator->finish());                     // end of input ends it cleanly
}

// Contents go both ways through local files; an update keeps the id, the
// empty variants store nothing whatever the local file holds.
TEST_F(Protocol, TransfersStoreWhatWasSent) {
    std::string local = data + "/in.bin", out = data + "/out.bin";
    writeFile(local, "hello");
    writeFile(out, std::string(20000, 'z'));  // truncated, not overwritten in place
    Json::Value done =
        emulator
            ->transfer(req(
                {{"fn", "uploadFile"}, {"name", "f"}, {"parentId", "root"}, {"inputPath", local}}))
            .back();
    std::string id = done["id"].asString();
    EXPECT_EQ(5u, done["properties"]["size"].asUInt64());
    EXPECT_EQ("5d41402abc4b2a76b9719d911017c592", done["properties"]["md5Checksum"].asString());
    EXPECT_TRUE(emulator->transfer(req({{"fn", "downloadFile"}, {"id", id}, {"outputPath", out}}))
                    .back()["complete"]
                    .asBool());
    EXPECT_EQ("hello", readFile(out));

    writeFile(local, "new content!");
    drive->setMtime(id, 1);
    done = emulator->transfer(req({{"fn", "updateFile"}, {"id", id}, {"inputPath", local}})).back();
    EXPECT_EQ(id, done["id"].asString());
    EXPECT_GT(done["properties"]["lastModified"].asUInt64(), 1u);
    EXPECT_EQ("new content!", drive->content(id));
    done = emulator->transfer(req({{"fn", "updateEmptyFile"}, {"id", id}, {"inputPath", local}}))
               .back();
    EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", done["properties"]["md5Checksum"].asString());
    EXPECT_EQ("", drive->content(id));
    done = emulator
               ->transfer(req({{"fn", "uploadEmptyFile"},
                               {"name", "e"},
                               {"parentId", "root"},
                               {"inputPath", local}}))
               .back();
    EXPECT_EQ("", drive->content(done["id"].asString()));
}
