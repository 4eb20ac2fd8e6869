// The local side of transfers: what may be read, absolute paths, checksums
// and folder trees.
#pragma once

#include <cstdint>
#include <string>
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

// Hex MD5 of a regular file's content; empty when it cannot be read.
std::string fileMd5(std::string const& path);

// One entry of a local tree, relative to the tree's top.
struct LocalEntry {
    std::string rpath;
    bool isFolder = false;
    int64_t size = 0;
};

// The folders and regular files below `top`, parents before children, names
// sorted. Anything else (symbolic links, FIFOs, devices, sockets) is left out
// and its relative path added to `skipped`. False with `error` set when `top`
// is not a readable folder.
bool listLocalTree(std::string const& top, std::vector<LocalEntry>& entries,
                   std::vector<std::string>& skipped, std::string& error);

// Creates `path` and its missing parents; false with errno set on failure.
bool makeLocalFolders(std::string const& path);

}  // namespace gdhost
