// Replacing a small file of the tool's own (a merged node cache, the stored
// index) so that it survives a crash and a power cut whole or not at all.
#pragma once

#include <string>

namespace gdhost {

// Writes `text` to `path` through a hidden temporary file beside it (the
// platform's ScopedTempFile), syncs it, renames it into place and syncs the
// folder. A reader sees the old file or the complete new one, mode 0600. False
// with `error` set on failure; the old file is then untouched and the
// temporary file removed.
bool replaceFileDurably(std::string const& path, std::string const& text, std::string& error);

}  // namespace gdhost
