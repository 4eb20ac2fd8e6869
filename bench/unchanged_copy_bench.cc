// What the stored index buys, measured on the host tool as a person runs it
// (a child process, the embedded emulator, no delay):
//
//   BM_UnchangedCopy/N   a tree of N small files (1 to 199 bytes, 100 to a
//   folder: small, so that 100,000 of them fit a shared machine's disk), copied
//   once, then copied again with nothing changed:
//     copy_over_find     the unchanged copy's time over that of
//                        `find TREE -printf '%s %T@\n' >/dev/null`, the
//                        median of three alternated pairs (_min, _max)
//     copy1_over_find    the same with --transfers 1 (no workers)
//     listing_over_find  `ls -R` of the remote copy over find: the part of
//                        the copy that is the service's listing
//     tree_files_opened  files of the tree that the unchanged copy, its
//                        workers and their drive agents opened (strace -f;
//                        -1 when strace is missing): no content read at 0
//   and the seconds of each (`*_s`) for scale.
//
//   BM_ResumedRestore/N  N small files restored, the restore stopped by
//   Ctrl-C once half of the downloads were asked for, then run again:
//     missing_after_stop files absent or different after the stop
//     resumed_downloads  downloadFile requests of the second run (the goal:
//                        missing_after_stop, no more)
//     kept_mtimes        restored files whose modification time is the
//                        source's to the second, over all files (goal 1)
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench_main.h"
#include "bench_support.h"
#include "drive_control.h"

namespace {

namespace fs = std::filesystem;

void makeTree(std::string const& top, int files) {
    std::mt19937 random(11);
    for (int n = 0; n < files; ++n) {
        std::string const folder = top + "/" + std::to_string(n / 100);
        if (n % 100 == 0) fs::create_directories(folder);
        std::string bytes(1 + random() % 199, '\0');
        for (char& b : bytes) b = static_cast<char>(random());
        std::ofstream(folder + "/" + std::to_string(n % 100) + ".bin", std::ios::binary) << bytes;
    }
    // Files changed within the last second are not recorded (their times
    // could hide a change): the tree is older than that when copied.
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
}

// Starts `argv` with its stdout to /dev/null and GDRIVE_DATA_DIR at `data`.
pid_t start(std::string const& data, std::vector<std::string> argv) {
    pid_t pid = fork();
    if (pid == 0) {
        setenv("GDRIVE_DATA_DIR", data.c_str(), 1);
        unsetenv("TAVO_ROOT");
        int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        std::vector<char*> args;
        for (auto& a : argv) args.push_back(a.data());
        args.push_back(nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
    return pid;
}

// Runs `argv` to its end; seconds, or -1 when it failed.
double timed(std::string const& data, std::vector<std::string> argv) {
    auto const begin = std::chrono::steady_clock::now();
    int status = 0;
    waitpid(start(data, std::move(argv)), &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return -1;
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

std::vector<std::string> host(std::vector<std::string> args) {
    args.insert(args.begin(), {GDRIVE_HOST, "-q"});
    return args;
}

// Files below `tree` that the traced processes opened, but as folders.
int64_t treeFilesOpened(std::string const& data, std::string const& tree,
                        std::vector<std::string> const& args) {
    std::string const trace = data + "/trace";
    std::vector<std::string> argv = {"strace", "-f", "-qq", "-e", "trace=openat", "-o", trace};
    for (auto const& a : host(args)) argv.push_back(a);
    if (timed(data, argv) < 0) return -1;
    std::ifstream in(trace);
    int64_t opened = 0;
    for (std::string line; std::getline(in, line);) {
        if (line.find("\"" + tree + "/") != std::string::npos &&
            line.find("O_DIRECTORY") == std::string::npos) {
            ++opened;
        }
    }
    return opened;
}

void BM_UnchangedCopy(benchmark::State& state) {
    std::string const folder = BenchSupport::makeScratchFolder("unchanged-copy-bench");
    std::string const tree = folder + "/tree", data = folder + "/data";
    makeTree(tree, static_cast<int>(state.range(0)));
    std::vector<std::string> const find = {"find", tree, "-printf", "%s %T@\\n"};
    for (auto _ : state) {
        double const init = timed(data, host({"init"}));
        double const first = timed(data, host({"copy", tree, "backup"}));
        if (init < 0 || first < 0) state.SkipWithError("the first copy failed");
        std::vector<double> ratios, serial, listings;
        double copy = 0, found = 0, listed = 0, copy1 = 0;
        for (int pair = 0; pair < 3; ++pair) {
            // Alternated, so that neither always runs on the warmer cache.
            double const f1 = pair % 2 ? timed(data, find) : 0;
            copy = timed(data, host({"copy", tree, "backup"}));
            found = pair % 2 ? f1 : timed(data, find);
            listed = timed(data, host({"ls", "-R", "backup"}));
            copy1 = timed(data, host({"copy", "--transfers", "1", tree, "backup"}));
            if (copy < 0 || found < 0 || listed < 0 || copy1 < 0)
                state.SkipWithError("a command failed");
            ratios.push_back(copy / found);
            serial.push_back(copy1 / found);
            listings.push_back(listed / found);
        }
        std::sort(ratios.begin(), ratios.end());
        std::sort(listings.begin(), listings.end());
        std::sort(serial.begin(), serial.end());
        int64_t const opened = access("/usr/bin/strace", X_OK) == 0
                                   ? treeFilesOpened(data, tree, {"copy", tree, "backup"})
                                   : -1;
        state.SetIterationTime(copy);
        state.counters["copy_over_find"] = ratios[1];
        state.counters["copy_over_find_min"] = ratios.front();
        state.counters["copy_over_find_max"] = ratios.back();
        state.counters["copy1_over_find"] = serial[1];
        state.counters["listing_over_find"] = listings[1];
        state.counters["tree_files_opened"] = static_cast<double>(opened);
        state.counters["first_copy_s"] = first;
        state.counters["copy_s"] = copy;
        state.counters["copy1_s"] = copy1;
        state.counters["find_s"] = found;
        state.counters["listing_s"] = listed;
    }
    BenchSupport::removeTree(folder);
}

// Files of `tree` that `copy` lacks or holds otherwise; with `times`, those
// whose modification time (in seconds) differs instead.
int64_t differing(std::string const& tree, std::string const& copy, bool times) {
    int64_t count = 0;
    for (auto const& e : fs::recursive_directory_iterator(tree)) {
        if (!e.is_regular_file()) continue;
        std::string const other = copy + e.path().string().substr(tree.size());
        struct stat a {
        }, b{};
        bool const there = stat(e.path().c_str(), &a) == 0 && stat(other.c_str(), &b) == 0;
        if (times) {
            count += !there || a.st_mtim.tv_sec != b.st_mtim.tv_sec;
            continue;
        }
        std::ifstream x(e.path(), std::ios::binary), y(other, std::ios::binary);
        std::stringstream bx, by;
        bx << x.rdbuf();
        by << y.rdbuf();
        count += !there || bx.str() != by.str();
    }
    return count;
}

void BM_ResumedRestore(benchmark::State& state) {
    std::string const folder = BenchSupport::makeScratchFolder("resumed-restore-bench");
    std::string const tree = folder + "/tree", data = folder + "/data", back = folder + "/back";
    int const files = static_cast<int>(state.range(0));
    makeTree(tree, files);
    for (auto _ : state) {
        if (timed(data, host({"init"})) < 0 || timed(data, host({"copy", tree, "backup"})) < 0)
            state.SkipWithError("the copy failed");
        DriveEmulator::Drive drive = DriveEmulator::Drive::open(data + "/account");
        drive.clearRequestLog();
        pid_t restore = start(data, host({"restore", "--transfers", "1", "backup", back}));
        while (drive.countRequests("downloadFile") < files / 2)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        kill(restore, SIGINT);
        int status = 0;
        waitpid(restore, &status, 0);
        int64_t const missing = differing(tree, back, false);
        drive.clearRequestLog();
        double const resumed = timed(data, host({"restore", "backup", back}));
        if (resumed < 0 || differing(tree, back, false) != 0)
            state.SkipWithError("the second restore failed or differs");
        state.SetIterationTime(resumed);
        state.counters["missing_after_stop"] = static_cast<double>(missing);
        state.counters["resumed_downloads"] =
            static_cast<double>(drive.countRequests("downloadFile"));
        state.counters["kept_mtimes"] =
            1.0 - static_cast<double>(differing(tree, back, true)) / files;
    }
    BenchSupport::removeTree(folder);
}

BENCHMARK(BM_UnchangedCopy)
    ->Arg(100000)
    ->Arg(10000)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kSecond);
BENCHMARK(BM_ResumedRestore)->Arg(3000)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

}  // namespace

int main(int argc, char** argv) { return BenchSupport::runBenchmarks(argc, argv); }
