// What real use brings: cancels in the middle of a request, a cache that no
// longer matches the account, passing failures, names Drive holds twice, and
// names that need escaping in a query.
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <functional>

#include "backup/error.h"
#include "backup/json_text.h"
#include "emulated_drive.h"
#include "support/syslog_capture.h"
#include "wire_format.h"

using namespace TAVO::Backup;
using DriveEmulator::Fault;

class RobustnessTest : public EmulatedDriveTest {
  protected:
    bool cacheFileHasEmptyId() {
        return readFile(cacheFile()).find("\"i\":\"\"") != std::string::npos;
    }
    int64_t objectsNamed(std::string const& parent, std::string const& name) {
        return static_cast<int64_t>(drive->lookup(parent, name).size());
    }
    bool canceled = false;
    FileInfo info_;
};

// A transfer canceled after its first progress line must take the drive
// agent's remaining lines with it, or they answer the next requests.
TEST_F(RobustnessTest, CanceledTransferLeavesNoAnswerForTheNextRequest) {
    SKIP_ON_DRIVE_AGENT(
        "progress fractions are the emulator's own lines; drive_agent sends its own");
    drive->put(targetId, "remote", std::string(1000, 'r'));
    std::string local = writeLocal("local", std::string(3000, 'l'));
    auto cancelOnProgress = [this](long) { return canceled = true; };
    struct Case {
        char const* fn;
        std::function<bool()> run;
    } const cases[] = {
        {"uploadFile", [&] { return agent->sendFile(local, "sent", cancelOnProgress); }},
        {"downloadFile", [&] { return agent->recvFile("remote", local, cancelOnProgress); }},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.fn);
        addFault(Fault::progress(c.fn, {0.2, 0.4, 0.6, 0.8}));
        canceled = false;
        agent->setCancelHook([this] { return canceled; });
        EXPECT_FALSE(c.run());
        EXPECT_EQ(4, getError());
        agent->setCancelHook(TransferAgent::CancelHook());

        FileInfo info;
        ASSERT_TRUE(agent->stat("remote", info)) << getError();
        EXPECT_EQ(1000, info.getSize());
        ASSERT_TRUE(agent->sendFile(local, "sent")) << getError();
        ASSERT_EQ(1, objectsNamed(targetId, "sent"));
        EXPECT_EQ(3000, drive->lookup(targetId, "sent")[0].size);
    }
    EXPECT_EQ(std::string(3000, 'l'), readFile(local)) << "the canceled download left it alone";
    EXPECT_EQ(0, countTempFilesBeside(local));
    ASSERT_TRUE(agent->flushCache());
    EXPECT_FALSE(cacheFileHasEmptyId());
}

TEST_F(RobustnessTest, CancelEndsTheWaitForASilentAgent) {
    drive->put(targetId, "f", "data");
    addFault(Fault::delay("getObjectMeta", 20000));
    auto started = std::chrono::steady_clock::now();
    auto elapsedMs = [&] {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
                   std::chrono::steady_clock::now() - started)
            .count();
    };
    agent->setCancelHook([&] { return elapsedMs() > 200; });
    FileInfo info;
    EXPECT_FALSE(agent->stat("f", info));
    EXPECT_EQ(4, getError());
    EXPECT_LT(elapsedMs(), 10000) << "not the 20 s the agent sleeps";

    agent->setCancelHook(TransferAgent::CancelHook());
    drive->clearFaults();
    ASSERT_TRUE(agent->stat("f", info)) << getError();
    EXPECT_EQ(4, info.getSize());
}

// The cache remembers where an object was; a delete must act on what the
// path names now, not on an object moved away outside the plug-in.
TEST_F(RobustnessTest, DeleteOfAStaleCachedPathSparesTheMovedObject) {
    std::string aId = drive->mkdir(targetId, "a");
    std::string bId = drive->mkdir(targetId, "b");
    std::string fileId = drive->put(aId, "x", "file");
    std::string dirId = drive->mkdir(aId, "d");
    FileInfo info;
    ASSERT_TRUE(agent->stat("a/x", info));
    ASSERT_TRUE(agent->stat("a/d", info));
    drive->move(fileId, bId);
    drive->move(dirId, bId);

    EXPECT_TRUE(agent->removeFile("a/x"));
    EXPECT_EQ(2003, getError());
    EXPECT_TRUE(agent->removeDirRecursive("a/d"));
    EXPECT_EQ(2003, getError());
    EXPECT_TRUE(drive->exists(fileId));
    EXPECT_TRUE(drive->exists(dirId));

    // Deleted behind the cache's back: gone is what was wanted.
    ASSERT_TRUE(agent->stat("b/x", info));
    drive->remove(fileId);
    drive->put(bId, "x", "new");  // same path, another object
    ASSERT_TRUE(agent->sendFile(writeLocal("l", "newer"), "b/x")) << getError();
    EXPECT_EQ(1, objectsNamed(bId, "x")) << "overwritten, not uploaded beside it";
    drive->remove(drive->lookup(bId, "x")[0].id);
    EXPECT_TRUE(agent->removeFile("b/x"));
    EXPECT_EQ(0, objectsNamed(bId, "x"));
    drive->put(bId, "y", "data");
    addFault(Fault::fail("deleteObject", 404));  // gone between lookup and delete
    EXPECT_TRUE(agent->removeFile("b/y"));
    EXPECT_EQ(2003, getError());
}

TEST_F(RobustnessTest, RemovedFolderTakesItsDescendantsOutOfTheCache) {
    std::string aId = drive->mkdir(targetId, "a");
    std::string bId = drive->mkdir(aId, "b");
    std::string cId = drive->put(bId, "c", "data");
    FileInfo info;
    ASSERT_TRUE(agent->stat("a/b/c", info));
    ASSERT_TRUE(agent->removeDirRecursive("a"));
    ASSERT_TRUE(agent->flushCache());
    std::string saved = readFile(cacheFile());
    for (auto const& id : {aId, bId, cId}) EXPECT_EQ(std::string::npos, saved.find(id)) << id;
}

TEST_F(RobustnessTest, PassingFailuresDuringCheckCacheKeepTheCache) {
    SKIP_ON_DRIVE_AGENT("an agent process that exits before answering");
    drive->mkdir(targetId, "Pool");
    drive->mkdir(targetId, "Control");
    std::list<FileInfo> list;
    ASSERT_TRUE(agent->listDir("", list));
    ASSERT_TRUE(agent->flushCache());
    std::string saved = readFile(cacheFile());
    ASSERT_NE("", saved);

    struct Case {
        char const* what;
        Fault fault;
    } const cases[] = {
        {"503", Fault::fail("getObjectMeta", 503).always()},
        {"agent exits", Fault::exitBeforeAnswer("getObjectMeta").always()},
        {"third check fails", Fault::fail("getObjectMeta", 500).onNth(3)},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.what);
        addFault(c.fault);
        recreateAgent();
        EXPECT_TRUE(agent->checkCache());
        EXPECT_EQ(saved, readFile(cacheFile()));
        drive->clearFaults();
    }
}

// Nothing at a path below a folder the cache placed is confirmed by asking
// for that folder; when the question fails for a passing reason, the path's
// own answer stands: missing, and a removal of it succeeds.
TEST_F(RobustnessTest, AFailedConfirmationOfAbsenceKeepsNotFound) {
    ASSERT_TRUE(agent->createDir("d")) << getError();
    addFault(Fault::fail("getObjectMeta", 503).always());
    struct Case {
        char const* what;
        std::function<bool()> run;
        bool result;
    } const cases[] = {
        {"removeFile", [&] { return agent->removeFile("d/missing"); }, true},
        {"removeDirRecursive", [&] { return agent->removeDirRecursive("d/missing"); }, true},
        {"stat", [&] { return agent->stat("d/missing", info_); }, false},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.what);
        setError(0);
        EXPECT_EQ(c.result, c.run());
        EXPECT_EQ(2003, getError());
    }
}

TEST_F(RobustnessTest, EachStartBeginsWithAClearCoreError) {
    repository().options().set(Repository::SZK_REMOTE_REFRESH_TOKEN, "");  // not base64
    recreateAgent();
    FileInfo info;
    EXPECT_FALSE(agent->stat("f", info));
    EXPECT_EQ(2107, getError());
    agent->setCancelHook([] { return true; });
    EXPECT_FALSE(agent->stat("f", info));
    EXPECT_EQ(4, getError()) << "a cancel during the start is a cancel, not refused credentials";
}

// ---- Names ----

TEST_F(RobustnessTest, NamesWithQuotesAndBackslashesWorkEverywhere) {
    repository().options().set(Repository::SZK_REMOTE_BUCKET, "Bob's");
    agent->setTargetId("");
    ASSERT_TRUE(agent->createContainer("Bob's")) << getError();
    ASSERT_TRUE(agent->createDir("it's.hbk")) << getError();
    agent->setTargetId("it's.hbk");
    for (char const* dir : {"Pool", "Control", "sub'dir"})
        ASSERT_TRUE(agent->createDir(dir)) << dir;

    std::string local = writeLocal("up", "content");
    for (char const* name : {"John's file", "back\\slash", "sub'dir/it's"}) {
        SCOPED_TRACE(name);
        ASSERT_TRUE(agent->sendFile(local, name)) << getError();
        ASSERT_TRUE(agent->recvFile(name, localPath("down"))) << getError();
        EXPECT_EQ("content", readFile(localPath("down")));
    }
    ASSERT_TRUE(agent->flushCache());
    std::string saved = readFile(cacheFile());
    EXPECT_TRUE(agent->checkCache());
    EXPECT_EQ(saved, readFile(cacheFile())) << "the layout verified under escaped names";
    EXPECT_TRUE(agent->removeFile("John's file"));
    EXPECT_FALSE(agent->isExist("John's file"));

    bool escaped = false;
    for (auto const& entry : drive->requestLog()) {
        escaped |= entry.args["queryFilter"].asString().find("(name = 'John\\'s file')") !=
                   std::string::npos;
    }
    EXPECT_TRUE(escaped);
}

// ---- Names Drive holds twice ----

TEST_F(RobustnessTest, CopiesLeftByLostAnswersAreSettledByTheNextLookup) {
    SKIP_ON_DRIVE_AGENT("an agent process that exits after applying a request");
    std::string local = writeLocal("up", "content");
    // The agent applies the request, then dies before answering; the name
    // listings lag behind. The same agent knows that its answer was lost and
    // looks again; an engine that restarted in between makes a second object.
    auto loseNextAnswer = [&](char const* fn) {
        addFault(Fault::exitAfterApply(fn));
        addFault(Fault::listingLag(1, fn));
    };
    loseNextAnswer("uploadFile");
    EXPECT_FALSE(agent->sendFile(local, "once"));
    EXPECT_TRUE(agent->sendFile(local, "once")) << getError();
    EXPECT_EQ(1, objectsNamed(targetId, "once"));
    loseNextAnswer("uploadFile");
    EXPECT_FALSE(agent->sendFile(local, "f"));
    recreateAgent();
    EXPECT_TRUE(agent->sendFile(local, "f")) << getError();
    ASSERT_EQ(2, objectsNamed(targetId, "f"));

    recreateAgent();  // nothing flushed: the walks ask the service
    drive->clearRequestLog();
    TestSupport::clearSyslog();
    addFault(Fault::fail("deleteObject", 400));
    setError(0);
    FileInfo info;
    ASSERT_TRUE(agent->stat("f", info)) << getError();
    EXPECT_EQ(0, getError()) << "a failed removal leaves no code behind a success";
    recreateAgent();
    ASSERT_TRUE(agent->stat("f", info)) << getError();
    EXPECT_EQ(1, objectsNamed(targetId, "f"));
    EXPECT_EQ(2, requests("deleteObject"));
    EXPECT_TRUE(TestSupport::syslogHas("removing duplicate [f]", LOG_WARNING));
}

// Drive applied a create and still failed it with a code worth retrying,
// and its name listings lag behind: sending it again must make no second
// object. Each case fails once, so the look before the next attempt finds it.
TEST_F(RobustnessTest, ACreateAppliedThenFailedMakesOneObject) {
    std::string local = writeLocal("up", "content");
    std::string empty = writeLocal("empty", "");
    struct Case {
        char const* fn;
        int code;
        char const* name;
        std::function<bool()> run;
    } const cases[] = {
        {"createFolder", 503, "d1", [&] { return agent->createDir("d1"); }},
        {"createFolder", -2, "d2", [&] { return agent->createDir("d2"); }},
        {"uploadFile", 500, "f1", [&] { return agent->sendFile(local, "f1"); }},
        {"uploadFile", 408, "f2", [&] { return agent->sendFile(local, "f2"); }},
        {"uploadEmptyFile", 503, "e", [&] { return agent->sendFile(empty, "e"); }},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(std::string(c.fn) + " " + std::to_string(c.code));
        if (c.code < 0 && onDriveAgent()) continue;  // the agent's own code
        addFault(Fault::failAfterApply(c.fn, c.code));
        addFault(Fault::listingLag(1, c.fn));
        EXPECT_TRUE(c.run()) << getError();
        EXPECT_EQ(1, objectsNamed(targetId, c.name));
    }
    EXPECT_EQ(0, requests("updateFile")) << "what was stored is taken, not sent again";
    if (onDriveAgent()) return;  // drive_agent finds its own upload: no failure reaches us
    // The local file changed once it was sent: Drive holds other bytes, so
    // the one file of the name is overwritten, not joined by a second one.
    std::string changing = writeLocal("changing", "first");
    addFault(Fault::failAfterApply("uploadFile", 503));
    EXPECT_TRUE(agent->sendFile(changing, "g", [&](long) {
        writeFile(changing, "changed meanwhile");
        return true;
    })) << getError();
    auto g = drive->lookup(targetId, "g");
    ASSERT_EQ(1u, g.size());
    EXPECT_EQ("changed meanwhile", drive->content(g[0].id));
}

// Only copies placed in the folder alone and listed once are deleted:
// anything else could take the one copy a user has.
TEST_F(RobustnessTest, SettlingNeverDeletesTheOnlyOrAnotherFoldersCopy) {
    SKIP_ON_DRIVE_AGENT("a listing line that holds one object twice, written by the agent itself");
    std::string otherId = drive->mkdir(targetId, "other");
    std::string sharedId = drive->put(targetId, "shared", "same");
    drive->duplicate(sharedId);
    drive->addParent(sharedId, otherId);
    std::string onceId = drive->put(targetId, "once", "one");
    ASSERT_TRUE(agent->stat("other", info_));
    Json::Value page;
    page["success"] = true;
    for (int i = 0; i < 2; ++i)
        page["objects"].append(DriveEmulator::objectRecord(drive->stat(onceId)));
    addFault(Fault::garbage("listObjects", TAVO::JsonText::toString(page)));
    FileInfo info;
    ASSERT_TRUE(agent->stat("once", info)) << getError();
    EXPECT_TRUE(drive->exists(onceId));
    ASSERT_TRUE(agent->stat("shared", info)) << getError();
    EXPECT_TRUE(drive->exists(sharedId)) << "kept: it also lives in another folder";
    EXPECT_EQ(1, objectsNamed(targetId, "shared"));

    // Folders are never settled: their emptiness cannot be proved.
    for (int i = 0; i < 2; ++i) drive->mkdir(targetId, "d");
    EXPECT_FALSE(agent->stat("d", info));
    EXPECT_EQ(1, getError());
    EXPECT_EQ(2, objectsNamed(targetId, "d"));
    EXPECT_EQ(1, requests("deleteObject"));
}

// A lagging listing still shows an object under a folder it has left: it is
// no child there, so it is neither listed nor taken for a copy of the real
// child (which settling would then delete, keeping the one "elsewhere too").
TEST_F(RobustnessTest, AnObjectListedUnderAFormerParentIsNoChildThere) {
    SKIP_ON_DRIVE_AGENT("a listing line written by the agent itself");
    std::string otherId = drive->mkdir(targetId, "other");
    std::string xId = drive->put(targetId, "x", "same");
    std::string movedId = drive->put(otherId, "x", "same");
    ASSERT_TRUE(agent->stat("other", info_));
    Json::Value page;
    page["success"] = true;
    for (auto const& id : {xId, movedId})
        page["objects"].append(DriveEmulator::objectRecord(drive->stat(id)));
    addFault(Fault::garbage("listObjects", TAVO::JsonText::toString(page)).forNext(2));
    ASSERT_TRUE(agent->stat("x", info_)) << getError();
    std::list<FileInfo> list;
    ASSERT_TRUE(agent->listDir("", list)) << getError();
    EXPECT_EQ(1u, list.size());
    EXPECT_TRUE(drive->exists(xId));
    EXPECT_TRUE(drive->exists(movedId));
    EXPECT_EQ(0, requests("deleteObject"));
}

// Another client deleted a folder the cache knows and made a new one of the
// same name: every operation finds the new one, at the first try.
TEST_F(RobustnessTest, AFolderReplacedElsewhereIsFoundAgain) {
    std::string local = writeLocal("up", "data");
    struct Case {
        char const* what;
        std::function<bool()> run;
        std::function<void(std::string const&)> check;
    } const cases[] = {
        {"sendFile", [&] { return agent->sendFile(local, "a/new"); },
         [&](auto const& a) { EXPECT_EQ(1, objectsNamed(a, "new")); }},
        {"createDir", [&] { return agent->createDir("a/sub"); },
         [&](auto const& a) { EXPECT_EQ(1, objectsNamed(a, "sub")); }},
        {"stat",
         [&] {
             FileInfo info;
             return agent->stat("a/f", info);
         },
         nullptr},
        {"recvFile", [&] { return agent->recvFile("a/f", localPath("down")); }, nullptr},
        {"listDir",
         [&] {
             std::list<FileInfo> list;
             return agent->listDir("a", list) && list.size() == 1;
         },
         nullptr},
        {"listDirRecursive",
         [&] {
             int seen = 0;
             return agent->listDirRecursive(
                        "a", [&](FileInfo const&, void*) { return ++seen; }, nullptr) &&
                    seen == 1;
         },
         nullptr},
        {"removeFile",
         [&] {
             setError(0);
             return agent->removeFile("a/f") && getError() != 2003;
         },
         [&](auto const& a) { EXPECT_EQ(0, objectsNamed(a, "f")); }},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.what);
        std::string oldId = drive->mkdir(targetId, "a");
        ASSERT_TRUE(agent->stat("a", info_)) << getError();  // the cache learns it
        drive->remove(oldId);
        std::string newId = drive->mkdir(targetId, "a");
        drive->put(newId, "f", "data");
        EXPECT_TRUE(c.run()) << getError();
        if (c.check) c.check(newId);
        drive->remove(newId);
    }
}

// Another client trashed a folder the plug-in confirmed moments ago: what
// goes into it now goes into the trash with it, so the folder counts as
// missing, and the engine's usual way (make it, then store) works at once.
TEST_F(RobustnessTest, AFolderTrashedMeanwhileIsNotStoredInto) {
    std::string local = writeLocal("up", "data");
    struct Case {
        char const* folder;
        std::function<bool()> run;
    } const cases[] = {
        {"a", [&] { return agent->sendFile(local, "a/f"); }},
        {"b", [&] { return agent->createDir("b/sub"); }},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.folder);
        ASSERT_TRUE(agent->createDir(c.folder)) << getError();
        drive->trash(drive->lookup(targetId, c.folder).at(0).id);
        EXPECT_FALSE(c.run());
        EXPECT_EQ(2003, getError());
        ASSERT_TRUE(agent->createDir(c.folder)) << getError();
        EXPECT_TRUE(c.run()) << getError();
    }
    recreateAgent();
    EXPECT_TRUE(agent->isFileExist("a/f")) << getError();
    EXPECT_TRUE(agent->isExist("b/sub")) << getError();
}

// A folder moved out of the target keeps its id: a delete through a cached
// path must not reach into it.
TEST_F(RobustnessTest, DeleteConfirmsThePlacementUpToTheTarget) {
    std::string aId = drive->mkdir(targetId, "a");
    std::string bId = drive->mkdir(aId, "b");
    std::string fileId = drive->put(bId, "f", "data");
    std::string dirId = drive->mkdir(bId, "d");
    ASSERT_TRUE(agent->stat("a/b/f", info_));
    ASSERT_TRUE(agent->stat("a/b/d", info_));
    ASSERT_TRUE(agent->flushCache());
    recreateAgent();  // another run, with what the cache file says
    drive->move(aId, containerId);
    EXPECT_FALSE(agent->sendFile(writeLocal("l", "new"), "a/b/f"));
    EXPECT_EQ("data", drive->content(fileId)) << "not overwritten where it was moved";
    EXPECT_TRUE(agent->removeFile("a/b/f"));
    EXPECT_TRUE(agent->removeDirRecursive("a/b/d"));
    EXPECT_EQ(2003, getError());
    EXPECT_TRUE(drive->exists(fileId));
    EXPECT_TRUE(drive->exists(dirId));

    // Confirmed once, a folder is not asked again: a rotation deletes many
    // files in a few folders.
    drive->move(aId, targetId);
    for (char const* name : {"1", "2", "3"}) drive->put(bId, name, name);
    recreateAgent();
    std::list<FileInfo> list;
    ASSERT_TRUE(agent->listDir("a/b", list));
    ASSERT_TRUE(agent->removeFile("a/b/1"));
    drive->clearRequestLog();
    ASSERT_TRUE(agent->removeFile("a/b/2"));
    EXPECT_EQ(1, requests("getObjectMeta"));
    EXPECT_EQ(1, requests("deleteObject"));
}

TEST_F(RobustnessTest, CopiesThatMayDifferAreRefusedEveryTime) {
    struct Case {
        char const* name;
        std::function<void(std::string const&)> make;
    } const cases[] = {
        {"contents",
         [&](auto const& n) { drive->put(targetId, n, "one"), drive->put(targetId, n, "two"); }},
        {"in use",
         [&](auto const& n) {
             for (char const* c : {"1", "2"}) drive->put(drive->mkdir(targetId, n), c, c);
         }},
        {"kinds", [&](auto const& n) { drive->put(targetId, n, ""), drive->mkdir(targetId, n); }},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.name);
        c.make(c.name);
        FileInfo info;
        for (int run = 0; run < 2; ++run) {
            EXPECT_FALSE(agent->stat(c.name, info));
            EXPECT_EQ(1, getError());
        }
        EXPECT_EQ(2, objectsNamed(targetId, c.name));
    }
    EXPECT_EQ(0, requests("deleteObject"));
}

// Answers of the wrong JSON type make the JSON library throw; the engine's
// process must only see a failed operation, and the agent must stay usable.
TEST_F(RobustnessTest, IllTypedAnswersFailTheOperationNotTheEngine) {
    SKIP_ON_DRIVE_AGENT("answer lines of the wrong JSON types, written by the agent itself");
    drive->put(targetId, "f", "data");
    std::string local = localPath("down");
    struct Case {
        char const* fn;
        char const* answer;
        std::function<bool()> run;
    } const cases[] = {
        {"listObjects", R"({"success":true,"objects":[{"id":"x","name":["f"]}]})",
         [&] { return agent->isExist("f"); }},
        {"downloadFile", R"({"success":true,"complete":"no"})",
         [&] { return agent->recvFile("f", local, [](long) { return true; }); }},
        {"getAccountInfo", R"({"success":true,"quota":"lots"})",
         [&] {
             AccountInfo info;
             return agent->getAccountInfo(info);
         }},
    };
    std::string traced;
    TransferAgent::setDebugSink([&](std::string const& line) { traced = line; });
    for (auto const& c : cases) {
        SCOPED_TRACE(c.fn);
        recreateAgent();  // an empty cache: every lookup asks the service
        addFault(Fault::garbage(c.fn, c.answer));
        TestSupport::clearSyslog();
        TransferAgent::setDebug(true);
        EXPECT_FALSE(c.run());
        TransferAgent::setDebug(false);
        EXPECT_EQ(1, getError());
        EXPECT_EQ("[1]", traced.substr(traced.size() - 3)) << traced;
        EXPECT_TRUE(TestSupport::syslogHas("unexpected exception", LOG_ERR) ||
                    TestSupport::syslogHas("setFileMeta failed", LOG_ERR));
        FileInfo info;
        EXPECT_TRUE(agent->stat("f", info)) << getError();
        EXPECT_EQ(4, info.getSize());
    }
    EXPECT_FALSE(fileExists(local));
    EXPECT_EQ(0, countTempFilesBeside(local));
    ASSERT_TRUE(agent->flushCache());
    EXPECT_FALSE(cacheFileHasEmptyId());
}

// An exception inside the check must not leave the cache frozen, and a
// target without the engine's layout is no reason to drop it.
TEST_F(RobustnessTest, CheckCacheKeepsLearningAndKeepsAPlainTarget) {
    SKIP_ON_DRIVE_AGENT("an answer line of the wrong JSON types, written by the agent itself");
    std::list<FileInfo> list;
    ASSERT_TRUE(agent->listDir("", list));
    ASSERT_TRUE(agent->flushCache());
    std::string saved = readFile(cacheFile());
    EXPECT_TRUE(agent->checkCache());
    EXPECT_EQ(saved, readFile(cacheFile()));

    addFault(Fault::garbage("getObjectMeta", R"({"success":true,"id":"x","name":[1]})"));
    EXPECT_FALSE(agent->checkCache());
    std::string fileId = drive->put(targetId, "later", "data");
    ASSERT_TRUE(agent->stat("later", info_)) << getError();
    ASSERT_TRUE(agent->flushCache());
    EXPECT_NE(std::string::npos, readFile(cacheFile()).find(fileId)) << "the cache still learns";
}

// The engine's progress callback throws while the agent stores a new file:
// the file may exist all the same, so the retry must not make a second one.
TEST_F(RobustnessTest, AThrowingProgressCallbackIsALostAnswer) {
    SKIP_ON_DRIVE_AGENT(
        "progress fractions are the emulator's own lines; drive_agent sends its own");
    std::string local = writeLocal("up", std::string(3000, 'x'));
    addFault(Fault::progress("uploadFile", {0.5}));
    addFault(Fault::listingLag(1, "uploadFile"));
    auto thrower = [this](long) -> bool {
        // Thrown once the agent has stored the file, before its answer is read.
        for (int i = 0; i < 1000 && objectsNamed(targetId, "f") == 0; ++i) usleep(2000);
        throw std::runtime_error("engine callback");
    };
    EXPECT_FALSE(agent->sendFile(local, "f", thrower));
    EXPECT_TRUE(agent->sendFile(local, "f")) << getError();
    EXPECT_EQ(1, objectsNamed(targetId, "f"));
}

// Any name the local file system takes can be fetched, up to 255 bytes.
TEST_F(RobustnessTest, LongestNamesAreRestored) {
    std::string const multibyte = "\xc3\xa9";  // two bytes each
    for (std::string name :
         {std::string(255, 'n'), std::string(242, 'm') + multibyte + "xyzzyxyzzyx"}) {
        SCOPED_TRACE(name.size());
        ASSERT_TRUE(agent->sendFile(writeLocal("up", "long"), name)) << getError();
        ASSERT_TRUE(agent->recvFile(name, localPath(name))) << getError();
        EXPECT_EQ("long", readFile(localPath(name)));
        EXPECT_EQ(0, countTempFilesBeside(localPath(name)));
    }
}

// A bad object in a page fails the listing; what came before it is kept.
TEST_F(RobustnessTest, ATrashedObjectEndsTheListingAfterTheOnesBefore) {
    SKIP_ON_DRIVE_AGENT(
        "drive_agent asks for trashed = false, so no listing of it holds a trashed object");
    std::string goodId = drive->put(targetId, "good", "g");
    std::string trashedId = drive->put(targetId, "trashed", "t");
    drive->trash(trashedId);
    auto settings = drive->settings();
    settings.listTrashed = true;
    drive->setSettings(settings);
    std::list<GoogleDrive::FileMeta> list;
    EXPECT_FALSE(agent->listObjects(targetId, "", list));
    EXPECT_EQ(2003, getError());
    ASSERT_EQ(1u, list.size());
    EXPECT_EQ(goodId, list.front().id);
}
