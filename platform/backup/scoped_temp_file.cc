#include "backup/scoped_temp_file.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "backup/path.h"

namespace TAVO {
namespace Backup {

ScopedTempFile::ScopedTempFile(std::string const& target, bool hidden) {
    std::string dir = Path::dirname(target);
    std::string name = Path::basename(target);
    std::string pattern = Path::join(dir, (hidden ? "." : "") + name + ".tmp.XXXXXX");
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
