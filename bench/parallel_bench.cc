// The host tool's --transfers at a service's latency: the emulator delays
// every request (fn "*", always) by 50 ms, as the real service answers in 50
// to 300 ms, and each command runs as a person runs it, as a child process.
//
//   BM_ParallelTransfers/N   on a backup-shaped tree of about N files, each
//   step once with --transfers 1 and once with 8, in the same run:
//     first_speedup       first copy, time with 1 over time with 8
//     first_request_ratio its requests with 8 over those with 1
//     restore_speedup     restore of the tree, 1 over 8
//     second_speedup      second copy with nothing changed, 1 over 8
//     second_request_ratio
//     nodelay_ratio       first copy without the delay, 4 over 1 (time): the
//                         median of five alternated pairs (_min, _max)
//   and each step's seconds with 1 (`*_s1`) for scale.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "bench_main.h"
#include "bench_support.h"
#include "drive_control.h"

namespace {

namespace fs = std::filesystem;

// The demo's shape without its large files: a few control files, buckets of
// 99 small files, an empty folder.
void makeTree(std::string const& top, int files) {
    std::mt19937 random(7);
    int const sizes[] = {0, 1, 200, 1500, 4096, 9000};
    auto write = [&](std::string const& path, size_t size) {
        fs::create_directories(fs::path(path).parent_path());
        std::string bytes(size, '\0');
        for (char& b : bytes) b = static_cast<char>(random());
        std::ofstream(path, std::ios::binary) << bytes;
    };
    write(top + "/tavobkpinfo.db", 64 << 10);
    for (char const* name : {"info.json", "task.conf", "version"})
        write(top + "/Control/" + name, 10 + random() % 390);
    for (int n = 4; n < files; ++n)
        write(top + "/Pool/" + std::to_string(n / 99) + "/" + std::to_string(n % 99) + ".bucket",
              sizes[random() % 6]);
    fs::create_directories(top + "/Pool/empty folder");
}

// Runs gdrive_host with `args` against the account under `data`; seconds.
double host(std::string const& data, std::vector<std::string> args) {
    args.insert(args.begin(), {GDRIVE_HOST, "-q"});
    return BenchSupport::runCommand(args, {"GDRIVE_DATA_DIR=" + data, "TAVO_ROOT"});
}

struct Step {
    double seconds = 0;
    double requests = 0;
};

// One account per transfer count, so that the runs do not share a cache.
class Scenario {
  public:
    Scenario(std::string const& folder, int transfers, int delayMs, std::string const& tag = "")
        : _data(folder + "/data" + std::to_string(transfers) + "-" + std::to_string(delayMs) + tag),
          _transfers(std::to_string(transfers)) {
        host(_data, {"init"});
        if (delayMs > 0) drive().addFault(DriveEmulator::Fault::delay("*", delayMs).always());
    }
    DriveEmulator::Drive drive() { return DriveEmulator::Drive::open(_data + "/account"); }
    Step run(std::string const& command, std::string const& from, std::string const& to) {
        drive().clearRequestLog();
        Step step;
        step.seconds = host(_data, {command, "--transfers", _transfers, from, to});
        step.requests = static_cast<double>(drive().countRequests());
        return step;
    }

  private:
    std::string _data;
    std::string _transfers;
};

constexpr int kNoDelayPairs = 5;

void BM_ParallelTransfers(benchmark::State& state) {
    std::string const folder = BenchSupport::makeScratchFolder("parallel-bench");
    std::string const tree = folder + "/tree";
    makeTree(tree, static_cast<int>(state.range(0)));
    for (auto _ : state) {
        Scenario one(folder, 1, 50), eight(folder, 8, 50);
        Step first1 = one.run("copy", tree, "/"), first8 = eight.run("copy", tree, "/");
        Step restore1 = one.run("restore", "/", folder + "/back1");
        Step restore8 = eight.run("restore", "/", folder + "/back8");
        Step second1 = one.run("copy", tree, "/"), second8 = eight.run("copy", tree, "/");
        // A few seconds each, against minutes of the machine's drift: the
        // median of alternated pairs, each on two fresh accounts.
        std::vector<double> nodelayRatios;
        Step nodelay1;
        for (int pair = 0; pair < kNoDelayPairs; ++pair) {
            std::string const tag = "-" + std::to_string(pair);
            Scenario quick1(folder, 1, 0, tag), quick4(folder, 4, 0, tag);
            Step one, four;
            if (pair % 2 == 0) {
                one = quick1.run("copy", tree, "/");
                four = quick4.run("copy", tree, "/");
            } else {
                four = quick4.run("copy", tree, "/");
                one = quick1.run("copy", tree, "/");
            }
            if (one.seconds < 0 || four.seconds < 0) state.SkipWithError("a command failed");
            nodelayRatios.push_back(four.seconds / one.seconds);
            if (pair == 0) nodelay1 = one;
        }
        std::sort(nodelayRatios.begin(), nodelayRatios.end());
        for (Step const* s : {&first1, &first8, &restore1, &restore8, &second1, &second8}) {
            if (s->seconds < 0) state.SkipWithError("a command failed");
        }
        if (std::system(("diff -r " + tree + " " + folder + "/back8").c_str()) != 0)
            state.SkipWithError("the parallel restore differs from the tree");
        state.SetIterationTime(first8.seconds + restore8.seconds + second8.seconds);
        state.counters["first_speedup"] = first1.seconds / first8.seconds;
        state.counters["first_request_ratio"] = first8.requests / first1.requests;
        state.counters["restore_speedup"] = restore1.seconds / restore8.seconds;
        state.counters["second_speedup"] = second1.seconds / second8.seconds;
        state.counters["second_request_ratio"] = second8.requests / second1.requests;
        state.counters["nodelay_ratio"] = nodelayRatios[nodelayRatios.size() / 2];
        state.counters["nodelay_ratio_min"] = nodelayRatios.front();
        state.counters["nodelay_ratio_max"] = nodelayRatios.back();
        state.counters["first_s1"] = first1.seconds;
        state.counters["restore_s1"] = restore1.seconds;
        state.counters["second_s1"] = second1.seconds;
        state.counters["nodelay_s1"] = nodelay1.seconds;
        state.counters["first_requests1"] = first1.requests;
    }
    BenchSupport::removeTree(folder);
}

BENCHMARK(BM_ParallelTransfers)
    ->Arg(3000)
    ->Arg(300)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kSecond);

// A first copy of a tree that is mostly folders: `folders` folders of 30
// with two small files in each, so that 10 folders spread under the top,
// the rest below them, at 100 ms a request.
//   BM_ParallelFolders/N   folders_speedup (1 over 16 transfers, time),
//                          folders_request_ratio (requests with 16 over 1)
void BM_ParallelFolders(benchmark::State& state) {
    std::string const folder = BenchSupport::makeScratchFolder("parallel-folders");
    std::string const tree = folder + "/tree";
    int const folders = static_cast<int>(state.range(0));
    for (int n = 0; n < folders; ++n) {
        std::string const path =
            tree + "/d" + std::to_string(n % 10) + (n < 10 ? "" : "/e" + std::to_string(n));
        fs::create_directories(path);
        if (n >= 10)
            for (char const* name : {"/a", "/b"}) std::ofstream(path + name) << path;
    }
    for (auto _ : state) {
        Scenario one(folder, 1, 100), sixteen(folder, 16, 100);
        Step first1 = one.run("copy", tree, "/"), first16 = sixteen.run("copy", tree, "/");
        if (first1.seconds < 0 || first16.seconds < 0) state.SkipWithError("a command failed");
        state.SetIterationTime(first16.seconds);
        state.counters["folders_speedup"] = first1.seconds / first16.seconds;
        state.counters["folders_request_ratio"] = first16.requests / first1.requests;
        state.counters["folders_s1"] = first1.seconds;
        state.counters["folders_requests1"] = first1.requests;
    }
    BenchSupport::removeTree(folder);
}

BENCHMARK(BM_ParallelFolders)->Arg(311)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

}  // namespace

int main(int argc, char** argv) { return BenchSupport::runBenchmarks(argc, argv); }
