#include "blobs.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "drive_types.h"
#include "ids.h"

namespace DriveEmulator {

namespace {

[[noreturn]] void fail(std::string const& what, std::string const& path) {
    throw Error(500, "Internal Error (" + what + " " + path + ": " + std::strerror(errno) + ")");
}

void makeFolder(std::string const& path) {
    if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) fail("cannot create", path);
}

// Removes the files in `folder` for which `stale(name, path)` holds.
template <typename Predicate>
void removeFilesIn(std::string const& folder, Predicate stale) {
    DIR* dir = ::opendir(folder.c_str());
    if (!dir) return;
    while (dirent* entry = ::readdir(dir)) {
        std::string name = entry->d_name;
        if (name == "." || name == ".." || name == "tmp") continue;
        std::string path = folder + "/" + name;
        if (stale(name, path)) ::unlink(path.c_str());
    }
    ::closedir(dir);
}

bool everything(std::string const&, std::string const&) { return true; }

// A pending blob without a writer's pid in its name (an older layout) is
// taken as abandoned once it has not been touched for this long.
constexpr time_t kAbandonedAfter = 24 * 60 * 60;

// True when the pending blob `name` belongs to no live process.
bool abandoned(std::string const& name, std::string const& path) {
    size_t dash = name.find('-');
    char* end = nullptr;
    long pid = dash == std::string::npos ? 0 : std::strtol(name.c_str(), &end, 10);
    if (pid > 0 && end == name.c_str() + dash) {
        return ::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH;
    }
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && st.st_mtime < ::time(nullptr) - kAbandonedAfter;
}

// The pending blob this process is writing, for the termination handler:
// plain storage, as a signal handler may only read it.
char pendingPath[PATH_MAX];

// The first byte is written last, so that the handler never sees half a path.
void setPendingPath(std::string const& path) {
    pendingPath[0] = '\0';
    if (path.empty() || path.size() >= sizeof pendingPath) return;
    std::memcpy(pendingPath + 1, path.c_str() + 1, path.size());  // the rest and its NUL
    std::atomic_signal_fence(std::memory_order_seq_cst);
    pendingPath[0] = path[0];
}

extern "C" void onTermination(int signal) {
    if (pendingPath[0] != '\0') ::unlink(pendingPath);
    ::_exit(128 + signal);
}

}  // namespace

Blobs::Blobs(std::string const& dataFolder) : _folder(dataFolder + "/blobs") {
    makeFolder(_folder);
    makeFolder(_folder + "/tmp");
    removeFilesIn(_folder + "/tmp", abandoned);
}

std::string Blobs::path(std::string const& name) const { return _folder + "/" + name; }

void Blobs::discard(std::string const& name) const {
    if (!name.empty()) ::unlink(path(name).c_str());
}

void Blobs::wipe() const {
    removeFilesIn(_folder + "/tmp", everything);
    removeFilesIn(_folder, everything);
}

PendingBlob::PendingBlob(Blobs const& blobs) : _blobs(blobs) {
    for (int attempt = 0; _fd < 0; ++attempt) {
        _name = std::to_string(::getpid()) + "-" + randomToken(24);
        _temp_path = _blobs._folder + "/tmp/" + _name;
        // Known to the termination handler before it exists: a signal
        // between the two would leave it behind.
        setPendingPath(_temp_path);
        _fd = ::open(_temp_path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (_fd < 0) setPendingPath("");  // another's name, or none made
        if (_fd < 0 && (errno != EEXIST || attempt > 3)) fail("cannot create", _temp_path);
    }
}

PendingBlob::~PendingBlob() {
    if (_fd >= 0) ::close(_fd);
    if (!_published) setPendingPath("");
    if (!_owned) return;
    ::unlink(_published ? _blobs.path(_name).c_str() : _temp_path.c_str());
}

void PendingBlob::publish(bool durable) {
    if (durable && ::fsync(_fd) != 0) fail("cannot sync", _temp_path);
    ::close(_fd);
    _fd = -1;
    std::string target = _blobs.path(_name);
    // From here on the file may be adopted by a commit: a termination must
    // not remove it (at worst an unreferenced published blob is left).
    setPendingPath("");
    if (::rename(_temp_path.c_str(), target.c_str()) != 0) fail("cannot publish", target);
    _published = true;
    if (durable) {
        int dir = ::open(_blobs.folder().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (dir >= 0) {
            ::fsync(dir);
            ::close(dir);
        }
    }
}

void removePendingBlobOnTermination() {
    struct sigaction action {};
    action.sa_handler = onTermination;
    sigemptyset(&action.sa_mask);
    for (int signal : {SIGTERM, SIGINT, SIGHUP}) ::sigaction(signal, &action, nullptr);
}

}  // namespace DriveEmulator
