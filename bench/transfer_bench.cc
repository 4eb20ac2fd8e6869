// End-to-end transfers through the plug-in and the emulator, each measured in
// pairs with its reference (md5sum for uploads, cp for downloads) on the same
// file and disk, and warm path resolution from the node cache.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench_support.h"
#include "drive_control.h"
#include "transfer_googledrive.h"

using namespace TAVO::Backup;

namespace {

// One emulated account, agent root and local folder for the whole run.
struct Bench {
    std::string dir;
    std::unique_ptr<DriveEmulator::Drive> drive;
    std::string targetId;

    Bench() {
        char const* tmp = getenv("TMPDIR");
        std::string tmpl = std::string(tmp && *tmp ? tmp : "/tmp") + "/gdrive-bench-XXXXXX";
        std::vector<char> buf(tmpl.begin(), tmpl.end());
        buf.push_back('\0');
        if (!mkdtemp(buf.data())) abort();
        dir = buf.data();
        drive = std::make_unique<DriveEmulator::Drive>(DriveEmulator::Drive::init(dir + "/data"));
        DriveEmulator::makeAgentRoot(dir + "/root", dir + "/data");
        setenv("TAVO_ROOT", (dir + "/root").c_str(), 1);
        unsetenv("DRIVE_EMULATOR_DATA");
        auto settings = drive->settings();
        settings.progressBytes = 8 << 20;  // a progress line per 8 MiB
        drive->setSettings(settings);
        std::string c = drive->mkdir(drive->rootId(), "C");
        targetId = drive->mkdir(c, "T");
    }
    ~Bench() {
        drive.reset();
        if (system(("rm -rf '" + dir + "'").c_str()) != 0) fprintf(stderr, "cleanup failed\n");
    }

    std::unique_ptr<TransferAgentGoogleDrive> makeAgent() {
        Repository repo;
        repo.options().set(Repository::SZK_REMOTE_BUCKET, "C");
        repo.options().set(Repository::SZK_REMOTE_REFRESH_TOKEN, "cmVmcmVzaA==");
        repo.setCacheRoot(dir + "/cache");
        auto agent = std::make_unique<TransferAgentGoogleDrive>(repo);
        agent->setTargetId("T");
        agent->setTransferOption(Task("T"));
        return agent;
    }

    std::string localFile(int64_t size) {
        std::string path = dir + "/local-" + std::to_string(size);
        if (access(path.c_str(), R_OK) == 0) return path;
        FILE* f = fopen(path.c_str(), "wb");
        std::vector<char> block(1 << 20);
        unsigned x = 12345;
        for (auto& c : block) c = static_cast<char>(x = x * 1103515245 + 12345);
        for (int64_t done = 0; done < size; done += block.size()) {
            size_t n = static_cast<size_t>(std::min<int64_t>(block.size(), size - done));
            block[0] = static_cast<char>(done >> 20);  // no two blocks alike
            fwrite(block.data(), 1, n, f);
        }
        fclose(f);
        return path;
    }
};

Bench& bench() {
    static Bench b;
    return b;
}

double wallSeconds() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return tv.tv_sec + tv.tv_usec / 1e6;
}

// Writes back what earlier steps left dirty, outside the timed region, so
// that every transfer starts from the same state (warm page cache, clean
// pages), as the references in emulator_bench do.
void settle() {
    int fd = ::open(bench().dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        ::syncfs(fd);
        ::close(fd);
    }
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// One side of a pair: the step itself, and what to undo after it, untimed.
struct Step {
    std::function<bool()> run;
    std::function<void()> undo;
};

// Runs `warmUps` untimed rounds of both steps, then `pairs` pairs of
// (reference, measured), each step from a settled file system. This virtual
// machine's page cache fills at very different speeds from one minute to the
// next, so only a reference taken right beside each measurement is a fair
// yardstick. Reports the medians as counters (milliseconds), their ratio as
// `throughput_ratio` (above 1: faster than the reference), the median share of
// the wall time this process (the plug-in; the drive agent is a child) spent
// on the CPU, and the largest growth of its peak resident memory during a
// measured step; the iteration time is the measured median.
void timePairs(benchmark::State& state, Step reference, Step measured, int warmUps, int pairs) {
    for (int i = 0; i < warmUps; ++i) {
        if (!reference.run() || !measured.run()) {
            state.SkipWithError("warm-up transfer failed");
            return;
        }
        reference.undo();
        measured.undo();
    }
    std::vector<double> referenceSeconds, measuredSeconds, cpuFractions;
    std::int64_t rssGrowth = 0;
    BenchSupport::PeakRssProbe probe;
    for (auto _ : state) {
        for (int i = 0; i < pairs; ++i) {
            settle();
            double w0 = wallSeconds();
            bool ok = reference.run();
            referenceSeconds.push_back(wallSeconds() - w0);
            reference.undo();
            settle();
            probe.start();
            double c0 = BenchSupport::processCpuSeconds();
            w0 = wallSeconds();
            ok = ok && measured.run();
            double wall = wallSeconds() - w0;
            cpuFractions.push_back((BenchSupport::processCpuSeconds() - c0) / wall);
            measuredSeconds.push_back(wall);
            rssGrowth = std::max(rssGrowth, probe.growth());
            measured.undo();
            if (!ok) {
                state.SkipWithError("transfer failed");
                return;
            }
        }
        state.SetIterationTime(median(measuredSeconds));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
    state.counters["reference_median_ms"] = median(referenceSeconds) * 1e3;
    state.counters["measured_median_ms"] = median(measuredSeconds) * 1e3;
    state.counters["throughput_ratio"] = median(referenceSeconds) / median(measuredSeconds);
    state.counters["cpu_fraction"] = median(cpuFractions);
    state.counters["rss_growth_bytes"] = static_cast<double>(rssGrowth);
}

int const kPairs = 7;

bool runCommand(std::string const& command) { return system(command.c_str()) == 0; }

void BM_SendFile(benchmark::State& state) {
    std::string local = bench().localFile(state.range(0));
    auto agent = bench().makeAgent();
    // A new object each time ("uploadFile"), removed untimed afterwards, as
    // the emulator's own upload benchmark does. Reference: md5sum, since the
    // emulator must checksum what it stores.
    int n = 0;
    Step md5sum{[&] { return runCommand("md5sum '" + local + "' > /dev/null"); }, [] {}};
    Step send{
        [&] { return agent->sendFile(local, "big" + std::to_string(n)); },
        [&] {
            for (auto const& o : bench().drive->lookup(bench().targetId, "big" + std::to_string(n)))
                bench().drive->remove(o.id);
            ++n;
        }};
    timePairs(state, md5sum, send, 1, kPairs);
}

void BM_RecvFile(benchmark::State& state) {
    std::string local = bench().localFile(state.range(0));
    auto agent = bench().makeAgent();
    if (!agent->sendFile(local, "big-down")) {
        state.SkipWithError("upload failed");
        return;
    }
    std::string copied = bench().dir + "/copied";
    std::string restored = bench().dir + "/restored";
    Step cp{[&] { return runCommand("cp '" + local + "' '" + copied + "'"); },
            [&] { ::unlink(copied.c_str()); }};
    Step recv{[&] { return agent->recvFile("big-down", restored); },
              [&] { ::unlink(restored.c_str()); }};
    timePairs(state, cp, recv, 2, kPairs);
}

void BM_ResolveWarm(benchmark::State& state) {
    int levels = static_cast<int>(state.range(0));
    // /C/T/level3/.../levelN: the container and target make the first two
    // levels. Built once: the benchmark function runs several times.
    static std::map<int, std::pair<std::string, std::string>> trees;
    if (!trees.count(levels)) {
        std::string path = "/C/T";
        std::string parent = bench().targetId;
        for (int i = 3; i <= levels; ++i) {
            std::string name = "level" + std::to_string(i);
            parent = bench().drive->mkdir(parent, name);
            path += "/" + name;
        }
        trees[levels] = {path, parent};
    }
    std::string const& path = trees[levels].first;
    std::string const& parent = trees[levels].second;
    auto agent = bench().makeAgent();
    std::string id;
    if (!agent->findNodeIdByPath(false, path, id) || id != parent) {
        state.SkipWithError("cold walk failed");
        return;
    }
    bench().drive->clearRequestLog();
    int oldMask = setlogmask(LOG_UPTO(LOG_INFO));
    for (auto _ : state) {
        agent->findNodeIdByPath(false, path, id);
        benchmark::DoNotOptimize(id);
    }
    setlogmask(oldMask);
    state.counters["requests"] = static_cast<double>(bench().drive->countRequests());
    state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(BM_SendFile)->Arg(1 << 30)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(1);
BENCHMARK(BM_RecvFile)->Arg(1 << 30)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(1);
// Debug lines are masked, as on a NAS in normal operation: the walk logs every step at LOG_DEBUG.
BENCHMARK(BM_ResolveWarm)->Arg(6)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
