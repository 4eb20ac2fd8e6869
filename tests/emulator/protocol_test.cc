// The emulator process over real pipes: records, listings and paging,
// refusals, and how it copes with lines that are not requests.
#include <gtest/gtest.h>

#include <set>

#include "drive_control.h"
#include "emulator_process.h"
#include "wire_format.h"

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
    std::string names(std::string const& query) {
        std::string result;
        Json::Value const listing = list(query);
        for (auto const& o : listing["objects"]) result += o["name"].asString() + ";";
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

TEST_F(Protocol, RecordsCarryEveryField) {
    std::string dir = drive->mkdir("root", "dir");
    std::string file = drive->put(dir, "f.bin", "hello");
    drive->setMtime(file, 4000000000);  // beyond 31 bits: sent unsigned
    drive->trash(file);
    Json::Value r = emulator->call(req({{"fn", "getObjectMeta"}, {"id", file}}));
    EXPECT_EQ("f.bin", r["name"].asString());
    EXPECT_EQ(dir, r["parents"][0].asString());
    Json::Value const& p = r["properties"];
    EXPECT_EQ(4000000000u, p["lastModified"].asUInt64());
    EXPECT_EQ("5d41402abc4b2a76b9719d911017c592", p["md5Checksum"].asString());
    EXPECT_TRUE(p["isTrash"].asBool());  // lookups by id still see the trash
}

// A listing written without a Json::Value reads as the value would: the
// same text, or none when a string would need an escape.
TEST(WireFormat, ListingTextIsTheValuesText) {
    Object root{"root", "", {}, true, 0, -5, "", false};
    Object file{"1f", "b \xc3\xa9.bin", {"1a", "1b"}, false, 1ull << 40, 4000000000, "5d41", true};
    LineWriter writer;
    for (std::string token : {"", "t1"}) {
        Json::Value value(Json::objectValue);
        value["success"] = true;
        if (!token.empty()) value["nextPageToken"] = token;
        value["objects"].append(objectRecord(root));
        value["objects"].append(objectRecord(file));
        std::string line;
        ASSERT_TRUE(renderListing({root, file}, token, line));
        EXPECT_EQ(writer.render(value), line);
    }
    std::string line;
    for (char const* name : {"it\"s", "a\\b", "tab\t"}) {
        file.name = name;
        EXPECT_FALSE(renderListing({file}, "", line)) << name;
    }
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
        {req({{"fn", "createFolder"}, {"name", "x"}, {"parentId", file}}), 400,
         "The specified parent is not a folder."},
        {req({{"fn", "downloadFile"}, {"id", dir}, {"outputPath", data + "/out"}}), 403,
         "Only files with binary content can be downloaded."},
        {upload("1nope", local), 404, "File not found: 1nope."},
        {upload("root", data + "/missing"), -1, ""},
        {upload("root", local), 403, "The user's Drive storage quota has been exceeded."},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.request.toStyledString());
        expectFailure(emulator->transfer(c.request).back(), c.code, c.message);
    }
    EXPECT_EQ(2u, drive->children("root").size());
    // An update that keeps within the quota (10 bytes in place of 1) is fine.
    auto update = req({{"fn", "updateFile"}, {"id", file}, {"inputPath", local}});
    EXPECT_TRUE(emulator->transfer(update).back()["success"].asBool());
    EXPECT_EQ("0123456789", drive->content(file));
}

TEST_F(Protocol, ListingsFilterByParentAndNameWithoutCase) {
    std::string a = drive->mkdir("root", "a");
    std::string in = "'" + drive->stat(a).id + "' in parents";
    drive->put(a, "Target", "1");
    drive->put(a, "other", "2");
    drive->trash(drive->put(a, "target", "3"));
    drive->put("root", "target", "elsewhere");
    drive->put(a, "it's", "4");
    struct Case {
        std::string query, names;
    } const cases[] = {
        {"(" + in + ")", "Target;other;it's;"},
        {"(" + in + ") and (name = 'TARGET')", "Target;"},
        // "and" binds tighter than "or"; "contains" matches the start of a word.
        {"name = 'other' or name = 'target' and " + in, "Target;other;"},
        {in + " and not name = 'other' and name != 'it\\'s'", "Target;"},
        {in + " and name contains 'tar'", "Target;"},
        {in + " and name contains 'arg'", ""},
        {"'1unknown' in parents", ""},  // lists nothing rather than failing, as Drive does
    };
    for (auto const& c : cases) EXPECT_EQ(c.names, names(c.query)) << c.query;
    expectFailure(list("(" + in + ") and (name = 'it's')"), 400, "Invalid Value");

    // Raw Drive lists the trash too; the setting switches to that.
    changeSettings([](Settings& s) { s.listTrashed = true; });
    Json::Value raw = list("(" + in + ") and (name = 'target')");
    ASSERT_EQ(2u, raw["objects"].size());
    EXPECT_TRUE(raw["objects"][1]["properties"]["isTrash"].asBool());
    EXPECT_EQ("Target;other;it's;", names(in + " and trashed = false"));
}

TEST_F(Protocol, PagesFollowEachOtherWithOpaqueTokens) {
    std::string a = drive->mkdir("root", "a");
    std::set<std::string> made, seen;
    for (int i = 0; i < 7; ++i) made.insert(drive->put(a, "f" + std::to_string(i), "x"));
    changeSettings([](Settings& s) { s.pageSize = 3; });
    std::string query = "'" + a + "' in parents", sizes, token;
    do {
        Json::Value page = list(query, token);
        sizes += std::to_string(page["objects"].size());
        for (auto const& o : page["objects"]) seen.insert(o["id"].asString());
        token = page.get("nextPageToken", "").asString();
    } while (!token.empty() && sizes.size() < 10);
    EXPECT_EQ("331", sizes);
    EXPECT_EQ(made, seen);

    // A token belongs to its query.
    Json::Value first = list(query);
    expectFailure(list("'root' in parents", first["nextPageToken"].asString()), 400,
                  "Invalid Value");
    expectFailure(list(query, "garbage"), 400, "Invalid Value");
}

TEST_F(Protocol, BadLinesAreAnsweredLoggedAndServingGoesOn) {
    for (auto const& [line, message] : std::vector<std::pair<char const*, char const*>>{
             {"not json", "Malformed request: not a JSON object"},
             {"{\"id\": \"x\"}", "Missing member 'fn'"},
             {"{\"fn\": \"renameObject\"}", "Unknown function: renameObject"},
             {"{\"fn\": \"getObjectMeta\", \"id\": 12}", "Member 'id' must be a string"},
         }) {
        emulator->writeLine(line);
        expectFailure(emulator->receive(), 400, message);
    }
    EXPECT_TRUE(emulator->call(req({{"fn", "getObjectMeta"}, {"id", "root"}}))["success"].asBool());
    EXPECT_EQ(5, drive->countRequests());
    EXPECT_EQ(2, drive->countRequests("getObjectMeta"));  // the bad one counts by name
    EXPECT_EQ(0, emulator->finish());                     // end of input ends it cleanly
}
