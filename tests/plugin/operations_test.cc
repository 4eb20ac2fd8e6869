// The engine's folder, listing and status operations, and the verification
// of the node cache against the service.
#include <syslog.h>

#include <algorithm>
#include <functional>

#include "backup/error.h"
#include "emulated_drive.h"
#include "support/syslog_capture.h"

using namespace TAVO::Backup;

namespace {
std::vector<std::string> paths(std::list<FileInfo> const& list) {
    std::vector<std::string> out;
    for (auto const& info : list) out.push_back(info.getRpath());
    return out;
}
}  // namespace

class OperationsTest : public EmulatedDriveTest {};

TEST_F(OperationsTest, CreateDirTakesTheWantedEndStateAsSuccess) {
    ASSERT_TRUE(agent->createDir("a"));
    ASSERT_EQ(1u, drive->lookup(targetId, "a").size());
    std::string id;
    EXPECT_TRUE(agent->findNodeIdByPath(true, "/C/T/a", id)) << "the new folder is cached";
    drive->clearRequestLog();
    ASSERT_TRUE(agent->createDir("a"));
    EXPECT_EQ(0, requests("createFolder"));
    drive->put(targetId, "file", "x");
    EXPECT_FALSE(agent->createDir("file"));
    EXPECT_EQ(2005, getError());
    EXPECT_FALSE(agent->createDir("missing/child"));
    EXPECT_EQ(2003, getError());
    EXPECT_TRUE(
        TestSupport::syslogHas("findNodeIdByPath(/C/T/missing) failed, error[2003]", LOG_ERR));
}

TEST_F(OperationsTest, CreateContainer) {
    ASSERT_TRUE(agent->createContainer("C"));
    ASSERT_TRUE(agent->createContainer("New"));
    EXPECT_EQ(1u, drive->lookup(rootId, "New").size());
    drive->put(rootId, "topfile", "x");
    EXPECT_FALSE(agent->createContainer("topfile"));
    EXPECT_EQ(2005, getError());
    EXPECT_FALSE(agent->createContainer("a/../b"));
    EXPECT_EQ(7, getError());
}

TEST_F(OperationsTest, RemovalsCheckTheKindAndAcceptMissingPaths) {
    std::string dir = drive->mkdir(targetId, "d");
    std::string sub = drive->mkdir(dir, "sub");
    drive->put(sub, "f", "x");
    std::string file = drive->put(targetId, "f", "x");

    EXPECT_FALSE(agent->removeFile("d"));
    EXPECT_EQ(2004, getError());
    EXPECT_FALSE(agent->removeDirRecursive("f"));
    EXPECT_EQ(2005, getError());
    EXPECT_TRUE(drive->exists(dir));
    EXPECT_TRUE(drive->exists(file));

    drive->clearRequestLog();
    ASSERT_TRUE(agent->removeDirRecursive("d"));
    EXPECT_EQ(1, requests("deleteObject"));
    EXPECT_FALSE(drive->exists(sub));
    ASSERT_TRUE(agent->removeFile("f"));
    EXPECT_FALSE(drive->exists(file));

    EXPECT_TRUE(agent->removeFile("f"));
    EXPECT_EQ(2003, getError());
    EXPECT_TRUE(agent->removeDirRecursive("d"));
    EXPECT_EQ(2003, getError());
}

TEST_F(OperationsTest, StatusQueries) {
    drive->mkdir(targetId, "d");
    drive->put(targetId, "f", "12345");
    EXPECT_TRUE(agent->isExist("d"));
    EXPECT_FALSE(agent->isFileExist("d"));
    EXPECT_EQ(2004, getError());
    EXPECT_TRUE(agent->isFileExist("f"));
    TestSupport::clearSyslog();
    EXPECT_FALSE(agent->isExist("none"));
    EXPECT_EQ(2003, getError());
    EXPECT_FALSE(TestSupport::syslogHas("", LOG_ERR)) << "a missing path is routine";
    FileInfo info("f");
    ASSERT_TRUE(agent->stat("f", info));
    EXPECT_EQ(5, info.getSize());
    EXPECT_TRUE(info.isRegType());
}

TEST_F(OperationsTest, ListDirAndContainer) {
    drive->put(drive->mkdir(targetId, "d"), "inside", "x");
    drive->put(targetId, "f", "abc");
    std::list<FileInfo> list;
    ASSERT_TRUE(agent->listDir("", list));
    auto names = paths(list);
    std::sort(names.begin(), names.end());
    EXPECT_EQ((std::vector<std::string>{"d", "f"}), names);
    // Just listed in its confirmed parent, "d" is in its place: its listing
    // asks nothing more.
    drive->clearRequestLog();
    ASSERT_TRUE(agent->listDir("d", list));
    EXPECT_EQ((std::vector<std::string>{"inside"}), paths(list));
    EXPECT_EQ(1, requests());

    list.push_back(FileInfo("stale"));
    EXPECT_FALSE(agent->listDir("f", list));
    EXPECT_EQ(2005, getError());
    EXPECT_TRUE(list.empty());

    ASSERT_TRUE(agent->listContainer(list));
    EXPECT_EQ((std::vector<std::string>{"C"}), paths(list));
}

TEST_F(OperationsTest, RecursiveListingIsDepthFirstAndStopsOnRequest) {
    std::string a = drive->mkdir(targetId, "a");
    drive->put(a, "x", "1");
    std::string b = drive->mkdir(a, "b");
    drive->put(b, "y", "2");
    drive->put(a, "z", "3");
    std::vector<std::string> seen;
    auto collect = [&](FileInfo const& info, void*) {
        seen.push_back(info.getRpath());
        return true;
    };
    ASSERT_TRUE(agent->listDirRecursive("a", collect, nullptr));
    EXPECT_EQ((std::vector<std::string>{"x", "b/y", "z"}), seen);

    seen.clear();
    auto stopAtFirst = [&](FileInfo const& info, void*) {
        seen.push_back(info.getRpath());
        return false;
    };
    EXPECT_FALSE(agent->listDirRecursive("a", stopAtFirst, nullptr));
    EXPECT_EQ(1, getError());
    EXPECT_EQ(1u, seen.size());
}

// ---- Node cache verification ----

class CheckCacheTest : public EmulatedDriveTest {
  protected:
    void SetUp() override {
        EmulatedDriveTest::SetUp();
        poolId = drive->mkdir(targetId, "Pool");
        drive->mkdir(targetId, "Control");
        std::list<FileInfo> list;
        ASSERT_TRUE(agent->listDir("", list));  // learns the target's children
        ASSERT_TRUE(agent->flushCache());
    }
    bool cacheKnows(std::string const& path) {
        std::string id;
        return agent->findNodeIdByPath(true, path, id);
    }
    std::string poolId;
};

TEST_F(CheckCacheTest, KeepsACacheThatStillMatches) {
    drive->clearRequestLog();
    EXPECT_TRUE(agent->checkCache());
    EXPECT_TRUE(cacheKnows("/C/T/Pool"));
    EXPECT_EQ(4, requests("getObjectMeta"));  // container, target, Pool, Control
    EXPECT_EQ(0, requests("listObjects"));
    // A cache without the Pool folder is not the backup layout.
    agent->dropNodeCache();
    std::string id;
    ASSERT_TRUE(agent->findNodeIdByPath(false, "/C/T/Control", id));
    EXPECT_TRUE(agent->checkCache());
    EXPECT_TRUE(TestSupport::syslogHas("missing [/C/T/Pool] in cache", LOG_ERR));
    EXPECT_FALSE(cacheKnows("/C/T"));
}

TEST_F(CheckCacheTest, AMovedOrRenamedEntryDropsTheWholeCache) {
    std::string const elsewhere = drive->mkdir(containerId, "other");
    struct Row {
        std::function<void()> change, undo;
        char const* logged;
    } const rows[] = {
        {[&] { drive->move(poolId, elsewhere); }, [&] { drive->move(poolId, targetId); },
         "node not below the original parent, [/C/T/Pool]"},
        {[&] { drive->rename(poolId, "P"); }, [&] { drive->rename(poolId, "Pool"); },
         "node has been renamed, [/C/T/Pool]"},
        {[&] { drive->rename(containerId, "X"); }, [&] { drive->rename(containerId, "C"); },
         "node has been renamed, [/C]"},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.logged);
        TestSupport::clearSyslog();
        row.change();
        EXPECT_TRUE(agent->checkCache());
        EXPECT_TRUE(TestSupport::syslogHas(row.logged, LOG_ERR));
        EXPECT_TRUE(TestSupport::syslogHas("drop node cache", LOG_ERR));
        EXPECT_FALSE(cacheKnows("/C/T"));
        EXPECT_EQ("", readFile(cacheFile()));
        // Later operations fill it again.
        row.undo();
        std::list<FileInfo> list;
        ASSERT_TRUE(agent->listDir("", list));
    }
}
