// The stored index vouches for a file only while every recorded fact holds,
// and is set aside whole when torn or older than the node cache; the exclude
// patterns match as sync tools' globs do.
#include "stored_index.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "exclude_rules.h"
#include "support/files.h"

namespace fs = std::filesystem;
using gdhost::LocalEntry;
using gdhost::StoredFile;
using gdhost::StoredIndex;

namespace {

class StoredIndexTest : public ::testing::Test {
  protected:
    void SetUp() override { _dir = TestSupport::makeTempFolder("stored-index-test"); }
    void TearDown() override { fs::remove_all(_dir); }

    // The walk's view of the file `name` in the folder.
    LocalEntry entryOf(std::string const& name) const {
        struct stat st {};
        EXPECT_EQ(lstat((_dir + "/" + name).c_str(), &st), 0);
        return {
            name,      false, st.st_size, gdhost::nanosOf(st.st_mtim), gdhost::nanosOf(st.st_ctim),
            st.st_mode};
    }
    StoredFile storedAs(LocalEntry const& e) const {
        return {_dir + "/" + e.rpath, e.size, e.mtimeNs, e.ctimeNs, e.mode, kMd5, 1000};
    }
    TAVO::Backup::FileInfo remote(int64_t size, std::string const& md5 = kMd5,
                                  int64_t mtime = 1000) const {
        TAVO::Backup::FileInfo info("r");
        info.setRegType();
        info.setSize(size);
        info.setChecksum(md5);
        info.setMtime(mtime);
        return info;
    }

    static constexpr char const* kMd5 = "0cc175b9c0f1b6a831c399e269772661";
    std::string _dir;
};

TEST_F(StoredIndexTest, VouchesOnlyWhileEveryFactHolds) {
    TestSupport::writeFile(_dir + "/f", "abc");
    LocalEntry const e = entryOf("f");
    StoredIndex index;
    index.record("backup/f", storedAs(e));
    std::string const local = _dir + "/f";
    EXPECT_TRUE(index.unchanged("backup/f", local, e, remote(3)));
    struct Case {
        char const* what;
        std::string remotePath, localPath;
        LocalEntry entry;
        TAVO::Backup::FileInfo remoteFile;
    };
    LocalEntry bigger = e, touched = e, changed = e;
    bigger.size = 4;
    touched.mtimeNs += 1;
    changed.ctimeNs += 1;
    Case const cases[] = {
        {"another remote path", "backup/g", local, e, remote(3)},
        {"another local file", "backup/f", _dir + "/g", e, remote(3)},
        {"local size", "backup/f", local, bigger, remote(3)},
        {"modification time", "backup/f", local, touched, remote(3)},
        {"change time", "backup/f", local, changed, remote(3)},
        {"remote size", "backup/f", local, e, remote(4)},
        {"remote MD5", "backup/f", local, e, remote(3, "900150983cd24fb0d6963f7d28e17f72")},
        {"remote time", "backup/f", local, e, remote(3, kMd5, 1001)},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_FALSE(index.unchanged(c.remotePath, c.localPath, c.entry, c.remoteFile));
    }
}

// Rewritten with the same size and its time set back: only the change time,
// which nobody can set back, tells.
TEST_F(StoredIndexTest, ChangeTimeCatchesARewriteThatKeptSizeAndTime) {
    TestSupport::writeFile(_dir + "/f", "abc");
    LocalEntry const before = entryOf("f");
    StoredIndex index;
    index.record("f", storedAs(before));
    usleep(20000);  // past the file system's clock tick
    TestSupport::writeFile(_dir + "/f", "xyz");
    timespec const times[2] = {{0, UTIME_OMIT},
                               {before.mtimeNs / 1000000000, before.mtimeNs % 1000000000}};
    ASSERT_EQ(utimensat(AT_FDCWD, (_dir + "/f").c_str(), times, 0), 0);
    LocalEntry const after = entryOf("f");
    ASSERT_EQ(after.mtimeNs, before.mtimeNs);
    EXPECT_FALSE(index.unchanged("f", _dir + "/f", after, remote(3)));
}

// Only a whole index at least as new as the node cache is read.
TEST_F(StoredIndexTest, TornOrOlderIndexIsSetAside) {
    TestSupport::writeFile(_dir + "/f", "abc");
    std::string const file = _dir + "/index", cache = _dir + "/ta_cache.node";
    StoredIndex index;
    index.record("a", storedAs(entryOf("f")));
    index.record("b", storedAs(entryOf("f")));
    StoredFile odd = storedAs(entryOf("f"));  // written escaped, read back alike
    odd.local += "\\\xc3\xa9\n";
    index.record("c", odd);
    odd.mtimeNs = -1;
    index.record("d", odd);
    std::string error;
    TestSupport::writeFile(cache, "");
    usleep(20000);
    ASSERT_TRUE(index.save(file, error)) << error;
    StoredIndex read;
    ASSERT_TRUE(read.load(file, cache));
    EXPECT_TRUE(read == index);
    std::string const whole = TestSupport::readFile(file);
    size_t const lastLine = whole.rfind('\n', whole.size() - 2) + 1;
    struct Case {
        char const* what;
        std::string text;
    } const cases[] = {
        {"cut after an entry", whole.substr(0, lastLine)},
        {"cut inside an entry", whole.substr(0, lastLine - 20)},
        {"a count that differs", whole.substr(0, lastLine) + "{\"files\":5}\n"},
        {"an entry that lost a member",
         [&] {
             std::string t = whole;
             return t.erase(t.find("\"c\":"), t.find(',', t.find("\"c\":")) + 1 - t.find("\"c\":"));
         }()},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.what);
        TestSupport::writeFile(file, c.text);
        EXPECT_FALSE(read.load(file, cache));
        EXPECT_EQ(read.size(), 0u);
    }
    TestSupport::writeFile(file, whole);
    ASSERT_TRUE(read.load(file, cache));
    usleep(20000);
    TestSupport::writeFile(cache, "");  // written after the index
    EXPECT_FALSE(read.load(file, cache));
    fs::remove(cache);
    EXPECT_FALSE(read.load(file, cache));
}

TEST(ExcludeRulesTest, GlobsMatchAsSyncToolsTakeThem) {
    struct Case {
        char const* pattern;
        char const* path;
        bool folder, excluded;
    } const cases[] = {
        {"*.tmp", "x.tmp", false, true},     {"*.tmp", "a/b/x.tmp", false, true},
        {"*.tmp", "a.tmp/x", false, true},   {"*.tmp", "x.tmpl", false, false},
        {"/*.tmp", "a/x.tmp", false, false}, {"/*.tmp", "x.tmp", false, true},
        {"a/*.o", "x/a/b.o", false, true},   {"a/*.o", "a/b/c.o", false, false},
        {"a/**.o", "a/b/c.o", false, true},  {"/a/**/c", "a/c", false, true},
        {"cache/", "x/cache", true, true},   {"cache/", "x/cache", false, false},
        {"cache/", "cache/f", false, true},  {"f?le", "file", false, true},
        {"f?le", "f/le", false, false},      {"[ab]x", "bx", false, true},
        {"[!ab]x", "bx", false, false},      {"[a-c]x", "cx", false, true},
        {"\\*", "*", false, true},           {"\\*", "x", false, false},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(std::string(c.pattern) + " " + c.path);
        gdhost::ExcludeRules rules;
        std::string error;
        ASSERT_TRUE(rules.add(c.pattern, error)) << error;
        EXPECT_EQ(rules.excludes(c.path, c.folder), c.excluded);
    }
    gdhost::ExcludeRules rules;
    std::string error;
    for (char const* refused : {"", "/", "[ab"}) EXPECT_FALSE(rules.add(refused, error)) << refused;
}

}  // namespace
