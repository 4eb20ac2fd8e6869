// A backup of many small files through the plug-in and the emulator
// (BM_BackupSmallFiles), beside the same requests sent straight to the
// emulator over its pipe (BM_BackupSmallFilesRaw). Each iteration backs the
// files up twice on a fresh account: a first run that creates everything, then
// the same backup again on a second agent that starts from the node cache file
// the first one flushed (the raw side remembers the ids instead).
#include <benchmark/benchmark.h>
#include <signal.h>
#include <syslog.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

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

// What both benchmarks report per run: requests and time per file.
struct RunFigures {
    double seconds = 0;
    std::int64_t requests = 0;
    std::int64_t listings = 0;

    void report(benchmark::State& state, std::string const& run, int files) const {
        double const perFile = static_cast<double>(files) * state.iterations();
        state.counters[run + "_us_per_file"] = seconds * 1e6 / perFile;
        state.counters[run + "_requests_per_file"] = static_cast<double>(requests) / perFile;
        state.counters[run + "_listings"] =
            static_cast<double>(listings) / static_cast<double>(state.iterations());
    }
};

void BM_BackupSmallFiles(benchmark::State& state) {
    int const files = static_cast<int>(state.range(0));
    SourceFiles const& source = SourceFiles::get(files);
    // Debug lines masked, as on a NAS in normal operation.
    int oldMask = setlogmask(LOG_UPTO(LOG_INFO));
    RunFigures first, second;
    for (auto _ : state) {
        state.PauseTiming();
        FreshAccount account(source.scratch);
        std::string const cacheRoot = account.folder + "/cache";
        state.ResumeTiming();
        bool ok = true;
        for (RunFigures* run : {&first, &second}) {
            auto start = std::chrono::steady_clock::now();
            auto agent = BenchSupport::makeAgent("C", "T", cacheRoot);
            ok = ok && backup(*agent, source);
            run->seconds += secondsSince(start);
            state.PauseTiming();
            agent.reset();
            run->requests += account.drive.countRequests();
            run->listings += account.drive.countRequests("listObjects");
            account.drive.clearRequestLog();
            state.ResumeTiming();
        }
        if (!ok) {
            state.SkipWithError("backup failed");
            break;
        }
    }
    setlogmask(oldMask);
    first.report(state, "first", files);
    second.report(state, "second", files);
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

void BM_BackupSmallFilesRaw(benchmark::State& state) {
    int const files = static_cast<int>(state.range(0));
    SourceFiles const& source = SourceFiles::get(files);
    RunFigures first, second;
    for (auto _ : state) {
        state.PauseTiming();
        FreshAccount account(source.scratch);
        state.ResumeTiming();
        RawIds ids;
        try {
            for (RunFigures* run : {&first, &second}) {
                auto start = std::chrono::steady_clock::now();
                {
                    EmulatorPipe emulator(account.folder + "/data");
                    if (run == &first) {
                        rawFirstRun(emulator, source, ids);
                    } else {
                        rawSecondRun(emulator, source, ids);
                    }
                }
                run->seconds += secondsSince(start);
                state.PauseTiming();
                run->requests += account.drive.countRequests();
                run->listings += account.drive.countRequests("listObjects");
                account.drive.clearRequestLog();
                state.ResumeTiming();
            }
        } catch (std::exception const& e) {
            state.SkipWithError(e.what());
            break;
        }
    }
    first.report(state, "first", files);
    second.report(state, "second", files);
}

}  // namespace

BENCHMARK(BM_BackupSmallFiles)
    ->Arg(10000)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BackupSmallFilesRaw)
    ->Arg(10000)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
    ::signal(SIGPIPE, SIG_IGN);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
