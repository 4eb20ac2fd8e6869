// Path resolution and the remote requests under it: what each walk costs in
// requests, and how Drive's odd semantics (duplicate names, case-insensitive
// names, trash, listings that lag behind writes) come out to the engine.
#include <syslog.h>

#include "backup/error.h"
#include "emulated_drive.h"
#include "support/syslog_capture.h"

using namespace TAVO::Backup;
using DriveEmulator::Fault;

class ResolveTest : public EmulatedDriveTest {
  protected:
    void SetUp() override {
        EmulatedDriveTest::SetUp();
        aId = drive->mkdir(targetId, "a");
        bId = drive->mkdir(aId, "b");
        drive->clearRequestLog();
    }
    std::string aId, bId;
};

TEST_F(ResolveTest, ColdWalkCostsOneRequestPerLevelAndWarmWalkNone) {
    std::string id;
    ASSERT_TRUE(agent->findNodeIdByPath(false, "/C/T/a/b", id)) << getError();
    EXPECT_EQ(bId, id);
    EXPECT_EQ(1, requests("getObjectMeta"));
    ASSERT_EQ(4, requests("listObjects"));
    auto log = drive->requestLog();
    // The name filter exactly as Drive's query language wants it.
    EXPECT_EQ("('" + rootId + "' in parents) and (name = 'C')",
              log[1].args["queryFilter"].asString());

    drive->clearRequestLog();
    ASSERT_TRUE(agent->findNodeIdByPath(false, "/C/T/a/b", id));
    EXPECT_EQ(bId, id);
    EXPECT_EQ(0, requests());
}

TEST_F(ResolveTest, StatFromTheCacheAsksOnlyForTheLastObject) {
    std::string id;
    ASSERT_TRUE(agent->findNodeIdByPath(false, "/C/T/a/b", id));
    drive->clearRequestLog();
    GoogleDrive::FileMeta meta;
    ASSERT_TRUE(agent->statMeta("/C/T/a/b", meta));
    EXPECT_EQ("AVAILABLE", meta.status);
    ASSERT_EQ(1, requests());
    EXPECT_EQ(bId, drive->requestLog()[0].args["id"].asString());
    // Replaced behind the cache's back: the path's new object, not absent.
    drive->remove(bId);
    std::string newId = drive->mkdir(aId, "b");
    ASSERT_TRUE(agent->statMeta("/C/T/a/b", meta)) << getError();
    EXPECT_EQ(newId, meta.id);
}

TEST_F(ResolveTest, CacheOnlyWalkNeverAsks) {
    std::string id;
    TestSupport::clearSyslog();
    EXPECT_FALSE(agent->findNodeIdByPath(true, "/C/T", id));
    EXPECT_EQ(1, getError());
    EXPECT_TRUE(TestSupport::syslogHas("only use cache but not found <pid, name> = <, >", LOG_ERR));
    EXPECT_EQ(0, requests());
    EXPECT_TRUE(id.empty());
}

// Drive's name filter ignores case; the engine's file system does not: "F"
// beside "f" is another file, in the index, the walks and the uploads alike.
TEST_F(ResolveTest, NamesThatDifferOnlyInCaseAreDifferentFiles) {
    std::string upperId = drive->put(aId, "F", "upper");
    std::string upperDir = drive->mkdir(aId, "D");
    ASSERT_TRUE(agent->sendFile(writeLocal("l", "lower"), "a/f")) << getError();
    ASSERT_TRUE(agent->createDir("a/d")) << getError();
    ASSERT_TRUE(agent->sendFile(writeLocal("l", "in d"), "a/d/x")) << getError();
    ASSERT_EQ(2u, drive->lookup(aId, "f").size());
    EXPECT_EQ("upper", drive->content(upperId));
    EXPECT_TRUE(drive->children(upperDir).empty());
    std::list<FileInfo> list;
    ASSERT_TRUE(agent->listDir("a", list));  // the index learns every spelling
    for (bool cacheOnly : {true, false}) {
        SCOPED_TRACE(cacheOnly);
        std::string id;
        ASSERT_TRUE(agent->findNodeIdByPath(cacheOnly, "/C/T/a/F", id));
        EXPECT_EQ(upperId, id);
        ASSERT_TRUE(agent->findNodeIdByPath(cacheOnly, "/C/T/a/D", id));
        EXPECT_EQ(upperDir, id);
        recreateAgent();
    }
    ASSERT_TRUE(agent->recvFile("a/f", localPath("down"))) << getError();
    EXPECT_EQ("lower", readFile(localPath("down")));
    ASSERT_TRUE(agent->removeFile("a/F"));
    EXPECT_FALSE(drive->exists(upperId));
    EXPECT_EQ(1u, drive->lookup(aId, "f").size());
}

TEST_F(ResolveTest, TrashedOrDeletedObjectIsAbsentAndLeavesTheCache) {
    for (bool trash : {false, true}) {
        SCOPED_TRACE(trash ? "trashed" : "deleted");
        std::string fileId = drive->put(bId, "f", "data");
        FileInfo info;
        ASSERT_TRUE(agent->stat("a/b/f", info));
        trash ? drive->trash(fileId) : drive->remove(fileId);
        // The plain status walk (createContainer's) asks for the cached id.
        GoogleDrive::FileMeta meta;
        setError(0);
        EXPECT_FALSE(agent->statMeta("/C/T/a/b/f", meta));
        EXPECT_EQ(2003, getError());
        // Gone from the cache: a cache-only walk no longer finds it.
        std::string id;
        EXPECT_FALSE(agent->findNodeIdByPath(true, "/C/T/a/b/f", id));
        EXPECT_FALSE(agent->stat("a/b/f", info));
        EXPECT_EQ(2003, getError());
        EXPECT_TRUE(agent->findNodeIdByPath(true, "/C/T/a/b", id));
        // Found by a listing instead (one that shows the trash): just as absent.
        auto settings = drive->settings();
        settings.listTrashed = true;
        drive->setSettings(settings);
        recreateAgent();
        EXPECT_FALSE(agent->stat("a/b/f", info));
        EXPECT_EQ(2003, getError());
    }
}

TEST_F(ResolveTest, PagedListingsAreJoined) {
    auto s = drive->settings();
    s.pageSize = 2;
    drive->setSettings(s);
    for (int i = 0; i < 5; ++i) drive->put(bId, "f" + std::to_string(i), "x");
    drive->clearRequestLog();
    std::list<GoogleDrive::FileMeta> list;
    ASSERT_TRUE(agent->listObjects(bId, "", list));
    EXPECT_EQ(5u, list.size());
    EXPECT_EQ(3, requests("listObjects"));
    auto log = drive->requestLog();
    EXPECT_TRUE(log[1].args.isMember("pageToken"));
}

TEST_F(ResolveTest, ListingLagDoesNotCauseADuplicateUpload) {
    // Drive's name listings lag behind writes; the node cache remembers the upload.
    addFault(Fault::listingLag(5, "uploadFile"));
    std::string local = writeLocal("f", "first");
    ASSERT_TRUE(agent->sendFile(local, "a/b/f"));
    local = writeLocal("f", "second");
    ASSERT_TRUE(agent->sendFile(local, "a/b/f"));
    auto found = drive->lookup(bId, "f");
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ("second", drive->content(found[0].id));
}

TEST_F(ResolveTest, FrozenCacheStillAnswersButLearnsNothing) {
    std::string id;
    ASSERT_TRUE(agent->findNodeIdByPath(false, "/C/T", id));
    agent->freezeNodeCache(true);
    GoogleDrive::FileMeta meta;
    ASSERT_TRUE(agent->getObjectMeta(aId, meta));
    ASSERT_TRUE(agent->findNodeIdByPath(false, "/C/T/a/b", id));
    agent->freezeNodeCache(false);
    EXPECT_TRUE(agent->findNodeIdByPath(true, "/C/T", id));
    EXPECT_FALSE(agent->findNodeIdByPath(true, "/C/T/a", id));
}

// A name the node cache lacks in a folder this agent made, or listed whole
// a moment ago, is absent: not looked up. Anywhere else, and where a lost
// answer or a name Drive holds twice leaves the cache short, it is asked.
TEST_F(ResolveTest, LookupsOnlyWhereTheCacheKnowsTheWholeFolder) {
    std::string local = writeLocal("f", "new");
    auto nameLookups = [&](std::string const& name) {
        int n = 0;
        for (auto const& entry : drive->requestLog())
            n += entry.args["queryFilter"].asString().find("(name = '" + name + "')") !=
                 std::string::npos;
        return n;
    };
    std::list<FileInfo> listed;
    ASSERT_TRUE(agent->createDir("a/made")) << getError();
    ASSERT_TRUE(agent->listDir("a/b", listed)) << getError();
    drive->clearRequestLog();
    ASSERT_TRUE(agent->sendFile(local, "a/made/f")) << getError();
    ASSERT_TRUE(agent->sendFile(local, "a/b/f")) << getError();
    ASSERT_TRUE(agent->createDir("a/b/sub")) << getError();
    EXPECT_EQ(0, nameLookups("f") + nameLookups("sub"));
    ASSERT_TRUE(agent->sendFile(local, "a/b/f")) << getError();  // the cache has it
    EXPECT_EQ(1u, drive->lookup(bId, "f").size());
    // Only a create goes unasked: a path through a folder another agent
    // made since the listing is found (workers of one run are such agents).
    std::string theirs = drive->mkdir(bId, "theirs");
    ASSERT_TRUE(agent->sendFile(local, "a/b/theirs/f")) << getError();
    EXPECT_EQ(1u, drive->lookup(theirs, "f").size());

    // A folder it made, replaced by another client: found again, not failed.
    drive->remove(drive->lookup(aId, "made")[0].id);
    std::string again = drive->mkdir(aId, "made");
    ASSERT_TRUE(agent->createDir("a/made/sub")) << getError();
    EXPECT_EQ(1u, drive->lookup(again, "sub").size());

    // Another client's file in a folder this agent neither made nor listed.
    std::string otherDir = drive->mkdir(aId, "other");
    drive->put(otherDir, "x", "theirs");
    ASSERT_TRUE(agent->sendFile(local, "a/other/x")) << getError();
    EXPECT_EQ(1u, drive->lookup(otherDir, "x").size());

    // Two different files of one name: refused, never joined by a third.
    drive->put(bId, "twice", "1");
    drive->put(bId, "twice", "2");
    ASSERT_TRUE(agent->listDir("a/b", listed));
    EXPECT_FALSE(agent->sendFile(local, "a/b/twice"));
    EXPECT_EQ(2u, drive->lookup(bId, "twice").size());

    // A listing older than its trust no longer stands for a lookup.
    setenv("TAVO_LISTING_TRUST_MS", "0", 1);
    recreateAgent();
    unsetenv("TAVO_LISTING_TRUST_MS");
    ASSERT_TRUE(agent->listDir("a", listed));
    drive->put(aId, "late", "theirs");
    ASSERT_TRUE(agent->sendFile(local, "a/late")) << getError();
    EXPECT_EQ(1u, drive->lookup(aId, "late").size());
}

TEST_F(ResolveTest, LostUploadInAFolderMadeByTheAgentIsLookedFor) {
    SKIP_ON_DRIVE_AGENT("an agent process that exits after applying a request");
    std::string local = writeLocal("f", "data");
    ASSERT_TRUE(agent->createDir("a/made")) << getError();
    // Stored, its answer lost, and name listings still blind to it.
    addFault(Fault::exitAfterApply("uploadFile"));
    addFault(Fault::listingLag(5, "uploadFile"));
    EXPECT_FALSE(agent->sendFile(local, "a/made/f"));
    EXPECT_TRUE(agent->sendFile(local, "a/made/f")) << getError();
    std::string id;
    ASSERT_TRUE(agent->findNodeIdByPath(false, "/C/T/a/made", id));
    EXPECT_EQ(1u, drive->lookup(id, "f").size());
}

// The service says once that a folder above a folder this agent made is gone:
// what the cache knew below goes with it, and so does the made folder's
// wholeness, so the file there is looked for again, never made a second time.
TEST_F(ResolveTest, AFolderFoundGoneAboveAMadeOneEndsItsWholeness) {
    SKIP_ON_DRIVE_AGENT("a fault on the n-th status request only");
    setenv("TAVO_PLACEMENT_TRUST_MS", "0", 1);  // every step is confirmed each time
    recreateAgent();
    unsetenv("TAVO_PLACEMENT_TRUST_MS");
    std::string local = writeLocal("f", "data");
    ASSERT_TRUE(agent->createDir("a/made")) << getError();
    ASSERT_TRUE(agent->sendFile(local, "a/made/f")) << getError();
    for (int n = 1; n <= 5; ++n) {  // each status request of the overwrite in turn
        drive->clearFaults();
        addFault(Fault::fail("getObjectMeta", 404).onNth(n));
        agent->sendFile(local, "a/made/f");
        // Checked at once: a later lookup would settle identical copies.
        std::string made;
        ASSERT_TRUE(agent->findNodeIdByPath(false, "/C/T/a/made", made));
        EXPECT_EQ(1u, drive->lookup(made, "f").size()) << "fault on status request " << n;
    }
}
