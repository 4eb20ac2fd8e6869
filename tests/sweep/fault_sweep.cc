// The fault sweep: runs the scripted backup once clean to count its requests,
// then for every fault kind and request number n runs it with that fault at
// request n, runs it again without faults on the same account and node cache
// (a new agent, as after a restart), and checks that nothing went wrong that
// a user would notice. Prints every invariant violation, then the pairs run
// and the faults injected; exits 1 when there was any violation.
//
//   fault_sweep [--spread K] [--kind NAME]... [--skip PREFIX]
//
// Without --spread every request number is tried; with it, K numbers spread
// over the requests each kind applies to. Kinds whose name starts with a
// --skip prefix are left out. Another client's changes come between two
// operations instead: at operation n, on what it works on. Each pair runs in a child process,
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
#include "other_client.h"

using DriveEmulator::Change;
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
    std::string name;
    std::vector<Fault> rules;
    std::vector<std::string> onlyAt = {};  // the requests it means something for; empty: all
    // The engine cancels the operation in flight when the rule fires (the
    // hook turns true then and stays so until that operation returns), and
    // goes on with the same agent.
    bool engineCancels = false;
    // The service says "not found", which the plug-in must believe: checkCache
    // then drops the cache, and a removal takes the object for gone already.
    bool saysNotFound = false;
    // Another client's change, made before operation n instead of at a request.
    std::optional<Change> change = {};
    // After a move, the next listings of the folder it left still show it.
    bool listedWhereItWas = false;
};

using DriveEmulator::Messages::kQuotaExceeded;
using DriveEmulator::Messages::kRateLimit;
std::vector<std::string> const kTransfers = {"uploadFile", "uploadEmptyFile", "updateFile",
                                             "updateEmptyFile", "downloadFile"};
std::vector<FaultKind> faultKinds() {
    std::vector<FaultKind> kinds = {
        {"503 once", {Fault::fail("*", 503)}},
        {"rate limit once", {Fault::fail("*", 403, kRateLimit)}},
        {"500 always", {Fault::fail("*", 500).always()}},
        {"404", {Fault::fail("*", 404)}, {}, false, true},
        {"403 forbidden",
         {Fault::fail("*", 403, "The user does not have sufficient permissions.")}},
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
        {"other client: list twice", {anyRequest(Fault::repeatListing())}, {"listObjects"}},
    };
    // Drive applied the request and still failed it, with each code worth
    // retrying; creations also miss the next name listings.
    std::vector<std::string> const changing = {"createFolder", "deleteObject",
                                               "uploadFile",   "uploadEmptyFile",
                                               "updateFile",   "updateEmptyFile"};
    std::pair<int, char const*> const passing[] = {{503, ""},         {500, ""}, {408, ""},
                                                   {403, kRateLimit}, {-2, ""},  {-4, ""}};
    for (auto const& [code, message] : passing) {
        std::string name =
            "applied, then " + std::to_string(code) + (*message ? " rate limit" : "");
        kinds.push_back(
            {name, {Fault::failAfterApply("*", code, message), Fault::listingLag(3)}, changing});
    }
    for (int c = 0; c <= int(Change::Trash); ++c) {
        std::string name = "other client: " + changeName(Change(c));
        kinds.push_back({name, {}, {}, false, false, Change(c)});
    }
    kinds.push_back(
        {"other client: move, listed where it was", {}, {}, false, false, Change::Move, true});
    return kinds;
}
std::vector<FaultKind> const kFaultKinds = faultKinds();

struct PairResult {
    std::vector<Finding> findings;
    std::vector<std::string> requests;  // the first run's requests, by fn
    std::vector<std::string> steps;     // the first run's operations
    std::string account;                // the snapshot after the second run
    bool injected = false;
};

// Whether failing is the right answer of `step` after another client's
// `change` of `changed` (a folder: `folder`). A name held twice with other
// contents, or by two folders, is refused; in the run of the change, what
// it took away cannot be read, nor can anything below it be made.
bool rightlyFailed(Change change, std::string const& changed, bool folder, Step const& step,
                   bool sameRun) {
    bool const at = step.path == changed, below = step.path.rfind(changed + "/", 0) == 0;
    if (change == Change::CopyOther || (change == Change::Copy && folder)) {
        return at || below || changed.rfind(step.path + "/", 0) == 0;
    }
    bool const reads = step.operation.rfind("list", 0) == 0 || step.operation.rfind("recv", 0) == 0;
    return sameRun && (below || (at && reads)) &&
           (change == Change::Delete || change == Change::Move || change == Change::Rename ||
            change == Change::Trash);
}

// A lagging search goes on showing what was moved from `path` to the folder
// "elsewhere" under the folder it left, for the next three listings.
void listWhereItWas(DriveEmulator::Drive& drive, std::string const& path) {
    size_t slash = path.rfind('/');
    auto moved = drive.at("/elsewhere" + path.substr(slash));
    auto former = drive.at(slash == 0 ? "/" : path.substr(0, slash));
    if (moved.empty() || former.empty()) return;
    drive.addFault(Fault::listedUnderFormerParent(moved.front().id, former.front().id).forNext(3));
}

// Runs the backup with `kind` at request `n` (none: the clean run), then clean
// again, and checks what can be checked inside. Runs in a child process and
// writes tagged lines to `out`, the account to "account.txt" in the sandbox.
void runPair(Sandbox& box, FaultKind const* kind, int n, std::ostream& out) {
    box.reset();
    writeSources(box);
    std::vector<Finding> findings;
    std::vector<Step> failed;
    for (Fault rule : kind ? kind->rules : std::vector<Fault>{}) box.drive->addFault(rule.onNth(n));
    std::string changed;  // the path another client changed
    bool folder = false;  // and whether it is a folder
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
        auto hook = [&](Step const& step, bool returned) {
            if (cancel == Cancelling && returned) cancel = Done;
            if (!kind && !returned) out << "S\t" << step.operation << "\n";
            if (kind && kind->change && step.index == n && !returned) {
                bool const file = step.operation.rfind("sendFile", 0) == 0;
                changed = applyChangeAt(*box.drive, *kind->change, step.path, file);
                if (kind->listedWhereItWas && !changed.empty()) listWhereItWas(*box.drive, changed);
                auto there = box.drive->at(changed.empty() ? "/" : changed);
                folder = !there.empty() && there.front().isDir;
            }
        };
        runBackup(box, *agent, findings, failed, hook);
    }
    // Copies another client made stay while the plug-in has no reason to look:
    // a path may hold two objects, a removal leaves the copy it did not know.
    bool const copied = kind && (kind->change == Change::Copy || kind->change == Change::CopyOther);
    if (kind && (kind->saysNotFound || kind->change)) {
        // Told "not found", or shown a changed account, the plug-in rightly drops its cache.
        bool const removals = kind->saysNotFound || copied;
        auto believed = [removals](Finding const& f) {
            return f.invariant == "checkCache keeps the cache" ||
                   (removals && f.invariant == "success did what it said" &&
                    f.operation.rfind("remove", 0) == 0);
        };
        findings.erase(std::remove_if(findings.begin(), findings.end(), believed), findings.end());
    }
    // After another client's change, failing must be the right answer.
    auto failures = [&](char const* invariant, bool sameRun) {
        for (auto const& step : failed) {
            if (!kind || !kind->change || changed.empty() ||
                !rightlyFailed(*kind->change, changed, folder, step, sameRun)) {
                findings.push_back({invariant, step.operation});
            }
        }
    };
    if (kind && kind->change && !changed.empty()) {
        failures("operations after the change succeed", true);
    }
    if (kind && kind->change) out << "I\t" << !changed.empty() << "\n";
    for (auto const& rule : box.drive->faults()) out << "I\t" << (rule.fired > 0) << "\n";
    for (auto const& entry : box.drive->requestLog()) out << "R\t" << entry.fn << "\n";
    box.drive->clearFaults();
    if (kind) {
        // The engine's next run: a new agent on the same account and cache file.
        failed.clear();
        runBackup(box, *box.newAgent(), findings, failed);
    }
    failures("clean re-run succeeds", false);
    writeFile(box.own("account.txt"), box.snapshot(findings));
    if (copied) {
        auto twice = [](Finding const& f) { return f.invariant == "no two objects of one name"; };
        findings.erase(std::remove_if(findings.begin(), findings.end(), twice), findings.end());
    }

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
        if (line[0] == 'S') result.steps.push_back(rest);
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
            return PairResult{{{"no hang", "the pair did not finish in time"}}, {}, {}, "", false};
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
    // Another client's changes: half as many operations each, each change at other ones.
    for (size_t i = 0, k = spread / 2; kind.change && i < k; ++i) {
        picked.push_back(all[(size_t(*kind.change) + i * all.size() / k) % all.size()]);
    }
    for (int i = 0; !kind.change && i < spread; ++i) {
        picked.push_back(all[i * (all.size() - 1) / (spread - 1)]);
    }
    return picked;
}

int sweep(int spread, std::vector<std::string> const& only,
          std::vector<std::string> const& skipped) {
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
        auto prefixes = [&kind](std::string const& p) { return kind.name.rfind(p, 0) == 0; };
        if (std::any_of(skipped.begin(), skipped.end(), prefixes)) continue;
        int& count = byKind[kind.name];
        auto const& at = kind.change ? clean.steps : clean.requests;
        for (int n : positionsFor(kind, at, spread)) {
            PairResult pair = runInChild(box, &kind, n);
            ++pairs;
            injected += pair.injected;
            std::string diff = kind.change ? "" : firstDifference(clean.account, pair.account);
            if (!diff.empty()) pair.findings.push_back({"account equals the clean run's", diff});
            for (auto const& f : pair.findings) {
                std::printf("VIOLATION %s at %d (%s): %s: %s\n", kind.name.c_str(), n,
                            at[n - 1].c_str(), f.invariant.c_str(), f.operation.c_str());
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
    // Another client moves folders between two operations of one run here, so
    // no confirmation of a folder's place may be trusted for later ones.
    setenv("TAVO_PLACEMENT_TRUST_MS", "0", 1);
    int spread = 0;
    std::vector<std::string> kinds, skipped;
    for (int i = 1; i < argc; i += 2) {
        std::string option = argv[i];
        if (i + 1 < argc && option == "--spread") {
            spread = std::atoi(argv[i + 1]);
        } else if (i + 1 < argc && option == "--kind") {
            kinds.push_back(argv[i + 1]);
        } else if (i + 1 < argc && option == "--skip") {
            skipped.push_back(argv[i + 1]);
        } else {
            std::fprintf(stderr, "usage: %s [--spread K] [--kind NAME]... [--skip PREFIX]...\n",
                         argv[0]);
            return 2;
        }
    }
    return Sweep::sweep(spread, kinds, skipped);
}
