#include "backup/path.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "backup/path_check.h"

using namespace TAVO::Backup;

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

TEST(PathValidators, FileAndLocalPaths) {
    // The plain refusals show in the transfer tests' table of bad paths.
    EXPECT_TRUE(isValidFileRelativePath("/a", true));
    EXPECT_TRUE(isValidFileLocalPath("/tmp/x", true));
    EXPECT_FALSE(isValidFileLocalPath("x", true));
    EXPECT_TRUE(isValidFileLocalPath("x", false));
    EXPECT_FALSE(isValidFileLocalPath("/tmp/../etc/passwd", false));
}
