// The node cache: what the plug-in knows of Drive objects (ids, names, parent
// folders, folder flags), kept in memory and in a file so that later runs
// resolve paths without asking the service.
#pragma once

#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "file_meta_store_pool.h"
#include "googledrive_meta.h"

namespace TAVO {
namespace Backup {
namespace GoogleDriveTA {
namespace internal {
struct RecordView;
}

// What the cache keeps of one object.
class FileMetaRecord {
  public:
    // An unplaced, nameless record. It counts as a folder.
    FileMetaRecord();
    FileMetaRecord(std::string const& parent, std::string const& name, bool isDir);
    FileMetaRecord(std::set<std::string> const& parents, std::string const& name, bool isDir);

    // Zero when both records have the same folder flag, name and parent set;
    // otherwise a sign that orders them (the folder first, then by name, then
    // by number and bytes of parents).
    int compare(FileMetaRecord const& other) const;

    std::set<std::string> parents;
    std::string name;
    bool isDir;
};

// Objects by id, and the lookup of an object by (parent id, name). Drive lets
// several objects share a name in one folder; the index then names the one
// inserted last, and the others are found by id only. Not thread-safe; never
// logs except in load and save.
class FileMetaStore {
  public:
    FileMetaStore();
    ~FileMetaStore();
    FileMetaStore(FileMetaStore const&) = delete;
    FileMetaStore& operator=(FileMetaStore const&) = delete;

    // Forgets every record and index entry; the store is dirty afterwards if
    // it held anything. The path of the last load is kept.
    void clear();

    // On a hit, resets `meta` and fills its id, name, parents and folder flag
    // (size, time, checksum and trash state stay empty) and returns true. On a
    // miss returns false and leaves `meta` untouched.
    bool find(std::string const& id, GoogleDrive::FileMeta& meta) const;
    // The same for the object that the index names for (parentId, name); an
    // object without parents is indexed under the empty parent id.
    bool find(std::string const& parentId, std::string const& name,
              GoogleDrive::FileMeta& meta) const;

    // Stores `record` under `id`, replacing a different record of that id, and
    // points (parent, name) at `id` for each of its parents (the empty parent
    // id when it has none), overwriting entries for other objects. An equal
    // record is left alone and does not make the store dirty. Returns true.
    bool insert(std::string const& id, FileMetaRecord const& record);
    // insert() of the id, parents, name and folder flag of `meta`; the empty id
    // is stored as it is.
    bool insert(GoogleDrive::FileMeta const& meta);

    // Detaches the object indexed at (parentId, name) from that parent and
    // forgets it when no parent is left. Returns true, also when nothing is
    // indexed there.
    bool remove(std::string const& parentId, std::string const& name);
    // Forgets the object and erases the index entry (parent, its name) for each
    // of its parents, whatever object that entry names by then. An entry under
    // the empty parent id is not erased. Returns true, also for an unknown id.
    bool remove(std::string const& id);
    // remove(id) when `meta` has an id; otherwise remove(parent, name) for each
    // of its parents, or for the empty parent id when it has none. Returns
    // false when it has neither id nor name, or when a removal failed. `meta`
    // is not modified.
    bool remove(GoogleDrive::FileMeta& meta);
    // Forgets the object as remove(id) does, then detaches every placement
    // below it that the index knows: each entry (id, name) is removed as
    // remove(id, name) does, so a child that has another parent survives
    // there, and the children of a child whose record goes are detached in
    // turn, to any depth (a cycle is walked once). The store is dirty when
    // anything changed. Returns true.
    bool removeTree(std::string const& id);

    // Replaces the content by that of the cache file at `path`, one JSON
    // object per line; lines that do not parse or whose members have the
    // wrong JSON types are skipped, and a read error ends the file there
    // (logged). A missing file gives an empty store. Afterwards the store is
    // clean and remembers `path` for save(""). Returns false, the store
    // untouched, when root privileges or the open fail (other than a missing
    // file). Only memory exhaustion throws, leaving the lines read before.
    bool load(std::string const& path);
    // When dirty, writes every record to a temporary file beside `path` (the
    // path of the last load when empty) with root privileges, checks every
    // write, syncs it, renames it into place (replacing an empty folder
    // there too) and syncs the folder; the store is clean afterwards. A clean
    // store writes nothing. Returns false on any failure, logged, leaving the
    // old file, no temporary file, and the store dirty.
    bool save(std::string const& path);
    // Writes the records, as in the file, and the index to `stream`, for
    // debugging. Returns true.
    bool dump(FILE* stream) const;

    // True when the content differs from what was last loaded or saved.
    bool isDirty() const { return _dirty; }
    // The path of the last load (or of the missing file it found).
    std::string const& getPath() const { return _path; }
    // Number of records.
    size_t size() const { return _records.size(); }

  private:
    class BulkLoader;

    using PoolString = internal::PoolString;
    using ParentSet =
        std::set<PoolString, internal::StringLess, internal::PoolAllocator<PoolString>>;
    // FileMetaRecord's content, in the store's own memory.
    struct PooledRecord {
        explicit PooledRecord(internal::PoolAllocator<PoolString> const& alloc) : parents(alloc) {}
        ParentSet parents;
        PoolString name;
        bool isDir = true;
    };
    using RecordMap = std::map<PoolString, PooledRecord, internal::StringLess,
                               internal::PoolAllocator<std::pair<PoolString const, PooledRecord>>>;
    using IndexMap =
        std::map<internal::IndexKey, PoolString, internal::IndexLess,
                 internal::PoolAllocator<std::pair<internal::IndexKey const, PoolString>>>;

    bool insertView(internal::RecordView const& record);
    bool removeId(std::string_view id);
    bool removePlacement(std::string_view parentId, std::string_view name);
    void setIndex(std::string_view parentId, std::string_view name, std::string_view id);
    void eraseRecord(RecordMap::iterator it);
    void eraseIndex(IndexMap::iterator it);
    bool writeRecords(FILE* file);
    static size_t lineCapacity(RecordMap::value_type const& entry);
    static char* writeLine(char* out, RecordMap::value_type const& entry);

    // Holds every node and string of the maps below, so it is declared first
    // and outlives them.
    internal::StorePool _pool;

    std::string _path;
    bool _dirty;
    bool _loading;
    RecordMap _records;
    IndexMap _index;
};

}  // namespace GoogleDriveTA
}  // namespace Backup
}  // namespace TAVO
