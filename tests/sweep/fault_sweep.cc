// The fault sweep: runs the scripted backup once clean to count its requests,
// then for every fault kind and request number n runs it with that fault at
// request n, runs it again without faults on the same account and node cache
// (a new agent, as after a restart), and checks that nothing went wrong that
// a user would notice. Prints the pairs run, the faults injected and every
// invariant violation; exits 1 when there was any.
//
//   fault_sweep [--spread K] [--kind NAME]...
//
// Without --spread every request number is tried; with it, K numbers spread
// over the requests each kind applies to. Each pair runs in a child process,
// so that a crash or a hang is reported as such and the sweep goes on.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <thread>

#include "backup_script.h"
#include "file_meta_store.h"

using DriveEmulator::Drive;
using DriveEmulator::Fault;

namespace Sweep {
namespace {

std::vector<std::string> const kTransfers = {"uploadFile", "uploadEmptyFile", "updateFile",
                                             "updateEmptyFile", "downloadFile"};
std::vector<std::string> const kCreations = {"uploadFile", "uploadEmptyFile", "createFolder"};
// How long the request at which the engine cancels is held, so that the
// cancel hook reliably sees it in flight.
constexpr int kCancelHoldMs = 300;

// One kind of fault, injected at the nth request of a run. Every rule watches
// all requests ("*") so that n counts them all.
struct FaultKind {
    char const* name;
    std::vector<std::string> onlyAt;  // the requests it means something for; empty: all
    std::function<void(Drive&, int n)> inject;
    // The engine cancels the operation in flight when the rule fires (the
    // hook turns true then and stays so until that operation returns), and
    // goes on with the same agent.
    bool engineCancels = false;
};

std::vector<FaultKind> const kFaultKinds = {
    {"503 once", {}, [](Drive& d, int n) { d.addFault(Fault::fail("*", 503).onNth(n)); }},
    {"rate limit once",
     {},
     [](Drive& d, int n) {
         d.addFault(Fault::fail("*", 403, DriveEmulator::Messages::kRateLimit).onNth(n));
     }},
    {"500 always",
     {},
     [](Drive& d, int n) { d.addFault(Fault::fail("*", 500).onNth(n).always()); }},
    {"404", {}, [](Drive& d, int n) { d.addFault(Fault::fail("*", 404).onNth(n)); }},
    {"403 forbidden",
     {},
     [](Drive& d, int n) {
         d.addFault(
             Fault::fail("*", 403, "The user does not have sufficient permissions.").onNth(n));
     }},
    {"quota",
     {},
     [](Drive& d, int n) {
         d.addFault(Fault::fail("*", 403, DriveEmulator::Messages::kQuotaExceeded).onNth(n));
     }},
    {"401", {}, [](Drive& d, int n) { d.addFault(Fault::fail("*", 401).onNth(n)); }},
    {"exit before answer",
     {},
     [](Drive& d, int n) { d.addFault(Fault::exitBeforeAnswer("*").onNth(n)); }},
    {"exit after apply",
     {},
     [](Drive& d, int n) { d.addFault(Fault::exitAfterApply("*").onNth(n)); }},
    {"exit after progress", kTransfers,
     [](Drive& d, int n) { d.addFault(Fault::exitAfterProgress("*", 1).onNth(n)); }},
    {"garbage line", {}, [](Drive& d, int n) { d.addFault(Fault::garbage("*").onNth(n)); }},
    {"line cut short", {}, [](Drive& d, int n) { d.addFault(Fault::cutAnswer("*").onNth(n)); }},
    {"short download",
     {"downloadFile"},
     [](Drive& d, int n) {
         Fault fault = Fault::shortDownload();
         fault.fn = "*";
         d.addFault(fault.onNth(n));
     }},
    {"engine cancels, goes on",
     {},
     [](Drive& d, int n) { d.addFault(Fault::delay("*", kCancelHoldMs).onNth(n)); },
     true},
    {"lost create, lagging listing", kCreations,
     [](Drive& d, int n) {
         d.addFault(Fault::exitAfterApply("*").onNth(n));
         d.addFault(Fault::listingLag(3).onNth(n));
     }},
};

// What a child process reports: one line per item, a tag and tab-separated fields.
struct PairResult {
    std::vector<Finding> findings;
    std::vector<std::string> requests;  // the first run's requests, by fn
    std::string account;                // the snapshot after the second run
    bool injected = false;
};

std::string const kBaseline = "(clean)";

// Runs the backup with `kind` at request `n` (none for the baseline), then
// clean again, and checks what can be checked inside; in a child process.
void runPair(Sandbox& box, FaultKind const* kind, int n, std::ostream& out) {
    box.reset();
    writeSources(box);
    std::vector<Finding> findings;
    std::vector<std::string> failed;
    if (kind) kind->inject(box.drive(), n);
    {
        auto agent = box.newAgent();
        enum { Armed, Cancelling, Done } cancel = Armed;
        std::function<void()> afterEach;
        if (kind && kind->engineCancels) {
            Drive& drive = box.drive();
            agent->setCancelHook([&drive, &cancel] {
                if (cancel == Armed && drive.faults().front().fired > 0) cancel = Cancelling;
                return cancel == Cancelling;
            });
            afterEach = [&cancel] {
                if (cancel == Cancelling) cancel = Done;
            };
        }
        runBackup(box, *agent, findings, failed, afterEach);
    }
    for (auto const& fault : box.drive().faults()) out << "I\t" << (fault.fired > 0) << "\n";
    for (auto const& entry : box.drive().requestLog()) out << "R\t" << entry.fn << "\n";
    box.drive().clearFaults();
    if (kind) {
        // The engine's next run: a new agent on the same account and cache file.
        failed.clear();
        auto agent = box.newAgent();
        runBackup(box, *agent, findings, failed);
    }
    for (auto const& op : failed) findings.push_back({"clean re-run succeeds", op});
    std::string account = box.snapshot(findings);

    TAVO::Backup::GoogleDriveTA::FileMetaStore before, after;
    if (!before.load(box.cacheFile()) || before.size() == 0) {
        findings.push_back({"cache file loads", "after the clean re-run"});
    } else {
        auto agent = box.newAgent();
        agent->checkCache();
        agent->flushCache();
        agent.reset();
        if (!after.load(box.cacheFile()) || after.size() != before.size()) {
            findings.push_back({"checkCache keeps the cache", "checkCache"});
        }
    }
    for (auto const& path : box.leftovers()) findings.push_back({"no temporary file left", path});
    for (auto const& f : findings) out << "F\t" << f.invariant << "\t" << f.operation << "\n";
    out << "S\t" << account;
}

PairResult readResult(std::string const& path) {
    PairResult result;
    std::ifstream in(path);
    std::string line;
    bool inAccount = false;
    while (std::getline(in, line)) {
        if (inAccount) {
            result.account += line + "\n";
            continue;
        }
        std::string tag = line.substr(0, 1), rest = line.size() > 2 ? line.substr(2) : "";
        if (tag == "I" && rest == "1") result.injected = true;
        if (tag == "R") result.requests.push_back(rest);
        if (tag == "F") {
            size_t tab = rest.find('\t');
            result.findings.push_back({rest.substr(0, tab), rest.substr(tab + 1)});
        }
        if (tag == "S") {
            inAccount = true;
            if (!rest.empty()) result.account += rest + "\n";
        }
    }
    return result;
}

// Runs one pair in a child; a crash or a child that takes longer than
// `limit` is a finding of its own.
PairResult runInChild(Sandbox& box, FaultKind const* kind, int n, std::string const& resultPath,
                      std::chrono::seconds limit) {
    std::fflush(nullptr);
    pid_t child = fork();
    if (child == 0) {
        // The plug-in's log lines of the last pair stay in the sandbox.
        if (std::FILE* log = std::fopen(box.own("pair.log").c_str(), "w")) dup2(fileno(log), 2);
        {
            std::ofstream out(resultPath, std::ios::trunc);
            try {
                runPair(box, kind, n, out);
            } catch (std::exception const& e) {
                out << "F\tno crash\texception: " << e.what() << "\n";
            }
        }
        std::_Exit(0);
    }
    int status = 0;
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (waitpid(child, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            PairResult hung;
            hung.findings.push_back({"no hang", "pair did not finish in time"});
            return hung;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    PairResult result = readResult(resultPath);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        result.findings.push_back(
            {"no crash", WIFSIGNALED(status) ? strsignal(WTERMSIG(status)) : "exit status"});
    }
    return result;
}

// The first line where two snapshots differ, for the report.
std::string firstDifference(std::string const& want, std::string const& got) {
    std::istringstream a(want), b(got);
    std::string x, y;
    while (true) {
        bool moreA = bool(std::getline(a, x)), moreB = bool(std::getline(b, y));
        if (!moreA && !moreB) return "";
        if (!moreA || !moreB || x != y) {
            return "clean run has [" + (moreA ? x : "-") + "], this one [" + (moreB ? y : "-") +
                   "]";
        }
    }
}

std::vector<int> positionsFor(FaultKind const& kind, std::vector<std::string> const& requests,
                              int spread) {
    std::vector<int> all;
    for (size_t i = 0; i < requests.size(); ++i) {
        bool applies = kind.onlyAt.empty();
        for (auto const& fn : kind.onlyAt) applies = applies || fn == requests[i];
        if (applies) all.push_back(static_cast<int>(i) + 1);
    }
    if (spread <= 0 || all.size() <= size_t(spread)) return all;
    std::vector<int> picked;
    for (int i = 0; i < spread; ++i) picked.push_back(all[i * (all.size() - 1) / (spread - 1)]);
    return picked;
}

int sweep(int spread, std::vector<std::string> const& only) {
    auto started = std::chrono::steady_clock::now();
    Sandbox box;
    std::string const resultPath = box.own("pair-result.txt");
    PairResult clean = runInChild(box, nullptr, 0, resultPath, std::chrono::seconds(120));
    if (!clean.findings.empty() || clean.requests.empty()) {
        for (auto const& f : clean.findings) {
            std::printf("clean run: %s: %s\n", f.invariant.c_str(), f.operation.c_str());
        }
        std::printf("the clean run itself fails; nothing to sweep\n");
        return 2;
    }
    std::printf("clean run: %zu requests\n", clean.requests.size());

    int pairs = 0, injected = 0, violations = 0;
    std::map<std::string, int> byKind;
    for (auto const& kind : kFaultKinds) {
        if (!only.empty() && std::find(only.begin(), only.end(), kind.name) == only.end()) continue;
        byKind[kind.name] = 0;
        for (int n : positionsFor(kind, clean.requests, spread)) {
            PairResult pair = runInChild(box, &kind, n, resultPath, std::chrono::seconds(120));
            ++pairs;
            injected += pair.injected;
            std::string diff = firstDifference(clean.account, pair.account);
            if (!diff.empty()) pair.findings.push_back({"account equals the clean run's", diff});
            for (auto const& f : pair.findings) {
                std::printf("VIOLATION %s at %d (%s): %s: %s\n", kind.name, n,
                            clean.requests[n - 1].c_str(), f.invariant.c_str(),
                            f.operation.c_str());
            }
            violations += static_cast<int>(pair.findings.size());
            byKind[kind.name] += static_cast<int>(pair.findings.size());
        }
    }
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    std::printf("\nviolations by fault kind:\n");
    for (auto const& [name, count] : byKind) std::printf("  %-30s %d\n", name.c_str(), count);
    std::printf("pairs run: %d, faults injected: %d, invariant violations: %d (%.1f s)\n", pairs,
                injected, violations, seconds);
    return violations == 0 ? 0 : 1;
}

}  // namespace
}  // namespace Sweep

int main(int argc, char** argv) {
    int spread = 0;
    std::vector<std::string> kinds;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--spread" && i + 1 < argc) {
            spread = std::atoi(argv[++i]);
        } else if (arg == "--kind" && i + 1 < argc) {
            kinds.push_back(argv[++i]);
        } else {
            std::fprintf(stderr, "usage: %s [--spread K] [--kind NAME]...\n", argv[0]);
            return 2;
        }
    }
    return Sweep::sweep(spread, kinds);
}
