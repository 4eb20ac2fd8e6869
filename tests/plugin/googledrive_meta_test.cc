#include "googledrive_meta.h"

#include <gtest/gtest.h>
#include <json/value.h>

#include "backup/json_text.h"

namespace TAVO {
namespace Backup {
namespace {

using GoogleDrive::FileMeta;

Json::Value parse(std::string const& text) {
    Json::Value value;
    EXPECT_TRUE(JsonText::fromString(text, value)) << text;
    return value;
}

FileMeta filledRecord() {
    FileMeta meta;
    meta.id = "old-id";
    meta.name = "old-name";
    meta.parents = {"P0"};
    meta.isDir = true;
    meta.size = 11;
    meta.lastModified = 22;
    meta.md5Checksum = "old-md5";
    meta.status = "TRASH";
    return meta;
}

TEST(FileMetaTest, ReadsEveryKeyOfADriveObject) {
    FileMeta meta;
    EXPECT_TRUE(meta.setFileMeta(parse(
        R"({"id":"F1","name":"a.bin","parents":["P2","P1","P2"],"properties":
            {"isDir":false,"size":5368709120,"lastModified":4294967295,
             "md5Checksum":"9e107d9d372bb6826bd81d3542a419d6","isTrash":false}})")));
    EXPECT_EQ("F1", meta.id);
    EXPECT_EQ("a.bin", meta.name);
    EXPECT_EQ((std::set<std::string>{"P1", "P2"}), meta.parents);
    EXPECT_FALSE(meta.isDir);
    EXPECT_EQ(5368709120u, meta.size);
    EXPECT_EQ(4294967295u, meta.lastModified);
    EXPECT_EQ("9e107d9d372bb6826bd81d3542a419d6", meta.md5Checksum);
    EXPECT_EQ("AVAILABLE", meta.status);

    EXPECT_TRUE(meta.setFileMeta(parse(R"({"properties":{"isTrash":true}})")));
    EXPECT_EQ("TRASH", meta.status);
}

TEST(FileMetaTest, AbsentKeysKeepTheirFieldsAndParentsAccumulate) {
    FileMeta meta = filledRecord();
    EXPECT_TRUE(meta.setFileMeta(parse(R"({"id":"F2","name":"b","parents":["P1"]})")));
    EXPECT_EQ("F2", meta.id);
    EXPECT_EQ("b", meta.name);
    EXPECT_EQ((std::set<std::string>{"P0", "P1"}), meta.parents);
    EXPECT_TRUE(meta.isDir);
    EXPECT_EQ(11u, meta.size);
    EXPECT_EQ(22u, meta.lastModified);
    EXPECT_EQ("old-md5", meta.md5Checksum);
    EXPECT_EQ("TRASH", meta.status);

    // Properties without isTrash leave the trash state unknown on a fresh record.
    FileMeta fresh;
    fresh.setFileMeta(parse(R"({"id":"F3","properties":{"size":1}})"));
    EXPECT_EQ("", fresh.status);
    EXPECT_EQ(1u, fresh.size);
}

TEST(FileMetaToFileInfoTest, FileReportsSizeTimeAndChecksum) {
    FileMeta meta;
    meta.setFileMeta(parse(R"({"id":"F","properties":{"isDir":false,"size":5368709120,
        "lastModified":4294967295,"md5Checksum":"abc"}})"));
    FileInfo info("dir/a.bin");
    EXPECT_TRUE(fileMetaToFileInfo(meta, info));
    EXPECT_TRUE(info.isRegType());
    EXPECT_EQ(5368709120, info.getSize());
    EXPECT_EQ(4294967295LL, info.getMtime());  // not -1: the time is unsigned
    EXPECT_EQ("abc", info.getChecksum());
    EXPECT_EQ("dir/a.bin", info.getRpath());
}

TEST(FileMetaToFileInfoTest, FolderReportsTypeAndTimeOnly) {
    FileMeta meta = filledRecord();
    FileInfo info("d");
    info.setSize(7);
    info.setChecksum("kept");
    EXPECT_TRUE(fileMetaToFileInfo(meta, info));
    EXPECT_TRUE(info.isDirType());
    EXPECT_EQ(22, info.getMtime());
    EXPECT_EQ(7, info.getSize());
    EXPECT_EQ("kept", info.getChecksum());
}

TEST(FileMetaToFileInfoTest, RecordWithoutPropertiesIsAnEmptyFile) {
    FileMeta meta;
    meta.setFileMeta(parse(R"({"id":"F"})"));
    FileInfo info;
    fileMetaToFileInfo(meta, info);
    EXPECT_TRUE(info.isRegType());
    EXPECT_EQ(0, info.getSize());
    EXPECT_EQ(0, info.getMtime());
    EXPECT_EQ("", info.getChecksum());
}

}  // namespace
}  // namespace Backup
}  // namespace TAVO
