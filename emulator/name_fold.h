// Case folding of object names, for the case-insensitive `name = '...'`
// comparisons that Drive makes.
#pragma once

#include <string>

namespace DriveEmulator {

// `name` with every letter lower-cased (Unicode-aware for valid UTF-8; bytes
// that are not valid UTF-8 are kept as they are).
std::string foldName(std::string const& name);

}  // namespace DriveEmulator
