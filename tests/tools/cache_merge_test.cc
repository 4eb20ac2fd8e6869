// Merging the node caches of parallel workers: what they learned is kept,
// what they proved gone is dropped, and a base that is not the whole file
// is never used.
#include "cache_merge.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "support/files.h"

namespace fs = std::filesystem;
using gdhost::copyWholeFile;
using gdhost::mergeCacheLines;

namespace {

TEST(CacheMergeTest, AdditionsAndChangesKeptDropsWin) {
    std::map<std::string, std::string> const base = {{"a", "a0"}, {"b", "b0"}, {"c", "c0"}};
    // One worker adds d and changes b; the other adds e, drops c and b.
    std::map<std::string, std::string> const first = {
        {"a", "a0"}, {"b", "b1"}, {"c", "c0"}, {"d", "d1"}};
    std::map<std::string, std::string> const second = {{"a", "a0"}, {"e", "e2"}};
    std::map<std::string, std::string> const expected = {{"a", "a0"}, {"d", "d1"}, {"e", "e2"}};
    EXPECT_EQ(mergeCacheLines(base, {first, second}), expected);
    EXPECT_EQ(mergeCacheLines(base, {}), base);
}

// A copy is whole or absent: a missing source and a write cut short (a full
// disk, here a file size limit) both leave no file behind.
TEST(CacheMergeTest, CopyIsWholeOrAbsent) {
    std::string const dir = TestSupport::makeTempFolder("cache-merge-test");
    std::string const from = dir + "/from", to = dir + "/to";
    TestSupport::writeFile(from, std::string(64 * 1024, 'x'));
    EXPECT_FALSE(copyWholeFile(dir + "/missing", to));
    EXPECT_FALSE(fs::exists(to));
    pid_t child = fork();
    if (child == 0) {
        signal(SIGXFSZ, SIG_IGN);
        rlimit const limit = {4096, 4096};
        setrlimit(RLIMIT_FSIZE, &limit);
        _exit(copyWholeFile(from, to) ? 1 : fs::exists(to) ? 2 : 0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    ASSERT_TRUE(copyWholeFile(from, to));
    EXPECT_EQ(TestSupport::readFile(to), TestSupport::readFile(from));
    fs::remove_all(dir);
}

}  // namespace
