// gdrive_host end to end: each test runs the built tool in a fresh folder
// with its own emulated account, and judges its exit code, its output and
// what the emulator holds afterwards.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/reader.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "drive_control.h"
#include "interrupt.h"
#include "support/files.h"

namespace fs = std::filesystem;
using TestSupport::readFile;
using namespace std::chrono_literals;

namespace {

struct Result {
    int code = -1;
    std::string out, err;
};

class ToolTest : public ::testing::Test {
  protected:
    void SetUp() override {
        _dir = TestSupport::makeTempFolder("gdrive-tool-test");
        setenv("GDRIVE_DATA_DIR", (_dir + "/data").c_str(), 1);
        setenv("TAVO_AGENT_PAUSE_UNIT_MS", "1", 1);
        unsetenv("TAVO_ROOT");
    }
    void TearDown() override { fs::remove_all(_dir); }

    // Starts the tool with `args`; stdout and stderr go to files in the folder.
    // With _unprivileged set and run as root (as CI runs), the tool runs as
    // nobody, so that file modes bind it.
    pid_t start(std::vector<std::string> args) {
        args.insert(args.begin(), GDRIVE_HOST);
        bool drop = _unprivileged && geteuid() == 0;
        if (drop) {
            for (auto const& e : fs::recursive_directory_iterator(_dir)) {
                EXPECT_EQ(lchown(e.path().c_str(), kNobody, kNobody), 0) << e.path();
            }
            EXPECT_EQ(chown(_dir.c_str(), kNobody, kNobody), 0);
        }
        pid_t pid = fork();
        if (pid == 0) {
            if (drop && (setgid(kNobody) != 0 || setuid(kNobody) != 0)) _exit(126);
            if (chdir(_dir.c_str()) != 0) _exit(127);
            dup2(open("/dev/null", O_RDONLY), 0);
            dup2(open((_dir + "/out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
            dup2(open((_dir + "/err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
            std::vector<char*> argv;
            for (auto& a : args) argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        return pid;
    }
    Result finish(pid_t pid) {
        int status = 0;
        waitpid(pid, &status, 0);
        return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status),
                readFile(_dir + "/out"), readFile(_dir + "/err")};
    }
    Result run(std::vector<std::string> args) { return finish(start(std::move(args))); }

    DriveEmulator::Drive drive() { return DriveEmulator::Drive::open(_dir + "/data/account"); }
    std::string path(std::string const& name) const { return _dir + "/" + name; }
    static void write(std::string const& file, std::string const& content) {
        fs::create_directories(fs::path(file).parent_path());
        TestSupport::writeFile(file, content);
    }
    // A tree with what trips file tools: empty files and folders, nesting,
    // spaces and non-ASCII names.
    void makeTree(std::string const& top) {
        write(top + "/Pool/0/bucket.1", std::string(100000, 'x'));
        write(top + "/Pool/0/empty", "");
        write(top + "/Control/with space/été.txt", "accents\n");
        write(top + "/a/b/c/d/deep", "deep\n");
        fs::create_directories(top + "/Pool/empty folder");
    }

    static constexpr uid_t kNobody = 65534;
    std::string _dir;
    bool _unprivileged = false;
};

Json::Value parse(std::string const& text) {
    Json::Value value;
    std::istringstream in(text);
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &value, nullptr)) << text;
    return value;
}

TEST_F(ToolTest, CommandLineIsCheckedBeforeAnythingIsCreated) {
    struct Case {
        std::vector<std::string> args;
        int code;
        char const* onStdout;
        char const* onStderr;
    } const cases[] = {
        {{"--help"}, 0, "Exit codes", ""},
        {{"--version"}, 0, "gdrive_host ", ""},
        {{"frobnicate"}, 2, "", "frobnicate"},
        {{"--frob", "ls"}, 2, "", "--frob"},
        {{"put", "only-one"}, 2, "", "REMOTE is required"},
        {{"-q", "-v", "ls"}, 2, "", "excludes"},
        {{"--target", "a/b", "init"}, 2, "", "one folder"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.args[0]);
        Result r = run(c.args);
        EXPECT_EQ(r.code, c.code) << r.err;
        EXPECT_NE(r.out.find(c.onStdout), std::string::npos) << r.out;
        EXPECT_NE(r.err.find(c.onStderr), std::string::npos) << r.err;
    }
    EXPECT_FALSE(fs::exists(path("data")));
}

TEST_F(ToolTest, ExitCodeAndWordsPerFailureKind) {
    ASSERT_EQ(run({"init"}).code, 0);
    write(path("file"), "content");
    mkfifo(path("fifo").c_str(), 0600);
    fs::create_directory(path("folder"));
    fs::create_symlink(path("file"), path("link"));
    write(path("profile"), "target = nas1.hbk\ncolour = blue\n");
    DriveEmulator::Fault const none = DriveEmulator::Fault::delay("none", 0);
    struct Case {
        DriveEmulator::Fault fault;
        std::vector<std::string> args;
        int code;
        char const* words;
    } const cases[] = {
        {none, {"ls", "missing"}, 3, "ls missing: error 2003, not found"},
        {none, {"get", "missing", path("x")}, 4, "get missing: error 2003"},
        {none, {"put", path("nothing"), "x"}, 4, "No such file"},
        {none, {"put", path("fifo"), "x"}, 2, "is a FIFO"},
        {none, {"put", path("link"), "x"}, 2, "is a symbolic link"},
        {none, {"put", path("folder"), "x"}, 2, "use copy"},
        {none, {"ls", "a/.."}, 2, "cannot go up"},
        {none, {"purge", "x"}, 2, "use --force"},
        {none, {"--profile", path("profile"), "ls"}, 0, "profile:2: unknown key colour ignored"},
        {none, {"copy", path("nothing"), "x"}, 3, "No such file"},
        {none, {"get", "x", path("missing/x")}, 3, "local folder"},
        {DriveEmulator::Fault::fail("*", 408).always(), {"ls"}, 5, "error 2104"},
        {DriveEmulator::Fault::fail("*", 401).always(),
         {"about"},
         7,
         "status expires after 7 days"},
        {DriveEmulator::Fault::fail("uploadFile", 403,
                                    "The user's Drive storage quota has been exceeded.")
             .always(),
         {"put", path("file"), "x"},
         7,
         "put x: error 2002, quota exceeded"},
        {DriveEmulator::Fault::fail("*", 503).forNext(2), {"ls"}, 0, "retry 2 of 9"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.args[0] + " " + c.words);
        drive().clearFaults();
        drive().addFault(c.fault);
        Result r = run(c.args);
        EXPECT_EQ(r.code, c.code) << r.err;
        EXPECT_NE(r.err.find(c.words), std::string::npos) << r.err;
    }
}

TEST_F(ToolTest, JsonDocumentsDescribeWhatIsStored) {
    ASSERT_EQ(run({"init"}).code, 0);
    write(path("a file"), "hello\n");
    ASSERT_EQ(run({"put", "./a file", "with space/"}).code, 0);
    ASSERT_EQ(run({"mkdir", "-p", "x/y"}).code, 0);

    Json::Value stat = parse(run({"stat", "--json", "with space/a file"}).out);
    EXPECT_EQ(stat["name"], "with space/a file");
    EXPECT_EQ(stat["type"], "file");
    EXPECT_EQ(stat["size"], 6);
    EXPECT_EQ(stat["md5"], "b1946ac92492d2347c6235b4d2611184");

    Json::Value ls = parse(run({"ls", "-R", "--json"}).out);
    ASSERT_EQ(ls["entries"].size(), 4u);
    EXPECT_EQ(ls["entries"][2]["name"], "with space/a file");
    EXPECT_EQ(ls["entries"][3]["type"], "folder");
}

TEST_F(ToolTest, TreeRoundTripsAndSecondCopySendsNothing) {
    makeTree(path("src"));
    ASSERT_EQ(run({"init"}).code, 0);
    Result first = run({"copy", path("src"), "backup"});
    ASSERT_EQ(first.code, 0) << first.err;
    EXPECT_NE(first.out.find("sent 97.7 KiB in 4 files"), std::string::npos) << first.out;

    drive().clearRequestLog();
    Result second = run({"copy", path("src"), "backup"});
    EXPECT_EQ(second.code, 0);
    EXPECT_NE(second.out.find("0 sent, 4 unchanged"), std::string::npos) << second.out;
    EXPECT_EQ(drive().countRequests("uploadFile") + drive().countRequests("uploadEmptyFile") +
                  drive().countRequests("updateFile") + drive().countRequests("createFolder"),
              0);

    ASSERT_EQ(run({"restore", "backup", path("back")}).code, 0);
    EXPECT_EQ(readFile(path("back/Control/with space/été.txt")), "accents\n");
    EXPECT_EQ(readFile(path("back/Pool/0/bucket.1")), std::string(100000, 'x'));
    EXPECT_TRUE(fs::is_empty(path("back/Pool/empty folder")));
    EXPECT_TRUE(fs::is_empty(path("back/Pool/0/empty")));
    Result same = run({"check", "--json", path("back"), "backup"});
    EXPECT_EQ(same.code, 0) << same.out;
    EXPECT_EQ(parse(same.out)["matched"], 4);

    write(path("back/a/b/c/d/deep"), "changed\n");
    fs::remove(path("back/Pool/0/empty"));
    write(path("back/new"), "");
    Json::Value differ = parse(run({"check", "--json", path("back"), "backup"}).out);
    EXPECT_FALSE(differ["ok"].asBool());
    EXPECT_EQ(differ["differ"][0], "a/b/c/d/deep");
    EXPECT_EQ(differ["missing_remote"][0], "new");
    EXPECT_EQ(differ["missing_local"][0], "Pool/0/empty");
    EXPECT_EQ(run({"check", path("back"), "backup"}).code, 1);
}

// The drive agents (one per worker) that served the requests named `fn`.
size_t agentsServing(std::vector<DriveEmulator::LogEntry> const& log, char const* fn) {
    std::set<int> pids;
    for (auto const& request : log)
        if (request.fn == fn) pids.insert(request.pid);
    return pids.size();
}

// Workers share a copy and a restore at a service's latency: the same bytes,
// each folder made once, and the node cache they learned merged whole, so
// that the second copy costs what it costs after a copy with one agent, but
// for each worker's own confirmations of the folders it works in (a folder's
// place is confirmed once per agent before anything is stored or deleted in
// it).
TEST_F(ToolTest, ParallelTransfersCostWhatOneAgentCosts) {
    makeTree(path("src"));
    for (int n = 0; n < 40; ++n)
        write(path("src/Pool/") + std::to_string(1 + n % 4) + "/" + std::to_string(n), "n");
    ASSERT_EQ(run({"init"}).code, 0);
    std::map<std::string, int64_t> first, second, folders, learned;
    auto cacheRecords = [&] {
        std::ifstream cache(path("data/cache/nas1.hbk/ta_cache.node"));
        return std::count(std::istreambuf_iterator<char>(cache), {}, '\n');
    };
    for (std::string transfers : {"1", "3"}) {
        SCOPED_TRACE(transfers);
        std::string remote = "t" + transfers;
        drive().clearRequestLog();
        drive().clearFaults();
        if (transfers != "1") drive().addFault(DriveEmulator::Fault::delay("*", 10).always());
        int64_t const known = cacheRecords();
        ASSERT_EQ(run({"copy", "--transfers", transfers, path("src"), remote}).code, 0);
        EXPECT_EQ(agentsServing(drive().requestLog(), "uploadFile"), transfers == "1" ? 1u : 3u);
        learned[transfers] = cacheRecords() - known;
        first[transfers] = drive().countRequests();
        folders[transfers] = drive().countRequests("createFolder");
        // The same serial copy after either: the node cache holds all the
        // workers learned.
        drive().clearRequestLog();
        Result again = run({"copy", "--transfers", "1", path("src"), remote});
        EXPECT_NE(again.out.find("0 sent, 44 unchanged"), std::string::npos) << again.out;
        second[transfers] = drive().countRequests();
        // Compared while listed (and, with workers, by warmed-up workers).
        Result same = run({"copy", "--transfers", transfers, path("src"), remote});
        EXPECT_NE(same.out.find("0 sent, 44 unchanged"), std::string::npos) << same.out;
        ASSERT_EQ(run({"restore", "--transfers", transfers, remote, path(remote)}).code, 0);
        EXPECT_EQ(run({"check", "--transfers", transfers, path(remote), remote}).code, 0);
        EXPECT_EQ(std::system(("diff -r " + path("src") + " " + path(remote)).c_str()), 0);
    }
    drive().clearFaults();
    EXPECT_EQ(folders["1"], 14);  // the copy's top and its thirteen folders
    EXPECT_EQ(folders["3"], folders["1"]);
    EXPECT_EQ(second["3"], second["1"]);
    EXPECT_EQ(learned["3"], learned["1"]);
    EXPECT_EQ(learned["1"], 14 + 44);
    // Workers stay in a folder: each of the fourteen folders, made by another
    // agent, is confirmed about once, and each worker confirms its way to the
    // tree (spread over the workers, each folder would be asked by each).
    EXPECT_LE(first["3"], first["1"] + 14 + 3 * 4);
    EXPECT_GE(first["3"], first["1"]);

    // A copy deletes nothing: a remote folder whose local one is empty is
    // not listed, and what only the remote holds there stays as it is.
    std::string const empty = drive().idByPath("/Backups/nas1.hbk/t3/Pool/empty folder");
    drive().put(empty, "remote only", "r");
    drive().clearRequestLog();
    Result same = run({"copy", "--transfers", "3", path("src"), "t3"});
    EXPECT_NE(same.out.find("0 sent, 44 unchanged"), std::string::npos) << same.out;
    for (auto const& request : drive().requestLog())
        EXPECT_EQ(request.args.toStyledString().find(empty), std::string::npos) << request.fn;
    EXPECT_EQ(drive().children(empty).size(), 1u);

    // A failure that stops the run stops every worker, and is listed.
    write(path("src/Pool/1/new"), "new");
    drive().addFault(DriveEmulator::Fault::fail("uploadFile", 403,
                                                "The user's Drive storage quota has been exceeded.")
                         .always());
    Result full = run({"copy", "--transfers", "3", path("src"), "t3"});
    EXPECT_EQ(full.code, 7);
    EXPECT_NE(full.err.find("failed: Pool/1/new: error 2002, quota exceeded"), std::string::npos)
        << full.err;
    EXPECT_NE(full.out.find("0 sent, 44 unchanged, 0 skipped, 1 failed"), std::string::npos)
        << full.out;
}

// Names are compared byte for byte, as the NAS file system does: "X" is no
// second "x".
TEST_F(ToolTest, DupesAreByteIdenticalNamesOnly) {
    ASSERT_EQ(run({"init"}).code, 0);
    ASSERT_EQ(run({"mkdir", "d"}).code, 0);
    std::string folder = drive().idByPath("/Backups/nas1.hbk/d");
    for (char const* name : {"x", "x", "X"}) drive().put(folder, name, name);
    Result r = run({"dupes"});
    EXPECT_EQ(r.code, 0);
    EXPECT_NE(r.out.find("d/x\n"), r.out.rfind("d/x\n")) << r.out;
    EXPECT_EQ(r.out.find("d/X"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\n1 name held more than once"), std::string::npos) << r.out;
}

// One bad file or folder costs only itself: everything else is sent, each
// failure is listed with its reason, and sync deletes remote extras only once
// the whole local tree could be read.
TEST_F(ToolTest, CopyAndSyncKeepGoingPastWhatCannotBeRead) {
    _unprivileged = true;
    makeTree(path("src"));
    write(path("src/locked/inside"), "inside\n");
    write(path("src/secret"), "secret\n");
    ASSERT_EQ(run({"init"}).code, 0);
    chmod(path("src/locked").c_str(), 0);
    chmod(path("src/secret").c_str(), 0);
    Result copy = run({"copy", path("src"), "backup"});
    EXPECT_EQ(copy.code, 1) << copy.err;
    EXPECT_NE(copy.err.find("failed: locked/: cannot read the folder: Permission denied"),
              std::string::npos)
        << copy.err;
    EXPECT_NE(copy.err.find("failed: secret: error 1, general failure: cannot read"),
              std::string::npos)
        << copy.err;
    EXPECT_NE(copy.out.find("4 sent, 0 unchanged, 0 skipped, 2 failed"), std::string::npos);
    EXPECT_EQ(run({"stat", "backup/a/b/c/d/deep"}).code, 0);

    fs::remove_all(path("src/a"));
    Result refused = run({"sync", path("src"), "backup"});
    EXPECT_EQ(refused.code, 1);
    EXPECT_NE(refused.err.find("nothing deleted"), std::string::npos) << refused.err;
    EXPECT_EQ(run({"stat", "backup/a/b/c/d/deep"}).code, 0);

    chmod(path("src/locked").c_str(), 0755);
    chmod(path("src/secret").c_str(), 0644);
    EXPECT_NE(run({"sync", "--dry-run", path("src"), "backup"}).out.find("would delete a\n"),
              std::string::npos);
    EXPECT_EQ(run({"stat", "backup/a"}).code, 0);
    Result sync = run({"sync", path("src"), "backup"});
    EXPECT_EQ(sync.code, 0) << sync.err;
    EXPECT_NE(sync.out.find("2 sent, 3 unchanged, 0 skipped, 0 failed, 1 deleted"),
              std::string::npos)
        << sync.out;
    EXPECT_EQ(run({"stat", "backup/a"}).code, 4);
    EXPECT_EQ(run({"check", path("src"), "backup"}).code, 0);
}

// The exit code tells the worst class of failure; a failure that every file
// would meet stops the run at once. One worker, so that the order is known.
TEST_F(ToolTest, TreeFailuresAreCountedAndClassed) {
    makeTree(path("src"));
    ASSERT_EQ(run({"init"}).code, 0);
    ASSERT_EQ(run({"copy", path("src"), "backup"}).code, 0);
    write(path("src/Pool/0/bucket.1"), "changed");
    write(path("src/Pool/0/bucket.2"), "new");
    write(path("src/Pool/0/bucket.3"), "new too");
    using DriveEmulator::Fault;
    struct Case {
        Fault fault;
        std::vector<std::string> args;
        int code;
        char const* words;
        char const* summary;
        int requests;  // of the fault's fn
    } const cases[] = {
        // bucket.1 is an update; bucket.2 meets the quota, and bucket.3 is not tried.
        {Fault::fail("uploadFile", 403, "The user's Drive storage quota has been exceeded.")
             .always(),
         {"copy", "--transfers", "1", path("src"), "backup"},
         7,
         "failed: Pool/0/bucket.2: error 2002, quota exceeded",
         "1 sent, 3 unchanged, 0 skipped, 1 failed",
         1},
        // Every attempt of bucket.2 gets a 503; bucket.3 goes through.
        {Fault::fail("uploadFile", 503).forNext(10),
         {"copy", "--transfers", "1", path("src"), "backup"},
         5,
         "failed: Pool/0/bucket.2: error 1, general failure: Service Unavailable (503)",
         "1 sent, 4 unchanged, 0 skipped, 1 failed",
         11},
        {Fault::fail("downloadFile", 500).forNext(10),
         {"restore", "--transfers", "1", "backup", path("back")},
         5,
         "failed: Control/with space/été.txt: error 1, general failure: Internal Error (500)",
         "4 received, 0 unchanged, 0 skipped, 1 failed",
         13},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.args[0] + " " + c.words);
        drive().clearFaults();
        drive().addFault(c.fault);
        drive().clearRequestLog();
        Result r = run(c.args);
        EXPECT_EQ(r.code, c.code) << r.err;
        EXPECT_NE(r.err.find(c.words), std::string::npos) << r.err;
        EXPECT_NE(r.out.find(c.summary), std::string::npos) << r.out;
        EXPECT_EQ(drive().countRequests(c.fault.fn), c.requests);
    }
    EXPECT_EQ(readFile(path("back/a/b/c/d/deep")), "deep\n");
}

// Restored files get the mode of a new file; partial downloads of dead runs
// go, those of a live run (holding its folder) and others' files stay.
TEST_F(ToolTest, RestoreGivesUmaskModesAndClearsDeadLeftovers) {
    makeTree(path("src"));
    ASSERT_EQ(run({"init"}).code, 0);
    ASSERT_EQ(run({"copy", path("src"), "backup"}).code, 0);
    write(path("back/Pool/0/.bucket.1.tmp.Ab3dEf"), "partial");
    write(path("back/Pool/0/.bucket.1.tmp"), "someone else's");
    write(path("back/a/b/c/d/.deep.tmp.Zz9yX8"), "partial of a live run");
    int held = open(path("back/a/b/c/d").c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_EQ(flock(held, LOCK_SH), 0);
    DriveEmulator::Settings settings = drive().settings();
    settings.logRows = 3;
    drive().setSettings(settings);
    mode_t old = umask(027);
    // One transfer: the newest request is then the last file's download.
    Result r = run({"restore", "--transfers", "1", "backup", path("back")});
    umask(old);
    close(held);
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(fs::status(path("back/Pool/0/bucket.1")).permissions(), fs::perms(0640));
    EXPECT_FALSE(fs::exists(path("back/Pool/0/.bucket.1.tmp.Ab3dEf")));
    EXPECT_TRUE(fs::exists(path("back/Pool/0/.bucket.1.tmp")));
    EXPECT_TRUE(fs::exists(path("back/a/b/c/d/.deep.tmp.Zz9yX8")));
    // The request log keeps only the newest rows: the last download is there.
    std::vector<DriveEmulator::LogEntry> log = drive().requestLog();
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log.back().fn, "downloadFile");
}

// A transfer stopped by Ctrl-C while the service is slow leaves nothing
// behind: no temporary file beside the destination, no object or pending
// blob in the service, the old local content. Needs the channel to notice a cancel while the drive
// agent is silent, and the emulator to drop a pending upload when its client goes.
TEST_F(ToolTest, InterruptLeavesNothingBehind) {
    ASSERT_EQ(run({"init"}).code, 0);
    write(path("big"), std::string(4 << 20, 'b'));
    ASSERT_EQ(run({"put", path("big"), "kept"}).code, 0);
    write(path("local/old"), "old content");
    for (char const* name : {"1", "2", "3", "4"})
        write(path("tree/") + name, std::string(1 << 20, *name));
    ASSERT_EQ(run({"copy", path("tree"), "kept-tree"}).code, 0);
    fs::remove_all(path("tree/4"));
    struct Case {
        char const* fn;
        std::vector<std::string> args;
    } const cases[] = {
        {"uploadFile", {"put", path("big"), "new"}},
        {"downloadFile", {"get", "kept", path("local/old")}},
        {"uploadFile", {"copy", "--transfers", "3", path("tree"), "new"}},
        {"downloadFile", {"restore", "--transfers", "3", "kept-tree", path("local")}},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.fn);
        drive().clearFaults();
        drive().addFault(DriveEmulator::Fault::delay(c.fn, 3000).always());
        pid_t pid = start(c.args);
        std::this_thread::sleep_for(500ms);
        auto sent = std::chrono::steady_clock::now();
        kill(pid, SIGINT);
        Result r = finish(pid);
        EXPECT_LT(std::chrono::steady_clock::now() - sent, 2s);
        EXPECT_EQ(r.code, 130) << r.err;
        EXPECT_EQ(readFile(path("local/old")), "old content");
        std::this_thread::sleep_for(200ms);  // the emulator's clean-up, after its client went
        EXPECT_EQ(std::distance(fs::directory_iterator(path("local")), fs::directory_iterator()),
                  1);
        EXPECT_TRUE(fs::is_empty(path("data/account/blobs/tmp")));
        if (c.args[0] == "put") {
            EXPECT_EQ(run({"stat", "new"}).code, 4);
        } else if (c.args[0] == "copy") {
            // On a slow machine the stop may come before the folder is made.
            Result size = run({"size", "--json", "new"});
            EXPECT_TRUE(size.code == 3 || parse(size.out)["files"] == 0) << size.out;
        }
    }
}

// The person insists: a second Ctrl-C ends the process without waiting for
// the first one's clean-up.
TEST(InterruptTest, SecondInterruptEndsTheProcessAtOnce) {
    pid_t pid = fork();
    if (pid == 0) {
        gdhost::installInterruptHandler();
        raise(SIGINT);
        if (!gdhost::interrupted()) _exit(1);
        raise(SIGINT);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 130) << status;
}

}  // namespace
