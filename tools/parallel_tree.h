// The tree commands' work spread over worker processes (--transfers): the
// listing of a remote tree, folder creation and file transfers. Each returns
// false at the first failure with the engine's error code set and the path
// that failed in `failed`, as the one-agent forms do.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "backup/file_info.h"
#include "commands.h"
#include "progress_line.h"
#include "workers.h"

namespace gdhost {

// The listing of a remote tree and the folders a copy adds to it, on one
// pool of transfersOf(s) workers whose node caches are merged when it ends.
class TreeWorkers {
  public:
    explicit TreeWorkers(Session& s) : _session(s), _pool(s) {}
    // Merges what the workers learned into the node cache file.
    ~TreeWorkers();
    TreeWorkers(TreeWorkers const&) = delete;
    TreeWorkers& operator=(TreeWorkers const&) = delete;

    // Every entry below `top` by its path relative to `top`, as
    // remoteEntries gives it; each folder is listed by whichever worker is
    // free, and folders whose name appears twice in their parent are not
    // entered.
    bool list(std::string const& top, bool missingIsEmpty,
              std::map<std::string, TAVO::Backup::FileInfo>& entries, std::string& failed);

    // Creates `top` with its missing parents (unless empty), then `folders`
    // (parents before children, each once) in that order on one worker, the
    // first, which listed the top: one agent makes every folder, as without
    // workers, and the merged node cache then knows them all before any
    // transfer starts.
    bool makeFolders(std::string const& top, std::vector<std::string> const& folders,
                     std::string& failed);

  private:
    bool ready();

    Session& _session;
    WorkerPool _pool;
    bool _started = false;
    std::string _error;
};

// A file to move: its local path, its remote path and its size.
struct TransferItem {
    std::string local;
    std::string remote;
    int64_t size = 0;
};

// Sends (`send` true) or receives every item on transfersOf(s) workers,
// counting on `line`.
bool transferOnWorkers(Session& s, bool send, std::vector<TransferItem> const& items,
                       ProgressLine& line, std::string& failed);

}  // namespace gdhost
