// The stored index (stored_index.h) as one tree command uses it: copy and
// sync take unchanged files from it and record what they stored; restore and
// get take the modes and times it recorded.
#pragma once

#include <cstdint>
#include <string>

#include "backup/file_info.h"
#include "destination.h"
#include "local_files.h"
#include "stored_index.h"

namespace gdhost {

class TreeIndex {
  public:
    // The index of `destination` for the tree `localTop` stored at
    // `remoteTop`; with `vouch` false (--checksum) it never says a file is
    // unchanged, but still records.
    TreeIndex(Destination const& destination, std::string const& localTop,
              std::string const& remoteTop, bool vouch);

    // True when the index vouches that the local file of `entry` is stored
    // unchanged as `remote` (see StoredIndex::unchanged).
    bool vouches(LocalEntry const& entry, TAVO::Backup::FileInfo const& remote) const;
    // True when the local facts of `entry` are those recorded: its MD5 is
    // probably not needed, so it is not worth reading ahead.
    bool localMatch(LocalEntry const& entry) const;
    // Records that the local file of `entry` is stored with `md5`, the remote
    // file then modified at `remoteMtime`. A file changed in the last second
    // is left out: a change within the same clock tick would not show in its
    // times.
    void stored(LocalEntry const& entry, std::string const& md5, int64_t remoteMtime);

    // The entry of the remote file `rpath` (relative to the remote top) when
    // it records that very file (same size, MD5 and time), else null.
    StoredFile const* recordOf(std::string const& rpath,
                               TAVO::Backup::FileInfo const& remote) const;

    // Writes this run's index when it differs from the file or is older
    // than the node cache; a failure is warned about and costs only reads
    // later.
    void save() const;

  private:
    std::string key(std::string const& rpath) const;

    std::string _file, _nodeCache, _absTop, _remoteTop;
    StoredIndex _old, _next;
    bool _vouch = true;
    int64_t _freshNs = 0;
};

// Gives the restored file `local` the time of the remote file `remote`
// (to the nanosecond when `stored` records it, else to the second) and the
// mode `stored` recorded (its read, write and execute bits, an execute bit
// too), else that of a new file, under the umask either way. Stops at the
// first failure; false with errno set.
bool applyStoredMeta(std::string const& local, TAVO::Backup::FileInfo const& remote,
                     StoredFile const* stored);

}  // namespace gdhost
