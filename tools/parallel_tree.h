// The tree commands' work spread over worker processes (--transfers): the
// listing of a remote tree, folder creation, deletions and file transfers.
// Outcomes are those the one-agent forms give, and go to the same report.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "backup/file_info.h"
#include "commands.h"
#include "local_hashes.h"
#include "progress_line.h"
#include "run_report.h"
#include "workers.h"

namespace gdhost {

// A job for one remote object: `op` ("mkdir", "remove", "send", "recv") on
// the target path `remote`, shown to a person as `shown`; `folder` says a
// folder is meant.
Json::Value treeJob(char const* op, std::string const& remote, std::string const& shown,
                    bool folder);

// What a job's result means for the person: done, or failed and why.
FileOutcome outcomeOf(Json::Value const& job, Json::Value const& result);

// What a listing may expect of a remote tree, from the local tree it mirrors:
// `workers` to start at once, each first listing `folder` (relative to the
// top), the one with the most folders in it, which a listing fans out from;
// only when the node cache knows an object named as the top (or, for the
// target itself, as `probe`, the first folder), as for a tree copied before.
struct ListingWarmUp {
    std::string folder;
    size_t workers = 0;
    std::string probe;
    bool whenSlow = false;  // only once the first listing shows the service slow
};

// The warm-up for listing the remote counterpart of a local tree whose
// folders (relative paths, parents first) are `folders`.
ListingWarmUp listingWarmUp(std::vector<std::string> const& folders);

// The listing of a remote tree and the changes a command makes before its
// transfers, on one pool of transfersOf(s) workers whose node caches are
// merged when it ends.
class TreeWorkers {
  public:
    explicit TreeWorkers(Session& s) : _session(s), _pool(s) {}
    // Merges what the workers learned into the node cache file.
    ~TreeWorkers();
    TreeWorkers(TreeWorkers const&) = delete;
    TreeWorkers& operator=(TreeWorkers const&) = delete;

    // Every entry below `top` by its path relative to `top`, as
    // remoteEntries gives it, with the engine's error code set on failure;
    // each folder is listed by whichever worker is free, and folders whose
    // name appears twice in their parent are not entered. With `warmUp`,
    // its workers start at once and list its folder until they have work;
    // `hashes` (may be null) hears of every file listed and hashes while the
    // workers list. Only the folders (relative paths) for which `enter`
    // holds are entered below the top, all of them when it is null.
    bool list(std::string const& top, bool missingIsEmpty,
              std::map<std::string, TAVO::Backup::FileInfo>& entries,
              ListingWarmUp const& warmUp = {}, LocalHashes* hashes = nullptr,
              std::function<bool(std::string const&)> const& enter = nullptr);

    // Runs `jobs` one after another on the first worker, which listed the
    // top, passing each outcome to `onOutcome` until it returns false. One
    // agent makes every folder, as without workers, and the merged node
    // cache then knows them all before any transfer starts.
    void inOrder(std::deque<Json::Value> jobs,
                 std::function<bool(FileOutcome const&)> const& onOutcome);

    // Makes the folders of `jobs` ("mkdir" jobs, parents before children,
    // "shown" the folder's path relative to the top and a "/") on the pool,
    // several at once: a folder's job goes out once its parent's among them
    // was made (at once when its parent is not among them), so none is made
    // twice or before its parent. Each outcome goes to `onOutcome` with its
    // job, until it returns false; the folders below one that could not be
    // made are not tried, and go to `onOutcome` with their parent's failure.
    void makeFolders(std::deque<Json::Value> jobs,
                     std::function<bool(Json::Value const&, FileOutcome const&)> const& onOutcome);

    // Runs `jobs` on this pool as WorkerPool::run does; false with `error`
    // set when no worker could be started.
    bool run(std::deque<Json::Value>& jobs, WorkerPool::ResultHandler const& onResult,
             ProgressLine* line, std::string& error);

  private:
    bool ready();

    Session& _session;
    WorkerPool _pool;
    bool _started = false;
};

// Marks the sends of `jobs` ("listFirst") into each folder whose listing
// costs fewer requests than the name lookups it saves: a folder that
// `remote` (its entries by path relative to `remoteTop`) shows with few
// enough entries for the files going into it. Each worker then lists such a
// folder before its first send there, and the plug-in asks for no name in it.
void listFoldersFirst(std::deque<Json::Value>& jobs,
                      std::map<std::string, TAVO::Backup::FileInfo> const& remote,
                      std::string const& remoteTop);

// Runs `jobs` on `count` workers of their own (or on the pool of `on`, when
// given), adding each outcome to `report` and counting on `line` (may be
// null); stops handing out jobs once the report says the run stops.
void runTreeJobs(Session& s, int count, std::deque<Json::Value> jobs, RunReport& report,
                 ProgressLine* line, TreeWorkers* on = nullptr);

}  // namespace gdhost
