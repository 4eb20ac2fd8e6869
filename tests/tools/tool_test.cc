// gdrive_host end to end: each test runs the built tool in a fresh folder
// with its own emulated account, and judges its exit code, its output and
// what the emulator holds afterwards.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/reader.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
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

// A file of /proc/PID; empty once the process is gone.
std::string procText(pid_t pid, char const* name) {
    std::string text;
    int fd = open(("/proc/" + std::to_string(pid) + "/" + name).c_str(), O_RDONLY | O_CLOEXEC);
    char buffer[4096];
    ssize_t n;
    while (fd >= 0 && (n = read(fd, buffer, sizeof buffer)) > 0)
        text.append(buffer, static_cast<size_t>(n));
    if (fd >= 0) close(fd);
    return text;
}

// The fields of /proc/PID/stat after the command name: state, parent, group.
struct ProcessStat {
    pid_t parent = 0, group = 0;
};
bool readStat(pid_t pid, ProcessStat& stat) {
    std::string text = procText(pid, "stat");
    size_t end = text.rfind(')');
    if (end == std::string::npos) return false;
    std::istringstream fields(text.substr(end + 2));
    char state;
    return static_cast<bool>(fields >> state >> stat.parent >> stat.group);
}

// The processes now running, by pid.
std::vector<pid_t> allProcesses() {
    std::vector<pid_t> pids;
    for (auto const& entry : fs::directory_iterator("/proc")) {
        pid_t pid = atoi(entry.path().filename().c_str());
        if (pid > 0) pids.push_back(pid);
    }
    return pids;
}

// Every thread's stack of every process in the group `group`, on stderr.
void printStacks(pid_t group) {
    for (pid_t pid : allProcesses()) {
        ProcessStat stat;
        if (!readStat(pid, stat) || stat.group != group) continue;
        std::string const id = std::to_string(pid);
        fprintf(stderr, "== process %s: %s\n", id.c_str(), procText(pid, "cmdline").c_str());
        std::string gdb =
            "timeout 60 gdb -batch -nx -p " + id + " -ex 'thread apply all bt' </dev/null >&2 2>&1";
        if (std::system(gdb.c_str()) != 0) fprintf(stderr, "(gdb failed)\n");
    }
}

class ToolTest : public ::testing::Test {
  protected:
    void SetUp() override {
        _dir = TestSupport::makeTempFolder("gdrive-tool-test");
        setenv("GDRIVE_DATA_DIR", (_dir + "/data").c_str(), 1);
        setenv("TAVO_AGENT_PAUSE_UNIT_MS", "1", 1);
        unsetenv("TAVO_ROOT");
    }
    void TearDown() override { fs::remove_all(_dir); }

    // Starts the tool with `args` in a process group of its own; stdout and
    // stderr go to files in the folder (`tag` names those of one of several
    // runs at once). With _unprivileged set and run as root (as CI runs), the
    // tool runs without the capabilities that override file modes, so that
    // modes bind it wherever the checkout lives.
    pid_t start(std::vector<std::string> args, std::string const& tag = "") {
        args.insert(args.begin(), GDRIVE_HOST);
        bool drop = _unprivileged && geteuid() == 0;
        pid_t pid = fork();
        if (pid == 0) {
            setpgid(0, 0);
            for (int cap : {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH, CAP_FOWNER})
                if (drop && prctl(PR_CAPBSET_DROP, cap, 0, 0, 0) != 0) _exit(126);
            if (chdir(_dir.c_str()) != 0) _exit(127);
            dup2(open("/dev/null", O_RDONLY), 0);
            dup2(open((_dir + "/out" + tag).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
            dup2(open((_dir + "/err" + tag).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
            std::vector<char*> argv;
            for (auto& a : args) argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        setpgid(pid, pid);
        return pid;
    }
    // Waits for the tool. A run past kRunLimit has hung: the stacks of its
    // processes are printed, so that a hang is diagnosed from the log alone,
    // and its whole group is killed. `whileRunning` (if given) is called every
    // 10 ms until the tool ends.
    Result finish(pid_t pid, std::string const& tag = "",
                  std::function<void()> const& whileRunning = nullptr) {
        int status = 0;
        auto const deadline = std::chrono::steady_clock::now() + kRunLimit;
        while (waitpid(pid, &status, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > deadline) {
                ADD_FAILURE() << "gdrive_host ran over " << kRunLimit.count()
                              << " s; the stacks of its processes are on stderr";
                printStacks(pid);
                kill(-pid, SIGKILL);
                waitpid(pid, &status, 0);
                break;
            }
            if (whileRunning) whileRunning();
            std::this_thread::sleep_for(10ms);
        }
        return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status),
                readFile(_dir + "/out" + tag), readFile(_dir + "/err" + tag)};
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

    static constexpr std::chrono::seconds kRunLimit{90};
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
        {{"copy", "--transfers", "abc", "a", "b"}, 2, "", "from 1 to 64, not abc"},
        {{"sync", "--exclude", "[ab", "a", "b"}, 2, "", "[ab: a \"[\" is not closed"},
        {{"--profile", path("bare"), "init"}, 2, "", "profile line 2: no \"=\""},
        {{"--profile", path("open"), "init"}, 2, "", "profile line 1: the quote"},
    };
    write(path("bare"), "# a comment\ncontainer\n");
    write(path("open"), "target = \"unterminated\n");
    for (auto const& c : cases) {
        SCOPED_TRACE(c.args[0]);
        Result r = run(c.args);
        EXPECT_EQ(r.code, c.code) << r.err;
        EXPECT_NE(r.out.find(c.onStdout), std::string::npos) << r.out;
        EXPECT_NE(r.err.find(c.onStderr), std::string::npos) << r.err;
    }
    // Every command with all the words it takes, then one word more: a
    // misspelt option (even one followed by a value: "--transfer 8") or a
    // surplus argument is refused before anything is done.
    std::map<std::string, std::vector<std::string>> const full = {
        {"help", {"ls"}},
        {"authorize", {"--timeout", "1"}},
        {"init", {}},
        {"ls", {"a"}},
        {"tree", {"a"}},
        {"stat", {"a"}},
        {"size", {"a"}},
        {"about", {}},
        {"mkdir", {"a"}},
        {"put", {"f", "a"}},
        {"get", {"a", "f"}},
        {"copy", {"--exclude", "x", "d", "a"}},
        {"sync", {"--delete-excluded", "--exclude", "x", "d", "a"}},
        {"restore", {"--force", "a", "d"}},
        {"check", {"--exclude", "x", "d", "a"}},
        {"rm", {"a"}},
        {"purge", {"-f", "a"}},
        {"containers", {}},
        {"cache", {"show"}},
        {"dupes", {"a"}},
    };
    std::string listed = run({"--help"}).out;
    std::istringstream lines(listed.substr(listed.find("Subcommands:\n") + 13));
    size_t commands = 0;
    for (std::string line; std::getline(lines, line) && !line.empty(); ++commands) {
        std::string name = line.substr(2, line.find(' ', 2) - 2);
        EXPECT_TRUE(full.count(name)) << name << " is not tried below";
    }
    EXPECT_EQ(commands, full.size());
    for (auto const& [name, args] : full) {
        for (char const* stray : {"--bogus", "surplus"}) {
            // An unknown option before the arguments, with a value any
            // argument could take; a word after them.
            std::vector<std::string> words{name};
            if (stray[0] == '-') words.insert(words.end(), {stray, "show"});
            words.insert(words.end(), args.begin(), args.end());
            if (stray[0] != '-') words.push_back(stray);
            SCOPED_TRACE(::testing::PrintToString(words));
            Result r = run(words);
            EXPECT_EQ(r.code, 2) << r.err;
            EXPECT_NE(r.err.find(name + ": "), std::string::npos) << r.err;
            EXPECT_NE(r.err.find(stray), std::string::npos) << r.err;
        }
    }
    EXPECT_FALSE(fs::exists(path("data")));
}

TEST_F(ToolTest, ExitCodeAndWordsPerFailureKind) {
    Result early = run({"ls"});
    EXPECT_EQ(early.code, 3);
    EXPECT_NE(early.err.find("/Backups/nas1.hbk is not there yet: run gdrive_host init"),
              std::string::npos)
        << early.err;
    ASSERT_EQ(run({"init"}).code, 0);
    write(path("file"), "content");
    mkfifo(path("fifo").c_str(), 0600);
    fs::create_directory(path("folder"));
    for (int n = 0; n < 7; ++n) write(path("folder/") + std::to_string(n), "1");
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
        {none, {"get", "no/missing", path("x")}, 3, "get no/missing: folder no: error 2003"},
        {none, {"put", path("nothing"), "x"}, 4, "No such file"},
        {none, {"put", path("fifo"), "x"}, 2, "is a FIFO"},
        {none, {"put", path("link"), "x"}, 2, "is a symbolic link"},
        {none, {"put", path("folder"), "x"}, 2, "use copy"},
        {none, {"ls", "a/.."}, 2, "cannot go up"},
        {none, {"purge", "x"}, 2, "use --force"},
        {none, {"purge", "-f", "/"}, 2, "the target folder itself is not purged"},
        {none, {"restore", "/", path("file")}, 2, "a file is in the way"},
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
        {DriveEmulator::Fault::fail("*", 503).forNext(2),
         {"ls"},
         0,
         "retrying ls in 0.0 s (retry 2 of 9): "},
        {DriveEmulator::Fault::fail("uploadFile", 503).forNext(1),
         {"copy", "--transfers", "1", path("folder"), "c"},
         0,
         "retrying c/0 in 0.0 s (retry 1 of 9): "},
        // The drive agent made the folder, then went away: asked once more, found.
        {DriveEmulator::Fault::exitAfterApply("createFolder"),
         {"copy", path("folder"), "d"},
         0,
         "asking once more for folder d (error 1, general failure: helper channel closed"},
        // An outage ends a tree's run after five files, not after all.
        {DriveEmulator::Fault::fail("uploadFile", 503).always(),
         {"copy", "--transfers", "1", path("folder"), "out"},
         5,
         "the last 5 files in a row failed for a passing reason after their retries; the service "
         "seems out of reach (2 files not tried)"},
        // A worker's rate limit slows the whole pool.
        {DriveEmulator::Fault::fail("uploadFile", 429).forNext(1),
         {"-v", "copy", "--transfers", "2", path("folder"), "paced"},
         0,
         "rate limited, all workers slow down: paced: 1 at a time"},
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

// After a rate limit the pool holds its next job starts apart, the files
// already handed out aside; without one it sends them back to back.
TEST_F(ToolTest, ARateLimitHoldsTheNextJobsBack) {
    for (std::string name : {"1", "2", "3", "4"}) write(path("src/") + name, name);
    ASSERT_EQ(run({"init"}).code, 0);
    drive().clearRequestLog();
    drive().addFault(DriveEmulator::Fault::fail("uploadFile", 429).forNext(1));
    ASSERT_EQ(run({"copy", "--transfers", "2", path("src"), "dst"}).code, 0);
    std::vector<double> stored;
    for (auto const& request : drive().requestLog())
        if (request.fn == "uploadFile" && request.success) stored.push_back(request.time);
    ASSERT_EQ(stored.size(), 4u);
    EXPECT_GE(stored.back() - stored.front(), 0.5);
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

// A second copy takes unchanged files from the stored index, but sends one
// rewritten with its size and time kept; a restore gives times and recorded
// modes back and, run again, fetches only what is missing or differs.
TEST_F(ToolTest, IndexedCopyAndResumedRestoreKeepTimes) {
    makeTree(path("src"));
    fs::permissions(path("src/a/b/c/d/deep"), fs::perms(0750));
    timespec const old[2] = {{0, UTIME_OMIT}, {1577934245, 123456789}};
    ASSERT_EQ(utimensat(AT_FDCWD, path("src/Pool/0/bucket.1").c_str(), old, 0), 0);
    std::this_thread::sleep_for(1100ms);  // what changed within a second is not recorded
    ASSERT_EQ(run({"init"}).code, 0);
    ASSERT_EQ(run({"copy", path("src"), "backup"}).code, 0);
    std::string const accents = path("src/Control/with space/été.txt");
    struct stat before {};
    ASSERT_EQ(stat(accents.c_str(), &before), 0);
    write(accents, "ACCENTS\n");
    timespec const kept[2] = {{0, UTIME_OMIT}, before.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, accents.c_str(), kept, 0), 0);
    Result second = run({"copy", path("src"), "backup"});
    EXPECT_NE(second.out.find("1 sent, 3 unchanged"), std::string::npos) << second.out;
    // Changed on the remote side alone: the index knows every local file, so
    // this process lists, and what the listing finds is still sent.
    std::string const remoteBucket = "/Backups/nas1.hbk/backup/Pool/0/bucket.1";
    drive().update(drive().idByPath(remoteBucket), "changed remotely");
    Result third = run({"copy", path("src"), "backup"});
    EXPECT_NE(third.out.find("1 sent, 3 unchanged"), std::string::npos) << third.out;
    EXPECT_EQ(drive().content(drive().idByPath(remoteBucket)),
              readFile(path("src/Pool/0/bucket.1")));

    mode_t const mask = umask(022);
    ASSERT_EQ(run({"restore", "backup", path("back")}).code, 0);
    struct stat restored {};
    ASSERT_EQ(stat(path("back/Pool/0/bucket.1").c_str(), &restored), 0);
    EXPECT_EQ(restored.st_mtim.tv_sec, 1577934245);
    EXPECT_EQ(restored.st_mtim.tv_nsec, 123456789);  // recorded: to the nanosecond
    ASSERT_EQ(run({"get", "backup/Pool/0/bucket.1", path("got")}).code, 0);
    ASSERT_EQ(stat(path("got").c_str(), &restored), 0);
    EXPECT_EQ(restored.st_mtim.tv_nsec, 123456789);
    ASSERT_EQ(stat(path("back/Control/with space/été.txt").c_str(), &restored), 0);
    EXPECT_EQ(restored.st_mtim.tv_sec, before.st_mtim.tv_sec);
    EXPECT_EQ(fs::status(path("back/a/b/c/d/deep")).permissions(), fs::perms(0750));

    fs::remove(path("back/Pool/0/bucket.1"));
    write(path("back/a/b/c/d/deep"), "DEEP\n");  // same size, another MD5
    drive().clearRequestLog();
    Result again = run({"restore", "backup", path("back")});
    EXPECT_NE(again.out.find("2 received, 2 unchanged"), std::string::npos) << again.out;
    EXPECT_EQ(drive().countRequests("downloadFile"), 2u);
    EXPECT_EQ(readFile(path("back/a/b/c/d/deep")), "deep\n");
    Result forced = run({"restore", "--force", "backup", path("back")});
    umask(mask);
    EXPECT_NE(forced.out.find("4 received, 0 unchanged"), std::string::npos) << forced.out;
}

// What the filters exclude is neither sent, compared, fetched nor deleted,
// unless sync is told to delete it.
TEST_F(ToolTest, ExcludedPathsAreLeftAlone) {
    makeTree(path("src"));
    ASSERT_EQ(run({"init"}).code, 0);
    ASSERT_EQ(run({"copy", path("src"), "backup"}).code, 0);
    fs::remove_all(path("src/a"));
    fs::remove(path("src/Pool/0/bucket.1"));
    write(path("src/Pool/0/new.1"), "new");
    write(path("excluded"), "# comment\n/a/\n");
    std::vector<std::string> const filters = {"--exclude-from", path("excluded"), "--exclude",
                                              "*.1"};
    auto with = [&](std::vector<std::string> words) {
        words.insert(words.begin() + 1, filters.begin(), filters.end());
        return run(words);
    };
    Result kept = with({"sync", path("src"), "backup"});
    EXPECT_NE(kept.out.find("0 sent, 2 unchanged, 0 skipped, 0 failed, 0 deleted"),
              std::string::npos)
        << kept.out;
    EXPECT_EQ(with({"check", path("src"), "backup"}).code, 0);
    Result gone = with({"sync", "--delete-excluded", path("src"), "backup"});
    EXPECT_NE(gone.out.find("2 deleted"), std::string::npos) << gone.out;
    EXPECT_EQ(run({"stat", "backup/a"}).code, 4);
    ASSERT_EQ(run({"restore", "--exclude", "**/empty", "backup", path("back")}).code, 0);
    EXPECT_TRUE(fs::exists(path("back/Control/with space/été.txt")));
    EXPECT_FALSE(fs::exists(path("back/Pool/0/empty")));
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
    std::map<std::string, int64_t> first, second, folders, learned, lookups;
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
        // Folders too are made by several workers (each once: below).
        EXPECT_EQ(agentsServing(drive().requestLog(), "createFolder") > 1, transfers != "1");
        learned[transfers] = cacheRecords() - known;
        first[transfers] = drive().countRequests();
        for (auto const& request : drive().requestLog()) {
            lookups[transfers] +=
                request.args["queryFilter"].asString().find("(name = ") != std::string::npos;
        }
        folders[transfers] = drive().countRequests("createFolder");
        // The same serial copy after either: the node cache holds all the
        // workers learned.
        drive().clearRequestLog();
        Result again = run({"copy", "--transfers", "1", path("src"), remote});
        EXPECT_NE(again.out.find("0 sent, 44 unchanged"), std::string::npos) << again.out;
        second[transfers] = drive().countRequests();
        // Compared while listed; fourteen listings pay for one more
        // worker's start, not for a third.
        drive().clearRequestLog();
        Result same = run({"copy", "--transfers", transfers, path("src"), remote});
        EXPECT_NE(same.out.find("0 sent, 44 unchanged"), std::string::npos) << same.out;
        EXPECT_LE(agentsServing(drive().requestLog(), "listObjects"), 2u);
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
    // The one agent asks for no name in the folders it made. Workers make
    // folders several at once, and one asks for the name of a folder whose
    // parent another made (ten of them have new parents); a worker lists
    // each of the five folders that get several files, once, instead of
    // asking for their names.
    EXPECT_LE(first["3"], first["1"] + 14 + 3 * 4 + 10 + 3 * 5);
    // Names looked up: the copy's top (by mkdir -p and its creation), and
    // with workers the two files alone in their folders.
    EXPECT_EQ(lookups["1"], 2);
    EXPECT_LE(lookups["3"], lookups["1"] + 2 + 10);
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

// An unchanged tree of many folders at a service's latency is listed by
// workers, several folders at once; a small one by the tool's own agent.
TEST_F(ToolTest, AnUnchangedLargeTreeIsListedInParallelAtAServicesPace) {
    for (int n = 0; n < 30; ++n) write(path("src/d") + std::to_string(n) + "/f", "f");
    std::this_thread::sleep_for(1100ms);  // for the index to vouch for every file
    ASSERT_EQ(run({"init"}).code, 0);
    ASSERT_EQ(run({"copy", path("src"), "big"}).code, 0);
    ASSERT_EQ(run({"copy", path("src/d0"), "small"}).code, 0);
    drive().addFault(DriveEmulator::Fault::delay("*", 50).always());
    for (char const* tree : {"big", "small"}) {
        SCOPED_TRACE(tree);
        drive().clearRequestLog();
        std::string const local = std::string(tree) == "big" ? path("src") : path("src/d0");
        Result same = run({"copy", "--transfers", "3", local, tree});
        EXPECT_NE(same.out.find("\n0 sent"), std::string::npos) << same.out;
        EXPECT_EQ(agentsServing(drive().requestLog(), "listObjects") > 1,
                  std::string(tree) == "big");
    }
    drive().clearFaults();
}

// Workers start while the parent's other thread (the stderr filter) is busy
// forwarding the workers' log lines, round after round. A worker forked
// without exec could inherit a lock that thread held (the allocator's under
// the sanitizers) and block for ever; the run limit then catches it. The tool's
// children are also looked at while it runs: each must run a program of its
// own, never go on as a copy of the parent (one that still has the parent's
// command line when it has started a drive agent of its own; a child on its
// way to an exec has none).
TEST_F(ToolTest, WorkersStartAfreshWhileTheLogIsBusy) {
    for (int n = 0; n < 47; ++n)
        write(path("src/") + std::to_string(n % 6) + "/" + std::to_string(n), "n");
    write(path("src/0/latin1-\xe9t\xe9"), "not UTF-8");  // reaches a worker byte for byte
    ASSERT_EQ(run({"init"}).code, 0);
    // Workers' folders left by runs that died go with the next run; a live
    // run's (its lock held) stays.
    std::string const tmp = path("tmp");
    for (char const* name : {"/gdrive_host.dead00", "/gdrive_host.live00"}) {
        write(tmp + name + "/lock", "");
        struct timespec const old[2] = {{1, 0}, {1, 0}};
        utimensat(AT_FDCWD, (tmp + name + "/lock").c_str(), old, 0);
    }
    int live = open((tmp + "/gdrive_host.live00/lock").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(live, LOCK_EX), 0);
    setenv("TMPDIR", tmp.c_str(), 1);
    drive().addFault(DriveEmulator::Fault::delay("*", 5).always());
    std::set<pid_t> children, copies;
    for (int round = 0; round < 6; ++round) {
        SCOPED_TRACE(round);
        // Fewer failures than a file's retries: every file gets through.
        drive().addFault(DriveEmulator::Fault::fail("uploadFile", 503).forNext(8));
        pid_t pid = start({"copy", "--transfers", "8", path("src"), "r" + std::to_string(round)});
        Result r = finish(pid, "", [&] {
            // Read each time: the first looks may come before the tool's exec.
            std::string const parentLine = procText(pid, "cmdline");
            std::map<pid_t, pid_t> parents;
            for (pid_t process : allProcesses()) {
                ProcessStat stat;
                if (readStat(process, stat)) parents[process] = stat.parent;
            }
            for (auto const& [child, parent] : parents) {
                if (parent != pid) continue;
                children.insert(child);
                bool const hasChild = std::any_of(parents.begin(), parents.end(),
                                                  [&](auto const& p) { return p.second == child; });
                if (hasChild && procText(child, "cmdline") == parentLine) copies.insert(child);
            }
        });
        ASSERT_EQ(r.code, 0) << r.err;
        EXPECT_NE(r.out.find("48 sent"), std::string::npos) << r.out;
    }
    EXPECT_GE(children.size(), 6u * 2);
    EXPECT_TRUE(copies.empty()) << copies.size() << " workers went on as copies of the parent";
    EXPECT_EQ(std::distance(fs::directory_iterator(tmp), fs::directory_iterator()), 1);
    EXPECT_TRUE(fs::exists(tmp + "/gdrive_host.live00/lock"));
    close(live);
    unsetenv("TMPDIR");

    // A worker killed during its job is named in that file's failure: the
    // newest one once files go out (the folders are made before by others),
    // once its drive agent runs (it has read its set-up and has a job, which
    // lasts: each upload is held up).
    drive().addFault(DriveEmulator::Fault::delay("uploadFile", 200).always());
    pid_t pid = start({"copy", "--transfers", "8", path("src"), "killed"});
    std::vector<pid_t> workers;
    bool killed = false;
    Result r = finish(pid, "", [&] {
        std::vector<pid_t> const now = allProcesses();
        for (pid_t child : now) {
            ProcessStat stat;
            if (readStat(child, stat) && stat.parent == pid &&
                std::find(workers.begin(), workers.end(), child) == workers.end())
                workers.push_back(child);
        }
        for (pid_t agent : now) {
            ProcessStat stat;
            if (!killed && workers.size() >= 2 && readStat(agent, stat) &&
                stat.parent == workers.back() && drive().countRequests("uploadFile") > 0)
                killed = kill(workers.back(), SIGKILL) == 0;
        }
    });
    EXPECT_EQ(r.code, 1) << r.err;
    EXPECT_NE(r.err.find("worker process ended by signal 9"), std::string::npos) << r.err;
}

// Two runs that change one destination at once take turns: the second says
// which run it waits for, and finds the folders the first made instead of
// making its own.
TEST_F(ToolTest, RunsOnOneDestinationTakeTurns) {
    makeTree(path("src"));
    ASSERT_EQ(run({"init"}).code, 0);
    drive().addFault(DriveEmulator::Fault::delay("createFolder", 100).always());
    pid_t one = start({"copy", "--transfers", "1", path("src"), "conc"}, "1");
    pid_t two = start({"copy", path("src"), "conc"}, "2");
    Result first = finish(one, "1"), second = finish(two, "2");
    EXPECT_EQ(first.code, 0) << first.err;
    EXPECT_EQ(second.code, 0) << second.err;
    std::string const waited = first.err + second.err;
    EXPECT_NE(waited.find("waiting for the run that changes nas1.hbk: process "), std::string::npos)
        << waited;
    EXPECT_NE(waited.find("(gdrive_host copy " + path("src") + " conc) since "), std::string::npos)
        << waited;
    EXPECT_NE((first.out + second.out).find("0 sent, 4 unchanged"), std::string::npos);
    drive().clearFaults();
    EXPECT_EQ(run({"dupes"}).out.find("conc"), std::string::npos);
    Json::Value size = parse(run({"size", "--json", "conc"}).out);
    EXPECT_EQ(size["folders"], 9) << size.toStyledString();
}

// Names are compared byte for byte, as the NAS file system does: "X" is no
// second "x".
TEST_F(ToolTest, DupesAreByteIdenticalNamesOnly) {
    ASSERT_EQ(run({"init"}).code, 0);
    ASSERT_EQ(run({"mkdir", "d"}).code, 0);
    std::string folder = drive().idByPath("/Backups/nas1.hbk/d");
    EXPECT_EQ(run({"dupes"}).code, 0);
    for (char const* name : {"x", "x", "X"}) drive().put(folder, name, name);
    Result r = run({"dupes"});
    EXPECT_EQ(r.code, 1);
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

    // A backed-up file that cannot be read now neither differs nor would be sent.
    chmod(path("src/Pool/0/bucket.1").c_str(), 0);
    for (std::string command : {"check", "sync"}) {
        Result r = command == "check" ? run({"check", path("src"), "backup"})
                                      : run({"sync", "--dry-run", path("src"), "backup"});
        EXPECT_EQ(r.code, 1);
        EXPECT_NE(r.err.find("failed: Pool/0/bucket.1: cannot read it"), std::string::npos)
            << r.err;
        EXPECT_EQ(r.out.find("Pool/0/bucket.1"), std::string::npos) << r.out;
    }
    chmod(path("src/Pool/0/bucket.1").c_str(), 0644);

    chmod(path("src/locked").c_str(), 0755);
    chmod(path("src/secret").c_str(), 0644);
    Result dry = run({"sync", "--dry-run", path("src"), "backup"});
    EXPECT_NE(dry.out.find("would delete a/ and the 4 objects below it\n"), std::string::npos)
        << dry.out;
    EXPECT_NE(dry.out.find("to replace, 5 objects to delete"), std::string::npos) << dry.out;
    EXPECT_EQ(run({"stat", "backup/a"}).code, 0);
    Result sync = run({"sync", path("src"), "backup"});
    EXPECT_EQ(sync.code, 0) << sync.err;
    EXPECT_NE(sync.out.find("2 sent, 3 unchanged, 0 skipped, 0 failed, 1 deleted"),
              std::string::npos)
        << sync.out;
    EXPECT_EQ(run({"stat", "backup/a"}).code, 4);
    EXPECT_EQ(run({"check", path("src"), "backup"}).code, 0);
}

// Makes `depth` nested folders of 200-byte names below `top` and a file
// "deep" in the last: a path longer than PATH_MAX, which only a walk
// relative to an open folder reaches.
void makeLongPath(std::string const& top, int depth) {
    int fd = open(top.c_str(), O_RDONLY | O_DIRECTORY);
    std::string const name(200, 'n');
    for (int i = 0; i < depth; ++i) {
        ASSERT_EQ(mkdirat(fd, name.c_str(), 0755), 0);
        int next = openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY);
        close(fd);
        fd = next;
    }
    int file = openat(fd, "deep", O_WRONLY | O_CREAT, 0644);
    ASSERT_EQ(write(file, "deep\n", 5), 5);
    close(file);
    close(fd);
}

// What sync cannot see locally keeps its remote copy: a folder or a file
// replaced by a symbolic link, a path too long to store; what was really
// deleted goes. A tree not compared whole never matches.
TEST_F(ToolTest, SyncKeepsWhatItSkipsOrCannotExamine) {
    write(path("src/docs/a.txt"), "a\n");
    write(path("src/file"), "f\n");
    write(path("src/gone"), "g\n");
    write(path("src/kept"), "k\n");
    ASSERT_EQ(run({"init"}).code, 0);
    ASSERT_EQ(run({"copy", path("src"), "backup"}).code, 0);
    fs::rename(path("src/docs"), path("docs"));
    fs::create_directory_symlink(path("docs"), path("src/docs"));
    fs::remove(path("src/file"));
    fs::create_symlink(path("src/kept"), path("src/file"));
    fs::remove(path("src/gone"));
    fs::create_directory(path("src/long"));
    makeLongPath(path("src/long"), 21);
    Result sync = run({"sync", path("src"), "backup"});
    EXPECT_EQ(sync.code, 1) << sync.err;
    EXPECT_NE(sync.err.find("skipped docs (is a symbolic link; its remote copy is kept)"),
              std::string::npos)
        << sync.err;
    char const* const tooLong = "its remote path would be longer than the 4,095 bytes";
    EXPECT_NE(sync.err.find(tooLong), std::string::npos) << sync.err;
    EXPECT_NE(sync.out.find("2 skipped, 1 failed, 1 deleted"), std::string::npos) << sync.out;
    EXPECT_EQ(run({"stat", "backup/docs/a.txt"}).code, 0);
    EXPECT_EQ(run({"stat", "backup/file"}).code, 0);
    EXPECT_EQ(run({"stat", "backup/gone"}).code, 4);
    // Every folder below long/ matches; the file at its bottom was never
    // compared. A Latin-1 name is shown in valid UTF-8.
    write(path("src/long/latin1-\xe9t\xe9"), "");
    Result check = run({"check", "--json", path("src/long"), "backup/long"});
    EXPECT_EQ(check.code, 1) << check.err;
    EXPECT_NE(check.err.find(tooLong), std::string::npos) << check.err;
    EXPECT_FALSE(parse(check.out)["ok"].asBool());
    EXPECT_EQ(parse(check.out)["missing_remote"][0], "latin1-\xef\xbf\xbdt\xef\xbf\xbd");
    // A local tree deeper than the system takes is backed up, checked and
    // restored all the same where its remote paths are short enough.
    std::string deepTop = path("src/long");
    for (int i = 0; i < 21; ++i) deepTop += "/" + std::string(200, 'n');
    EXPECT_EQ(run({"copy", deepTop, "d"}).code, 0);
    Result restored = run({"restore", "d", deepTop + "/back"});
    EXPECT_EQ(restored.code, 0) << restored.err;
    EXPECT_EQ(run({"check", deepTop + "/back", "d"}).code, 0);
    std::system(("rm -rf " + path("src/long")).c_str());  // too deep for remove_all
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

// A folder that cannot be made is the one reason for the files below it,
// with one agent and with workers alike; the rest of the tree goes out.
TEST_F(ToolTest, FilesBelowAnUnmadeFolderNameIt) {
    write(path("src/new/sub/f"), "f");
    write(path("src/new/g"), "g");
    write(path("src/other"), "o");
    ASSERT_EQ(run({"init"}).code, 0);
    ASSERT_EQ(run({"mkdir", "t1"}).code, 0);
    ASSERT_EQ(run({"mkdir", "t3"}).code, 0);
    drive().addFault(DriveEmulator::Fault::fail("createFolder", 400).always());
    for (std::string transfers : {"1", "3"}) {
        SCOPED_TRACE(transfers);
        Result r = run({"copy", "--transfers", transfers, path("src"), "t" + transfers});
        EXPECT_EQ(r.code, 1) << r.err;
        EXPECT_NE(r.err.find("failed: new/: error"), std::string::npos) << r.err;
        for (char const* below : {"new/sub/", "new/sub/f", "new/g"}) {
            EXPECT_NE(r.err.find(std::string("failed: ") + below +
                                 ": not tried: the folder new/ could not be made"),
                      std::string::npos)
                << r.err;
        }
        EXPECT_NE(r.out.find("1 sent, 0 unchanged, 0 skipped, 4 failed"), std::string::npos)
            << r.out;
    }
}

// A full local disk stops a restore at its first file that does not fit,
// with the reason: every further file would meet it.
TEST_F(ToolTest, FullDiskStopsARestore) {
    for (int n = 0; n < 8; ++n) write(path("src/") + std::to_string(n), std::string(100000, 'f'));
    ASSERT_EQ(run({"init"}).code, 0);
    ASSERT_EQ(run({"copy", path("src"), "backup"}).code, 0);
    fs::create_directory(path("small"));
    ASSERT_EQ(mount("tmpfs", path("small").c_str(), "tmpfs", 0, "size=300k"), 0) << errno;
    Result r = run({"restore", "--transfers", "1", "backup", path("small/back")});
    umount2(path("small").c_str(), MNT_DETACH);
    EXPECT_EQ(r.code, 1) << r.err;
    EXPECT_NE(r.err.find("No space left on device"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("stopped: the failure above would meet every further file (4 files "
                         "not tried)"),
              std::string::npos)
        << r.err;
    EXPECT_NE(r.out.find(" received, 0 unchanged, 0 skipped, 1 failed"), std::string::npos)
        << r.out;
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
        kill(-pid, SIGINT);  // as a terminal's Ctrl-C: to every process of the run
        Result r = finish(pid);
        EXPECT_LT(std::chrono::steady_clock::now() - sent, 2s);
        EXPECT_EQ(r.code, 130) << r.err;
        EXPECT_EQ(readFile(path("local/old")), "old content");
        std::this_thread::sleep_for(200ms);  // the emulator's clean-up, after its client went
        EXPECT_EQ(std::distance(fs::directory_iterator(path("local")), fs::directory_iterator()),
                  1);
        EXPECT_TRUE(fs::is_empty(path("data/account/blobs/tmp")));
        if (c.args[0] == "restore") {
            // How many were not tried depends on how many workers had one.
            EXPECT_NE(r.err.find("gdrive_host: cancelled: "), std::string::npos) << r.err;
            EXPECT_NE(r.err.find(" not tried\n"), std::string::npos) << r.err;
        } else if (c.args[0] == "put") {
            EXPECT_EQ(run({"stat", "new"}).code, 4);
        } else if (c.args[0] == "copy") {
            // On a slow machine the stop may come before the folder is made.
            Result size = run({"size", "--json", "new"});
            EXPECT_TRUE(size.code == 3 || parse(size.out)["files"] == 0) << size.out;
        }
    }
}

// The person insists: a second Ctrl-C ends the process without waiting for
// the first one's clean-up. A worker's stop request from its parent, before
// or after the terminal's Ctrl-C, is no insisting.
TEST(InterruptTest, OnlyASecondInterruptEndsTheProcessAtOnce) {
    struct Case {
        int first, second, exitCode;
    } const cases[] = {{SIGINT, SIGINT, 130}, {SIGUSR1, SIGINT, 0}, {SIGINT, SIGUSR1, 0}};
    for (auto const& c : cases) {
        SCOPED_TRACE(std::to_string(c.first) + " then " + std::to_string(c.second));
        pid_t pid = fork();
        if (pid == 0) {
            gdhost::installInterruptHandler();
            gdhost::acceptStopSignal();
            raise(c.first);
            if (!gdhost::interrupted()) _exit(1);
            raise(c.second);
            _exit(0);
        }
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == c.exitCode) << status;
    }
}

}  // namespace
