// Local paths longer than the system takes (PATH_MAX, 4,096 bytes on Linux)
// are reached through their folder, opened step by step: "/proc/PID/fd/N/NAME"
// names the same file in a few dozen bytes, for this process and for the
// drive agent it starts, a child, which may follow its parent's descriptors.
#pragma once

#include <string>

namespace gdhost {

// `path` itself when the system takes it; else a short name of the same file
// through its folder, which is opened and kept open (the last few dozen
// such folders are). When the folder cannot be opened, `path` as it is: the
// caller's own call then fails with ENAMETOOLONG or the folder's error.
std::string reachable(std::string const& path);

// Creates `path` and its missing parents, however long; false with errno set.
bool makeFoldersAnyLength(std::string const& path);

}  // namespace gdhost
