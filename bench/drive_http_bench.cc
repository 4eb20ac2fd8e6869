// The host tool on the real service's protocol: `gdrive_host --service
// drive`, its drive agents, and the REST fake answering every request after
// 100 ms, as the service answers in 50 to 300 ms. Requests are counted at
// the fake, by Drive's API method.
//
//   BM_DriveHttp/N   a tree of N files of 0 to 64 KiB in 20 folders:
//     first copy, --transfers 1 and 8 (each on a fresh account):
//       first_per_file{1,8}     HTTP requests per file, all kinds
//       first_lists_per_file, first_uploads_per_file, first_ids,
//       first_folder_creates, first_gets, first_tokens  (with 8, by kind)
//       first_speedup           time with 1 over time with 8
//     the first N/4 files in 5 folders against a write throttle of 3 a
//     second (burst 10), --transfers 8:
//       throttled_rate_ratio    files stored a second over the throttle's 3
//       throttled_failed        files not stored
//       throttled_refused_share refused requests over all requests
//     second copy, nothing changed, --transfers 8:
//       second_lists_per_folder listings over the tree's folders (its top too)
//       second_other            every other request (second_gets,
//                               second_tokens of them)
//     restore, 1 and 8: restore_speedup (the restore compared byte for byte)
// and the serial times (`*_s1`) for scale. Commands' output goes to stderr.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench_main.h"
#include "bench_support.h"
#include "drive_control.h"
#include "fake_drive.h"

namespace {

namespace fs = std::filesystem;

constexpr int kLatencyMs = 100;

// `files` files of 0 to 64 KiB spread over `folders` folders of `top`.
void makeTree(std::string const& top, int files, int folders) {
    std::mt19937 random(11);
    for (int n = 0; n < files; ++n) {
        std::string folder = top + "/d" + std::to_string(n % folders);
        fs::create_directories(folder);
        std::string bytes(random() % ((64 << 10) + 1), '\0');
        for (char& b : bytes) b = static_cast<char>(random());
        std::ofstream(folder + "/f" + std::to_string(n) + ".bin", std::ios::binary) << bytes;
    }
}

struct Step {
    double seconds = 0;
    int exitCode = 0;
    std::map<std::string, int> counts;  // requests by API method
    int refused = 0;                    // by the write throttle
    int total() const {
        int sum = 0;
        for (auto const& [kind, n] : counts) sum += n;
        return sum;
    }
    double of(char const* kind) const {
        auto found = counts.find(kind);
        return found == counts.end() ? 0 : found->second;
    }
};

// One account on the fake, and the host tool's data folder for it.
class Service {
  public:
    Service(std::string const& folder, std::string const& tag)
        : _data(folder + "/fake-" + tag), _host(folder + "/host-" + tag) {
        DriveEmulator::Drive::init(_data);
        fake = std::make_unique<DriveFake::FakeDrive>(_data);
        fake->setLatency(kLatencyMs);
        std::ofstream(folder + "/conf-" + tag)
            << "api_url = " << fake->url() << "\ntoken_url = " << fake->url() << "/token\n";
        _conf = folder + "/conf-" + tag;
        if (run({"init"}).exitCode != 0) throw std::runtime_error("init failed");
    }

    // gdrive_host `args`, with the requests it sent.
    Step run(std::vector<std::string> args) {
        args.insert(args.begin(), {GDRIVE_HOST, "-q"});
        auto before = fake->requestCounts();
        int refused = fake->counters().throttled.load();
        Step step;
        step.seconds = BenchSupport::runCommand(
            args,
            {"GDRIVE_DATA_DIR=" + _host, "GDRIVE_SERVICE=drive",
             "GDRIVE_REFRESH_TOKEN=MS8vMGdSZWZyZXNoVG9rZW4=", "DRIVE_AGENT_CONF=" + _conf,
             "HOME=" + _host, "TAVO_ROOT", "GDRIVE_PROFILE", "GDRIVE_CONTAINER", "GDRIVE_TARGET"},
            &step.exitCode);
        for (auto const& [kind, n] : fake->requestCounts()) {
            int added = n - before[kind];
            if (added > 0) step.counts[kind] = added;
        }
        step.refused = fake->counters().throttled.load() - refused;
        return step;
    }

    // The files stored below the target folder.
    int storedFiles() {
        DriveEmulator::Drive drive = DriveEmulator::Drive::open(_data);
        int files = 0;
        for (auto const& placed : drive.walk(drive.idByPath("/Backups/nas1.hbk")))
            files += placed.object.isDir ? 0 : 1;
        return files;
    }

    std::unique_ptr<DriveFake::FakeDrive> fake;

  private:
    std::string _data, _host, _conf;
};

void BM_DriveHttp(benchmark::State& state) {
    int const files = static_cast<int>(state.range(0));
    std::string const folder = BenchSupport::makeScratchFolder("drive-http-bench");
    std::string const tree = folder + "/tree", small = folder + "/small";
    makeTree(tree, files, 20);
    makeTree(small, files / 4, 5);
    for (auto _ : state) {
        Service one(folder, "1"), eight(folder, "8"), throttled(folder, "t");
        Step first1 = one.run({"copy", "--transfers", "1", tree, "/"});
        Step first8 = eight.run({"copy", "--transfers", "8", tree, "/"});
        throttled.fake->throttleWrites(3, 10);
        Step limited = throttled.run({"copy", "--transfers", "8", small, "/"});
        int const stored = throttled.storedFiles();
        Step second = eight.run({"copy", "--transfers", "8", tree, "/"});
        Step restore1 = one.run({"restore", "--transfers", "1", "/", folder + "/back1"});
        Step restore8 = eight.run({"restore", "--transfers", "8", "/", folder + "/back8"});
        for (Step const* s : {&first1, &first8, &second, &restore1, &restore8}) {
            if (s->exitCode != 0) state.SkipWithError("a command failed");
        }
        if (std::system(("diff -r " + tree + " " + folder + "/back8").c_str()) != 0)
            state.SkipWithError("the parallel restore differs from the tree");
        state.SetIterationTime(first8.seconds);
        double const n = files;
        state.counters["first_per_file1"] = first1.total() / n;
        state.counters["first_per_file8"] = first8.total() / n;
        state.counters["first_lists_per_file"] = first8.of("files.list") / n;
        state.counters["first_uploads_per_file"] =
            (first8.of("files.create upload") + first8.of("files.update upload") +
             first8.of("upload chunk")) /
            n;
        state.counters["first_ids"] = first8.of("files.generateIds");
        state.counters["first_folder_creates"] = first8.of("files.create");
        state.counters["first_gets"] = first8.of("files.get");
        state.counters["first_tokens"] = first8.of("token");
        state.counters["first_speedup"] = first1.seconds / first8.seconds;
        state.counters["throttled_rate_ratio"] = stored / limited.seconds / 3;
        state.counters["throttled_failed"] = files / 4 - stored;
        state.counters["throttled_refused_share"] = double(limited.refused) / limited.total();
        state.counters["throttled_s"] = limited.seconds;
        state.counters["second_lists_per_folder"] = second.of("files.list") / 21;
        state.counters["second_other"] = second.total() - second.of("files.list");
        state.counters["second_gets"] = second.of("files.get");
        state.counters["second_tokens"] = second.of("token");
        state.counters["restore_speedup"] = restore1.seconds / restore8.seconds;
        state.counters["first_s1"] = first1.seconds;
        state.counters["restore_s1"] = restore1.seconds;
    }
    BenchSupport::removeTree(folder);
}

BENCHMARK(BM_DriveHttp)
    ->Arg(1000)
    ->Arg(200)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kSecond);

}  // namespace

int main(int argc, char** argv) { return BenchSupport::runBenchmarks(argc, argv); }
