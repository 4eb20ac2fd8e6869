#include "file_meta_store.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <filesystem>
#include <random>
#include <sstream>

#include "file_meta_store_format.h"
#include "support/files.h"
#include "support/syslog_capture.h"

namespace TAVO {
namespace Backup {
namespace GoogleDriveTA {
namespace {

namespace fs = std::filesystem;
using GoogleDrive::FileMeta;
using Parents = std::set<std::string>;
using TestSupport::readFile;
using TestSupport::writeFile;

FileMeta makeMeta(std::string const& id, std::string const& name, Parents const& parents) {
    FileMeta meta;
    meta.id = id;
    meta.name = name;
    meta.parents = parents;
    return meta;
}

// One cache file line, as the writer prints it; `parents` is the inside of "p".
std::string row(std::string const& id, std::string const& name,
                std::string const& parents = "\"P\"") {
    return "{\"d\":false,\"i\":\"" + id + "\",\"n\":\"" + name + "\",\"p\":[" + parents + "]}\n";
}

// The lines, each ended by a line feed.
std::string lines(std::initializer_list<std::string> items) {
    std::string text;
    for (std::string const& item : items) text.append(item).append("\n");
    return text;
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

// How many times "file_meta_store:<line> <message>" was logged at LOG_ERR.
int errorsLogged(std::string const& message) {
    int count = 0;
    for (auto const& line : TestSupport::capturedSyslog()) {
        size_t digits = line.text.find_first_not_of("0123456789", 16);
        count += line.priority == LOG_ERR && line.text.rfind("file_meta_store:", 0) == 0 &&
                 digits > 16 && line.text.substr(digits) == " " + message;
    }
    return count;
}

// Runs `work` in a forked child; true when it returned true there.
template <class Work>
bool trueInChild(Work work) {
    pid_t child = fork();
    if (child == 0) _exit(work() ? 0 : 1);
    int status = -1;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// The store's rules on plain maps, written straight from its contract: what
// every operation must give, quirks included.
struct Model {
    std::map<std::string, FileMetaRecord> records;
    std::map<std::pair<std::string, std::string>, std::string> index;
    bool dirty = false;

    void insert(std::string const& id, FileMetaRecord const& record) {
        auto it = records.find(id);
        if (it != records.end() && it->second.compare(record) == 0) return;
        removeId(id);
        records[id] = record;
        if (record.parents.empty()) index[{"", record.name}] = id;
        for (std::string const& parent : record.parents) index[{parent, record.name}] = id;
        dirty = true;
    }
    void removeId(std::string const& id) {
        auto it = records.find(id);
        if (it == records.end()) return;
        for (std::string const& parent : it->second.parents) index.erase({parent, it->second.name});
        records.erase(it);
        dirty = true;
    }
    void removePlacement(std::string const& parent, std::string const& name) {
        auto entry = index.find({parent, name});
        if (entry == index.end()) return;
        auto it = records.find(entry->second);
        if (it != records.end() && (it->second.parents.erase(parent), it->second.parents.empty()))
            records.erase(it);
        index.erase(entry);
        dirty = true;
    }
    void removeTree(std::string const& id) {
        removeId(id);
        std::vector<std::string> folders{id};
        for (std::set<std::string> seen; !folders.empty();) {
            std::string folder = folders.back();
            folders.pop_back();
            if (!seen.insert(folder).second) continue;
            std::vector<std::pair<std::string, std::string>> children;
            for (auto e = index.lower_bound({folder, ""});
                 e != index.end() && e->first.first == folder; ++e)
                children.emplace_back(e->first.second, e->second);
            for (auto const& [name, child] : children) {
                bool known = records.count(child) != 0;
                removePlacement(folder, name);
                if (known && !records.count(child)) folders.push_back(child);
            }
        }
    }
    // The cache file's content, then dump()'s.
    std::string file() const {
        std::string out;
        for (auto const& [id, record] : records) out += _meta_to_str(id, record) + "\n";
        return out;
    }
    std::string dump() const {
        std::string out = "[record]\n" + file() + "[index]\n";
        for (auto const& [key, id] : index)
            out += key.first + "," + key.second + " -> " + id + "\n";
        return out;
    }
    // What load() must give: every line that _str_to_meta reads, inserted.
    static Model of(std::string const& content) {
        Model model;
        std::istringstream in(content);
        for (std::string line; std::getline(in, line);) {
            FileMeta meta;
            if (_str_to_meta(line, meta))
                model.insert(meta.id, FileMetaRecord(meta.parents, meta.name, meta.isDir));
        }
        model.dirty = false;
        return model;
    }
};

class NodeCacheTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // In memory where possible: the many saves below then sync quickly.
        fs::path base = fs::is_directory("/dev/shm") ? "/dev/shm" : fs::temp_directory_path();
        std::string pattern = (base / "node_cache_test.XXXXXX").string();
        ASSERT_NE(nullptr, mkdtemp(&pattern[0]));
        _dir = pattern;
        TestSupport::clearSyslog();
    }
    void TearDown() override { fs::remove_all(_dir); }
    std::string path(std::string const& name) const { return _dir + "/" + name; }
    // Writes `content` as a cache file and loads it into `store`.
    void loadContent(FileMetaStore& store, std::string const& content) {
        writeFile(path("in.node"), content);
        ASSERT_TRUE(store.load(path("in.node")));
    }
    std::string _dir;
};

TEST(FileMetaRecordTest, CompareIsZeroOnlyForTheSamePlacement) {
    FileMetaRecord base(Parents{"A", "B"}, "n", false);
    EXPECT_EQ(0, base.compare(FileMetaRecord(Parents{"B", "A"}, "n", false)));
    EXPECT_EQ(-1, base.compare(FileMetaRecord(Parents{"A", "B"}, "n", true)));
    EXPECT_LT(base.compare(FileMetaRecord(Parents{"A", "B"}, "o", false)), 0);
    EXPECT_EQ(1, base.compare(FileMetaRecord("A", "n", false)));
    EXPECT_NE(0, base.compare(FileMetaRecord(Parents{"A", "C"}, "n", false)));
}

// Random operations on small alphabets (shared names, ids that are also
// parents, cycles, parentless records, names the writer must escape) against
// the model, from a loaded file, through merges, saves and reloads.
TEST_F(NodeCacheTest, RandomOperationsMatchThePlainModel) {
    std::vector<std::string> const odd = {
        "",         "quote\"d",    "back\\slash", "tab\tnl\ncr\r",
        "\x01\x7f", "caf\xc3\xa9", "\xff\xfe",    std::string("n\0l", 3)};
    std::mt19937 random(11);
    auto pick = [&](unsigned n) { return static_cast<unsigned>(random() % n); };
    auto id = [&](unsigned n) { return "id" + std::to_string(pick(n)); };
    auto parent = [&] { return pick(10) ? id(40) : odd[pick(2)]; };
    auto name = [&] { return pick(20) ? "n" + std::to_string(pick(50)) : odd[pick(8)]; };
    auto record = [&] {
        Parents parents;
        for (unsigned k = pick(4); k > 0; --k) parents.insert(parent());
        return FileMetaRecord(parents, name(), pick(2));
    };
    Model model;
    for (int i = 0; i < 3000; ++i) model.insert(id(20000), record());
    std::string const file = model.file();
    FileMetaStore store;
    loadContent(store, file);
    model = Model::of(file);
    for (int op = 0; op < 15000; ++op) {
        unsigned kind = pick(1000);
        std::string target = id(kind < 950 ? 20000 : 40), in = parent(), called = name();
        FileMeta meta;
        if (kind < 500) {  // half of them repeat what the store holds
            auto held = model.records.find(target);
            FileMetaRecord added = held != model.records.end() && pick(2) ? held->second : record();
            model.insert(target, added);
            ASSERT_TRUE(store.insert(target, added));
        } else if (kind < 550) {  // what find() gives back need not be kept
            FileMeta full = makeMeta(target, called, {in});
            full.size = full.lastModified = 1;
            full.md5Checksum = full.status = "x";
            model.insert(target, FileMetaRecord(full.parents, full.name, full.isDir));
            ASSERT_TRUE(store.insert(full));
        } else if (kind < 600) {  // remove(FileMeta&): by id, else by placement
            FileMeta placed =
                makeMeta(pick(2) ? target : "", called, pick(2) ? Parents{in} : Parents{});
            bool usable = !placed.id.empty() || !called.empty();
            if (!placed.id.empty()) model.removeId(target);
            if (placed.id.empty() && usable)
                model.removePlacement(placed.parents.empty() ? "" : in, called);
            ASSERT_EQ(usable, store.remove(placed));
        } else if (kind < 700) {
            model.removeId(target);
            ASSERT_TRUE(store.remove(target));
        } else if (kind < 950) {
            model.removePlacement(in, called);
            ASSERT_TRUE(store.remove(in, called));
        } else {
            model.removeTree(target);
            ASSERT_TRUE(store.removeTree(target));
        }
        if (op % 2500 == 2499) {
            ASSERT_TRUE(store.save(path("cache.node")));
            model.dirty = false;
        }
        if (op % 5000 == 2499) {
            model.dirty |= !model.records.empty() || !model.index.empty();
            model.records.clear();
            model.index.clear();
            store.clear();
        }
        if (op % 5000 == 4999) {
            ASSERT_TRUE(store.load(path("cache.node")));
            model = Model::of(readFile(path("cache.node")));
        }
        ASSERT_EQ(model.dirty, store.isDirty()) << "op " << op;
        ASSERT_EQ(model.records.size(), store.size()) << "op " << op;
        auto known = model.records.find(target);
        ASSERT_EQ(known == model.records.end() ? "" : _meta_to_str(target, known->second),
                  store.find(target, meta) &&
                          meta.size + meta.md5Checksum.size() + meta.status.size() == 0
                      ? _meta_to_str(meta.id, FileMetaRecord(meta.parents, meta.name, meta.isDir))
                      : "")
            << "op " << op;
        auto entry = model.index.find({in, called});
        bool hit = entry != model.index.end() && model.records.count(entry->second);
        ASSERT_EQ(hit ? entry->second : "",
                  store.find(in, called, meta) && store.find(meta.id, meta) ? meta.id : "")
            << op;
        ASSERT_TRUE(op % 1000 != 999 || model.dump() == dumpOf(store)) << "op " << op;
    }
    ASSERT_TRUE(store.save(path("cache.node")));
    EXPECT_EQ(model.dump(), dumpOf(store));
    EXPECT_EQ(model.file(), readFile(path("cache.node")));
}

// Whatever the file holds, load() gives the store of its good lines: lines
// of other shapes go through the general parser, ill-typed and broken ones
// are skipped, ids out of order are inserted in turn.
TEST_F(NodeCacheTest, LoadKeepsExactlyTheGoodLines) {
    std::string const good = row("g1", "one") + row("g2", "two", ""), tail = row("g3", "three");
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
        {"binary", good + garbage + "\n" + tail, 3},
        {"nul", good + std::string("{\"d\":false,\"i\":\"x\",\"n\":\"\0\",\"p\":[]}\n", 35) + tail,
         3},
        {"long line", good + std::string(10 << 20, 'x') + "\n" + tail, 3},
        {"long name", good + row("h", std::string(10 << 20, 'y')), 3},
        {"other shapes",
         "\"text\"\n42\nnull\n[\"a\"]\n{\n}\n{\"x\":1}\n" + row("c1", "\\u00e9\\ud83d\\ude00") +
             row("c2", "\\u0000\\u001F\\/", "\"A\",\"A\"") + row("c3", "\\q") +
             lines({R"({ "d" : false, "i" : "d", "n" : "spaced", "p" : [ "A" ] })",
                    R"({"p":["A"],"n":"reordered","i":"e","d":true,"x":1})"
                    "\r"}),
         5},
        {"ill-typed",
         good +
             lines({R"({"d":"yes","i":"x","n":"Pool","p":["y"]})",
                    R"({"d":1,"i":"x","n":"Pool","p":[]})",
                    R"({"d":true,"i":"x","n":"Pool","p":"y"})",
                    R"({"d":true,"i":"x","n":"Pool","p":[7]})",
                    R"({"d":true,"i":42,"n":"Pool","p":[]})",
                    R"({"d":true,"i":"x","n":["Pool"],"p":[]})"}) +
             tail,
         3},
        {"unordered and repeated ids",
         row("b", "same") + row("a", "same") + row("c", "two", "\"A\",\"B\"") +
             row("b", "moved", "\"B\"") + row("c", "two", "\"B\",\"A\"") + row("z", "same") +
             row("a0", "late"),
         5},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.what);
        FileMetaStore store;
        store.insert(makeMeta("old", "old", {"P"}));
        loadContent(store, c.content);
        EXPECT_EQ(c.records, store.size());
        EXPECT_EQ(Model::of(c.content).dump(), dumpOf(store));
        EXPECT_FALSE(store.isDirty());
    }
}

// Every failure is logged, leaves the old file and no temporary file, and
// keeps the store dirty.
TEST_F(NodeCacheTest, FailuresLeaveFileAndStoreAsTheyWere) {
    std::string const target = path("ta_cache.node"), old = row("old", "o");
    FileMetaStore store;
    EXPECT_TRUE(store.save(""));  // clean: nothing to write, no path needed
    store.insert(makeMeta("F1", "a", {"P"}));
    EXPECT_FALSE(store.save(""));
    EXPECT_EQ(1, errorsLogged("invalid path"));
    writeFile(target, old);
    EXPECT_FALSE(store.load(target + "/x"));
    EXPECT_EQ(1, errorsLogged("open failed, Not a directory [" + target + "/x]"));
    fs::create_directories(path("taken/ta_cache.node/inner"));
    EXPECT_FALSE(store.save(path("taken/ta_cache.node")));
    EXPECT_EQ(1,
              errorsLogged("rename failed, Is a directory, [" + path("taken/ta_cache.node") + "]"));
    fs::remove_all(path("taken"));
    // A write that fails part-way: in a write, and in the flush of what the
    // stream buffered.
    for (int records : {400, 20}) {
        FileMetaStore writer;
        for (int i = 0; i < records; ++i)
            writer.insert(makeMeta("G" + std::to_string(i), "g", {"Q"}));
        EXPECT_TRUE(trueInChild([&] {
            rlimit limit{512, 512};
            signal(SIGXFSZ, SIG_IGN);
            return setrlimit(RLIMIT_FSIZE, &limit) == 0 && !writer.save(target) &&
                   writer.isDirty() &&
                   errorsLogged((records > 20 ? "write" : "flush") +
                                std::string(" failed, File too large [") + target + "]");
        })) << records;
    }
    EXPECT_EQ(old, readFile(target));
    EXPECT_EQ(1, std::distance(fs::directory_iterator(_dir), {}));
    EXPECT_EQ(1u, store.size());
    EXPECT_TRUE(store.isDirty());

    // A folder in the file's place reads as an empty file; the next save
    // replaces it.
    fs::remove(target);
    fs::create_directory(target);
    EXPECT_TRUE(store.load(target));
    EXPECT_EQ(1, errorsLogged("read failed, Is a directory [" + target + "]"));
    EXPECT_EQ(0u, store.size());
    store.insert(makeMeta("F1", "a", {"P"}));
    ASSERT_TRUE(store.save(""));
    EXPECT_EQ(row("F1", "a"), readFile(target));
    struct stat info;
    EXPECT_TRUE(stat(target.c_str(), &info) == 0 && (info.st_mode & 07777) == 0600);
}

}  // namespace
}  // namespace GoogleDriveTA
}  // namespace Backup
}  // namespace TAVO
