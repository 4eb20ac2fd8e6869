#include "file_meta_store.h"

#include <gtest/gtest.h>
#include <json/value.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "backup/process_privilege.h"
#include "file_meta_store_format.h"
#include "support/syslog_capture.h"

namespace TAVO {
namespace Backup {
namespace GoogleDriveTA {
namespace {

namespace fs = std::filesystem;
using GoogleDrive::FileMeta;
using Parents = std::set<std::string>;

FileMeta makeMeta(std::string const& id, std::string const& name, Parents const& parents,
                  bool isDir = false) {
    FileMeta meta;
    meta.id = id;
    meta.name = name;
    meta.parents = parents;
    meta.isDir = isDir;
    return meta;
}

std::string dumpOf(FileMetaStore const& store) {
    char* data = nullptr;
    size_t size = 0;
    FILE* stream = open_memstream(&data, &size);
    store.dump(stream);
    fclose(stream);
    std::string text(data, size);
    free(data);
    return text;
}

std::string readFile(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void writeFile(std::string const& path, std::string const& content) {
    std::ofstream(path, std::ios::binary) << content;
}

// The lines, each ended by a line feed.
std::string lines(std::initializer_list<char const*> items) {
    std::string text;
    for (char const* item : items) text.append(item).append("\n");
    return text;
}

// The store that reading `content` line by line through the general JSON
// parser and insert() gives: what load() must reproduce.
std::string referenceDump(std::string const& content) {
    FileMetaStore store;
    size_t start = 0;
    while (start < content.size()) {
        size_t end = content.find('\n', start);
        end = end == std::string::npos ? content.size() : end + 1;
        FileMeta meta;
        if (_str_to_meta(content.substr(start, end - start), meta)) store.insert(meta);
        start = end;
    }
    return dumpOf(store);
}

// True when a line "file_meta_store:<line> <message>" was logged at LOG_ERR.
bool loggedError(std::string const& message) {
    std::string const source = "file_meta_store:";
    for (auto const& line : TestSupport::capturedSyslog()) {
        std::string const& text = line.text;
        if (line.priority != LOG_ERR || text.compare(0, source.size(), source) != 0) continue;
        size_t digits = source.size();
        while (digits < text.size() && isdigit(static_cast<unsigned char>(text[digits]))) ++digits;
        if (digits > source.size() && text.substr(digits) == " " + message) return true;
    }
    return false;
}

class NodeCacheTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "node_cache_test.XXXXXX").string();
        ASSERT_NE(nullptr, mkdtemp(&pattern[0]));
        _dir = pattern;
        TestSupport::clearSyslog();
    }
    void TearDown() override {
        ProcessPrivilege::forceFailureForTesting(false);
        fs::remove_all(_dir);
    }
    std::string path(std::string const& name) const { return (fs::path(_dir) / name).string(); }
    static std::vector<std::string> filesIn(std::string const& dir) {
        std::vector<std::string> names;
        for (auto const& entry : fs::directory_iterator(dir))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }
    // A store holding `content`, loaded and therefore clean.
    void loadContent(FileMetaStore& store, std::string const& content) {
        writeFile(path("in.node"), content);
        ASSERT_TRUE(store.load(path("in.node")));
    }

    std::string _dir;
};

// ---- The store in memory -------------------------------------------------

TEST(FileMetaRecordTest, CompareIsZeroOnlyForTheSamePlacement) {
    FileMetaRecord base(Parents{"A", "B"}, "n", false);
    EXPECT_EQ(0, base.compare(FileMetaRecord(Parents{"B", "A"}, "n", false)));
    EXPECT_TRUE(FileMetaRecord().isDir);
    EXPECT_EQ(-1, base.compare(FileMetaRecord(Parents{"A", "B"}, "n", true)));
    EXPECT_EQ(1, FileMetaRecord(Parents{"A", "B"}, "n", true).compare(base));
    EXPECT_LT(base.compare(FileMetaRecord(Parents{"A", "B"}, "o", false)), 0);
    EXPECT_EQ(1, base.compare(FileMetaRecord("A", "n", false)));
    EXPECT_EQ(-1, FileMetaRecord("A", "n", false).compare(base));
    EXPECT_NE(0, base.compare(FileMetaRecord(Parents{"A", "C"}, "n", false)));
    EXPECT_NE(0, FileMetaRecord(Parents{"A", "C"}, "n", false).compare(base));
}

TEST_F(NodeCacheTest, FindGivesOnlyWhatTheCacheKeeps) {
    FileMetaStore store;
    FileMeta stored = makeMeta("F1", "a", {"P"});
    stored.size = 9;
    stored.lastModified = 9;
    stored.md5Checksum = "x";
    stored.status = "AVAILABLE";
    store.insert(stored);

    FileMeta meta = makeMeta("junk", "junk", {"Q"}, true);
    meta.size = 5;
    EXPECT_FALSE(store.find("F9", meta));
    EXPECT_FALSE(store.find("P", "b", meta));
    EXPECT_EQ("junk", meta.id);
    EXPECT_EQ(5u, meta.size);

    ASSERT_TRUE(store.find("P", "a", meta));
    EXPECT_EQ("F1", meta.id);
    EXPECT_EQ("a", meta.name);
    EXPECT_EQ(std::set<std::string>{"P"}, meta.parents);
    EXPECT_FALSE(meta.isDir);
    EXPECT_EQ(0u, meta.size);
    EXPECT_EQ(0u, meta.lastModified);
    EXPECT_EQ("", meta.md5Checksum);
    EXPECT_EQ("", meta.status);
    // Looking up the record's own id through it must not lose the id.
    ASSERT_TRUE(store.find(meta.id, meta));
    EXPECT_EQ("F1", meta.id);
}

TEST_F(NodeCacheTest, EqualInsertIsANoOpAndADifferentOneReplaces) {
    FileMetaStore store;
    loadContent(store, lines({R"({"d":false,"i":"F1","n":"a","p":["P"]})"}));
    EXPECT_TRUE(store.insert("F1", FileMetaRecord("P", "a", false)));
    EXPECT_FALSE(store.isDirty());

    EXPECT_TRUE(store.insert("F1", FileMetaRecord(Parents{"Q"}, "b", true)));
    EXPECT_TRUE(store.isDirty());
    FileMeta meta;
    EXPECT_FALSE(store.find("P", "a", meta));
    ASSERT_TRUE(store.find("Q", "b", meta));
    EXPECT_TRUE(meta.isDir);
    EXPECT_EQ(1u, store.size());
}

TEST_F(NodeCacheTest, LastInsertWinsASharedPlacementAndRemovalTakesTheEntry) {
    FileMetaStore store;
    store.insert(makeMeta("F2", "dup", {"P"}));
    store.insert(makeMeta("F1", "dup", {"P"}));
    FileMeta meta;
    ASSERT_TRUE(store.find("P", "dup", meta));
    EXPECT_EQ("F1", meta.id);
    EXPECT_TRUE(store.find("F2", meta));

    // Removing the overwritten object erases the entry of the one that won it.
    EXPECT_TRUE(store.remove(std::string("F2")));
    EXPECT_FALSE(store.find("P", "dup", meta));
    EXPECT_TRUE(store.find("F1", meta));
}

TEST_F(NodeCacheTest, ObjectWithTwoParentsSurvivesLosingOne) {
    FileMetaStore store;
    store.insert(makeMeta("F1", "n", {"A", "B"}));
    EXPECT_TRUE(store.remove("A", "n"));
    FileMeta meta;
    EXPECT_FALSE(store.find("A", "n", meta));
    ASSERT_TRUE(store.find("B", "n", meta));
    EXPECT_EQ(std::set<std::string>{"B"}, meta.parents);
    EXPECT_TRUE(store.remove("B", "n"));
    EXPECT_FALSE(store.find("F1", meta));
    EXPECT_EQ("[record]\n[index]\n", dumpOf(store));
}

TEST_F(NodeCacheTest, ParentlessEntryOutlivesItsRecordUntilRemovedByPlacement) {
    FileMetaStore store;
    loadContent(store, lines({R"({"d":true,"i":"F1","n":"top","p":[]})"}));
    FileMeta meta;
    ASSERT_TRUE(store.find("", "top", meta));
    EXPECT_EQ("F1", meta.id);

    store.remove(std::string("F1"));
    EXPECT_FALSE(store.find("", "top", meta));
    EXPECT_EQ("[record]\n[index]\n,top -> F1\n", dumpOf(store));

    ASSERT_TRUE(store.save(""));
    EXPECT_TRUE(store.remove("", "top"));
    EXPECT_TRUE(store.isDirty());
    EXPECT_EQ("[record]\n[index]\n", dumpOf(store));
}

TEST_F(NodeCacheTest, RemoveTreeDropsEverythingBelowButSharedChildren) {
    FileMetaStore store;
    loadContent(store, lines({R"({"d":true,"i":"A","n":"a","p":["R"]})",
                              R"({"d":true,"i":"B","n":"b","p":["A"]})",
                              R"({"d":false,"i":"O","n":"o","p":["X"]})",
                              R"({"d":true,"i":"R","n":"root","p":["X"]})",
                              R"({"d":false,"i":"S","n":"s","p":["A","Y"]})",
                              R"({"d":false,"i":"f","n":"f","p":["R"]})",
                              R"({"d":false,"i":"g","n":"g","p":["B"]})"}));
    EXPECT_TRUE(store.removeTree("R"));
    EXPECT_TRUE(store.isDirty());
    EXPECT_EQ(
        "[record]\n"
        "{\"d\":false,\"i\":\"O\",\"n\":\"o\",\"p\":[\"X\"]}\n"
        "{\"d\":false,\"i\":\"S\",\"n\":\"s\",\"p\":[\"Y\"]}\n"
        "[index]\n"
        "X,o -> O\n"
        "Y,s -> S\n",
        dumpOf(store));
}

TEST_F(NodeCacheTest, RemoveByFileMetaUsesWhatItKnows) {
    FileMetaStore store;
    store.insert(makeMeta("F1", "n", {"A", "B"}));
    store.insert(makeMeta("F2", "m", {}));
    std::string before = dumpOf(store);

    FileMeta nothing;
    EXPECT_FALSE(store.remove(nothing));
    FileMeta nameless = makeMeta("", "", {"A"});
    EXPECT_FALSE(store.remove(nameless));
    EXPECT_EQ(before, dumpOf(store));

    FileMeta byPlacement = makeMeta("", "n", {"A", "B", "C"});
    EXPECT_TRUE(store.remove(byPlacement));
    FileMeta parentless = makeMeta("", "m", {});
    EXPECT_TRUE(store.remove(parentless));
    EXPECT_EQ("[record]\n[index]\n", dumpOf(store));
    EXPECT_EQ("", byPlacement.id);
    EXPECT_EQ(3u, byPlacement.parents.size());
}

TEST_F(NodeCacheTest, ClearMarksDirtyOnlyWhenSomethingWasThere) {
    FileMetaStore store;
    store.clear();
    EXPECT_FALSE(store.isDirty());
    loadContent(store, lines({R"({"d":true,"i":"F1","n":"a","p":[]})"}));
    store.clear();
    EXPECT_TRUE(store.isDirty());
    EXPECT_EQ(0u, store.size());
    EXPECT_EQ(path("in.node"), store.getPath());
}

// ---- The file ------------------------------------------------------------

TEST_F(NodeCacheTest, SaveWritesOneJsonLinePerRecord) {
    FileMetaStore store;
    store.insert("F-01", FileMetaRecord("D-07", "Pool", true));
    ASSERT_TRUE(store.save(path("ta_cache.node")));
    EXPECT_EQ(lines({R"({"d":true,"i":"F-01","n":"Pool","p":["D-07"]})"}),
              readFile(path("ta_cache.node")));
    struct stat info;
    ASSERT_EQ(0, stat(path("ta_cache.node").c_str(), &info));
    EXPECT_EQ(0600u, info.st_mode & 07777);
}

// The store writes and reads lines directly; the general JSON route is the
// reference. Names with every escape and byte the writer meets, then random.
TEST_F(NodeCacheTest, SavedFileIsTheGeneralWritersBytesAndLoadsBack) {
    std::vector<std::string> names = {"",
                                      "quote\"d",
                                      "back\\slash",
                                      "tab\tnl\ncr\r",
                                      std::string("nul\0x", 5),
                                      "\x01\x1f\x7f",
                                      "sl/ash",
                                      "caf\xc3\xa9 \xe6\x97\xa5",
                                      "\xff\xfe not utf-8"};
    std::mt19937 random(7);
    for (int i = 0; i < 3000; ++i) {
        std::string s(random() % 12, '\0');
        for (char& c : s) c = static_cast<char>(random() % 5 ? random() % 256 : random() % 0x20);
        names.push_back(s);
    }
    FileMetaStore store;
    std::map<std::string, FileMetaRecord> model;
    for (size_t i = 0; i < names.size(); ++i) {
        Parents parents;
        for (size_t n = i % 4; n > 0; --n) parents.insert(names[(i * 7 + n) % names.size()]);
        FileMetaRecord record(parents, names[(i * 3) % names.size()], i % 2 == 0);
        store.insert(names[i], record);
        model[names[i]] = record;

        std::string line = _meta_to_str(names[i], record) + "\n";
        internal::RecordView view;  // points into `line`
        ASSERT_TRUE(internal::parseCanonicalLine(line, view)) << line;
        EXPECT_EQ(names[i], view.id);
        EXPECT_EQ(record.name, view.name);
        EXPECT_EQ(record.isDir, view.isDir);
        EXPECT_EQ(record.parents, Parents(view.parents.begin(), view.parents.end()));
    }
    std::string expected;
    for (auto const& [id, record] : model) expected += _meta_to_str(id, record) + "\n";
    ASSERT_TRUE(store.save(path("ta_cache.node")));
    EXPECT_FALSE(store.isDirty());
    EXPECT_EQ(expected, readFile(path("ta_cache.node")));

    FileMetaStore loaded;
    ASSERT_TRUE(loaded.load(path("ta_cache.node")));
    EXPECT_EQ(referenceDump(expected), dumpOf(loaded));
    EXPECT_FALSE(loaded.isDirty());
}

// Whatever the file holds, load() ends with the store that inserting each
// parsable line in turn gives: escapes the line reader leaves to the general
// parser, lines of other shapes, lines that do not parse, out-of-order and
// repeated ids.
TEST_F(NodeCacheTest, LoadEqualsInsertingEveryParsableLineInTurn) {
    std::string const content = lines({
        R"({"d":true,"i":"A","n":"dir","p":[]})",
        R"({"d":false,"i":"a","n":"same","p":["A"]})",
        R"({"d":false,"i":"b","n":"same","p":["A"]})",
        R"({"d":false,"i":"c","n":"two","p":["A","B"]})",
        R"({"d":false,"i":"c1","n":"\u00e9\ud83d\ude00","p":["A"]})",
        R"({"d":false,"i":"c2","n":"x","p":["A"]}  trailing)",
        R"({"d":false,"i":"c3","n":"extra","p":["A"],"x":1})",
        "{\"d\":false,\"i\":\"c4\",\"n\":\"raw\ttab\",\"p\":[\"A\"]}",
        R"({"d":false,"i":"c5","n":"bad \q escape","p":["A"]})",
        "{\"d\":false,\"i\":\"c6\",\"n\":\"\\u0000\\u001F\\/\",\"p\":[\"A\",\"A\"]}\r",
        "this line is not JSON",
        R"({ "d" : false, "i" : "d", "n" : "spaced", "p" : [ "A" ] })",
        R"({"p":["A"],"n":"reordered","i":"e","d":false})",
        R"({"i":42,"n":"numeric id","d":1})",
        R"({"x":"no known member"})",
        "",
        R"({"d":false,"i":"a0","n":"late","p":["A"]})",
        R"({"d":false,"i":"b","n":"moved","p":["B"]})",
        R"({"d":false,"i":"z","n":"same","p":["A"]})",
        R"({"d":false,"i":"c","n":"two","p":["B","A"]})",
    });
    FileMetaStore store;
    loadContent(store, content);
    EXPECT_EQ(referenceDump(content), dumpOf(store));
    EXPECT_FALSE(store.isDirty());

    FileMeta meta;
    ASSERT_TRUE(store.find("A", "same", meta));
    EXPECT_EQ("z", meta.id);
    EXPECT_FALSE(store.find("42", meta));
    EXPECT_TRUE(store.find("", meta));

    // Ids in file order: the greatest id wins a shared placement.
    loadContent(store, lines({R"({"d":false,"i":"a","n":"n","p":["P"]})",
                              R"({"d":false,"i":"b","n":"n","p":["P"]})"}));
    ASSERT_TRUE(store.find("P", "n", meta));
    EXPECT_EQ("b", meta.id);
}

TEST_F(NodeCacheTest, BadInputLosesOnlyTheBadLines) {
    std::string const good = lines(
        {R"({"d":false,"i":"g1","n":"one","p":["P"]})", R"({"d":true,"i":"g2","n":"two","p":[]})"});
    std::string const tail = lines({R"({"d":false,"i":"g3","n":"three","p":["P"]})"});
    std::string garbage(4096, '\0');
    std::mt19937 random(3);
    for (char& c : garbage) c = static_cast<char>(random());
    struct Case {
        char const* what;
        std::string content;
        size_t records;
    } const cases[] = {
        {"empty", "", 0},
        {"truncated", good + tail.substr(0, 20), 2},
        {"crlf",
         "{\"d\":false,\"i\":\"g1\",\"n\":\"one\",\"p\":[\"P\"]}\r\n"
         "{\"d\":true,\"i\":\"g2\",\"n\":\"two\",\"p\":[]}\r\n",
         2},
        {"binary", good + garbage + "\n" + tail, 3},
        {"nul", good + std::string("{\"d\":false,\"i\":\"x\",\"n\":\"\0\",\"p\":[]}\n", 35) + tail,
         3},
        {"long", good + std::string(10 << 20, 'x') + "\n" + tail, 3},
        {"long name",
         good + "{\"d\":false,\"i\":\"h\",\"n\":\"" + std::string(10 << 20, 'y') +
             "\",\"p\":[\"P\"]}\n" + tail,
         4},
        {"wrong shapes", good + "\"text\"\n42\nnull\n{\n}\n" + tail, 3},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.what);
        FileMetaStore store;
        store.insert(makeMeta("old", "old", {"P"}));
        loadContent(store, c.content);
        EXPECT_EQ(c.records, store.size());
        EXPECT_EQ(referenceDump(c.content), dumpOf(store));
        EXPECT_FALSE(store.isDirty());
    }
}

TEST_F(NodeCacheTest, IllTypedLinesAreSkipped) {
    FileMetaStore store;
    loadContent(store, lines({R"({"d":false,"i":"a","n":"n","p":["P"]})",
                              R"({"d":"yes","i":"b","n":"m","p":["P"]})",
                              R"({"d":false,"i":"c","n":"o","p":["P"]})"}));
    FileMeta meta;
    EXPECT_TRUE(store.find("P", "n", meta));
    EXPECT_FALSE(store.find("b", meta));
    EXPECT_TRUE(store.find("c", meta));
}

TEST_F(NodeCacheTest, MissingFileGivesAnEmptyCleanStoreThatSavesThere) {
    FileMetaStore store;
    store.insert(makeMeta("x", "x", {"P"}));
    ASSERT_TRUE(store.load(path("ta_cache.node")));
    EXPECT_EQ(0u, store.size());
    EXPECT_FALSE(store.isDirty());
    EXPECT_EQ(path("ta_cache.node"), store.getPath());
    ASSERT_TRUE(store.save(""));
    EXPECT_FALSE(fs::exists(path("ta_cache.node")));  // nothing to write yet

    store.insert(makeMeta("F1", "a", {"P"}));
    ASSERT_TRUE(store.save(""));
    EXPECT_EQ("{\"d\":false,\"i\":\"F1\",\"n\":\"a\",\"p\":[\"P\"]}\n",
              readFile(path("ta_cache.node")));
    EXPECT_TRUE(TestSupport::capturedSyslog().empty());
}

TEST_F(NodeCacheTest, FailedLoadLeavesTheStoreAsItWas) {
    FileMetaStore store;
    store.insert(makeMeta("keep", "k", {"P"}));
    std::string before = dumpOf(store);
    writeFile(path("plain"), "");

    EXPECT_FALSE(store.load(path("plain") + "/ta_cache.node"));
    EXPECT_TRUE(loggedError("open failed, Not a directory [" + path("plain") + "/ta_cache.node]"));
    ProcessPrivilege::forceFailureForTesting(true);
    EXPECT_FALSE(store.load(path("ta_cache.node")));
    EXPECT_TRUE(loggedError("be root failed. Operation not permitted"));
    EXPECT_EQ(before, dumpOf(store));
    EXPECT_TRUE(store.isDirty());
    ProcessPrivilege::forceFailureForTesting(false);

    // An empty path is reported, then read as a missing file.
    EXPECT_TRUE(store.load(""));
    EXPECT_TRUE(loggedError("invalid path"));
    EXPECT_EQ(0u, store.size());
    EXPECT_FALSE(store.isDirty());
}

TEST_F(NodeCacheTest, SaveNeedsAPathOnlyWhenThereIsSomethingToWrite) {
    FileMetaStore store;
    EXPECT_TRUE(store.save(""));
    store.insert(makeMeta("F1", "a", {"P"}));
    EXPECT_FALSE(store.save(""));
    EXPECT_TRUE(loggedError("invalid path"));
    EXPECT_TRUE(store.isDirty());
}

TEST_F(NodeCacheTest, FailedSaveLeavesTheOldFileAndNoTemporaryFile) {
    std::string const old = lines({R"({"d":true,"i":"old","n":"o","p":[]})"});
    FileMetaStore store;
    store.insert(makeMeta("F1", "a", {"P"}));
    writeFile(path("ta_cache.node"), old);

    ProcessPrivilege::forceFailureForTesting(true);
    EXPECT_FALSE(store.save(path("ta_cache.node")));
    EXPECT_TRUE(loggedError("be root failed. Operation not permitted"));
    ProcessPrivilege::forceFailureForTesting(false);

    EXPECT_FALSE(store.save(path("missing/ta_cache.node")));
    EXPECT_TRUE(loggedError("create temp file failed, No such file or directory"));

    // A folder in the file's place makes the rename fail after the write.
    fs::create_directories(path("taken/ta_cache.node/inner"));
    EXPECT_FALSE(store.save(path("taken/ta_cache.node")));
    EXPECT_TRUE(
        loggedError("rename failed, Is a directory, [" + path("taken/ta_cache.node") + "]"));
    EXPECT_EQ(std::vector<std::string>{"ta_cache.node"}, filesIn(path("taken")));

    EXPECT_EQ(old, readFile(path("ta_cache.node")));
    EXPECT_EQ((std::vector<std::string>{"ta_cache.node", "taken"}), filesIn(_dir));
    EXPECT_TRUE(store.isDirty());
    ASSERT_TRUE(store.save(path("ta_cache.node")));
    EXPECT_NE(old, readFile(path("ta_cache.node")));
}

TEST_F(NodeCacheTest, DumpListsRecordsThenIndex) {
    FileMetaStore store;
    EXPECT_EQ("[record]\n[index]\n", dumpOf(store));
    store.insert(makeMeta("F2", "n", {"A", "B"}, true));
    store.insert(makeMeta("F1", "top", {}));
    EXPECT_EQ(
        "[record]\n"
        "{\"d\":false,\"i\":\"F1\",\"n\":\"top\",\"p\":[]}\n"
        "{\"d\":true,\"i\":\"F2\",\"n\":\"n\",\"p\":[\"A\",\"B\"]}\n"
        "[index]\n"
        ",top -> F1\n"
        "A,n -> F2\n"
        "B,n -> F2\n",
        dumpOf(store));
}

}  // namespace
}  // namespace GoogleDriveTA
}  // namespace Backup
}  // namespace TAVO
