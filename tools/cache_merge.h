// Putting together what several agents learned: each worker of a parallel
// command works on its own copy of the node cache file, and the copies are
// merged back into the destination's file when the workers are done.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace gdhost {

// A node cache file's records by object id, each as its line. Lines that do
// not parse or name no id are left out; a missing file gives an empty map.
std::map<std::string, std::string> readCacheLines(std::string const& path);

// Whether the node cache file at `path` may know an object named `name`: a
// plain search for the name as a record's, no parsing. False when the file
// cannot be read.
bool cacheMayKnowName(std::string const& path, std::string const& name);

// Copies the file `from` to `to`; true only when `to` then holds all of it.
// On any failure (a full disk, a short write) `to` is removed.
bool copyWholeFile(std::string const& from, std::string const& to);

// Three-way merge by object id: starts from `base`, what the workers started
// from, then takes every record a worker added or changed and drops every
// record a worker dropped (it proved the object gone or moved). A worker
// whose file is missing (it never flushed) counts as having learned nothing.
std::map<std::string, std::string> mergeCacheLines(
    std::map<std::string, std::string> const& base,
    std::vector<std::map<std::string, std::string>> const& workers);

// Writes `lines` (in id order, as the plug-in writes them) to `path` through
// a temporary file beside it, synced and renamed into place, so the file
// holds the old or the whole new content. False with `error` set on failure.
bool writeCacheLines(std::string const& path, std::map<std::string, std::string> const& lines,
                     std::string& error);

}  // namespace gdhost
