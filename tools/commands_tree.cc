// Commands that move or compare a whole tree: copy, sync, restore, check.
// Each file is tried; failures are listed at the end with their reasons,
// and the exit code is that of the worst.
#include <sys/stat.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <set>

#include "backup/error.h"
#include "commands.h"
#include "exclude_rules.h"
#include "failure.h"
#include "interrupt.h"
#include "local_files.h"
#include "long_paths.h"
#include "output_format.h"
#include "parallel_tree.h"
#include "partial_files.h"
#include "plugin_log.h"
#include "remote_tree.h"
#include "tree_files.h"
#include "tree_index.h"
#include "workers.h"

namespace gdhost {

using namespace TAVO::Backup;

namespace {

typedef std::map<std::string, FileInfo> RemoteMap;

// The engine takes remote paths of up to 4,095 bytes: what lies deeper in
// the local tree (however long its local path, which the walk reaches) is a
// failure, never a skip, and its remote copy is kept.
void keepWithinRemoteLimit(LocalTree& tree, std::string const& remoteTop) {
    size_t constexpr kLongestRemote = 4095;
    std::string tooLong;  // the last entry found too long: its content is too
    auto const fits = [&](LocalEntry const& e) {
        if (!tooLong.empty() && isWithin(e.rpath, tooLong)) return false;
        if (joinPath(remoteTop, e.rpath).size() <= kLongestRemote) return true;
        tooLong = e.rpath;
        tree.unknown.emplace_back(e.rpath,
                                  "its remote path would be longer than the 4,095 "
                                  "bytes the backup engine takes");
        return false;
    };
    tree.entries.erase(std::remove_if(tree.entries.begin(), tree.entries.end(),
                                      [&](LocalEntry const& e) { return !fits(e); }),
                       tree.entries.end());
}

// Lists the local tree; prints the problem and sets `code` when its top
// cannot be read.
bool readLocalTree(char const* command, std::string const& top, std::string const& remoteTop,
                   LocalTree& tree, int& code) {
    std::string error;
    if (listLocalTree(top, tree, error, code)) {
        keepWithinRemoteLimit(tree, remoteTop);
        return true;
    }
    reportProblem(std::string(command) + " " + top + ": " + error, code);
    return false;
}

// The command's --exclude and --exclude-from rules; false with the problem
// printed when one is refused (a usage error: nothing has been done).
bool readRules(Session& s, char const* command, ExcludeRules& rules) {
    std::string error;
    bool ok = true;
    for (auto const& pattern : s.args.excludes) ok = ok && rules.add(pattern, error);
    for (auto const& file : s.args.excludeFrom) ok = ok && rules.addFrom(file, error);
    if (!ok) reportProblem(std::string(command) + ": exclude " + error, kExitUsage);
    return ok;
}

// Leaves out of `tree` what `rules` exclude: it is neither sent, compared nor
// counted, and a folder it could not read is no reason to delete nothing.
void dropExcluded(LocalTree& tree, ExcludeRules const& rules) {
    if (rules.empty()) return;
    auto const out = [&](auto& list, auto excluded) {
        list.erase(
            std::remove_if(list.begin(), list.end(), [&](auto const& e) { return excluded(e); }),
            list.end());
    };
    out(tree.entries, [&](LocalEntry const& e) { return rules.excludes(e.rpath, e.isFolder); });
    auto const named = [&](std::pair<std::string, std::string> const& e) {
        return rules.excludes(e.first, false);
    };
    out(tree.skipped, named);
    out(tree.unknown, named);
    out(tree.unreadable, [&](std::pair<std::string, std::string> const& e) {
        return rules.excludes(e.first, true);
    });
}

// Leaves out of a remote listing what `rules` exclude.
void dropExcluded(RemoteMap& remote, ExcludeRules const& rules) {
    if (rules.empty()) return;
    for (auto it = remote.begin(); it != remote.end();) {
        it = rules.excludes(it->first, it->second.isDirType()) ? remote.erase(it) : std::next(it);
    }
}

void addUnreadable(LocalTree const& tree, RunReport& report) {
    for (auto const& [rpath, why] : tree.unreadable) {
        report.add(failedLocally(rpath + "/", "cannot read the folder: " + why, kExitError));
    }
    for (auto const& [rpath, why] : tree.unknown) {
        report.add(failedLocally(rpath, why, kExitError));
    }
}

bool withinAny(std::string const& rpath,
               std::vector<std::pair<std::string, std::string>> const& folders) {
    for (auto const& folder : folders) {
        if (isWithin(rpath, folder.first)) return true;
    }
    return false;
}

// True when a folder of `folders` holds `rpath`, at any depth.
bool belowAny(std::string const& rpath, std::set<std::string> const& folders) {
    for (size_t slash = rpath.find('/'); slash != std::string::npos;
         slash = rpath.find('/', slash + 1)) {
        if (folders.count(rpath.substr(0, slash))) return true;
    }
    return false;
}

// Folders that could not be made, with their failure's exit code.
typedef std::map<std::string, int> Unmade;

// True, with `rpath` (a file, or a folder ending in "/") reported as failed,
// when a folder of `unmade` would have held it: the service would only
// answer "not found", which reads as if the local file were missing.
bool failedAbove(std::string const& rpath, Unmade const& unmade, RunReport& report) {
    for (size_t slash = rpath.find('/'); slash != std::string::npos && slash + 1 < rpath.size();
         slash = rpath.find('/', slash + 1)) {
        auto folder = unmade.find(rpath.substr(0, slash));
        if (folder != unmade.end()) {
            report.add(failedLocally(
                rpath, "not tried: the folder " + folder->first + "/ could not be made",
                folder->second));
            return true;
        }
    }
    return false;
}

// Prints the failures and, unless quiet, the summary; the exit code.
int closeReport(Session& s, RunReport const& report, std::string const& extra) {
    report.printFailures();
    if (report.stopped()) {
        std::string const left = counted(report.untried(), "file") + " not tried";
        if (interrupted()) {
            fprintf(stderr, "gdrive_host: cancelled: %s\n", left.c_str());
        } else if (report.outage()) {
            fprintf(stderr,
                    "gdrive_host: stopped: the last %d files in a row failed for a passing reason "
                    "after their retries; the service seems out of reach (%s)\n",
                    RunReport::kOutageRun, left.c_str());
        } else {
            fprintf(stderr,
                    "gdrive_host: stopped: the failure above would meet every further file (%s)\n",
                    left.c_str());
        }
    }
    if (!s.args.quiet) printf("%s%s\n", report.summary().c_str(), extra.c_str());
    return report.exitCode();
}

// What a copy or sync is going to do.
struct CopyPlan {
    std::vector<std::string> folders, files;  // to create, to send
    std::vector<std::string> replaced;        // remote objects of the other type, in the way
    std::vector<std::string> extras;          // remote objects the local tree does not have
    int64_t bytes = 0;
};

CopyPlan planCopy(std::string const& localTop, LocalTree const& tree, RemoteMap const& remote,
                  RunReport& report, LocalHashes const* hashes, TreeIndex& index) {
    CopyPlan plan;
    std::set<std::string> local;
    for (auto const& entry : tree.entries) {
        local.insert(entry.rpath);
        auto found = remote.find(entry.rpath);
        bool present = found != remote.end();
        if (present && found->second.isDirType() != entry.isFolder) {
            plan.replaced.push_back(entry.rpath);
            present = false;
        }
        if (entry.isFolder) {
            if (!present) plan.folders.push_back(entry.rpath);
        } else if (present && hasNoStoredBytes(found->second)) {
            // A Doc or a shortcut of the same name: nothing to compare, and
            // overwriting it would destroy what the person made in Drive.
            skipNoStoredBytes("copy", entry.rpath, report);
        } else if (present && (index.vouches(entry, found->second) ||
                               sameContent(localTop + "/" + entry.rpath, entry.size, found->second,
                                           hashes ? hashes->md5(entry.rpath) : nullptr))) {
            index.stored(entry, found->second.getChecksum(), found->second.getMtime());
            FileOutcome unchanged;
            unchanged.kind = FileOutcome::kUnchanged;
            report.add(unchanged);
        } else {
            plan.files.push_back(entry.rpath);
            plan.bytes += entry.size;
        }
    }
    // Folders deleted or replaced take their content with them.
    std::set<std::string> going(plan.replaced.begin(), plan.replaced.end());
    for (auto const& [rpath, info] : remote) {
        if (local.count(rpath) || belowAny(rpath, going)) continue;
        // What the local tree holds at a path it skipped or could not read
        // is unknown: its remote copy (a whole folder's, for a folder
        // replaced by a symbolic link) is the only one left.
        if (withinAny(rpath, tree.skipped) || withinAny(rpath, tree.unreadable) ||
            withinAny(rpath, tree.unknown)) {
            continue;
        }
        plan.extras.push_back(rpath);
        if (info.isDirType()) going.insert(rpath);
    }
    return plan;
}

// Deletes the remote object `rpath` below `remoteTop` (a folder with its content).
FileOutcome deleteRemote(Session& s, std::string const& remoteTop, std::string const& rpath,
                         bool folder) {
    std::string path = joinPath(remoteTop, rpath);
    beginOperation(path);
    bool ok = folder ? s.agent.removeDirRecursive(path) : s.agent.removeFile(path);
    if (!ok) return failedFile(rpath, interrupted() ? ERR_CANCELED : getError(), Wanted::kFile);
    FileOutcome outcome;
    outcome.path = rpath;
    return outcome;
}

// copyTree's changes made by workers (--transfers above 1): the top and the
// replacements in order, then the folders (several at once, parents first)
// by the workers that listed the tree,
// then the files on a pool that starts from the node cache they left, then
// the deletions in order.
int copyOnWorkers(Session& s, std::unique_ptr<TreeWorkers>& workers, std::string const& remoteTop,
                  std::string const& localTop, RemoteMap& remote, CopyPlan const& plan,
                  RunReport& report, bool deleting) {
    char const* command = deleting ? "sync" : "copy";
    std::deque<Json::Value> changes;
    if (!remoteTop.empty()) {
        changes.push_back(treeJob("mkdir", remoteTop, remoteTop, true));
        changes.back()["parents"] = true;
    }
    for (auto const& rpath : plan.replaced) {
        if (deleting) {
            changes.push_back(
                treeJob("remove", joinPath(remoteTop, rpath), rpath, remote[rpath].isDirType()));
        }
    }
    // New folders are made several at once, each once its parent is there.
    std::deque<Json::Value> folders;
    for (auto const& rpath : plan.folders)
        folders.push_back(treeJob("mkdir", joinPath(remoteTop, rpath), rpath + "/", true));
    size_t next = 0;
    int64_t created = 0;
    int topFailure = kExitOk;
    Unmade unmade;
    std::unique_ptr<StatusLine> making(new StatusLine(s.args.quiet));
    auto onChange = [&](Json::Value const& job, FileOutcome const& outcome) {
        making->show("making folders", static_cast<int64_t>(++next),
                     static_cast<int64_t>(changes.size() + folders.size()));
        bool const isTop = job["parents"].asBool();
        if (outcome.kind != FileOutcome::kFailed) {
            created += job["op"] == "mkdir" && !isTop;
        } else if (isTop) {
            fprintf(stderr, "gdrive_host: %s: mkdir %s: %s\n", command, remoteTop.c_str(),
                    outcome.failure.words.c_str());
            topFailure = outcome.failure.exitCode;
            return false;
        } else {
            std::string const shown = job["shown"].asString();
            if (job["op"] == "mkdir")
                unmade[shown.substr(0, shown.size() - 1)] = outcome.failure.exitCode;
            if (!failedAbove(shown, unmade, report)) report.add(outcome);
        }
        return !report.stopped();
    };
    size_t ordered = 0;
    workers->inOrder(
        changes, [&](FileOutcome const& outcome) { return onChange(changes[ordered++], outcome); });
    if (topFailure == kExitOk && !report.stopped()) workers->makeFolders(folders, onChange);
    making.reset();
    // The workers that made the folders send the files: each goes on in the
    // folders it made, which its agent knows whole, and a worker added later
    // looks up the folders it goes into. A pool of new workers would cost
    // each its own drive agent's start and confirmations.
    if (topFailure != kExitOk) return topFailure;
    std::deque<Json::Value> sends;
    for (auto const& rpath : plan.files) {
        if (failedAbove(rpath, unmade, report)) continue;
        sends.push_back(treeJob("send", joinPath(remoteTop, rpath), rpath, false));
        sends.back()["local"] = localTop + "/" + rpath;
    }
    listFoldersFirst(sends, remote, remoteTop);
    ProgressLine line("sent", plan.bytes, static_cast<int64_t>(plan.files.size()), s.args.quiet);
    if (!report.stopped()) runTreeJobs(s, transfersOf(s), sends, report, &line, workers.get());
    workers.reset();
    line.finish(", " + counted(created, "folder") + " created");
    // Extras go last, so that a sync cut short never leaves the remote with
    // less than it had.
    std::deque<Json::Value> removals;
    for (auto const& rpath : plan.extras) {
        removals.push_back(
            treeJob("remove", joinPath(remoteTop, rpath), rpath, remote[rpath].isDirType()));
    }
    int64_t deleted = 0;
    if (!report.stopped() && !interrupted()) {
        std::string error;
        runOnWorkers(
            s, 1, removals,
            [&](Json::Value const& job, Json::Value const& result, std::deque<Json::Value>&) {
                FileOutcome gone = outcomeOf(job, result);
                if (gone.kind == FileOutcome::kFailed) {
                    report.add(gone);
                } else {
                    ++deleted;
                }
                return !report.stopped() && !interrupted();
            },
            nullptr, error);
        if (!error.empty()) report.add(failedLocally("", error, kExitError));
    }
    return closeReport(s, report, deleting ? ", " + std::to_string(deleted) + " deleted" : "");
}

// The remote objects below the folder `rpath` (none below a file).
int64_t objectsBelow(RemoteMap const& remote, std::string const& rpath) {
    int64_t below = 0;
    for (auto it = remote.upper_bound(rpath + "/");
         it != remote.end() && isWithin(it->first, rpath); ++it) {
        ++below;
    }
    return below;
}

// What a copy or sync would do, said instead of done: each object, a folder
// with what it holds, and a file that could not be read as such.
int dryRun(Session& s, std::string const& localTop, RemoteMap const& remote, CopyPlan const& plan,
           RunReport& report, bool deleting) {
    int64_t replaced = 0, deleted = 0;
    auto say = [&](char const* verb, std::string const& rpath, int64_t& count) {
        int64_t below = objectsBelow(remote, rpath);
        count += 1 + below;
        if (below == 0) return (void)printf("would %s %s\n", verb, rpath.c_str());
        printf("would %s %s/ and the %s below it\n", verb, rpath.c_str(),
               counted(below, "object").c_str());
    };
    if (deleting) {
        for (auto const& f : plan.replaced) say("replace", f, replaced);
    }
    for (auto const& f : plan.folders) printf("would create %s/\n", f.c_str());
    for (auto const& f : plan.files) {
        std::ifstream readable(reachable(localTop + "/" + f), std::ios::binary);
        if (readable) {
            printf("would send %s\n", f.c_str());
        } else {
            report.add(
                failedLocally(f, std::string("cannot read it: ") + strerror(errno), kExitError));
        }
    }
    for (auto const& f : plan.extras) say("delete", f, deleted);
    printf("%s (%s) to send, %s to replace, %s to delete\n",
           counted(plan.files.size(), "file").c_str(), humanBytes(plan.bytes).c_str(),
           counted(replaced, "object").c_str(), counted(deleted, "object").c_str());
    return closeReport(s, report, "");
}

// Records each file sent in `index`, as the report hears of it.
void recordSent(RunReport& report, LocalTree const& tree, CopyPlan const& plan, TreeIndex& index) {
    auto sending = std::make_shared<std::map<std::string, LocalEntry const*>>();
    std::set<std::string> const files(plan.files.begin(), plan.files.end());
    for (LocalEntry const& e : tree.entries)
        if (files.count(e.rpath)) (*sending)[e.rpath] = &e;
    report.watch([sending, &index](FileOutcome const& outcome) {
        auto found = sending->find(outcome.path);
        if (outcome.kind == FileOutcome::kDone && found != sending->end())
            index.stored(*found->second, outcome.md5, outcome.remoteMtime);
    });
}

// Folders of an unchanged tree that this process's agent lists itself
// whatever the service's pace: three workers' worth (see
// kLightJobsPerWorker), which would cost about as many requests to start as
// they save listings' time.
constexpr size_t kListedHereUpTo = 3 * kLightJobsPerWorker;

int copyTree(Session& s, bool deleting, TreeIndex& index, bool& planned) {
    char const* command = deleting ? "sync" : "copy";
    std::string localTop = s.path(0), remoteTop = remotePath(s.path(1));
    ExcludeRules rules;
    if (!readRules(s, command, rules)) return kExitUsage;
    LocalTree tree;
    int code = kExitOk;
    if (!readLocalTree(command, localTop, remoteTop, tree, code)) return code;
    dropExcluded(tree, rules);
    RemoteMap remote;
    std::vector<std::string> folders;
    for (LocalEntry const& e : tree.entries)
        if (e.isFolder) folders.push_back(e.rpath);
    // When the index knows every local file as it is, the listing is most
    // likely all the work. This process's agent lists a small tree itself:
    // workers would cost more requests to start than they save time. For a
    // larger one the workers warm up only once the first listing shows a
    // service's latency: against a fast service more workers would only
    // take turns on the cores with the first. Workers start after the
    // listing if it finds anything to send or make.
    bool const known =
        std::all_of(tree.entries.begin(), tree.entries.end(),
                    [&](LocalEntry const& e) { return e.isFolder || index.localMatch(e); });
    bool const listHere = known && folders.size() < kListedHereUpTo;
    std::unique_ptr<TreeWorkers> workers;
    if (transfersOf(s) > 1 && !listHere) workers.reset(new TreeWorkers(s));
    std::map<std::string, int64_t> sizes;
    for (LocalEntry const& e : tree.entries) {
        if (!known && !e.isFolder && workers && !index.localMatch(e)) sizes[e.rpath] = e.size;
    }
    // Workers list while this process hashes the local files the listing
    // says may be unchanged (one agent lists in this process: nothing to
    // overlap).
    LocalHashes hashes(localTop, std::move(sizes));
    // A copy deletes nothing: what lies below a remote folder matters only
    // where the local one has something to compare with it.
    std::set<std::string> holding;
    for (LocalEntry const& e : tree.entries) {
        if (!deleting) holding.insert(e.rpath.substr(0, e.rpath.rfind('/') + 1));
    }
    auto worthListing = [&](std::string const& rpath) { return holding.count(rpath + "/") > 0; };
    std::unique_ptr<StatusLine> listing(new StatusLine(s.args.quiet));
    StatusLine& status = *listing;
    int64_t listed = 0;
    std::function<bool(std::string const&)> const enter =
        deleting ? std::function<bool(std::string const&)>() : worthListing;
    ListingWarmUp warmUp = listingWarmUp(folders);
    warmUp.whenSlow = known;
    bool const listedWhole =
        workers ? workers->list(remoteTop, true, remote, warmUp, &hashes, enter)
                : remoteEntries(
                      s.agent, remoteTop, true, remote,
                      [&] { status.show("listing the remote folders", ++listed); }, enter);
    if (!listedWhole) return reportFailure(command, remoteTop, getError(), Wanted::kFolder);
    listing.reset();
    // What is excluded stays on the remote as it is, unless sync is told to
    // delete it: then it counts as a file the local tree no longer has.
    if (!(deleting && s.args.deleteExcluded)) dropExcluded(remote, rules);
    RunReport report("sent");
    for (auto const& [name, why] : tree.skipped) {
        fprintf(stderr, "gdrive_host: %s: skipped %s (%s; its remote copy is kept)\n", command,
                name.c_str(), why.c_str());
        FileOutcome skipped;
        skipped.kind = FileOutcome::kSkipped;
        report.add(skipped);
    }
    addUnreadable(tree, report);
    while (hashes.step()) {
        // What the listing did not leave time for.
    }
    CopyPlan plan = planCopy(localTop, tree, remote, report, &hashes, index);
    report.plan(static_cast<int64_t>(plan.files.size()));
    // An unreadable folder must never look like an empty one.
    bool mayDelete = deleting && tree.unreadable.empty();
    if (deleting && !mayDelete && !plan.extras.empty()) {
        fprintf(
            stderr,
            "gdrive_host: sync: nothing deleted: the local tree could not be read completely\n");
    }
    if (!mayDelete) plan.extras.clear();
    if (s.args.dryRun) return dryRun(s, localTop, remote, plan, report, deleting);
    planned = true;
    recordSent(report, tree, plan, index);
    if (!workers && transfersOf(s) > 1 && (!plan.folders.empty() || !plan.files.empty())) {
        // The workers start from what this process's listing learned.
        s.agent.flushCache();
        workers.reset(new TreeWorkers(s));
    }
    if (workers)
        return copyOnWorkers(s, workers, remoteTop, localTop, remote, plan, report, deleting);
    if (!remoteTop.empty() && !makeRemoteFolders(s.agent, remoteTop)) {
        return reportFailure(std::string(command) + ": mkdir", remoteTop, getError(),
                             Wanted::kFolder);
    }
    // An object of the other type is in the way of a file or folder: sync
    // replaces it, copy (which never deletes) reports it.
    for (auto const& rpath : plan.replaced) {
        if (deleting) {
            FileOutcome gone = deleteRemote(s, remoteTop, rpath, remote[rpath].isDirType());
            if (gone.kind == FileOutcome::kFailed) report.add(gone);
        }
    }
    int64_t created = 0;
    Unmade unmade;
    std::unique_ptr<StatusLine> making(new StatusLine(s.args.quiet));
    int64_t made = 0;
    for (auto const& rpath : plan.folders) {
        if (report.stopped()) break;
        making->show("making folders", ++made, static_cast<int64_t>(plan.folders.size()));
        if (failedAbove(rpath + "/", unmade, report)) {
            unmade[rpath] = kExitError;
            continue;
        }
        beginOperation(joinPath(remoteTop, rpath));
        if (createFolderOnceMore(s.agent, joinPath(remoteTop, rpath))) {
            ++created;
        } else {
            FileOutcome failed =
                failedFile(rpath + "/", interrupted() ? ERR_CANCELED : getError(), Wanted::kFolder);
            unmade[rpath] = failed.failure.exitCode;
            report.add(failed);
        }
    }
    making.reset();
    ProgressLine line("sent", plan.bytes, static_cast<int64_t>(plan.files.size()), s.args.quiet);
    for (auto const& rpath : plan.files) {
        if (report.stopped()) break;
        if (failedAbove(rpath, unmade, report)) continue;
        report.add(
            sendTreeFile(s.agent, localTop + "/" + rpath, joinPath(remoteTop, rpath), rpath, line));
    }
    line.finish(", " + counted(created, "folder") + " created");
    // Extras go last, so that a sync cut short never leaves the remote with
    // less than it had.
    int64_t deleted = 0;
    for (auto const& rpath : plan.extras) {
        if (report.stopped() || interrupted()) break;
        FileOutcome gone = deleteRemote(s, remoteTop, rpath, remote[rpath].isDirType());
        if (gone.kind == FileOutcome::kFailed) {
            report.add(gone);
        } else {
            ++deleted;
        }
    }
    return closeReport(s, report, deleting ? ", " + std::to_string(deleted) + " deleted" : "");
}

}  // namespace

// A copy or sync with the stored index: loaded before the local walk, so that
// a file changed during the run is never recorded as unchanged, and written
// once the run's node cache is, so that it is not older than the cache.
int copyIndexed(Session& s, bool deleting) {
    TreeIndex index(s.destination, s.path(0), remotePath(s.path(1)), !s.args.checksum);
    bool planned = false;
    int rc = copyTree(s, deleting, index, planned);
    if (planned) {
        s.agent.flushCache();
        index.save();
    }
    return rc;
}

int runCopy(Session& s) { return copyIndexed(s, false); }

int runSync(Session& s) { return copyIndexed(s, true); }

// True when the local file `local` already holds the remote file `remote`
// (the restore of `rpath` ran before): the index vouches for it, else its
// size and MD5 are the remote's.
bool alreadyRestored(std::string const& local, std::string const& rpath, FileInfo const& remote,
                     TreeIndex const& index) {
    struct stat st {};
    if (lstat(reachable(local).c_str(), &st) != 0 || !S_ISREG(st.st_mode) ||
        st.st_size != remote.getSize())
        return false;
    LocalEntry entry{rpath,     false, st.st_size, nanosOf(st.st_mtim), nanosOf(st.st_ctim),
                     st.st_mode};
    return index.vouches(entry, remote) || fileMd5(local) == remote.getChecksum();
}

// Gives each file received the time (and the recorded mode) of its remote
// file, as the report hears of it.
void keepTimes(RunReport& report, std::string const& localTop, RemoteMap const& remote,
               TreeIndex const& index) {
    report.watch([&, localTop](FileOutcome const& outcome) {
        auto found = remote.find(outcome.path);
        if (outcome.kind != FileOutcome::kDone || found == remote.end()) return;
        std::string const local = localTop + "/" + outcome.path;
        if (!applyStoredMeta(local, found->second, index.recordOf(outcome.path, found->second))) {
            fprintf(stderr, "gdrive_host: restore: %s: cannot set its time or mode: %s\n",
                    outcome.path.c_str(), strerror(errno));
        }
    });
}

int runRestore(Session& s) {
    std::string remoteTop = remotePath(s.path(0)), localTop = s.path(1);
    ExcludeRules rules;
    if (!readRules(s, "restore", rules)) return kExitUsage;
    TreeIndex index(s.destination, localTop, remoteTop, true);
    RemoteMap remote;
    bool const parallel = transfersOf(s) > 1;
    if (parallel ? !TreeWorkers(s).list(remoteTop, false, remote)
                 : !remoteEntries(s.agent, remoteTop, false, remote)) {
        return reportFailure("restore", remoteTop, getError(), Wanted::kFolder);
    }
    dropExcluded(remote, rules);
    RunReport report("received");
    // A restore run again (it was stopped, or the tree is partly there)
    // fetches only what is missing or differs.
    std::set<std::string> present;
    int64_t bytes = 0, files = 0;
    for (auto const& [rpath, info] : remote) {
        if (info.isDirType() || hasNoStoredBytes(info)) continue;
        if (!s.args.force && alreadyRestored(localTop + "/" + rpath, rpath, info, index)) {
            present.insert(rpath);
            FileOutcome unchanged;
            unchanged.kind = FileOutcome::kUnchanged;
            report.add(unchanged);
            continue;
        }
        bytes += info.getSize(), ++files;
    }
    if (!makeLocalFolders(localTop)) {
        // As copy from a file: the wrong kind of local path is a usage error.
        bool file = errno == EEXIST || errno == ENOTDIR;
        return reportProblem("restore: cannot create " + localTop + ": " +
                                 (file ? "a file is in the way" : strerror(errno)),
                             file ? kExitUsage : kExitError);
    }
    report.plan(files);
    keepTimes(report, localTop, remote, index);
    ProgressLine line("received", bytes, files, s.args.quiet);
    std::set<std::string> cleaned;
    std::deque<Json::Value> receives;
    for (auto const& [rpath, info] : remote) {
        if (report.stopped()) break;
        std::string local = localTop + "/" + rpath;
        if (info.isDirType()) {
            if (!makeLocalFolders(local)) {
                report.add(failedLocally(
                    rpath + "/", std::string("cannot create the folder: ") + strerror(errno),
                    kExitError));
            }
            continue;
        }
        if (hasNoStoredBytes(info)) {
            skipNoStoredBytes("restore", rpath, report);
            continue;
        }
        if (present.count(rpath)) continue;
        std::string folder = local.substr(0, local.find_last_of('/'));
        if (cleaned.insert(folder).second) removeLeftoverDownloads(folder);
        if (parallel) {
            // Folders first, all of them: workers fetch into any of them.
            receives.push_back(treeJob("recv", joinPath(remoteTop, rpath), rpath, false));
            receives.back()["local"] = local;
            receives.back()["size"] = static_cast<Json::Int64>(info.getSize());
            continue;
        }
        DownloadClaim claim(folder);
        report.add(receiveTreeFile(s.agent, joinPath(remoteTop, rpath), local, info.getSize(),
                                   rpath, line));
    }
    if (!report.stopped()) runTreeJobs(s, transfersOf(s), receives, report, &line);
    line.finish(" into " + localTop);
    return closeReport(s, report, "");
}

int runCheck(Session& s) {
    std::string localTop = s.path(0), remoteTop = remotePath(s.path(1));
    ExcludeRules rules;
    if (!readRules(s, "check", rules)) return kExitUsage;
    LocalTree tree;
    int code = kExitOk;
    if (!readLocalTree("check", localTop, remoteTop, tree, code)) return code;
    dropExcluded(tree, rules);
    RemoteMap remote;
    if (transfersOf(s) > 1 ? !TreeWorkers(s).list(remoteTop, false, remote)
                           : !remoteEntries(s.agent, remoteTop, false, remote)) {
        return reportFailure("check", remoteTop, getError(), Wanted::kFolder);
    }
    dropExcluded(remote, rules);
    RunReport report("matched");
    addUnreadable(tree, report);
    Json::Value differ(Json::arrayValue), missingRemote(Json::arrayValue),
        missingLocal(Json::arrayValue);
    int64_t matched = 0;
    for (auto const& entry : tree.entries) {
        if (interrupted()) return reportFailure("check", remoteTop, ERR_CANCELED, Wanted::kFolder);
        auto found = remote.find(entry.rpath);
        if (found == remote.end()) {
            missingRemote.append(entry.rpath);
            continue;
        }
        FileInfo const& other = found->second;
        if (!entry.isFolder && hasNoStoredBytes(other)) {
            skipNoStoredBytes("check", entry.rpath, report);
            remote.erase(found);
            continue;
        }
        std::string md5;
        if (!entry.isFolder && !other.isDirType() && other.getSize() == entry.size) {
            // A file that cannot be read was not compared: no difference found.
            md5 = fileMd5(localTop + "/" + entry.rpath);
            if (md5.empty()) {
                report.add(failedLocally(entry.rpath, "cannot read it", kExitError));
                remote.erase(found);
                continue;
            }
        }
        bool same = entry.isFolder ? other.isDirType() : sameContent("", entry.size, other, &md5);
        if (same) {
            matched += entry.isFolder ? 0 : 1;
        } else {
            differ.append(entry.rpath);
        }
        remote.erase(found);
    }
    for (auto const& rest : remote) {
        if (hasNoStoredBytes(rest.second)) {
            skipNoStoredBytes("check", rest.first, report);
            continue;
        }
        // What an unreadable folder holds is unknown, not missing.
        if (!withinAny(rest.first, tree.unreadable) && !withinAny(rest.first, tree.unknown))
            missingLocal.append(rest.first);
    }
    bool ok = differ.empty() && missingRemote.empty() && missingLocal.empty();
    if (s.args.json) {
        Json::Value document(Json::objectValue);
        document["local"] = localTop;
        document["remote"] = remoteTop;
        document["matched"] = static_cast<Json::Int64>(matched);
        document["differ"] = differ;
        document["missing_remote"] = missingRemote;
        document["missing_local"] = missingLocal;
        document["ok"] = ok && report.exitCode() == kExitOk;
        printJson(document);
    } else {
        for (auto const& p : differ) printf("differs:            %s\n", p.asCString());
        for (auto const& p : missingRemote) printf("missing remotely:   %s\n", p.asCString());
        for (auto const& p : missingLocal) printf("missing locally:    %s\n", p.asCString());
        int64_t differences = differ.size() + missingRemote.size() + missingLocal.size();
        printf("%s %s, %s\n", counted(matched, "file").c_str(), matched == 1 ? "matches" : "match",
               counted(differences, "difference").c_str());
    }
    report.printFailures();
    int failed = report.exitCode();
    return failed != kExitOk ? failed : ok ? kExitOk : kExitError;
}

}  // namespace gdhost
