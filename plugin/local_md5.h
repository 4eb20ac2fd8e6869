// The MD5 of a local file, as Drive reports the MD5 of a stored one.
#pragma once

#include <string>

namespace TAVO {
namespace Backup {

// Lower-case hex MD5 of the whole file at `path`; false (and `hex` left
// alone) when it cannot be opened or read to the end.
bool localFileMd5(std::string const& path, std::string& hex);

}  // namespace Backup
}  // namespace TAVO
