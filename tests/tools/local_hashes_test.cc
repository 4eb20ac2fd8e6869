// The local MD5s a copy compares with the listing: worked out a slice at a
// time while workers list, they must equal what reading each file at once
// gives, and exist only for files the listing makes worth comparing.
#include "local_hashes.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "md5_hex.h"

namespace {

std::string md5Of(std::string const& path) {
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    std::string const all = bytes.str();
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    EVP_DigestInit_ex(ctx, EVP_md5(), nullptr);
    EVP_DigestUpdate(ctx, all.data(), all.size());
    std::string hex = DriveAgent::finishHexDigest(ctx);
    EVP_MD_CTX_free(ctx);
    return hex;
}

TEST(LocalHashesTest, SlicedHashesMatchWholeReadsForFilesOfTheListedSize) {
    char folder[] = "/tmp/local_hashes.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(folder));
    std::string const top = folder;
    auto write = [&](std::string const& name, std::string const& bytes) {
        std::ofstream(top + "/" + name, std::ios::binary) << bytes;
    };
    write("empty", "");
    write("short", "12345");
    write("long", std::string(20, 'x') + "tail");
    write("other size", "abc");
    write("unread", "never listed");
    gdhost::LocalHashes hashes(
        top,
        {{"empty", 0}, {"short", 5}, {"long", 24}, {"other size", 3}, {"unread", 12}, {"gone", 4}});
    struct Listed {
        char const* rpath;
        int64_t remoteSize;
        bool hashed;
    };
    Listed const cases[] = {
        {"empty", 0, true},       {"long", 24, true},  // many slices of 7 bytes
        {"short", 5, true},                            //
        {"other size", 4, false},                      // a size that differs already decides
        {"gone", 4, false},  // vanished since the walk: read when compared
        {"long", 24, true},  // listed twice, queued once
    };
    for (Listed const& c : cases) hashes.listed(c.rpath, c.remoteSize);
    int steps = 0;
    while (hashes.step(7)) ++steps;
    EXPECT_GE(steps, 24 / 7);
    for (Listed const& c : cases) {
        SCOPED_TRACE(c.rpath);
        std::string const* md5 = hashes.md5(c.rpath);
        ASSERT_EQ(c.hashed, md5 != nullptr);
        if (md5) {
            EXPECT_EQ(md5Of(top + "/" + c.rpath), *md5);
        }
    }
    EXPECT_EQ(nullptr, hashes.md5("unread"));
    std::string const command = "rm -rf " + top;
    EXPECT_EQ(0, std::system(command.c_str()));
}

// Hashing ahead of the listing: small files only, listed ones first, and
// nothing guessed is hashed once the listing is in, unless it was listed.
TEST(LocalHashesTest, GuessesGoBehindListedFilesAndEndWithTheListing) {
    char folder[] = "/tmp/local_hashes.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(folder));
    std::string const top = folder;
    for (auto const& [name, bytes] : std::map<std::string, std::string>{
             {"a", "aaaa"}, {"b", "bbbb"}, {"c", "cccc"}, {"d", "dddd"}, {"large", "0123456789"}})
        std::ofstream(top + "/" + name, std::ios::binary) << bytes;
    gdhost::LocalHashes hashes(top, {{"a", 4}, {"b", 4}, {"c", 4}, {"d", 4}, {"large", 10}});
    hashes.guessUpTo(4);
    hashes.listed("c", 4);
    EXPECT_TRUE(hashes.step(5));  // the listed one, then a byte of the first guess
    EXPECT_NE(nullptr, hashes.md5("c"));
    EXPECT_EQ(nullptr, hashes.md5("a"));
    hashes.listed("a", 4);  // being hashed already: not queued again
    hashes.stopGuessing();  // the one under way is finished
    while (hashes.step(5)) {
    }
    ASSERT_NE(nullptr, hashes.md5("a"));
    EXPECT_EQ(md5Of(top + "/a"), *hashes.md5("a"));
    EXPECT_EQ(nullptr, hashes.md5("b"));      // a guess left when the listing ended
    EXPECT_EQ(nullptr, hashes.md5("large"));  // never a guess
    hashes.listed("d", 4);
    while (hashes.step(4)) {
    }
    ASSERT_NE(nullptr, hashes.md5("d"));
    EXPECT_EQ(md5Of(top + "/d"), *hashes.md5("d"));
    std::string const command = "rm -rf " + top;
    EXPECT_EQ(0, std::system(command.c_str()));
}

}  // namespace
