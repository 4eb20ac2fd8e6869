#include "backup/path.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "backup/path_check.h"

using namespace TAVO::Backup;

TEST(PathJoin, FoldsSlashesBetweenComponentsOnly) {
    struct Case {
        std::vector<std::string> parts;
        std::string want;
    } cases[] = {
        {{"/", "C", "T", ""}, "/C/T"},
        {{"/", "C", "T", "/"}, "/C/T/"},
        {{"/", "C", "T", "a/b/"}, "/C/T/a/b/"},
        {{"/", "", "", ""}, "/"},
        {{"/", "C", "", "a"}, "/C/a"},
        {{"a/", "/b"}, "a/b"},
        {{"a//x", "b"}, "a//x/b"},
        {{"", "b"}, "b"},
        {{"/", "/"}, "/"},
    };
    for (auto const& c : cases) {
        std::vector<std::string> p = c.parts;
        p.resize(7);
        SCOPED_TRACE(c.want);
        EXPECT_EQ(c.want, Path::join(p[0], p[1], p[2], p[3], p[4], p[5], p[6]));
    }
}

TEST(PathSplit, AbsolutePathsStartWithTheRootElement) {
    std::vector<std::string> parts;
    ASSERT_TRUE(Path::split("/C/T/a", parts));
    EXPECT_EQ((std::vector<std::string>{"", "C", "T", "a"}), parts);
    ASSERT_TRUE(Path::split("/", parts));
    EXPECT_EQ((std::vector<std::string>{""}), parts);
    ASSERT_TRUE(Path::split("/C/T/", parts));
    EXPECT_EQ((std::vector<std::string>{"", "C", "T"}), parts);
    ASSERT_TRUE(Path::split("/C//a", parts));
    EXPECT_EQ((std::vector<std::string>{"", "C", "", "a"}), parts);
    ASSERT_TRUE(Path::split("", parts));
    EXPECT_TRUE(parts.empty());
    EXPECT_FALSE(Path::split(std::string("/a\0b", 4), parts));
}

TEST(PathDirBase, SplitTheLastComponent) {
    EXPECT_EQ("/C/T", Path::dirname("/C/T/a"));
    EXPECT_EQ("/", Path::dirname("/C"));
    EXPECT_EQ("/", Path::dirname("/"));
    EXPECT_EQ("/C", Path::dirname("/C/T/"));
    EXPECT_EQ(".", Path::dirname("a"));
    EXPECT_EQ("a", Path::basename("/C/a"));
    EXPECT_EQ("a", Path::basename("/C/a//"));
    EXPECT_EQ("/", Path::basename("/"));
}

TEST(PathAbs, FoldsDotsAgainstWorkingDirectory) {
    EXPECT_EQ("/a/c", Path::absPath("/a/./b/../c//"));
    EXPECT_EQ("/", Path::absPath("/.."));
    char cwd[4096];
    ASSERT_NE(nullptr, getcwd(cwd, sizeof cwd));
    EXPECT_EQ(std::string(cwd) == "/" ? "/x" : std::string(cwd) + "/x", Path::absPath("x"));
}

TEST(PathValidators, RelativePaths) {
    EXPECT_TRUE(isValidRelativePath("a/b", false));
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
    EXPECT_TRUE(isValidFileRelativePath("a/b", false));
    EXPECT_FALSE(isValidFileRelativePath("a/b/", false));
    EXPECT_FALSE(isValidFileRelativePath("", false));
    EXPECT_FALSE(isValidFileRelativePath("/a", false));
    EXPECT_TRUE(isValidFileRelativePath("/a", true));
    EXPECT_TRUE(isValidFileLocalPath("/tmp/x", true));
    EXPECT_FALSE(isValidFileLocalPath("x", true));
    EXPECT_TRUE(isValidFileLocalPath("x", false));
    EXPECT_FALSE(isValidFileLocalPath("/tmp/", false));
    EXPECT_FALSE(isValidFileLocalPath("/tmp/../etc/passwd", false));
    EXPECT_FALSE(isValidFileLocalPath("", false));
}
