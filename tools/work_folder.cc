#include "work_folder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>

namespace gdhost {

namespace fs = std::filesystem;

namespace {

char const kPrefix[] = "gdrive_host.";

// A lock file younger than this may belong to a run that made it and has
// not taken its lock yet.
time_t const kSettleSeconds = 10;

std::string temporaryRoot() {
    char const* tmp = getenv("TMPDIR");
    return tmp && *tmp ? tmp : "/tmp";
}

// Whether `folder` was left by a run of this user that is gone.
bool abandoned(std::string const& folder) {
    struct stat info {};
    if (lstat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != getuid())
        return false;
    int fd = open((folder + "/lock").c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return false;
    bool dead = fstat(fd, &info) == 0 && time(nullptr) - info.st_mtime >= kSettleSeconds &&
                flock(fd, LOCK_EX | LOCK_NB) == 0;
    close(fd);
    return dead;
}

}  // namespace

std::string makeWorkFolder(int& lock, std::string& error) {
    std::string const root = temporaryRoot();
    std::error_code failed;
    for (fs::directory_iterator it(root, failed), end; !failed && it != end; it.increment(failed)) {
        std::string const name = it->path().filename().string();
        if (name.rfind(kPrefix, 0) == 0 && abandoned(it->path().string()))
            fs::remove_all(it->path(), failed);
        failed.clear();
    }
    std::string folder = root + "/" + kPrefix + "XXXXXX";
    if (!mkdtemp(&folder[0])) {
        error = std::string("cannot make a folder for the workers: ") + strerror(errno);
        return "";
    }
    lock = open((folder + "/lock").c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (lock < 0 || flock(lock, LOCK_EX) != 0) {
        error = std::string("cannot lock the workers' folder: ") + strerror(errno);
        if (lock >= 0) close(lock);
        lock = -1;
        fs::remove_all(folder, failed);
        return "";
    }
    return folder;
}

}  // namespace gdhost
