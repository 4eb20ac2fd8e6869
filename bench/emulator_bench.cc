// The Drive emulator against references measured in the same run:
//  - a "getObjectMeta" round trip over the pipe against a raw pipe ping-pong
//    of the same bytes (BM_EmulatorPipeReference) with a child that does
//    nothing but answer;
//  - 1 GiB downloads against `cp` and 1 GiB uploads (copy plus MD5) against
//    `md5sum`, all on the same disk and from a warm page cache.
// Files live under $TMPDIR (default /tmp).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_main.h"
#include "child_pipe.h"
#include "drive_control.h"

namespace {

std::string benchFolder() {
    static std::string const folder = [] {
        char const* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base && *base ? base : "/tmp") + "/emulator-bench-XXXXXX";
        if (!::mkdtemp(&pattern[0])) throw std::runtime_error("mkdtemp failed");
        return pattern;
    }();
    return folder;
}

using Child = BenchSupport::ChildPipe;

// The emulator on a fresh account in the bench folder.
struct Emulator {
    Emulator() : data(benchFolder() + "/data"), drive(DriveEmulator::Drive::init(data)) {
        restart();
    }
    // Replaces the process with a fresh one on the same account.
    void restart() {
        process.reset();
        process = std::make_unique<Child>(
            DriveEmulator::emulatorBinary(),
            std::vector<std::string>{
                "DRIVE_EMULATOR_DATA=" + data, "GOOGLEDRIVE_ACCESS_TOKEN=",
                "GOOGLEDRIVE_REFRESH_TOKEN=YWJjZA==", "GOOGLEDRIVE_CLIENT_ID=bench",
                "GOOGLEDRIVE_CLIENT_SECRET=bench", "TAVO_USER_AGENT=bench"},
            nullptr, "");
        if (process->readLine() != "start") throw std::runtime_error("emulator did not start");
    }
    std::string data;
    DriveEmulator::Drive drive;
    std::unique_ptr<Child> process;
};

Emulator& emulator() {
    static Emulator instance;
    return instance;
}

// Stands in for the emulator with nothing but the pipe: answers each line
// with `answer`.
void answerEveryLine(std::string const& answer) {
    std::string buffer;
    char chunk[65536];
    for (;;) {
        ssize_t n = ::read(0, chunk, sizeof chunk);
        if (n <= 0) return;
        buffer.append(chunk, static_cast<size_t>(n));
        size_t end;
        while ((end = buffer.find('\n')) != std::string::npos) {
            buffer.erase(0, end + 1);
            for (size_t done = 0; done < answer.size();) {
                ssize_t w = ::write(1, answer.data() + done, answer.size() - done);
                if (w <= 0) return;
                done += static_cast<size_t>(w);
            }
        }
    }
}

std::string metaRequest(std::string const& id) {
    return "{\"fn\":\"getObjectMeta\",\"id\":\"" + id + "\"}\n";
}

void reportLatencies(benchmark::State& state, std::vector<double>& micros) {
    if (micros.empty()) return;
    std::sort(micros.begin(), micros.end());
    state.counters["median_us"] = micros[micros.size() / 2];
    state.counters["p99_us"] = micros[micros.size() * 99 / 100];
}

void BM_EmulatorGetObjectMeta(benchmark::State& state) {
    Emulator& e = emulator();
    std::string id = e.drive.mkdir("root", "folder");
    std::string request = metaRequest(id);
    std::vector<double> micros;
    for (auto _ : state) {
        auto begin = std::chrono::steady_clock::now();
        e.process->write(request);
        std::string answer = e.process->readLine();
        micros.push_back(
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin)
                .count());
        benchmark::DoNotOptimize(answer);
    }
    reportLatencies(state, micros);
}
BENCHMARK(BM_EmulatorGetObjectMeta)->UseRealTime();

void BM_EmulatorPipeReference(benchmark::State& state) {
    // The same request and the same answer bytes as the round trip above.
    Emulator& e = emulator();
    std::string id = e.drive.mkdir("root", "reference");
    std::string request = metaRequest(id);
    e.process->write(request);
    std::string answer = e.process->readLine() + "\n";
    Child echo("", {}, answerEveryLine, answer);
    std::vector<double> micros;
    for (auto _ : state) {
        auto begin = std::chrono::steady_clock::now();
        echo.write(request);
        std::string line = echo.readLine();
        micros.push_back(
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin)
                .count());
        benchmark::DoNotOptimize(line);
    }
    reportLatencies(state, micros);
}
BENCHMARK(BM_EmulatorPipeReference)->UseRealTime();

// A local file of `size` bytes that is not trivially compressible, made once.
std::string sourceFile(std::int64_t size) {
    std::string path = benchFolder() + "/source-" + std::to_string(size);
    if (std::filesystem::exists(path) &&
        std::filesystem::file_size(path) == static_cast<std::uintmax_t>(size)) {
        return path;
    }
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    std::vector<std::uint64_t> block((4 << 20) / 8);
    std::uint64_t x = 0x9e3779b97f4a7c15ull;
    for (std::int64_t done = 0; done < size;) {
        for (auto& word : block) {
            x ^= x << 13;
            x ^= x >> 7;
            x ^= x << 17;
            word = x;
        }
        size_t n = static_cast<size_t>(std::min<std::int64_t>(size - done, block.size() * 8));
        if (::write(fd, block.data(), n) != static_cast<ssize_t>(n)) {
            throw std::runtime_error("cannot write " + path);
        }
        done += static_cast<std::int64_t>(n);
    }
    ::close(fd);
    return path;
}

int run(std::string const& command) { return std::system(command.c_str()); }

// Writes back what earlier steps left dirty, outside the timed region, so that
// every transfer starts from the same state: warm page cache, clean pages.
// Otherwise whichever runs after a large write pays for its writeback. Each
// benchmark also runs once or twice untimed first, and nothing here sleeps:
// on this virtual machine, page cache built in memory that was not used
// recently (or that sat free for a while) is several times slower to fill
// than memory just freed, and that would land on whichever step came first.
void settle() {
    int fd = ::open(benchFolder().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        ::syncfs(fd);
        ::close(fd);
    }
}

// Reads the answers of one transfer up to its final message.
std::string finish(Child& process) {
    for (;;) {
        std::string line = process.readLine();
        if (line.find("\"complete\":false") == std::string::npos) return line;
    }
}

void BM_EmulatorUpload(benchmark::State& state) {
    Emulator& e = emulator();
    std::string source = sourceFile(state.range(0));
    std::string request =
        "{\"fn\":\"uploadFile\",\"name\":\"big\",\"parentId\":\"root\",\"inputPath\":\"" + source +
        "\"}\n";
    auto removeUploads = [&] {
        for (auto const& o : e.drive.lookup("root", "big")) e.drive.remove(o.id);
    };
    e.process->write(request);  // warm-up, untimed
    finish(*e.process);
    removeUploads();
    settle();
    for (auto _ : state) {
        e.process->write(request);
        std::string final = finish(*e.process);
        state.PauseTiming();
        if (final.find("\"success\":true") == std::string::npos) {
            state.SkipWithError(final.c_str());
            break;
        }
        removeUploads();
        settle();
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_EmulatorUpload)
    ->Arg(1 << 30)
    ->Iterations(3)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void BM_EmulatorDownload(benchmark::State& state) {
    Emulator& e = emulator();
    std::string id = e.drive.putFile("root", "download", sourceFile(state.range(0)));
    std::string output = benchFolder() + "/downloaded";
    std::string request =
        "{\"fn\":\"downloadFile\",\"id\":\"" + id + "\",\"outputPath\":\"" + output + "\"}\n";
    for (int warmUp = 0; warmUp < 2; ++warmUp) {  // untimed
        e.process->write(request);
        finish(*e.process);
        ::unlink(output.c_str());
    }
    settle();
    for (auto _ : state) {
        e.process->write(request);
        std::string final = finish(*e.process);
        state.PauseTiming();
        if (final.find("\"success\":true") == std::string::npos) {
            state.SkipWithError(final.c_str());
            break;
        }
        ::unlink(output.c_str());
        settle();
        state.ResumeTiming();
    }
    e.drive.remove(id);
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_EmulatorDownload)
    ->Arg(1 << 30)
    ->Iterations(3)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void BM_Cp(benchmark::State& state) {
    std::string source = sourceFile(state.range(0));
    std::string output = benchFolder() + "/copied";
    std::string command = "cp '" + source + "' '" + output + "'";
    for (int warmUp = 0; warmUp < 2; ++warmUp) {  // untimed
        run(command);
        ::unlink(output.c_str());
    }
    settle();
    for (auto _ : state) {
        if (run(command) != 0) {
            state.SkipWithError("cp failed");
            break;
        }
        state.PauseTiming();
        ::unlink(output.c_str());
        settle();
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Cp)->Arg(1 << 30)->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_Md5sum(benchmark::State& state) {
    std::string command = "md5sum '" + sourceFile(state.range(0)) + "' > /dev/null";
    run(command);  // warm-up, untimed
    settle();
    for (auto _ : state) {
        if (run(command) != 0) {
            state.SkipWithError("md5sum failed");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Md5sum)->Arg(1 << 30)->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    int status = BenchSupport::runBenchmarks(argc, argv);
    std::error_code ignored;
    std::filesystem::remove_all(benchFolder(), ignored);
    return status;
}
