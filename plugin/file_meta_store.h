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

#include "file_meta_store_tables.h"
#include "googledrive_meta.h"

namespace TAVO {
namespace Backup {
namespace GoogleDriveTA {
namespace internal {
struct RecordView;
}  // namespace internal

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
// logs except in load and save. Held in compact tables (under 100 bytes per
// object for a large cache): sorted rows for what was loaded or last merged,
// and for what changed since, records found by hash and an ordered map of
// index entries.
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
    size_t size() const { return _live_records; }

  private:
    class BulkLoader;
    using Record = internal::Record;
    using IndexEntry = internal::IndexEntry;
    using IndexOverlay = std::map<internal::IndexKey, internal::TextRef, internal::IndexOrder>;

    std::string_view text(internal::TextRef ref) const { return _text.view(ref); }
    template <class Visit>
    void forEachParent(Record const& record, Visit visit) const;
    template <class Visit>
    void forEachRecord(Visit visit) const;

    // The row or added record of `id`, dead or alive, or null.
    Record* slotOf(std::string_view id);
    Record const* liveRecord(std::string_view id) const;
    // The same for an index entry, erased or not.
    internal::TextRef* entryOf(uint32_t parent, std::string_view name,
                               IndexOverlay::iterator* hint = nullptr);
    internal::TextRef const* entryOf(uint32_t parent, std::string_view name) const;
    bool findById(std::string_view id, GoogleDrive::FileMeta& meta) const;
    bool sameRecord(Record const& record, internal::RecordView const& view) const;
    void setParents(Record& record, std::vector<std::string_view> const& parents);
    void dropParent(Record& record, uint32_t parent);
    bool insertView(internal::RecordView const& record);
    bool removeId(std::string_view id);
    bool removePlacement(std::string_view parentId, std::string_view name);
    void setIndex(uint32_t parent, internal::TextRef name, internal::TextRef id);
    void eraseIndex(uint32_t parent, std::string_view name);
    void eraseRecord(Record* record);
    void mergeWhenLarge();
    void merge();
    void indexParents();
    bool writeRecords(FILE* file);
    size_t lineCapacity(Record const& record) const;
    char* writeLine(char* out, Record const& record) const;

    std::string _path;
    bool _dirty;
    bool _loading;
    internal::TextArena _text;
    internal::ParentTable _parents;
    // Records sorted by id, as the file lists them, then the ones added since
    // the last merge. An id is in one of the two at most.
    std::vector<Record> _records;
    internal::AddedRecords _new_records;
    std::vector<uint32_t> _parent_lists;  // of records with several parents
    // Index entries sorted by (parent number, name), where the entries of
    // parent p start at _index_begin[p]; then the entries added since the
    // last merge. A key is in one of the two at most.
    std::vector<IndexEntry> _index;
    std::vector<uint32_t> _index_begin;
    IndexOverlay _new_index;
    size_t _live_records;
    size_t _live_entries;
    size_t _dead_rows;  // erased rows of _records and _index, and erased added records
};

template <class Visit>
inline void FileMetaStore::forEachParent(Record const& record, Visit visit) const {
    if (record.parentCount == 1) return visit(record.parents);
    for (uint32_t i = 0; i < record.parentCount; ++i) visit(_parent_lists[record.parents + i]);
}

template <class Visit>
inline void FileMetaStore::forEachRecord(Visit visit) const {
    std::vector<Record const*> const added = _new_records.sortedLive(_text);
    auto next = added.begin();
    for (Record const& record : _records) {
        if (record.dead) continue;
        std::string_view id = text(record.id);
        for (; next != added.end() && text((*next)->id) < id; ++next) visit(**next);
        visit(record);
    }
    for (; next != added.end(); ++next) visit(**next);
}

}  // namespace GoogleDriveTA
}  // namespace Backup
}  // namespace TAVO
