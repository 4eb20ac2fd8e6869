// The private temporary folder of one run's worker processes (their node
// cache copies), TMPDIR/gdrive_host.XXXXXX. A run that is killed, or ended by
// SIGPIPE, cannot remove its own: each run holds a lock on the file "lock" in
// its folder for as long as it lives, and the next run removes the folders
// of this user whose lock is free.
#pragma once

#include <string>

namespace gdhost {

// Removes the dead runs' folders of this user, then makes a new folder and
// locks it. Returns its path and sets `lock` to the descriptor that holds the
// lock (close it once the folder is removed); empty with `error` set when no
// folder can be made.
std::string makeWorkFolder(int& lock, std::string& error);

}  // namespace gdhost
