#include "googledrive_meta.h"

#include <gtest/gtest.h>
#include <json/value.h>

#include "backup/json_text.h"
#include "googledrive_meta_page.h"

namespace TAVO::Backup {
namespace {

using GoogleDrive::FileMeta;

FileMeta read(std::string const& text, FileMeta meta = FileMeta()) {
    Json::Value value;
    EXPECT_TRUE(JsonText::fromString(text, value)) << text;
    EXPECT_TRUE(meta.setFileMeta(value));
    return meta;
}

TEST(FileMetaTest, ReadsEveryKeyOfADriveObject) {
    FileMeta meta = read(
        R"({"id":"F1","name":"a.bin","parents":["P2","P1","P2"],"properties":
            {"isDir":false,"size":5368709120,"lastModified":4294967295,
             "md5Checksum":"9e107d9d372bb6826bd81d3542a419d6","isTrash":false}})");
    EXPECT_EQ("F1", meta.id);
    EXPECT_EQ("a.bin", meta.name);
    EXPECT_EQ((std::set<std::string>{"P1", "P2"}), meta.parents);
    EXPECT_FALSE(meta.isDir);
    EXPECT_EQ(5368709120u, meta.size);
    EXPECT_EQ(4294967295u, meta.lastModified);
    EXPECT_EQ("9e107d9d372bb6826bd81d3542a419d6", meta.md5Checksum);
    EXPECT_EQ("AVAILABLE", meta.status);
    EXPECT_EQ("TRASH", read(R"({"properties":{"isTrash":true}})", meta).status);

    FileInfo info("dir/a.bin");
    EXPECT_TRUE(fileMetaToFileInfo(meta, info));
    EXPECT_TRUE(info.isRegType());
    EXPECT_EQ(5368709120, info.getSize());
    EXPECT_EQ(4294967295LL, info.getMtime());  // not -1: the time is unsigned
    EXPECT_EQ("9e107d9d372bb6826bd81d3542a419d6", info.getChecksum());
    EXPECT_EQ("dir/a.bin", info.getRpath());
}

TEST(FileMetaTest, AbsentKeysKeepTheirFieldsAndParentsAccumulate) {
    FileMeta old = read(R"({"id":"F0","name":"old","parents":["P0"],"properties":{"isDir":true,
        "size":11,"lastModified":22,"md5Checksum":"old-md5","isTrash":true}})");
    FileMeta meta = read(R"({"id":"F2","parents":["P1"]})", old);
    EXPECT_EQ((std::set<std::string>{"P0", "P1"}), meta.parents);
    EXPECT_TRUE(meta.name == "old" && meta.isDir && meta.size == 11 && meta.status == "TRASH");

    // A folder reports its type and time only.
    FileInfo info("d");
    info.setSize(7);
    EXPECT_TRUE(fileMetaToFileInfo(meta, info));
    EXPECT_TRUE(info.isDirType());
    EXPECT_EQ(22, info.getMtime());
    EXPECT_EQ(7, info.getSize());
}

// The listing page reader takes the usual pages, exactly as the general
// parser reads them, and leaves every other line to that parser.
TEST(ListingPageTest, TakesUsualPagesAndLeavesTheRestToTheGeneralParser) {
    std::string const file =
        R"({"id":"F1","name":"a \"b\"\n\u0041é","parents":["P2","P1"],"properties":)"
        R"({"isDir":false,"isTrash":false,"lastModified":4294967295,"md5Checksum":"m",)"
        R"("size":18446744073709551}})";
    struct Case {
        std::string line;
        bool taken;
    } const cases[] = {
        {R"({"objects":[)" + file + R"(,{"id":"D"}],"nextPageToken":"t\"2","success":true})", true},
        {R"( { "success" : true , "objects" : [ ] } )", true},
        {R"({"success":true})", true},
        {R"({"success":false,"objects":[]})", false},
        {R"({"success":true,"success":true})", false},
        {R"({"success":true,"kind":"drive#fileList"})", false},
        {R"({"success":true,"objects":[{"name":"no id"}]})", false},
        {R"({"success":true,"objects":[{"id":"T","properties":{"isTrash":true}}]})", false},
        {R"({"success":true,"objects":[{"id":"S","properties":{"size":"3"}}]})", false},
        {R"({"success":true,"objects":[{"id":"S","properties":{"size":01}}]})", false},
        {R"({"success":true,"objects":[{"id":"S","properties":{"size":1.0}}]})", false},
        {R"({"success":true,"objects":[{"id":"M","properties":{"lastModified":4294967296}}]})",
         false},
        {R"({"success":true,"objects":[{"id":"\u00e9"}]})", false},
        {"{\"success\":true,\"nextPageToken\":\"a\tb\"}", false},
        {R"({"success":true}x)", false},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.line);
        GoogleDrive::ListingPage page;
        ASSERT_EQ(c.taken, GoogleDrive::readListingPage(c.line, page));
        if (!c.taken) continue;
        Json::Value answer;
        ASSERT_TRUE(JsonText::fromString(c.line, answer));
        EXPECT_EQ(answer.get("nextPageToken", "").asString(), page.nextPageToken);
        ASSERT_EQ(answer["objects"].size(), page.objects.size());
        for (Json::ArrayIndex i = 0; i < answer["objects"].size(); ++i)
            EXPECT_TRUE(read(answer["objects"][i].toStyledString()) == page.objects[i]);
    }
}

}  // namespace
}  // namespace TAVO::Backup
