#include "durable_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "backup/path.h"
#include "backup/scoped_temp_file.h"

namespace gdhost {

bool replaceFileDurably(std::string const& path, std::string const& text, std::string& error) {
    TAVO::Backup::ScopedTempFile temp(path, true);
    if (!temp.isValid()) {
        error = "cannot create a file beside " + path + ": " + strerror(errno);
        return false;
    }
    int fd = open(temp.getPath().c_str(), O_WRONLY | O_CLOEXEC);
    bool ok = fd >= 0;
    size_t done = 0;
    while (ok && done < text.size()) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        ok = n > 0;
        if (ok) done += static_cast<size_t>(n);
    }
    ok = ok && fsync(fd) == 0;
    if (fd >= 0) ok = close(fd) == 0 && ok;
    // Nothing goes into place that is not whole on disk; the temporary file
    // goes with `temp` otherwise.
    if (!ok || !temp.rename(path)) {
        error = "cannot write " + path + ": " + strerror(errno);
        return false;
    }
    // The new name survives a power cut only once its folder is synced.
    int folder =
        open(TAVO::Backup::Path::dirname(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder >= 0) {
        fsync(folder);
        close(folder);
    }
    return true;
}

}  // namespace gdhost
