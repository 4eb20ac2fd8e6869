// Changing a few settings of the profile file in place, for commands that
// store what they learned (authorize stores the refresh token there).
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace gdhost {

// The key of a profile line "key = value", with dashes for underscores (as
// the options are named); empty for comments and lines without a key.
std::string profileKey(std::string const& line);

// Sets each key of `settings` in the profile file `path` (lines
// "key = value"; "refresh_token" and "refresh-token" name the same key):
// the first line of a key takes the new value, later lines of it go, a key
// the file lacks is appended, and every other line stays as it was. The file
// (and its folder) is created when missing. The new content replaces the old
// at once (a temporary file renamed over it) and is readable by its owner
// only (mode 0600). False with `error` set when it cannot be written.
bool setProfileKeys(std::string const& path,
                    std::vector<std::pair<std::string, std::string>> const& settings,
                    std::string& error);

}  // namespace gdhost
