// The cloud model through the control library: what Drive allows and refuses,
// independent of the pipe.
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "drive_control.h"
#include "emulator_process.h"

using namespace DriveEmulator;

namespace {

class Model : public EmulatorTest::AccountTest {
  protected:
    int expectError(int code, std::function<void()> const& action) {
        try {
            action();
        } catch (Error const& e) {
            EXPECT_EQ(code, e.code()) << e.what();
            return e.code();
        }
        ADD_FAILURE() << "no error";
        return 0;
    }

    size_t blobFiles() {
        size_t count = 0;
        DIR* dir = ::opendir((data + "/blobs").c_str());
        while (dirent* e = ::readdir(dir)) count += e->d_type == DT_REG;
        ::closedir(dir);
        return count;
    }

    std::vector<std::string> ids(std::vector<Object> const& objects) {
        std::vector<std::string> result;
        for (auto const& o : objects) result.push_back(o.id);
        return result;
    }
};

}  // namespace

TEST_F(Model, RootHasItsOwnIdAndAnswersToItsAlias) {
    std::string root = drive->rootId();
    std::string a = drive->mkdir("root", "a");
    for (auto const& id : {root, a}) {
        EXPECT_EQ(33u, id.size());
        EXPECT_EQ(std::string::npos,
                  id.find_first_not_of(
                      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_"));
    }
    Object viaAlias = drive->stat("root");
    EXPECT_EQ(root, viaAlias.id);
    EXPECT_EQ("My Drive", viaAlias.name);
    EXPECT_TRUE(viaAlias.parents.empty());
    EXPECT_EQ(std::vector<std::string>{root}, drive->stat(a).parents);
}

TEST_F(Model, NamesRepeatAndCompareWithoutCase) {
    std::string first = drive->mkdir("root", "Pool");
    std::string second = drive->mkdir("root", "POOL");
    std::string file = drive->put("root", "pool", "x");
    EXPECT_EQ((std::vector<std::string>{first, second, file}), ids(drive->lookup("root", "pool")));
    EXPECT_TRUE(drive->lookup("root", "poo").empty());
    expectError(400, [&] { drive->idByPath("/Pool"); });  // ambiguous, not "not found"
    expectError(404, [&] { drive->idByPath("/Control"); });
    drive->remove(second);
    drive->remove(file);
    EXPECT_EQ(first, drive->idByPath("/pool"));
}

TEST_F(Model, DuplicateIsIndependentOfItsOriginal) {
    std::string dir = drive->mkdir("root", "d");
    std::string file = drive->put(dir, "f", "one");
    std::string copy = drive->duplicate(file);
    EXPECT_EQ(2u, drive->lookup(dir, "f").size());
    EXPECT_EQ("one", drive->content(copy));
    drive->update(file, "changed");
    EXPECT_EQ("one", drive->content(copy));
    drive->remove(file);
    EXPECT_EQ("one", drive->content(copy));
    EXPECT_EQ("f97c5d29941bfb1b2fdab0874906ab82", drive->stat(copy).md5);
}

TEST_F(Model, UpdateKeepsTheIdAndChangesTheContentFields) {
    std::string file = drive->put("root", "f", "first");
    EXPECT_EQ("8b04d5e3775d298e78455efc5ca404d5", drive->stat(file).md5);
    drive->setMtime(file, 1000);
    drive->update(file, "second version");
    Object after = drive->stat(file);
    EXPECT_EQ(14u, after.size);
    EXPECT_EQ("second version", drive->content(file));
    EXPECT_EQ("f084be37ed84e9d0d2a02d4d4be59745", after.md5);  // md5sum of the new text
    EXPECT_GT(after.mtime, 1000);
    EXPECT_EQ(1u, blobFiles());  // the old version's file is gone
    expectError(400, [&] { drive->update(drive->rootId(), "x"); });
}

TEST_F(Model, TrashReachesDescendantsAndUntrashRestoresThem) {
    std::string a = drive->mkdir("root", "a");
    std::string b = drive->mkdir(a, "b");
    std::string f = drive->put(b, "f", "x");
    std::string g = drive->put(a, "g", "y");
    drive->trash(g);
    drive->trash(a);
    EXPECT_TRUE(drive->stat(b).trashed);
    EXPECT_TRUE(drive->stat(f).trashed);
    EXPECT_TRUE(drive->children("root").empty());
    EXPECT_EQ(1u, drive->children("root", true).size());
    std::string late = drive->mkdir(b, "late");  // made inside the trash, it is trashed too
    EXPECT_TRUE(drive->stat(late).trashed);

    drive->untrash(a);
    EXPECT_FALSE(drive->stat(b).trashed);
    EXPECT_FALSE(drive->stat(f).trashed);
    EXPECT_TRUE(drive->stat(g).trashed);  // it was trashed in its own right
    EXPECT_EQ(std::vector<std::string>{b}, ids(drive->children(a)));

    // A second home outside the trash keeps an object out of it.
    std::string other = drive->mkdir("root", "other");
    drive->addParent(f, other);
    drive->trash(b);
    EXPECT_TRUE(drive->stat(f).trashed);  // one trashed parent is enough, as in Drive
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
    EXPECT_EQ(9, drive->account().usedSize);
    EXPECT_EQ(3u, blobFiles());

    drive->remove(a);
    for (auto const& gone : {a, b, f, both}) EXPECT_FALSE(drive->exists(gone)) << gone;
    ASSERT_TRUE(drive->exists(shared));
    EXPECT_EQ(std::vector<std::string>{keep}, drive->stat(shared).parents);
    EXPECT_EQ("678", drive->content(shared));
    EXPECT_EQ(3, drive->account().usedSize);
    EXPECT_EQ(1u, blobFiles());
    expectError(404, [&] { drive->remove(a); });
    expectError(403, [&] { drive->remove("root"); });
}

TEST_F(Model, QuotaRefusesGrowthBeyondIt) {
    drive->setQuota(10);
    std::string file = drive->put("root", "six", "123456");
    expectError(403, [&] { drive->put("root", "five", "12345"); });
    expectError(403, [&] { drive->update(file, "12345678901"); });
    EXPECT_EQ("123456", drive->content(file));  // a refused update changes nothing
    drive->update(file, "1234567890");          // exactly the quota is fine
    drive->put("root", "empty", "");            // nothing more is still allowed
    EXPECT_EQ(1u, blobFiles());
    drive->setQuota(std::nullopt);
    drive->put("root", "five", "12345");
    EXPECT_EQ(15, drive->account().usedSize);
}

TEST_F(Model, RefusesImpossibleTreeChanges) {
    std::string a = drive->mkdir("root", "a");
    std::string b = drive->mkdir(a, "b");
    std::string f = drive->put(a, "f", "x");
    expectError(400, [&] { drive->move(a, b); });  // into its own descendant
    expectError(400, [&] { drive->move(a, a); });
    expectError(400, [&] { drive->mkdir(f, "under a file"); });
    expectError(404, [&] { drive->mkdir("1NoSuchFolder", "x"); });
    expectError(400, [&] { drive->removeParent(f, a); });  // its only parent
    expectError(400, [&] { drive->mkdir("root", ""); });
    drive->move(b, "root");
    drive->rename(b, "renamed");
    EXPECT_EQ(b, drive->idByPath("/renamed"));
}

TEST_F(Model, InitStartsAFreshAccount) {
    drive->put("root", "f", "data");
    drive->addFault(Fault::fail("getObjectMeta", 500));
    std::string oldRoot = drive->rootId();
    drive.emplace(Drive::init(data, AccountOptions{"a@b.c", "Someone", 1234}));
    Account account = drive->account();
    EXPECT_NE(oldRoot, account.rootId);
    EXPECT_EQ(1234, account.quota.value_or(-1));
    EXPECT_TRUE(drive->children("root").empty());
    EXPECT_TRUE(drive->faults().empty());
    EXPECT_EQ(0u, blobFiles());
    expectError(500, [&] { Drive::open(data + "/blobs"); });
}
