#include "partial_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>

#include "long_paths.h"

namespace gdhost {

bool isPartialDownloadName(std::string const& name) {
    static std::string const kMarker = ".tmp.";
    size_t const kRandom = 6;
    if (name.size() < 1 + 1 + kMarker.size() + kRandom || name[0] != '.') return false;
    size_t marker = name.size() - kRandom - kMarker.size();
    if (name.compare(marker, kMarker.size(), kMarker) != 0) return false;
    for (size_t i = name.size() - kRandom; i < name.size(); ++i) {
        if (!isalnum(static_cast<unsigned char>(name[i]))) return false;
    }
    return true;
}

int removeLeftoverDownloads(std::string const& folder) {
    int fd = open(reachable(folder).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return 0;
    // A live run holds the shared lock while it downloads here: then nothing
    // here can be told to be a leftover.
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        close(fd);
        return 0;
    }
    int removed = 0;
    int listFd = dup(fd);
    DIR* dir = listFd >= 0 ? fdopendir(listFd) : nullptr;
    if (!dir && listFd >= 0) close(listFd);
    while (dir) {
        struct dirent* entry = readdir(dir);
        if (!entry) break;
        struct stat st;
        if (!isPartialDownloadName(entry->d_name) ||
            fstatat(fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode) ||
            st.st_uid != geteuid()) {
            continue;
        }
        if (unlinkat(fd, entry->d_name, 0) == 0) ++removed;
    }
    if (dir) closedir(dir);
    close(fd);  // releases the lock
    return removed;
}

DownloadClaim::DownloadClaim(std::string const& folder) {
    _fd = open(reachable(folder).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    // Waits only while another run removes leftovers here.
    if (_fd >= 0) flock(_fd, LOCK_SH);
}

DownloadClaim::~DownloadClaim() {
    if (_fd >= 0) close(_fd);
}

}  // namespace gdhost
