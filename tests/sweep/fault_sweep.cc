// The fault sweep: runs the scripted backup once clean to count its requests,
// then for every fault kind and request number n runs it with that fault at
// request n, runs it again without faults on the same account and node cache
// (a new agent, as after a restart), and checks that nothing went wrong that
// a user would notice. Prints every invariant violation, then the pairs run
// and the faults injected; exits 1 when there was any violation.
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
#include <map>
#include <sstream>
#include <thread>

#include "backup_script.h"
#include "file_meta_store.h"

using DriveEmulator::Fault;
using Clock = std::chrono::steady_clock;

namespace Sweep {
namespace {

// How long the request at which the engine cancels is held, so that the
// cancel hook reliably sees it in flight.
constexpr int kCancelHoldMs = 300;
constexpr std::chrono::seconds kPairLimit(120);

Fault anyRequest(Fault rule) {
    rule.fn = "*";
    return rule;
}

// One kind of fault: its rules are added to fire from the nth request of the
// run on. Every rule watches all requests ("*"), so that n counts them all.
struct FaultKind {
    char const* name;
    std::vector<Fault> rules;
    std::vector<std::string> onlyAt = {};  // the requests it means something for; empty: all
    // The engine cancels the operation in flight when the rule fires (the
    // hook turns true then and stays so until that operation returns), and
    // goes on with the same agent.
    bool engineCancels = false;
    // The service says "not found", which the plug-in must believe: checkCache
    // then drops the cache, and a removal takes the object for gone already.
    bool saysNotFound = false;
};

using DriveEmulator::Messages::kQuotaExceeded;
using DriveEmulator::Messages::kRateLimit;
std::vector<std::string> const kTransfers = {"uploadFile", "uploadEmptyFile", "updateFile",
                                             "updateEmptyFile", "downloadFile"};
std::vector<FaultKind> const kFaultKinds = {
    {"503 once", {Fault::fail("*", 503)}},
    {"rate limit once", {Fault::fail("*", 403, kRateLimit)}},
    {"500 always", {Fault::fail("*", 500).always()}},
    {"404", {Fault::fail("*", 404)}, {}, false, true},
    {"403 forbidden", {Fault::fail("*", 403, "The user does not have sufficient permissions.")}},
    {"quota", {Fault::fail("*", 403, kQuotaExceeded)}},
    {"401", {Fault::fail("*", 401)}},
    {"exit before answer", {Fault::exitBeforeAnswer("*")}},
    {"exit after apply", {Fault::exitAfterApply("*")}},
    {"exit after progress", {Fault::exitAfterProgress("*", 1)}, kTransfers},
    {"garbage line", {Fault::garbage("*")}},
    {"line cut short", {Fault::cutAnswer("*")}},
    {"short download", {anyRequest(Fault::shortDownload())}, {"downloadFile"}},
    {"engine cancels, goes on", {Fault::delay("*", kCancelHoldMs)}, {}, true},
    {"lost create, lagging listing",
     {Fault::exitAfterApply("*"), Fault::listingLag(3)},
     {"uploadFile", "uploadEmptyFile", "createFolder"}},
};

struct PairResult {
    std::vector<Finding> findings;
    std::vector<std::string> requests;  // the first run's requests, by fn
    std::string account;                // the snapshot after the second run
    bool injected = false;
};

// Runs the backup with `kind` at request `n` (none: the clean run), then clean
// again, and checks what can be checked inside. Runs in a child process and
// writes tagged lines to `out`, the account to "account.txt" in the sandbox.
void runPair(Sandbox& box, FaultKind const* kind, int n, std::ostream& out) {
    box.reset();
    writeSources(box);
    std::vector<Finding> findings;
    std::vector<std::string> failed;
    for (Fault rule : kind ? kind->rules : std::vector<Fault>{}) box.drive->addFault(rule.onNth(n));
    {
        auto agent = box.newAgent();
        enum { Armed, Cancelling, Done } cancel = Armed;
        if (kind && kind->engineCancels) {
            auto& drive = *box.drive;
            agent->setCancelHook([&drive, &cancel] {
                if (cancel == Armed && drive.faults().front().fired > 0) cancel = Cancelling;
                return cancel == Cancelling;
            });
        }
        runBackup(box, *agent, findings, failed, [&cancel] {
            if (cancel == Cancelling) cancel = Done;
        });
    }
    if (kind && kind->saysNotFound) {
        auto believed = [](Finding const& f) {
            return f.invariant == "checkCache keeps the cache" ||
                   (f.invariant == "success did what it said" &&
                    f.operation.rfind("remove", 0) == 0);
        };
        findings.erase(std::remove_if(findings.begin(), findings.end(), believed), findings.end());
    }
    for (auto const& rule : box.drive->faults()) out << "I\t" << (rule.fired > 0) << "\n";
    for (auto const& entry : box.drive->requestLog()) out << "R\t" << entry.fn << "\n";
    box.drive->clearFaults();
    if (kind) {
        // The engine's next run: a new agent on the same account and cache file.
        failed.clear();
        runBackup(box, *box.newAgent(), findings, failed);
    }
    for (auto const& op : failed) findings.push_back({"clean re-run succeeds", op});
    writeFile(box.own("account.txt"), box.snapshot(findings));

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
}

PairResult readResult(Sandbox& box) {
    PairResult result;
    std::ifstream in(box.own("pair.txt"));
    for (std::string line; std::getline(in, line);) {
        std::string rest = line.substr(std::min<size_t>(2, line.size()));
        if (line[0] == 'I') result.injected = result.injected || rest == "1";
        if (line[0] == 'R') result.requests.push_back(rest);
        size_t tab = rest.find('\t');
        if (line[0] == 'F') result.findings.push_back({rest.substr(0, tab), rest.substr(tab + 1)});
    }
    result.account = readFile(box.own("account.txt"));
    return result;
}

// Runs one pair in a child; a crash or a hang is a finding of its own.
PairResult runInChild(Sandbox& box, FaultKind const* kind, int n) {
    std::fflush(nullptr);
    pid_t child = fork();
    if (child == 0) {
        // The plug-in's log lines of the last pair stay in the sandbox.
        if (std::FILE* log = std::fopen(box.own("pair.log").c_str(), "w")) dup2(fileno(log), 2);
        std::ofstream out(box.own("pair.txt"), std::ios::trunc);
        try {
            runPair(box, kind, n, out);
        } catch (std::exception const& e) {
            out << "F\tno crash\texception: " << e.what() << "\n";
        }
        out.close();
        std::_Exit(0);
    }
    int status = 0;
    for (auto deadline = Clock::now() + kPairLimit; waitpid(child, &status, WNOHANG) == 0;) {
        if (Clock::now() > deadline) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            return PairResult{{{"no hang", "the pair did not finish in time"}}, {}, "", false};
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    PairResult result = readResult(box);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        result.findings.push_back(
            {"no crash", WIFSIGNALED(status) ? strsignal(WTERMSIG(status)) : "exit status"});
    }
    return result;
}

// The first line where two snapshots differ, for the report.
std::string firstDifference(std::string const& want, std::string const& got) {
    std::istringstream a(want), b(got);
    for (std::string x, y;;) {
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
        auto const& only = kind.onlyAt;
        if (only.empty() || std::find(only.begin(), only.end(), requests[i]) != only.end()) {
            all.push_back(static_cast<int>(i) + 1);
        }
    }
    if (spread <= 1 || all.size() <= size_t(spread)) return all;
    std::vector<int> picked;
    for (int i = 0; i < spread; ++i) picked.push_back(all[i * (all.size() - 1) / (spread - 1)]);
    return picked;
}

int sweep(int spread, std::vector<std::string> const& only) {
    auto started = Clock::now();
    Sandbox box;
    PairResult clean = runInChild(box, nullptr, 0);
    for (auto const& f : clean.findings) {
        std::printf("clean run: %s: %s\n", f.invariant.c_str(), f.operation.c_str());
    }
    if (!clean.findings.empty() || clean.requests.empty()) return 2;
    std::printf("clean run: %zu requests\n", clean.requests.size());

    int pairs = 0, injected = 0, violations = 0;
    std::map<std::string, int> byKind;
    for (auto const& kind : kFaultKinds) {
        if (!only.empty() && std::find(only.begin(), only.end(), kind.name) == only.end()) continue;
        int& count = byKind[kind.name];
        for (int n : positionsFor(kind, clean.requests, spread)) {
            PairResult pair = runInChild(box, &kind, n);
            ++pairs;
            injected += pair.injected;
            std::string diff = firstDifference(clean.account, pair.account);
            if (!diff.empty()) pair.findings.push_back({"account equals the clean run's", diff});
            for (auto const& f : pair.findings) {
                std::printf("VIOLATION %s at %d (%s): %s: %s\n", kind.name, n,
                            clean.requests[n - 1].c_str(), f.invariant.c_str(),
                            f.operation.c_str());
            }
            count += static_cast<int>(pair.findings.size());
        }
    }
    std::printf("\nviolations by fault kind:\n");
    for (auto const& [name, count] : byKind) std::printf("  %-30s %d\n", name.c_str(), count);
    for (auto const& entry : byKind) violations += entry.second;
    std::printf("pairs run: %d, faults injected: %d, invariant violations: %d (%.1f s)\n", pairs,
                injected, violations,
                std::chrono::duration<double>(Clock::now() - started).count());
    return violations == 0 ? 0 : 1;
}

}  // namespace
}  // namespace Sweep

int main(int argc, char** argv) {
    int spread = 0;
    std::vector<std::string> kinds;
    for (int i = 1; i < argc; i += 2) {
        std::string option = argv[i];
        if (i + 1 < argc && option == "--spread") {
            spread = std::atoi(argv[i + 1]);
        } else if (i + 1 < argc && option == "--kind") {
            kinds.push_back(argv[i + 1]);
        } else {
            std::fprintf(stderr, "usage: %s [--spread K] [--kind NAME]...\n", argv[0]);
            return 2;
        }
    }
    return Sweep::sweep(spread, kinds);
}
