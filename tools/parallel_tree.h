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

namespace gdhost {

// Every entry below `top` by its path relative to `top`, as remoteEntries
// gives it; each folder is listed by whichever worker is free, and folders
// whose name appears twice in their parent are not entered.
bool remoteEntriesOnWorkers(Session& s, std::string const& top, bool missingIsEmpty,
                            std::map<std::string, TAVO::Backup::FileInfo>& entries,
                            std::string& failed);

// Creates `top` with its missing parents (unless empty), then `folders`
// (parents before children, each once) in that order, with one worker, whose node cache then
// reaches the file before any transfer starts, so no transfer has to look a new folder up.
bool makeFoldersOnWorkers(Session& s, std::string const& top,
                          std::vector<std::string> const& folders, std::string& failed);

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
