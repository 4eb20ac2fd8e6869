// Temporary files, the error state, the JSON text helpers and paths.
#include "support/files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>

#include "backup/error.h"
#include "backup/json_text.h"
#include "backup/path.h"
#include "backup/path_check.h"
#include "backup/scoped_temp_file.h"

using namespace TAVO::Backup;

namespace {
bool exists(std::string const& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}
}  // namespace

TEST(ScopedTempFile, LivesBesideTargetAndVanishesUnlessRenamed) {
    std::string dir = TestSupport::makeTempFolder("platform-test");
    std::string target = dir + "/file";
    std::string path;
    {
        ScopedTempFile tmp(target, true);
        ASSERT_TRUE(tmp.isValid());
        path = tmp.getPath();
        EXPECT_EQ(0u, path.find(dir + "/.file.tmp."));
        struct stat st;
        ASSERT_EQ(0, ::stat(path.c_str(), &st));
        EXPECT_EQ(0600u, st.st_mode & 0777);
        // A failed rename keeps the file ours, so it still goes at the end of scope.
        EXPECT_FALSE(tmp.rename(dir + "/missing/f"));
        EXPECT_TRUE(exists(path));
    }
    EXPECT_FALSE(exists(path));
    {
        ScopedTempFile tmp(target, true);
        TestSupport::writeFile(tmp.getPath(), "new");
        ASSERT_TRUE(tmp.rename(target));
    }
    EXPECT_EQ("new", TestSupport::readFile(target));
    unlink(target.c_str());
    rmdir(dir.c_str());
}

TEST(ErrorState, IsPerThread) {
    setError(2003);
    int other = -1;
    std::thread([&] { other = getError(); }).join();
    EXPECT_EQ(0, other);
    EXPECT_EQ(2003, getError());
}

TEST(JsonText, ParserIsStrict) {
    Json::Value v;
    EXPECT_TRUE(TAVO::JsonText::fromString("{\"a\":1}\n", v));
    EXPECT_EQ(1, v["a"].asInt());
    for (std::string bad : std::vector<std::string>{
             "", "{", "{\"a\":1} x", "{\"a\":1}{}", "{'a':1}", "{\"a\":1,\"a\":2}", "// c\n{}",
             std::string("{\"a\":\"x\0\"}", 10), "\x01\x02"}) {
        SCOPED_TRACE(bad);
        EXPECT_FALSE(TAVO::JsonText::fromString(bad, v));
    }
}

TEST(PathAbs, FoldsDotsAgainstWorkingDirectory) {
    EXPECT_EQ("/a/c", Path::absPath("/a/./b/../c//"));
    EXPECT_EQ("/", Path::absPath("/.."));
    char cwd[4096];
    ASSERT_NE(nullptr, getcwd(cwd, sizeof cwd));
    EXPECT_EQ(std::string(cwd) == "/" ? "/x" : std::string(cwd) + "/x", Path::absPath("x"));
}

TEST(PathValidators, RelativePaths) {
    EXPECT_TRUE(isValidRelativePath("a/b/", false));
    EXPECT_FALSE(isValidRelativePath("", false));
    EXPECT_TRUE(isValidRelativePath("", true));
    EXPECT_TRUE(isValidRelativePath("/", true));
    EXPECT_FALSE(isValidRelativePath("/a", true));
    EXPECT_FALSE(isValidRelativePath("a/../b", false));
    EXPECT_FALSE(isValidRelativePath("a/./b", false));
    EXPECT_FALSE(isValidRelativePath(std::string("a\0b", 3), false));
    EXPECT_FALSE(isValidRelativePath(std::string(256, 'x'), false));
    EXPECT_TRUE(isValidRelativePath(std::string(255, 'x'), false));
    EXPECT_TRUE(isValidRelativePath("..a/b..", false));
}
