// drive_agent against curl on the same REST fake in the same run:
//  - an upload of AGENT_BENCH_MIB (default 1024) MiB through drive_agent
//    (resumable session, 32 MiB chunks, MD5 checked) against `curl -T` of the
//    same file into a fresh session in one PUT;
//  - the download of that file through drive_agent (SHA-256 checked)
//    against `curl -o`.
// Counters: agent_over_curl, the median of alternated pairs' ratios (curl's
// time over the agent's), with agent_over_curl_sums/_min/_max; the CPU
// seconds per GiB of each side, and the fake's while it serves each
// (fake_cpu_s_per_GiB_agent, _curl: it shares the cores); and
// rss_growth_MiB, the agent's peak resident size minus its size before the
// first transfer.
// Files live under $TMPDIR (default /tmp).
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "bench_main.h"
#include "child_pipe.h"
#include "drive_control.h"
#include "fake_drive.h"

namespace {

std::int64_t const kBytes = [] {
    char const* mib = std::getenv("AGENT_BENCH_MIB");
    return std::int64_t(mib && *mib ? std::atoll(mib) : 1024) << 20;
}();

struct Setup {
    std::string folder;
    std::unique_ptr<DriveEmulator::Drive> drive;
    std::unique_ptr<DriveFake::FakeDrive> fake;
    std::string input;
    std::string fileId;  // the uploaded file, for the downloads

    Setup() {
        char const* base = std::getenv("TMPDIR");
        folder = std::string(base && *base ? base : "/tmp") + "/agent-bench-XXXXXX";
        if (!::mkdtemp(&folder[0])) throw std::runtime_error("mkdtemp failed");
        drive =
            std::make_unique<DriveEmulator::Drive>(DriveEmulator::Drive::init(folder + "/data"));
        fake = std::make_unique<DriveFake::FakeDrive>(folder + "/data");
        fake->acceptClient("bench", "bench");
        input = folder + "/input";
        std::mt19937_64 random(1);
        std::vector<std::uint64_t> block(1 << 17);
        std::ofstream out(input, std::ios::binary);
        for (std::int64_t done = 0; done < kBytes; done += std::int64_t(block.size() * 8)) {
            for (auto& word : block) word = random();
            out.write(reinterpret_cast<char const*>(block.data()),
                      std::streamsize(block.size() * 8));
        }
        std::ofstream(folder + "/drive_agent.conf")
            << "api_url = " << fake->url() << "\ntoken_url = " << fake->url() << "/token\n";
    }
    ~Setup() {
        fake.reset();
        drive.reset();
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }
};

Setup& setup() {
    static Setup s;
    return s;
}

std::unique_ptr<BenchSupport::ChildPipe> startAgent() {
    auto agent = std::make_unique<BenchSupport::ChildPipe>(
        DRIVE_AGENT_BINARY,
        std::vector<std::string>{
            "GOOGLEDRIVE_ACCESS_TOKEN=", "GOOGLEDRIVE_REFRESH_TOKEN=MS8vMGdSZWZyZXNoVG9rZW4=",
            "GOOGLEDRIVE_CLIENT_ID=bench", "GOOGLEDRIVE_CLIENT_SECRET=bench",
            "TAVO_USER_AGENT=bench", "DRIVE_AGENT_CONF=" + setup().folder + "/drive_agent.conf"},
        nullptr, "");
    if (agent->readLine() != "start") throw std::runtime_error("drive_agent did not start");
    return agent;
}

// Sends one transfer request and reads to its final answer; the answer line.
std::string transfer(BenchSupport::ChildPipe& agent, std::string const& request) {
    agent.write(request + "\n");
    for (;;) {
        std::string line = agent.readLine();
        if (line.find("\"complete\":false") == std::string::npos) return line;
    }
}

std::int64_t statusKiB(pid_t pid, char const* field) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(field, 0) == 0) return std::atoll(line.c_str() + std::strlen(field));
    }
    return 0;
}

// User and system CPU seconds the process `pid` (all its threads) used so far.
double cpuSeconds(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    // Fields after the command name, which may hold spaces: utime and stime
    // are the 12th and 13th.
    std::istringstream rest(text.substr(text.rfind(')') + 2));
    std::string field;
    double ticks = 0;
    for (int n = 1; n <= 13 && rest >> field; ++n)
        if (n >= 12) ticks += std::atof(field.c_str());
    return ticks / double(::sysconf(_SC_CLK_TCK));
}

// CPU seconds of this process (`RUSAGE_SELF`: the fake serving) or of the
// children waited for so far (`RUSAGE_CHILDREN`: curl, through popen).
double rusageCpuSeconds(int who) {
    struct rusage usage {};
    ::getrusage(who, &usage);
    auto seconds = [](timeval t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

std::string run(std::string const& command) {
    std::string output;
    FILE* pipe = ::popen(command.c_str(), "r");
    char buffer[4096];
    for (size_t n; pipe && (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        output.append(buffer, n);
    if (!pipe || ::pclose(pipe) != 0) throw std::runtime_error("failed: " + command);
    return output;
}

// A fresh access token from the fake's token endpoint, for curl.
std::string accessToken() {
    std::string answer =
        run("curl -s -d grant_type=refresh_token -d refresh_token=1//0gRefreshToken "
            "-d client_id=bench -d client_secret=bench " +
            setup().fake->url() + "/token");
    size_t start = answer.find("\"access_token\":\"") + 16;
    return answer.substr(start, answer.find('"', start) - start);
}

double secondsOf(std::function<void()> const& work) {
    auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Times the agent and curl on the same bytes, alternately, so that the
// machine's drift between minutes lands on both sides of the ratio. The
// iteration's time is the agent's; curl's and the ratio are counters.
class Pairing {
  public:
    // Pairs timing the drive agent `agent` against curl.
    explicit Pairing(pid_t agent) : _agentPid(agent) {}
    // One iteration: `agent` and `curl` each return the seconds they timed;
    // which goes first alternates.
    void time(benchmark::State& state, std::function<double()> const& agent,
              std::function<double()> const& curl) {
        _agentFirst = !_agentFirst;
        auto viaAgent = [&] {
            double const cpu = cpuSeconds(_agentPid);
            double const fake = rusageCpuSeconds(RUSAGE_SELF);
            double const seconds = agent();
            _agentCpu += cpuSeconds(_agentPid) - cpu;
            _fakeCpuForAgent += rusageCpuSeconds(RUSAGE_SELF) - fake;
            return seconds;
        };
        double agentSeconds = _agentFirst ? viaAgent() : 0;
        double const cpu = rusageCpuSeconds(RUSAGE_CHILDREN);
        double const fake = rusageCpuSeconds(RUSAGE_SELF);
        double curlSeconds = curl();
        _curlCpu += rusageCpuSeconds(RUSAGE_CHILDREN) - cpu;
        _fakeCpuForCurl += rusageCpuSeconds(RUSAGE_SELF) - fake;
        if (!_agentFirst) agentSeconds = viaAgent();
        state.SetIterationTime(agentSeconds);
        _agent += agentSeconds;
        _curl += curlSeconds;
        _ratios.push_back(curlSeconds / agentSeconds);
    }
    // agent_over_curl is the median of the pairs' ratios: single pairs range
    // from 0.2 to 3 on a shared machine, and one of them moves a ratio of
    // sums by a tenth, the median not at all. The ratio of the sums and the
    // extreme pairs are reported beside it.
    void report(benchmark::State& state, std::int64_t rssBefore) const {
        double mib = double(state.iterations() * kBytes) / (1 << 20);
        std::vector<double> ratios = _ratios;
        std::sort(ratios.begin(), ratios.end());
        size_t const n = ratios.size();
        state.counters["agent_MiBps"] = mib / _agent;
        state.counters["curl_MiBps"] = mib / _curl;
        state.counters["agent_over_curl"] = n == 0  ? 0
                                            : n % 2 ? ratios[n / 2]
                                                    : (ratios[n / 2 - 1] + ratios[n / 2]) / 2;
        state.counters["agent_over_curl_sums"] = _curl / _agent;
        state.counters["agent_over_curl_min"] = n ? ratios.front() : 0;
        state.counters["agent_over_curl_max"] = n ? ratios.back() : 0;
        state.counters["rss_growth_MiB"] =
            double(statusKiB(_agentPid, "VmHWM:") - rssBefore) / 1024;
        // CPU per GiB moved, the agent's (all its threads) and curl's: far
        // steadier than times on a shared machine.
        double const gib = mib / 1024;
        state.counters["agent_cpu_s_per_GiB"] = _agentCpu / gib;
        state.counters["curl_cpu_s_per_GiB"] = _curlCpu / gib;
        state.counters["fake_cpu_s_per_GiB_agent"] = _fakeCpuForAgent / gib;
        state.counters["fake_cpu_s_per_GiB_curl"] = _fakeCpuForCurl / gib;
        state.SetBytesProcessed(state.iterations() * kBytes);
    }

  private:
    pid_t _agentPid;
    bool _agentFirst = false;
    double _agent = 0;
    double _curl = 0;
    double _agentCpu = 0, _curlCpu = 0, _fakeCpuForAgent = 0, _fakeCpuForCurl = 0;
    std::vector<double> _ratios;  // curl's seconds over the agent's, a pair each
};

std::string uploadSession(std::string const& token) {
    std::string headers = run("curl -s -D - -o /dev/null -H 'Authorization: Bearer " + token +
                              "' -H 'X-Upload-Content-Length: " + std::to_string(kBytes) +
                              "' -H 'Content-Type: application/json' -d '{\"name\":\"ref\"}' '" +
                              setup().fake->url() + "/upload/drive/v3/files?uploadType=resumable'");
    size_t at = headers.find("Location: ") + 10;
    return headers.substr(at, headers.find('\r', at) - at);
}

// "uploadFile" through drive_agent against `curl -T` into a fresh session,
// in one PUT; each after a sync, so that no earlier run's writeback lands in
// its time.
void BM_Upload(benchmark::State& state) {
    auto agent = startAgent();
    std::int64_t before = statusKiB(agent->pid(), "VmRSS:");
    std::string token = accessToken();
    std::string root = setup().drive->rootId();
    Pairing pairing(agent->pid());
    for (auto _ : state) {
        auto viaAgent = [&] {
            ::sync();
            return secondsOf([&] {
                std::string answer =
                    transfer(*agent, "{\"fn\":\"uploadFile\",\"name\":\"big\",\"parentId\":\"" +
                                         root + "\",\"inputPath\":\"" + setup().input + "\"}");
                if (answer.find("\"success\":true") == std::string::npos)
                    state.SkipWithError(answer.c_str());
                size_t at = answer.find("\"id\":\"") + 6;
                setup().fileId = answer.substr(at, answer.find('"', at) - at);
            });
        };
        auto viaCurl = [&] {
            std::string session = uploadSession(token);
            ::sync();
            return secondsOf([&] {
                run("curl -s -o /dev/null -T " + setup().input + " -H 'Authorization: Bearer " +
                    token + "' -H 'Content-Range: bytes 0-" + std::to_string(kBytes - 1) + "/" +
                    std::to_string(kBytes) + "' '" + session + "'");
            });
        };
        pairing.time(state, viaAgent, viaCurl);
    }
    pairing.report(state, before);
}

// "downloadFile" through drive_agent (checksum checked) against `curl -o` of
// the file the upload left.
void BM_Download(benchmark::State& state) {
    auto agent = startAgent();
    std::int64_t before = statusKiB(agent->pid(), "VmRSS:");
    std::string token = accessToken();
    std::string out = setup().folder + "/out";
    // Each side writes a new file after a sync: the other's gigabyte, still
    // being written back, is neither truncated nor flushed in its time.
    auto fresh = [&] {
        ::unlink(out.c_str());
        ::sync();
    };
    auto viaAgent = [&] {
        fresh();
        return secondsOf([&] {
            std::string answer =
                transfer(*agent, "{\"fn\":\"downloadFile\",\"id\":\"" + setup().fileId +
                                     "\",\"outputPath\":\"" + out + "\"}");
            if (answer.find("\"success\":true") == std::string::npos)
                state.SkipWithError(answer.c_str());
        });
    };
    auto viaCurl = [&] {
        fresh();
        return secondsOf([&] {
            run("curl -s -o " + out + " -H 'Authorization: Bearer " + token + "' '" +
                setup().fake->url() + "/drive/v3/files/" + setup().fileId + "?alt=media'");
        });
    };
    // One untimed download each first: the first to read the file the
    // uploads left (the agent, in the first pair) would pay alone for
    // bringing it back into memory.
    viaAgent();
    viaCurl();
    Pairing pairing(agent->pid());
    for (auto _ : state) pairing.time(state, viaAgent, viaCurl);
    pairing.report(state, before);
}

}  // namespace

BENCHMARK(BM_Upload)->Iterations(8)->Unit(benchmark::kMillisecond)->UseManualTime();
BENCHMARK(BM_Download)->Iterations(8)->Unit(benchmark::kMillisecond)->UseManualTime();

int main(int argc, char** argv) { return BenchSupport::runBenchmarks(argc, argv); }
