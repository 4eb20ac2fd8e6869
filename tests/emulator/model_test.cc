// The cloud model through the control library: what Drive allows and refuses,
// independent of the pipe.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "drive_control.h"
#include "emulator_process.h"

using namespace DriveEmulator;

namespace {

class Model : public EmulatorTest::AccountTest {
  protected:
    void expectError(int code, std::function<void()> const& action) {
        try {
            action();
            ADD_FAILURE() << "no error";
        } catch (Error const& e) {
            EXPECT_EQ(code, e.code()) << e.what();
        }
    }
    long blobFiles() {
        std::filesystem::directory_iterator files(data + "/blobs");
        return std::count_if(begin(files), end(files), [](auto& f) { return f.is_regular_file(); });
    }
};

}  // namespace

TEST_F(Model, TrashReachesDescendantsAndUntrashRestoresThem) {
    std::string a = drive->mkdir("root", "a");
    std::string b = drive->mkdir(a, "b");
    std::string f = drive->put(b, "f", "x");
    std::string g = drive->put(a, "g", "y");
    drive->trash(g);
    drive->trash(a);
    EXPECT_TRUE(drive->stat(f).trashed);
    EXPECT_TRUE(drive->children("root").empty());
    EXPECT_TRUE(drive->stat(drive->mkdir(b, "late")).trashed);  // made inside the trash

    drive->untrash(a);
    EXPECT_FALSE(drive->stat(f).trashed);
    EXPECT_TRUE(drive->stat(g).trashed);  // it was trashed in its own right

    // One trashed parent is enough, as in Drive.
    drive->addParent(f, drive->mkdir("root", "other"));
    drive->trash(b);
    EXPECT_TRUE(drive->stat(f).trashed);
    drive->removeParent(f, b);
    EXPECT_FALSE(drive->stat(f).trashed);
}

TEST_F(Model, DeleteTakesDescendantsButNotThoseWithAnotherParent) {
    std::string a = drive->mkdir("root", "a");
    std::string b = drive->mkdir(a, "b");
    std::string f = drive->put(b, "f", "12345");
    std::string shared = drive->put(a, "shared", "678");
    std::string both = drive->put(b, "both", "9");  // second parent inside the doomed tree
    drive->addParent(both, a);
    std::string keep = drive->mkdir("root", "keep");
    drive->addParent(shared, keep);

    drive->remove(a);
    for (auto const& gone : {a, b, f, both}) EXPECT_FALSE(drive->exists(gone)) << gone;
    ASSERT_TRUE(drive->exists(shared));
    EXPECT_EQ(std::vector<std::string>{keep}, drive->stat(shared).parents);
    EXPECT_EQ(3, drive->account().usedSize);
    EXPECT_EQ(1, blobFiles());
    expectError(404, [&] { drive->remove(a); });
    expectError(403, [&] { drive->remove("root"); });
}

TEST_F(Model, QuotaRefusesGrowthBeyondItAndUpdatesReplaceContent) {
    drive->setQuota(10);
    std::string file = drive->put("root", "six", "123456");
    expectError(403, [&] { drive->put("root", "five", "12345"); });
    expectError(403, [&] { drive->update(file, "12345678901"); });
    EXPECT_EQ("123456", drive->content(file));  // a refused update changes nothing
    drive->setMtime(file, 1000);
    drive->update(file, "1234567890");  // exactly the quota is fine
    Object after = drive->stat(file);
    EXPECT_EQ("e807f1fcf82d132f9bb018ca6738a19f", after.md5);
    EXPECT_GT(after.mtime, 1000);
    EXPECT_EQ(1, blobFiles());  // the old version's file is gone
}

// Another client deletes a tree and uploads it again: the same names, contents,
// parents and times under new ids.
TEST_F(Model, RecreateReplacesATreeByCopiesUnderNewIds) {
    std::string a = drive->mkdir("root", "a");
    std::string f = drive->put(drive->mkdir(a, "b"), "f", "content");
    drive->addParent(a, drive->mkdir("root", "other"));
    drive->setMtime(f, 1000);
    long blobs = blobFiles();

    std::string renewed = drive->recreate(a);
    EXPECT_FALSE(drive->exists(a) || drive->exists(f));
    EXPECT_EQ(renewed, drive->idByPath("/other/a"));
    Object copy = drive->stat(drive->idByPath("/a/b/f"));
    EXPECT_EQ("content", drive->content(copy.id));
    EXPECT_EQ(1000, copy.mtime);
    EXPECT_EQ(blobs, blobFiles());
    expectError(403, [&] { drive->recreate("root"); });
}
