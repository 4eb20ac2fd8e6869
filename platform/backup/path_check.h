// The engine's validators for paths handed to a transfer agent. Common rules:
// no NUL byte, no "." or ".." component, no component over 255 bytes, at most
// 4095 bytes in all.
#pragma once

#include <string>

namespace TAVO {
namespace Backup {

// A path relative to the backup target naming a file or folder: not absolute,
// common rules. With `allowTop` the top of the target itself ("", "/", "./"
// and all-slash paths) is accepted too; without it such a path is refused.
bool isValidRelativePath(std::string const& path, bool allowTop);

// A relative path that names a file: a valid relative path, not the top, not
// ending in "/". With `allowLeadingSlash` one leading "/" is tolerated.
bool isValidFileRelativePath(std::string const& path, bool allowLeadingSlash);

// A local file path: non-empty, common rules, not ending in "/". With
// `mustBeAbsolute` a relative path is refused.
bool isValidFileLocalPath(std::string const& path, bool mustBeAbsolute);

}  // namespace Backup
}  // namespace TAVO
