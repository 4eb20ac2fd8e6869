// A backup of many small files through the plug-in and the emulator
// (BM_BackupSmallFiles), beside the same requests sent straight to the
// emulator over its pipe (BM_BackupSmallFilesRaw). A backup runs twice on a
// fresh account: a first run that creates everything, then the same backup
// again on a second agent that starts from the node cache file the first one
// flushed (the raw side remembers the ids instead).
#include <benchmark/benchmark.h>
#include <signal.h>
#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_main.h"
#include "bench_support.h"
#include "drive_control.h"

using namespace TAVO::Backup;
using BenchSupport::EmulatorPipe;

namespace {

int const kFolders = 100;
size_t const kFileBytes = 4096;

std::string folderName(int d) { return "d" + std::to_string(d); }
std::string fileName(int f) { return "f" + std::to_string(f); }

// The local files, made once: kFolders folders of files of kFileBytes each,
// no two alike.
struct SourceFiles {
    std::string scratch;
    int perFolder = 0;

    ~SourceFiles() {
        if (!scratch.empty()) BenchSupport::removeTree(scratch);
    }

    std::string local(int d, int f) const {
        return scratch + "/src/" + folderName(d) + "/" + fileName(f);
    }
    static SourceFiles const& get(int files) {
        static SourceFiles source;
        if (source.perFolder == files / kFolders) return source;
        source.scratch = BenchSupport::makeScratchFolder("tavo-bench-small");
        source.perFolder = files / kFolders;
        std::string block(kFileBytes, 'x');
        for (int d = 0; d < kFolders; ++d) {
            std::filesystem::create_directories(source.scratch + "/src/" + folderName(d));
            for (int f = 0; f < source.perFolder; ++f) {
                std::snprintf(&block[0], block.size(), "%d/%d", d, f);
                std::ofstream(source.local(d, f), std::ios::binary) << block;
            }
        }
        return source;
    }
};

// A fresh account with its data, agent root and node cache folders, removed
// with the object.
struct FreshAccount {
    std::string folder;
    DriveEmulator::Drive drive;

    explicit FreshAccount(std::string const& scratch)
        : folder(scratch + "/account"), drive(initIn(folder)) {
        BenchSupport::useEmulatorFor(folder + "/root", folder + "/data");
    }
    ~FreshAccount() { BenchSupport::removeTree(folder); }

    static DriveEmulator::Drive initIn(std::string const& folder) {
        std::filesystem::create_directories(folder);
        return DriveEmulator::Drive::init(folder + "/data");
    }
};

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// One backup as the engine makes it: container, target folder, folders, files,
// then the node cache written out.
bool backup(TransferAgentGoogleDrive& agent, SourceFiles const& source) {
    if (!agent.createContainer("C")) return false;
    // createDir works below the target, so the target folder itself is made
    // with the target id set aside.
    agent.setTargetId("");
    bool ok = agent.createDir("T");
    agent.setTargetId("T");
    for (int d = 0; ok && d < kFolders; ++d) ok = agent.createDir(folderName(d));
    for (int d = 0; ok && d < kFolders; ++d) {
        for (int f = 0; ok && f < source.perFolder; ++f) {
            ok = agent.sendFile(source.local(d, f), folderName(d) + "/" + fileName(f));
        }
    }
    return ok && agent.flushCache();
}

// The raw side's requests, as the plug-in writes them.
std::string request(std::string const& members) { return "{" + members + "}\n"; }
std::string member(char const* key, std::string const& value) {
    return std::string("\"") + key + "\":\"" + value + "\"";
}
std::string metaRequest(std::string const& id) {
    return request(member("fn", "getObjectMeta") + "," + member("id", id));
}
std::string nameQuery(std::string const& parentId, std::string const& name) {
    return request(
        member("fn", "listObjects") + "," +
        member("queryFilter", "('" + parentId + "' in parents) and (name = '" + name + "')"));
}

// Sends one request and returns the id the answer names; throws on a failure.
std::string exchangeForId(EmulatorPipe& emulator, std::string const& line) {
    std::string answer = emulator.exchange(line);
    if (answer.find("\"success\":true") == std::string::npos) throw std::runtime_error(answer);
    return BenchSupport::stringMember(answer, "id");
}

struct RawIds {
    std::string container, target;
    std::vector<std::string> folders, files;
};

// The first run's requests: what the plug-in sends when it knows nothing.
void rawFirstRun(EmulatorPipe& emulator, SourceFiles const& source, RawIds& ids) {
    auto create = [&](std::string const& parentId, std::string const& name) {
        exchangeForId(emulator, nameQuery(parentId, name));
        return exchangeForId(
            emulator, request(member("fn", "createFolder") + "," + member("name", name) + "," +
                              member("parentId", parentId)));
    };
    std::string root = exchangeForId(emulator, metaRequest("root"));
    ids.container = create(root, "C");
    ids.target = create(ids.container, "T");
    for (int d = 0; d < kFolders; ++d) ids.folders.push_back(create(ids.target, folderName(d)));
    for (int d = 0; d < kFolders; ++d) {
        for (int f = 0; f < source.perFolder; ++f) {
            exchangeForId(emulator, nameQuery(ids.folders[d], fileName(f)));
            ids.files.push_back(exchangeForId(
                emulator, request(member("fn", "uploadFile") + "," + member("name", fileName(f)) +
                                  "," + member("parentId", ids.folders[d]) + "," +
                                  member("inputPath", source.local(d, f)))));
        }
    }
}

// The second run's requests: what the plug-in sends when its node cache knows
// every path.
void rawSecondRun(EmulatorPipe& emulator, SourceFiles const& source, RawIds const& ids) {
    exchangeForId(emulator, metaRequest(ids.container));
    exchangeForId(emulator, metaRequest(ids.target));
    for (auto const& id : ids.folders) exchangeForId(emulator, metaRequest(id));
    size_t file = 0;
    for (int d = 0; d < kFolders; ++d) {
        for (int f = 0; f < source.perFolder; ++f, ++file) {
            exchangeForId(emulator, metaRequest(ids.files[file]));
            exchangeForId(emulator,
                          request(member("fn", "updateFile") + "," + member("id", ids.files[file]) +
                                  "," + member("inputPath", source.local(d, f))));
        }
    }
}

// What one run of a backup took and asked of the emulator.
struct RunFigures {
    double seconds = 0;
    std::int64_t requests = 0;
    std::int64_t listings = 0;
};

// Both runs of a backup on a fresh account: `run(0, account)` then
// `run(1, account)`, each timed, with the requests each one made.
std::vector<RunFigures> measureBackup(SourceFiles const& source,
                                      std::function<bool(int, FreshAccount&)> const& run) {
    FreshAccount account(source.scratch);
    std::vector<RunFigures> runs(2);
    for (int i = 0; i < 2; ++i) {
        BenchSupport::settle(source.scratch);
        auto start = std::chrono::steady_clock::now();
        if (!run(i, account)) return {};
        runs[i].seconds = secondsSince(start);
        runs[i].requests = account.drive.countRequests();
        runs[i].listings = account.drive.countRequests("listObjects");
        account.drive.clearRequestLog();
    }
    return runs;
}

bool pluginRun(int, FreshAccount& account, SourceFiles const& source) {
    auto agent = BenchSupport::makeAgent("C", "T", account.folder + "/cache");
    return backup(*agent, source);
}

// The raw side keeps the ids of the first run for the second, as the
// plug-in's node cache file does.
std::function<bool(int, FreshAccount&)> rawRuns(SourceFiles const& source) {
    auto ids = std::make_shared<RawIds>();
    return [ids, &source](int run, FreshAccount& account) {
        try {
            EmulatorPipe emulator(account.folder + "/data");
            if (run == 0) {
                rawFirstRun(emulator, source, *ids);
            } else {
                rawSecondRun(emulator, source, *ids);
            }
            return true;
        } catch (std::exception const& e) {
            std::fprintf(stderr, "raw backup failed: %s\n", e.what());
            return false;
        }
    };
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

char const* const kRunNames[] = {"first", "second"};

// Each iteration backs the files up twice over the pipe (the reference) and
// twice through the plug-in, in turn first, each on a fresh account and from a
// written-back file system: this machine's disk and
// CPU vary too much from one minute to the next for a reference taken at
// another moment. The iteration time is the plug-in's; the counters give per
// run the plug-in's requests per file and listings, its median time per file
// and the ratio of that median to the reference's.
void BM_BackupSmallFiles(benchmark::State& state) {
    int const files = static_cast<int>(state.range(0));
    SourceFiles const& source = SourceFiles::get(files);
    // Debug lines masked, as on a NAS in normal operation.
    int oldMask = setlogmask(LOG_UPTO(LOG_INFO));
    std::vector<double> pluginSeconds[2], rawSeconds[2];
    std::vector<RunFigures> plugin;
    bool pluginFirst = false;
    for (auto _ : state) {
        // Alternately first and second: whichever comes second meets the
        // other's removed account and written-back blobs.
        std::vector<RunFigures> raw;
        auto measurePlugin = [&] {
            plugin = measureBackup(source, [&](int run, FreshAccount& account) {
                return pluginRun(run, account, source);
            });
        };
        if (pluginFirst) measurePlugin();
        raw = measureBackup(source, rawRuns(source));
        if (!pluginFirst) measurePlugin();
        pluginFirst = !pluginFirst;
        if (raw.empty() || plugin.empty()) {
            state.SkipWithError("backup failed");
            break;
        }
        for (int i = 0; i < 2; ++i) {
            rawSeconds[i].push_back(raw[i].seconds);
            pluginSeconds[i].push_back(plugin[i].seconds);
        }
        state.SetIterationTime(plugin[0].seconds + plugin[1].seconds);
    }
    setlogmask(oldMask);
    if (plugin.empty()) return;
    for (int i = 0; i < 2; ++i) {
        std::string const run = kRunNames[i];
        state.counters[run + "_requests_per_file"] =
            static_cast<double>(plugin[i].requests) / files;
        state.counters[run + "_listings"] = static_cast<double>(plugin[i].listings);
        state.counters[run + "_us_per_file"] = median(pluginSeconds[i]) * 1e6 / files;
        state.counters[run + "_time_ratio"] = median(pluginSeconds[i]) / median(rawSeconds[i]);
    }
}

// The reference alone: the same requests straight over the pipe.
void BM_BackupSmallFilesRaw(benchmark::State& state) {
    int const files = static_cast<int>(state.range(0));
    SourceFiles const& source = SourceFiles::get(files);
    std::vector<double> seconds[2];
    std::vector<RunFigures> raw;
    for (auto _ : state) {
        raw = measureBackup(source, rawRuns(source));
        if (raw.empty()) {
            state.SkipWithError("backup failed");
            break;
        }
        for (int i = 0; i < 2; ++i) seconds[i].push_back(raw[i].seconds);
        state.SetIterationTime(raw[0].seconds + raw[1].seconds);
    }
    if (raw.empty()) return;
    for (int i = 0; i < 2; ++i) {
        std::string const run = kRunNames[i];
        state.counters[run + "_requests_per_file"] = static_cast<double>(raw[i].requests) / files;
        state.counters[run + "_us_per_file"] = median(seconds[i]) * 1e6 / files;
    }
}

}  // namespace

BENCHMARK(BM_BackupSmallFiles)
    ->Arg(10000)
    ->Iterations(4)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BackupSmallFilesRaw)
    ->Arg(10000)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) { return BenchSupport::runBenchmarks(argc, argv); }
