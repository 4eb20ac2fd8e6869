// What the tool stored for each file, kept beside the node cache, so that a
// later copy knows an unchanged file by its metadata alone instead of reading
// it. An entry is only a shortcut: it is trusted for a file only when every
// recorded fact still holds, and the whole index is set aside when it may be
// out of step with the node cache it sits beside.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>

#include "backup/file_info.h"
#include "local_files.h"

namespace gdhost {

// One file as it was stored: the local file's path and metadata, its MD5
// and the remote file's modification time that the store left.
struct StoredFile {
    std::string local;  // absolute path of the local file
    int64_t size = 0;
    int64_t mtimeNs = 0, ctimeNs = 0;
    mode_t mode = 0;
    std::string md5;
    int64_t remoteMtime = 0;  // seconds, as listings report it
    bool operator==(StoredFile const& o) const {
        return local == o.local && size == o.size && mtimeNs == o.mtimeNs && ctimeNs == o.ctimeNs &&
               mode == o.mode && md5 == o.md5 && remoteMtime == o.remoteMtime;
    }
};

class StoredIndex {
  public:
    // The index file that goes with the node cache file `nodeCache`.
    static std::string fileFor(std::string const& nodeCache);

    // Reads `path`. The index is empty (and false returned) when the file is
    // missing, cut short or unreadable in any line, when `nodeCache` is
    // missing, or when the index is older than `nodeCache`: the cache was
    // written (or dropped and made anew) after it, by a run that did not
    // keep the index in step.
    bool load(std::string const& path, std::string const& nodeCache);
    // True when both files exist and `path` is not older than `nodeCache`.
    static bool notOlder(std::string const& path, std::string const& nodeCache);

    // The entry for the remote path `remote` (relative to the target), or null.
    StoredFile const* find(std::string const& remote) const;

    // True when the local file `local` (as the walk found it in `entry`) is
    // the one stored at `remote` and the remote file is still what the store
    // left: path, size, both times and the remote file's size, MD5 and time
    // all as recorded.
    bool unchanged(std::string const& remote, std::string const& local, LocalEntry const& entry,
                   TAVO::Backup::FileInfo const& remoteFile) const;

    // Records `file` as stored at `remote`.
    void record(std::string const& remote, StoredFile file) { _files[remote] = std::move(file); }
    // What is known outside the remote folder `top` ("" for all): only that
    // is copied, not the tree a run is about to record anew.
    StoredIndex outside(std::string const& top) const;

    // Writes the index to `path` durably (see replaceFileDurably). False with
    // `error` set on failure, the old file then left as it was.
    bool save(std::string const& path, std::string& error) const;

    size_t size() const { return _files.size(); }
    bool operator==(StoredIndex const& o) const { return _files == o._files; }

  private:
    std::map<std::string, StoredFile> _files;
};

}  // namespace gdhost
