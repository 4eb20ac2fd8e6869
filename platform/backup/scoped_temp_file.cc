#include "backup/scoped_temp_file.h"

#include <limits.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "backup/path.h"

namespace TAVO {
namespace Backup {
namespace {
char const kSuffix[] = ".tmp.XXXXXX";

// The temporary file's own name: the target's name with a dot in front (when
// `hidden`) and the suffix behind, the target's name cut short where the whole
// would pass the file system's limit on one name, at a character boundary, so
// that any name the folder takes can be written through a temporary file.
std::string tempName(std::string const& name, bool hidden) {
    std::string const prefix = hidden ? "." : "";
    size_t const room = NAME_MAX - prefix.size() - (sizeof kSuffix - 1);
    size_t keep = name.size();
    if (keep > room) {
        keep = room;
        // Do not end inside a UTF-8 sequence: back off its continuation bytes
        // and its lead byte.
        while (keep > 0 && (static_cast<unsigned char>(name[keep]) & 0xC0) == 0x80) --keep;
    }
    return prefix + name.substr(0, keep) + kSuffix;
}
}  // namespace

ScopedTempFile::ScopedTempFile(std::string const& target, bool hidden) {
    std::string dir = Path::dirname(target);
    std::string name = Path::basename(target);
    std::string pattern = Path::join(dir, tempName(name, hidden));
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    // mkstemp creates the file with mode 0600 and O_EXCL: no one else's file is reused.
    int fd = mkstemp(buf.data());
    if (fd < 0) return;
    ::close(fd);
    _path.assign(buf.data());
}

ScopedTempFile::~ScopedTempFile() {
    if (_path.empty()) return;
    int saved = errno;
    ::unlink(_path.c_str());
    errno = saved;
}

bool ScopedTempFile::rename(std::string const& target) {
    if (_path.empty()) {
        errno = ENOENT;
        return false;
    }
    if (::rename(_path.c_str(), target.c_str()) != 0) return false;
    _path.clear();
    return true;
}

}  // namespace Backup
}  // namespace TAVO
