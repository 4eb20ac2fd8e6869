#include "parallel_tree.h"

#include <algorithm>
#include <cstdio>
#include <set>

#include "backup/error.h"
#include "interrupt.h"
#include "remote_tree.h"

namespace gdhost {

using namespace TAVO::Backup;

namespace {
// Files up to this size are hashed ahead of the listing (see LocalHashes).
constexpr int64_t kGuessUpTo = 1 << 20;
// Objects in one page of a folder's listing (drive_agent's page size).
constexpr size_t kListingPage = 1000;
}  // namespace

Json::Value treeJob(char const* op, std::string const& remote, std::string const& shown,
                    bool folder) {
    Json::Value job(Json::objectValue);
    job["op"] = op;
    job["remote"] = remote;
    job["shown"] = shown;
    job["folder"] = folder;
    // Transfers and listings stay with the worker that confirmed their
    // folder; folder changes run in order as queued.
    std::string const how = op;
    if (how == "send" || how == "recv" || how == "list") {
        size_t slash = remote.rfind('/');
        job["group"] = slash == std::string::npos ? std::string() : remote.substr(0, slash);
    }
    return job;
}

FileOutcome outcomeOf(Json::Value const& job, Json::Value const& result) {
    FileOutcome outcome;
    outcome.path = job["shown"].asString();
    outcome.md5 = result["md5"].asString();
    outcome.remoteMtime = result["mtime"].asInt64();
    if (result["ok"].asBool()) return outcome;
    int code = result["code"].asInt();
    if (!result.isMember("words")) {
        // No description: the worker died with the job.
        return failedFile(outcome.path, code,
                          job["folder"].asBool() ? Wanted::kFolder : Wanted::kFile);
    }
    outcome.kind = FileOutcome::kFailed;
    outcome.failure.engineCode = code;
    outcome.failure.words = result["words"].asString();
    outcome.failure.exitCode = result["exit"].asInt();
    outcome.failure.stopsRun = result["stops"].asBool();
    return outcome;
}

TreeWorkers::~TreeWorkers() {
    std::string error;
    if (_started && !_pool.finish(error))
        fprintf(stderr, "gdrive_host: node cache not updated: %s\n", error.c_str());
}

bool TreeWorkers::ready() {
    std::string error;
    if (!_started) _started = _pool.start(transfersOf(_session), error);
    if (!_started) fprintf(stderr, "gdrive_host: %s\n", error.c_str());
    return _started;
}

ListingWarmUp listingWarmUp(std::vector<std::string> const& folders) {
    std::map<std::string, size_t> inside;  // folders in each folder ("" the top)
    ListingWarmUp warm;
    size_t most = 0;
    for (std::string const& rpath : folders) {
        size_t slash = rpath.rfind('/');
        std::string const parent = slash == std::string::npos ? "" : rpath.substr(0, slash);
        // Parents come first: the first of equals is the nearest the top.
        if (++inside[parent] > most) {
            most = inside[parent];
            warm.folder = parent;
        }
    }
    // As many as the listings to come pay for (see kLightJobsPerWorker).
    warm.workers = 1 + (folders.size() + 1) / kLightJobsPerWorker;
    if (!folders.empty()) warm.probe = folders.front().substr(folders.front().rfind('/') + 1);
    return warm;
}

bool TreeWorkers::list(std::string const& top, bool missingIsEmpty,
                       std::map<std::string, FileInfo>& entries, ListingWarmUp const& warmUp,
                       LocalHashes* hashes, std::function<bool(std::string const&)> const& enter) {
    std::deque<Json::Value> jobs{treeJob("list", top, "", true)};
    if (warmUp.workers > 1) {
        std::string const folder = joinPath(top, warmUp.folder);
        // A top below the target is known by its own name; the target's own
        // is always known.
        std::string const probe = top.empty() ? warmUp.probe : top.substr(top.rfind('/') + 1);
        _pool.warmUp(treeJob("list", folder, warmUp.folder, true), warmUp.workers, probe,
                     warmUp.whenSlow);
    }
    int failure = ERR_NONE;
    bool topMissing = false;
    StatusLine status(_session.args.quiet);
    int64_t folders = 0;
    auto onResult = [&](Json::Value const& done, Json::Value const& result,
                        std::deque<Json::Value>& more) {
        status.show("listing the remote folders", ++folders);
        if (!result["ok"].asBool()) {
            failure = result["code"].asInt();
            topMissing = done["remote"].asString() == top && failure == ERR_REMOTE_NOT_FOUND;
            return false;
        }
        std::string const folder = done["shown"].asString();
        Json::Value const& listed = result["entries"];
        std::vector<std::string> names;
        for (Json::Value const& e : listed) names.push_back(e["name"].asString());
        std::sort(names.begin(), names.end());
        for (Json::Value const& e : listed) {
            std::string const name = e["name"].asString();
            FileInfo info(name);
            if (e["dir"].asBool()) {
                info.setDirType();
            } else {
                info.setRegType();
            }
            info.setSize(e["size"].asInt64());
            info.setMtime(e["mtime"].asInt64());
            info.setChecksum(e["md5"].asString());
            std::string const rpath = joinPath(folder, name);
            entries[rpath] = info;
            if (hashes && !info.isDirType()) hashes->listed(rpath, info.getSize());
            auto range = std::equal_range(names.begin(), names.end(), name);
            // A name shared in one folder cannot be named by a path.
            if (info.isDirType() && range.second - range.first == 1 && (!enter || enter(rpath)))
                more.push_back(treeJob("list", joinPath(top, rpath), rpath, true));
        }
        return true;
    };
    if (!ready()) {
        setError(ERR_GENERAL);
        return false;
    }
    std::function<bool()> idle;
    if (hashes) idle = [hashes] { return hashes->step(); };
    // A warm-up means the tree is most likely stored already: most small
    // files will need their MD5, and the listing leaves the time for them.
    if (hashes && _pool.warming()) hashes->guessUpTo(kGuessUpTo);
    bool const listed = _pool.run(jobs, onResult, nullptr, 1 << 20, idle);
    if (hashes) hashes->stopGuessing();
    if (listed) return true;
    if (interrupted()) {
        setError(ERR_CANCELED);
    } else {
        setError(failure != ERR_NONE ? failure : ERR_GENERAL);
    }
    if (missingIsEmpty && topMissing && !interrupted()) {
        entries.clear();
        return true;
    }
    return false;
}

void TreeWorkers::inOrder(std::deque<Json::Value> jobs,
                          std::function<bool(FileOutcome const&)> const& onOutcome) {
    if (jobs.empty() || !ready()) return;
    auto onResult = [&](Json::Value const& done, Json::Value const& result,
                        std::deque<Json::Value>&) { return onOutcome(outcomeOf(done, result)); };
    _pool.run(jobs, onResult, nullptr, 1);
}

void TreeWorkers::makeFolders(
    std::deque<Json::Value> jobs,
    std::function<bool(Json::Value const&, FileOutcome const&)> const& onOutcome) {
    if (jobs.empty() || !ready()) return;
    auto folderOf = [](Json::Value const& job) {
        std::string const shown = job["shown"].asString();
        return shown.substr(0, shown.size() - 1);
    };
    std::set<std::string> planned;
    for (Json::Value const& job : jobs) planned.insert(folderOf(job));
    std::map<std::string, std::deque<Json::Value>> waiting;  // by the parent they wait for
    std::deque<Json::Value> ready;
    for (Json::Value& job : jobs) {
        std::string const parent = parentPath(folderOf(job));
        // Best made by a worker that knows the parent's place already.
        job["near"] = parentPath(job["remote"].asString());
        (planned.count(parent) ? waiting[parent] : ready).push_back(std::move(job));
    }
    bool going = true;
    // Those below a folder that could not be made share its failure.
    std::function<void(std::string const&, FileOutcome const&)> notTried =
        [&](std::string const& folder, FileOutcome const& failed) {
            for (Json::Value const& child : waiting[folder]) {
                FileOutcome outcome = failed;
                outcome.path = child["shown"].asString();
                going = going && onOutcome(child, outcome);
                notTried(folderOf(child), failed);
            }
            waiting.erase(folder);
        };
    auto onResult = [&](Json::Value const& done, Json::Value const& result,
                        std::deque<Json::Value>& more) {
        FileOutcome const outcome = outcomeOf(done, result);
        going = going && onOutcome(done, outcome);
        std::string const folder = folderOf(done);
        if (outcome.kind == FileOutcome::kFailed) {
            notTried(folder, outcome);
        } else {
            for (Json::Value& child : waiting[folder]) more.push_back(std::move(child));
            waiting.erase(folder);
        }
        return going;
    };
    _pool.run(ready, onResult, nullptr);
}

bool TreeWorkers::run(std::deque<Json::Value>& jobs, WorkerPool::ResultHandler const& onResult,
                      ProgressLine* line, std::string& error) {
    if (!ready()) {
        error = "cannot start the workers";
        return false;
    }
    return _pool.run(jobs, onResult, line);
}

void listFoldersFirst(std::deque<Json::Value>& jobs, std::map<std::string, FileInfo> const& remote,
                      std::string const& remoteTop) {
    std::map<std::string, size_t> sends, entries;
    for (Json::Value const& job : jobs) ++sends[job["group"].asString()];
    for (auto const& entry : remote) {
        auto it = sends.find(joinPath(remoteTop, parentPath(entry.first)));
        if (it != sends.end()) ++entries[it->first];
    }
    for (Json::Value& job : jobs) {
        std::string const group = job["group"].asString();
        // One listing page stands for up to a page of lookups.
        job["listFirst"] = entries[group] / kListingPage + 1 < sends[group];
    }
}

void runTreeJobs(Session& s, int count, std::deque<Json::Value> jobs, RunReport& report,
                 ProgressLine* line, TreeWorkers* on) {
    size_t const total = jobs.size();
    size_t finished = 0;
    auto onResult = [&](Json::Value const& done, Json::Value const& result,
                        std::deque<Json::Value>&) {
        ++finished;
        report.add(outcomeOf(done, result));
        return !report.stopped();
    };
    std::string const firstShown = total ? jobs.front()["shown"].asString() : "";
    std::string error;
    bool const ran = on ? on->run(jobs, onResult, line, error)
                        : runOnWorkers(s, count, std::move(jobs), onResult, line, error);
    if (!ran && !error.empty()) {
        report.add(failedLocally(firstShown, error, kExitError));
    } else if (finished < total && interrupted() && !report.stopped()) {
        // Stopped between two files: the rest was cancelled.
        report.add(failedFile(firstShown, ERR_CANCELED, Wanted::kFile));
    }
}

}  // namespace gdhost
