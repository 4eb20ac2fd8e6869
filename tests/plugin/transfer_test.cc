// Uploads and downloads end to end through the emulator: contents, the
// FileInfo the engine gets back, refusals and cancels. Overwrites in place and
// downloads cut short are judged by the fault sweep.
#include <sys/stat.h>
#include <unistd.h>

#include "backup/error.h"
#include "support/syslog_capture.h"
#include "transfer_fixture.h"

using namespace TAVO::Backup;
using DriveEmulator::Fault;

TEST_F(TransferTest, SmallFilesRoundTrip) {
    roundTrip(0);
    roundTrip(1);
    roundTrip(1 << 20);
}

TEST_F(TransferTest, LocalPathProblems) {
    std::string file = writeLocal("real", "x");
    ASSERT_EQ(0, symlink(file.c_str(), localPath("link").c_str()));
    struct Row {
        std::string local;
        std::string remote;
        int want;
    } const rows[] = {
        {localPath("link"), "a", 1004},
        {localPath(""), "a", 3},  // ends in a slash
        {"/dev/null", "a", 1004},
        {localPath("missing"), "a", 1001},
        {file, "", 3},
        {file, "/abs", 3},
        {file, "a/../b", 3},
        {file, "dir/", 3},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.local + " -> " + row.remote);
        setError(0);
        EXPECT_FALSE(agent->sendFile(row.local, row.remote));
        EXPECT_EQ(row.want, getError());
    }
    // A destination that is a folder is refused before anything is fetched.
    drive->put(targetId, "f", "x");
    EXPECT_FALSE(agent->recvFile("f", localPath("")));
    EXPECT_EQ(3, getError());
    ASSERT_EQ(0, mkdir(localPath("dir").c_str(), 0700));
    EXPECT_FALSE(agent->recvFile("f", localPath("dir")));
    EXPECT_EQ(1004, getError());
    EXPECT_EQ(0, requests());
}

TEST_F(TransferTest, RemoteShapeProblems) {
    std::string local = writeLocal("f", "x");
    drive->mkdir(targetId, "folder");
    TestSupport::clearSyslog();
    EXPECT_FALSE(agent->sendFile(local, "missing/f"));
    EXPECT_EQ(2003, getError());
    EXPECT_FALSE(TestSupport::syslogHas("failed to get parent"));

    EXPECT_FALSE(agent->sendFile(local, "folder"));
    EXPECT_EQ(2004, getError());

    EXPECT_FALSE(agent->recvFile("folder", localPath("d")));
    EXPECT_EQ(2004, getError());
    EXPECT_FALSE(agent->recvFile("nothing", localPath("d")));
    EXPECT_EQ(2003, getError());
    EXPECT_FALSE(fileExists(localPath("d")));
}

TEST_F(TransferTest, ServiceRefusals) {
    std::string local = writeLocal("f", std::string(100, 'x'));
    drive->setQuota(50);
    EXPECT_FALSE(agent->sendFile(local, "f"));
    EXPECT_EQ(2002, getError());
    EXPECT_TRUE(drive->lookup(targetId, "f").empty());

    drive->setQuota(std::nullopt);
    drive->clearRequestLog();
    addFault(Fault::fail("uploadFile", 403, "User Rate Limit Exceeded").always());
    EXPECT_FALSE(agent->sendFile(local, "f"));
    EXPECT_EQ(2000, getError());
    // Sent once and re-sent nine times.
    EXPECT_EQ(10, requests("uploadFile"));
}

TEST_F(TransferTest, CancellationBeforeAnyRequestAndBetweenMessages) {
    SKIP_ON_DRIVE_AGENT(
        "progress lines every 1024 bytes are an emulator setting; drive_agent sends one per 8 MiB");
    std::string local = writeLocal("f", std::string(8192, 'x'));
    drive->put(targetId, "f", std::string(8192, 'y'));
    agent->setCancelHook([] { return true; });
    EXPECT_FALSE(agent->sendFile(local, "f"));
    EXPECT_EQ(4, getError());
    EXPECT_EQ(0, requests());

    // Cancel once two progress messages have arrived.
    auto s = drive->settings();
    s.progressBytes = 1024;
    drive->setSettings(s);
    int calls = 0;
    bool cancel = false;
    agent->setCancelHook([&] { return cancel; });
    auto progress = [&](long) {
        if (++calls == 2) cancel = true;
        return true;
    };
    std::string down = localPath("d");
    EXPECT_FALSE(agent->recvFile("f", down, progress));
    EXPECT_EQ(4, getError());
    EXPECT_FALSE(fileExists(down));
    EXPECT_EQ(0, countTempFilesBeside(down));

    // Canceled once the object's status is known: nothing is fetched.
    recreateAgent();
    std::string id;
    ASSERT_TRUE(agent->findNodeIdByPath(false, "/C/T/f", id));
    drive->clearRequestLog();
    agent->setCancelHook([&] { return requests("getObjectMeta") > 0; });
    EXPECT_FALSE(agent->recvFile("f", down));
    EXPECT_EQ(4, getError());
    agent.reset();  // the drive agent has logged every request once it is gone
    EXPECT_EQ(0, requests("downloadFile"));
}
