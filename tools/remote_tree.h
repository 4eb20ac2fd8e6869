// Walking a folder tree of the backup target through the agent's listDir,
// which, unlike listDirRecursive, also shows folders (empty ones included)
// and lists a folder whose children share a name.
#pragma once

#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "backup/transfer_agent.h"

namespace gdhost {

// Called once per folder, parents first, with the folder's path relative to
// the walk's top ("" for the top) and its children sorted by name; returning
// false stops the walk.
typedef std::function<bool(std::string const& folder,
                           std::vector<TAVO::Backup::FileInfo> const& children)>
    FolderVisitor;

// A path in the target that no command can take ("a/../b": the plug-in takes
// no parent steps); the tool exits with a usage error.
struct BadRemotePath : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Target-relative form of a path typed by a person: no leading, trailing or
// repeated slashes, "." meaning the top. Throws BadRemotePath for "..".
std::string remotePath(std::string const& typed);

// Walks the tree below the target-relative folder `top`. Folders whose name
// appears twice in their parent are listed but not entered: a path cannot
// name them. False with the engine's error code set when a listing fails,
// the visitor stops the walk (ERR_GENERAL) or an interrupt came (ERR_CANCELED).
// Without `recursive` only `top` itself is listed; with `enter` (may be null)
// only the folders below the top (paths relative to it) for which it holds.
bool walkRemoteTree(TAVO::Backup::TransferAgent& agent, std::string const& top,
                    FolderVisitor const& visit, bool recursive = true,
                    std::function<bool(std::string const&)> const& enter = nullptr);

// Every entry below `top` by its path relative to `top`. A missing `top`
// gives an empty map and true when `missingIsEmpty`. `onFolder` (may be
// null) hears of each folder listed; `enter` is walkRemoteTree's.
bool remoteEntries(TAVO::Backup::TransferAgent& agent, std::string const& top, bool missingIsEmpty,
                   std::map<std::string, TAVO::Backup::FileInfo>& entries,
                   std::function<void()> const& onFolder = nullptr,
                   std::function<bool(std::string const&)> const& enter = nullptr);

// Creates the folder `path` (its parent exists); after a failure that may
// pass (the drive agent went away, say) asks once more, through the new
// drive agent the plug-in then starts. The plug-in looks for the folder
// before it makes one, so a first attempt that was applied is found, not
// repeated. False with the engine's error code set when both failed.
bool createFolderOnceMore(TAVO::Backup::TransferAgent& agent, std::string const& path);

// Creates the folder `path` and every missing parent. False with the engine's
// error code set on the first failure.
bool makeRemoteFolders(TAVO::Backup::TransferAgent& agent, std::string const& path);

// "a/b" joined with "c" as "a/b/c"; an empty side is left out.
std::string joinPath(std::string const& a, std::string const& b);

// The folder a slash path lies in: "a/b" for "a/b/c", "" for "c".
std::string parentPath(std::string const& path);

}  // namespace gdhost
