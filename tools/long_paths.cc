#include "long_paths.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <deque>
#include <mutex>
#include <utility>

namespace gdhost {

namespace {

constexpr size_t kLongest = PATH_MAX - 1;  // the terminating NUL counts
constexpr size_t kFoldersHeld = 32;

std::mutex gLock;
std::deque<std::pair<std::string, int>> gHeld;  // folder, descriptor; newest last

// A descriptor of `folder` reached one name at a time, or -1.
int openFolder(std::string const& folder) {
    int fd = open(folder[0] == '/' ? "/" : ".", O_PATH | O_DIRECTORY | O_CLOEXEC);
    for (size_t at = 0; fd >= 0 && at < folder.size();) {
        size_t end = folder.find('/', at);
        if (end == std::string::npos) end = folder.size();
        std::string const name = folder.substr(at, end - at);
        at = end + 1;
        if (name.empty()) continue;
        int next = openat(fd, name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        int saved = errno;
        close(fd);
        errno = saved;
        fd = next;
    }
    return fd;
}

}  // namespace

std::string reachable(std::string const& given) {
    if (given.size() <= kLongest) return given;
    std::string path = given;
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos || slash == 0) return given;
    std::string const folder = path.substr(0, slash);
    std::lock_guard<std::mutex> guard(gLock);
    int fd = -1;
    for (auto const& held : gHeld) {
        if (held.first == folder) fd = held.second;
    }
    if (fd < 0) {
        fd = openFolder(folder);
        if (fd < 0) return given;
        gHeld.emplace_back(folder, fd);
        if (gHeld.size() > kFoldersHeld) {
            close(gHeld.front().second);
            gHeld.pop_front();
        }
    }
    return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd) + path.substr(slash);
}

bool makeFoldersAnyLength(std::string const& path) {
    for (size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
        std::string const prefix = path.substr(0, end);
        struct stat st;
        if (!prefix.empty() && lstat(reachable(prefix).c_str(), &st) != 0) {
            if (errno != ENOENT || mkdir(reachable(prefix).c_str(), 0777) != 0) return false;
        }
        if (end == std::string::npos) return true;
    }
}

}  // namespace gdhost
