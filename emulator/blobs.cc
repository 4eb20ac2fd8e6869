#include "blobs.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
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

// Removes the files in `folder` last changed before `before` (all with 0).
void removeFilesIn(std::string const& folder, time_t before) {
    DIR* dir = ::opendir(folder.c_str());
    if (!dir) return;
    while (dirent* entry = ::readdir(dir)) {
        std::string name = entry->d_name;
        if (name == "." || name == ".." || name == "tmp") continue;
        std::string path = folder + "/" + name;
        struct stat st;
        if (before != 0 && (::stat(path.c_str(), &st) != 0 || st.st_mtime >= before)) continue;
        ::unlink(path.c_str());
    }
    ::closedir(dir);
}

// A temporary blob untouched this long belongs to a transfer whose process
// died (an exit fault, a kill); live transfers write to theirs constantly.
constexpr time_t kAbandonedAfter = 24 * 60 * 60;

}  // namespace

Blobs::Blobs(std::string const& dataFolder) : _folder(dataFolder + "/blobs") {
    makeFolder(_folder);
    makeFolder(_folder + "/tmp");
    removeFilesIn(_folder + "/tmp", ::time(nullptr) - kAbandonedAfter);
}

std::string Blobs::path(std::string const& name) const { return _folder + "/" + name; }

void Blobs::discard(std::string const& name) const {
    if (!name.empty()) ::unlink(path(name).c_str());
}

void Blobs::wipe() const {
    removeFilesIn(_folder + "/tmp", 0);
    removeFilesIn(_folder, 0);
}

PendingBlob::PendingBlob(Blobs const& blobs) : _blobs(blobs) {
    for (int attempt = 0; _fd < 0; ++attempt) {
        _name = randomToken(24);
        _temp_path = _blobs._folder + "/tmp/" + _name;
        _fd = ::open(_temp_path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (_fd < 0 && (errno != EEXIST || attempt > 3)) fail("cannot create", _temp_path);
    }
}

PendingBlob::~PendingBlob() {
    if (_fd >= 0) ::close(_fd);
    if (!_owned) return;
    ::unlink(_published ? _blobs.path(_name).c_str() : _temp_path.c_str());
}

void PendingBlob::publish(bool durable) {
    if (durable && ::fsync(_fd) != 0) fail("cannot sync", _temp_path);
    ::close(_fd);
    _fd = -1;
    std::string target = _blobs.path(_name);
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

}  // namespace DriveEmulator
