#include "tree_index.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>
#include <ctime>

#include "long_paths.h"
#include "remote_tree.h"
#include "tree_files.h"

namespace gdhost {

TreeIndex::TreeIndex(Destination const& destination, std::string const& localTop,
                     std::string const& remoteTop, bool vouch)
    : _nodeCache(nodeCacheFile(destination)),
      _absTop(absoluteLocalPath(localTop)),
      _remoteTop(remoteTop),
      _vouch(vouch) {
    _file = StoredIndex::fileFor(_nodeCache);
    _old.load(_file, _nodeCache);
    _next = _old.outside(_remoteTop);
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    _freshNs = nanosOf(now) - 1000000000;
}

std::string TreeIndex::key(std::string const& rpath) const { return joinPath(_remoteTop, rpath); }

bool TreeIndex::vouches(LocalEntry const& entry, TAVO::Backup::FileInfo const& remote) const {
    return _vouch && _old.unchanged(key(entry.rpath), _absTop + "/" + entry.rpath, entry, remote);
}

bool TreeIndex::localMatch(LocalEntry const& entry) const {
    StoredFile const* f = _vouch ? _old.find(key(entry.rpath)) : nullptr;
    return f && f->local == _absTop + "/" + entry.rpath && f->size == entry.size &&
           f->mtimeNs == entry.mtimeNs && f->ctimeNs == entry.ctimeNs;
}

void TreeIndex::stored(LocalEntry const& entry, std::string const& md5, int64_t remoteMtime) {
    if (entry.isFolder || md5.empty() || entry.mtimeNs >= _freshNs || entry.ctimeNs >= _freshNs)
        return;
    StoredFile f;
    f.local = _absTop + "/" + entry.rpath;
    f.size = entry.size;
    f.mtimeNs = entry.mtimeNs;
    f.ctimeNs = entry.ctimeNs;
    f.mode = entry.mode;
    f.md5 = md5;
    f.remoteMtime = remoteMtime;
    _next.record(key(entry.rpath), std::move(f));
}

StoredFile const* TreeIndex::recordOf(std::string const& rpath,
                                      TAVO::Backup::FileInfo const& remote) const {
    StoredFile const* f = _old.find(key(rpath));
    bool same = f && !remote.isDirType() && remote.getSize() == f->size &&
                remote.getChecksum() == f->md5 && remote.getMtime() == f->remoteMtime;
    return same ? f : nullptr;
}

void TreeIndex::save() const {
    if (_next == _old && StoredIndex::notOlder(_file, _nodeCache)) return;
    std::string error;
    if (!_next.save(_file, error))
        fprintf(stderr, "gdrive_host: stored index not updated: %s\n", error.c_str());
}

bool applyStoredMeta(std::string const& local, TAVO::Backup::FileInfo const& remote,
                     StoredFile const* stored) {
    timespec times[2];
    times[0].tv_sec = 0;
    times[0].tv_nsec = UTIME_OMIT;
    if (stored && stored->mtimeNs / 1000000000 == remote.getMtime()) {
        times[1].tv_sec = stored->mtimeNs / 1000000000;
        times[1].tv_nsec = stored->mtimeNs % 1000000000;
    } else {
        times[1].tv_sec = remote.getMtime();
        times[1].tv_nsec = 0;
    }
    mode_t const mode = stored ? underUmask(stored->mode) : newFileMode();
    std::string const path = reachable(local);
    return chmod(path.c_str(), mode) == 0 && utimensat(AT_FDCWD, path.c_str(), times, 0) == 0;
}

}  // namespace gdhost
