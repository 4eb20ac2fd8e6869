// The local side of transfers: what may be read, absolute paths, checksums
// and folder trees.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

namespace gdhost {

// Absolute form of `path` (relative to the working directory), without "."
// components, trailing slashes or repeated slashes. The plug-in refuses
// relative local paths.
std::string absoluteLocalPath(std::string const& path);

// Examines `path` with lstat, without opening it. Empty when it is a regular
// file; otherwise why it cannot be sent ("is a folder; use copy to send a
// tree", "is a FIFO", "is a symbolic link", "does not exist", ...), and
// `missing` tells whether it does not exist at all.
std::string whyNotSendable(std::string const& path, bool& missing);

// Why an object of type `mode` (st_mode) is no regular file ("is a symbolic
// link", "is a device", ...); empty for a regular file.
std::string whyNotRegular(mode_t mode);

// Hex MD5 of a regular file's content; empty when it cannot be read.
std::string fileMd5(std::string const& path);

// One entry of a local tree, relative to the tree's top.
struct LocalEntry {
    std::string rpath;
    bool isFolder = false;
    int64_t size = 0;
    // As the walk found them: what the stored index compares.
    int64_t mtimeNs = 0, ctimeNs = 0;
    mode_t mode = 0;
};

// Nanoseconds since the epoch of a stat time.
inline int64_t nanosOf(timespec const& t) { return int64_t{t.tv_sec} * 1000000000 + t.tv_nsec; }

// What a walk of a local tree found.
struct LocalTree {
    std::vector<LocalEntry> entries;  // folders and regular files, parents first, names sorted
    // Anything else (symbolic links, FIFOs, devices, sockets), with the
    // reason: the remote object of such a path is left as it is.
    std::vector<std::pair<std::string, std::string>> skipped;
    // Folders that could not be read, with the reason: their content is
    // unknown, which is not the same as empty.
    std::vector<std::pair<std::string, std::string>> unreadable;
    // Entries that cannot be examined or stored (a name gone meanwhile, a
    // remote path too long for the engine), with the reason in words: each
    // may be a regular file left out.
    std::vector<std::pair<std::string, std::string>> unknown;
};

// Walks the tree below `top`, past folders that cannot be read. False with
// `error` and `exitCode` set when `top` itself is not a readable folder
// (missing: folder not found; not a folder: usage).
bool listLocalTree(std::string const& top, LocalTree& tree, std::string& error, int& exitCode);

// True when `rpath` is `folder` or lies below it ("" holds everything).
bool isWithin(std::string const& rpath, std::string const& folder);

// Creates `path` and its missing parents; false with errno set on failure.
bool makeLocalFolders(std::string const& path);

}  // namespace gdhost
