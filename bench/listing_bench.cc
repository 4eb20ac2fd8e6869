// A recursive listing of a large backup target through the plug-in and the
// emulator (BM_ListDirRecursive), beside the same "listObjects" pages asked
// of the emulator straight over its pipe (BM_EmulatorListPages).
//
// The tree, /C/T/partP/dirDD/fileFFF, is written once through the control
// library into $TMPDIR/tavo-bench-listing-<files> and kept there for later
// runs (a marker file says it is complete): filling it costs far more than
// walking it. Remove that folder to rebuild it.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "bench_main.h"
#include "bench_support.h"
#include "drive_control.h"

using namespace TAVO::Backup;
using BenchSupport::EmulatorPipe;

namespace {

int const kParts = 10;
int const kDirsPerPart = 100;
int const kDirs = kParts * kDirsPerPart;
// What a small stored file's record carries: a size and a checksum.
char const kContent[] = "sixteen bytes..\n";

struct ListingTree {
    std::string folder;
    std::string data;
    std::string agentRoot;
    // Every folder the walk lists, target first, in the walk's depth-first order.
    std::vector<std::string> foldersInWalkOrder;
    int files = 0;
};

void fill(DriveEmulator::Drive& drive, int files) {
    std::string target = drive.mkdir(drive.mkdir(drive.rootId(), "C"), "T");
    int const perDir = files / kDirs;
    for (int p = 0; p < kParts; ++p) {
        std::string part = drive.mkdir(target, "part" + std::to_string(p));
        for (int d = 0; d < kDirsPerPart; ++d) {
            std::string dir = drive.mkdir(part, "dir" + std::to_string(d));
            for (int f = 0; f < perDir; ++f) drive.put(dir, "file" + std::to_string(f), kContent);
        }
    }
}

void collectFolders(DriveEmulator::Drive& drive, std::string const& id,
                    std::vector<std::string>& out) {
    out.push_back(id);
    for (auto const& child : drive.children(id)) {
        if (child.isDir) collectFolders(drive, child.id, out);
    }
}

ListingTree const& listingTree(int files) {
    static std::map<int, ListingTree> trees;
    auto found = trees.find(files);
    if (found != trees.end()) return found->second;

    ListingTree tree;
    char const* base = std::getenv("TMPDIR");
    tree.folder =
        std::string(base && *base ? base : "/tmp") + "/tavo-bench-listing-" + std::to_string(files);
    tree.data = tree.folder + "/data";
    tree.agentRoot = tree.folder + "/root";
    tree.files = files;
    std::string const marker = tree.folder + "/complete";
    if (!std::filesystem::exists(marker)) {
        BenchSupport::removeTree(tree.folder);
        std::filesystem::create_directories(tree.folder);
        auto drive = DriveEmulator::Drive::init(tree.data);
        fill(drive, files);
        DriveEmulator::makeAgentRoot(tree.agentRoot, tree.data);
        std::ofstream(marker) << "complete\n";
    }
    auto drive = DriveEmulator::Drive::open(tree.data);
    collectFolders(drive, drive.idByPath("/C/T"), tree.foldersInWalkOrder);
    return trees[files] = tree;
}

bool countFile(FileInfo const&, void* count) {
    ++*static_cast<int*>(count);
    return true;
}

// A fresh agent whose drive agent is already running and whose node cache
// knows the path to the target, as after the engine's first request.
std::unique_ptr<TransferAgentGoogleDrive> readyAgent() {
    auto agent = BenchSupport::makeAgent("C", "T", "");
    std::string targetId;
    if (!agent->findNodeIdByPath(false, "/C/T", targetId)) return nullptr;
    return agent;
}

// The files one walk of the whole target reports; -1 when it fails.
int walk(TransferAgentGoogleDrive& agent) {
    int files = 0;
    return agent.listDirRecursive("", countFile, &files) ? files : -1;
}

// The listing pages of every folder of the tree, asked straight over the pipe
// in the walk's order, each page's token taken from the answer's text.
void listPages(EmulatorPipe& emulator, ListingTree const& tree) {
    for (auto const& id : tree.foldersInWalkOrder) {
        std::string const query = "\"queryFilter\":\"('" + id + "' in parents)\"}\n";
        std::string token;
        do {
            std::string request = "{\"fn\":\"listObjects\",";
            if (!token.empty()) request += "\"pageToken\":\"" + token + "\",";
            std::string answer = emulator.exchange(request + query);
            token = BenchSupport::stringMember(answer, "nextPageToken");
            benchmark::DoNotOptimize(answer);
        } while (!token.empty());
    }
}

double secondsOf(std::function<void()> const& step) {
    auto start = std::chrono::steady_clock::now();
    step();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// Each iteration lists the pages over the pipe (the reference), then walks the
// tree through the plug-in on a fresh agent: the load of this machine changes
// too much for a reference taken at another moment. The iteration time is the
// walk's; `time_ratio` is the median walk over the median reference.
void BM_ListDirRecursive(benchmark::State& state) {
    ListingTree const& tree = listingTree(static_cast<int>(state.range(0)));
    BenchSupport::useEmulatorFor(tree.agentRoot, tree.data);
    auto drive = DriveEmulator::Drive::open(tree.data);
    EmulatorPipe reference(tree.data);
    // Debug lines masked, as on a NAS in normal operation.
    int oldMask = setlogmask(LOG_UPTO(LOG_INFO));
    BenchSupport::PeakRssProbe probe;
    auto agent = readyAgent();
    listPages(reference, tree);                  // warm-up
    if (!agent || walk(*agent) != tree.files) {  // warm-up
        state.SkipWithError("warm-up walk failed");
        setlogmask(oldMask);
        return;
    }
    std::int64_t listings = 0, growth = 0;
    std::vector<double> walkSeconds, referenceSeconds;
    for (auto _ : state) {
        referenceSeconds.push_back(secondsOf([&] { listPages(reference, tree); }));
        agent = readyAgent();
        drive.clearRequestLog();
        probe.start();
        int files = -1;
        walkSeconds.push_back(secondsOf([&] { files = agent ? walk(*agent) : -1; }));
        growth = std::max(growth, probe.growth());
        listings += drive.countRequests("listObjects");
        agent.reset();
        state.SetIterationTime(walkSeconds.back());
        if (files != tree.files) {
            state.SkipWithError("walk failed");
            break;
        }
    }
    // The walk's own memory and time, without what the node cache learns on
    // the way (one walk).
    agent = readyAgent();
    if (agent) {
        agent->freezeNodeCache(true);
        probe.start();
        int files = -1;
        double seconds = secondsOf([&] { files = walk(*agent); });
        if (files == tree.files && !referenceSeconds.empty()) {
            state.counters["walk_rss_growth_bytes"] = static_cast<double>(probe.growth());
            state.counters["frozen_time_ratio"] = seconds / median(referenceSeconds);
        }
    }
    setlogmask(oldMask);
    if (walkSeconds.empty()) return;
    double const iterations = static_cast<double>(state.iterations());
    state.counters["requests_per_folder"] =
        static_cast<double>(listings) / iterations / tree.foldersInWalkOrder.size();
    state.counters["files_per_second"] = tree.files / median(walkSeconds);
    state.counters["time_ratio"] = median(walkSeconds) / median(referenceSeconds);
    state.counters["rss_growth_bytes"] = static_cast<double>(growth);
}

// The reference alone.
void BM_EmulatorListPages(benchmark::State& state) {
    ListingTree const& tree = listingTree(static_cast<int>(state.range(0)));
    EmulatorPipe emulator(tree.data);
    listPages(emulator, tree);  // warm-up, untimed
    for (auto _ : state) listPages(emulator, tree);
    state.counters["files_per_second"] = benchmark::Counter(
        static_cast<double>(tree.files) * state.iterations(), benchmark::Counter::kIsRate);
}

}  // namespace

BENCHMARK(BM_ListDirRecursive)
    ->Arg(100000)
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EmulatorListPages)
    ->Arg(100000)
    ->Iterations(3)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) { return BenchSupport::runBenchmarks(argc, argv); }
