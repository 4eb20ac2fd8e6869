// The node cache in memory: records by id and the (parent id, name) index.
#include "file_meta_store.h"

#include <set>
#include <tuple>
#include <utility>
#include <vector>

#include "file_meta_store_format.h"

namespace TAVO {
namespace Backup {
namespace GoogleDriveTA {

using internal::IndexKey;
using internal::IndexKeyView;
using internal::PoolAllocator;
using internal::PoolString;
using internal::RecordView;

FileMetaRecord::FileMetaRecord() : isDir(true) {}

FileMetaRecord::FileMetaRecord(std::string const& parent, std::string const& name, bool isDir)
    : parents{parent}, name(name), isDir(isDir) {}

FileMetaRecord::FileMetaRecord(std::set<std::string> const& parents, std::string const& name,
                               bool isDir)
    : parents(parents), name(name), isDir(isDir) {}

int FileMetaRecord::compare(FileMetaRecord const& other) const {
    if (isDir != other.isDir) return isDir ? 1 : -1;
    int byName = name.compare(other.name);
    if (byName != 0) return byName;
    if (parents.size() != other.parents.size())
        return parents.size() > other.parents.size() ? 1 : -1;
    std::set<std::string> rest = other.parents;
    for (std::string const& parent : parents) {
        if (rest.erase(parent) == 0) return 1;
    }
    return rest.empty() ? 0 : -1;
}

FileMetaStore::FileMetaStore()
    : _dirty(false),
      _loading(false),
      _records(internal::StringLess(), PoolAllocator<RecordMap::value_type>(&_pool)),
      _index(internal::IndexLess(), PoolAllocator<IndexMap::value_type>(&_pool)) {}

FileMetaStore::~FileMetaStore() = default;

void FileMetaStore::clear() {
    if (!_records.empty() || !_index.empty()) _dirty = true;
    // The nodes go back to the pool one by one; the strings, which the maps do
    // not own, go with the pool's chunks.
    _index.clear();
    _records.clear();
    _pool.release();
}

bool FileMetaStore::find(std::string const& id, GoogleDrive::FileMeta& meta) const {
    auto it = _records.find(std::string_view(id));
    if (it == _records.end()) return false;
    // Built aside and moved in: `id` may be the caller's meta.id itself.
    GoogleDrive::FileMeta found;
    found.id = id;
    found.name = std::string(it->second.name.view());
    for (PoolString parent : it->second.parents)
        found.parents.emplace_hint(found.parents.end(), parent.view());
    found.isDir = it->second.isDir;
    meta = std::move(found);
    return true;
}

bool FileMetaStore::find(std::string const& parentId, std::string const& name,
                         GoogleDrive::FileMeta& meta) const {
    auto entry = _index.find(IndexKeyView{parentId, name});
    if (entry == _index.end()) return false;
    return find(std::string(entry->second.view()), meta);
}

bool FileMetaStore::insert(std::string const& id, FileMetaRecord const& record) {
    RecordView view;
    view.id = id;
    view.name = record.name;
    view.isDir = record.isDir;
    view.parents.assign(record.parents.begin(), record.parents.end());
    return insertView(view);
}

bool FileMetaStore::insert(GoogleDrive::FileMeta const& meta) {
    RecordView view;
    view.id = meta.id;
    view.name = meta.name;
    view.isDir = meta.isDir;
    view.parents.assign(meta.parents.begin(), meta.parents.end());
    return insertView(view);
}

namespace {

template <class Record>
bool sameRecord(Record const& stored, RecordView const& view) {
    if (stored.isDir != view.isDir || stored.name.view() != view.name) return false;
    if (stored.parents.size() != view.parents.size()) return false;
    auto wanted = view.parents.begin();
    for (PoolString parent : stored.parents) {
        if (parent.view() != *wanted++) return false;
    }
    return true;
}

}  // namespace

bool FileMetaStore::insertView(RecordView const& view) {
    // REQUIRES: view.parents ascending without repeats.
    auto it = _records.lower_bound(view.id);
    if (it != _records.end() && it->first.view() == view.id) {
        if (sameRecord(it->second, view)) return true;
        removeId(view.id);
        it = _records.lower_bound(view.id);
    }
    it = _records.emplace_hint(it, std::piecewise_construct,
                               std::forward_as_tuple(PoolString::make(_pool, view.id)),
                               std::forward_as_tuple(PoolAllocator<PoolString>(&_pool)));
    PooledRecord& record = it->second;
    record.name = PoolString::make(_pool, view.name);
    record.isDir = view.isDir;
    for (std::string_view parent : view.parents)
        record.parents.emplace_hint(record.parents.end(), PoolString::make(_pool, parent));

    // The object inserted last takes over a shared (parent, name).
    if (view.parents.empty()) setIndex(std::string_view(), view.name, view.id);
    for (std::string_view parent : view.parents) setIndex(parent, view.name, view.id);
    _dirty = true;
    return true;
}

void FileMetaStore::setIndex(std::string_view parentId, std::string_view name,
                             std::string_view id) {
    auto entry = _index.lower_bound(IndexKeyView{parentId, name});
    if (entry != _index.end() && entry->first.parent.view() == parentId &&
        entry->first.name.view() == name) {
        if (entry->second.view() != id) {
            PoolString old = entry->second;
            entry->second = PoolString::make(_pool, id);
            old.destroy(_pool);
        }
        return;
    }
    _index.emplace_hint(entry,
                        IndexKey{PoolString::make(_pool, parentId), PoolString::make(_pool, name)},
                        PoolString::make(_pool, id));
}

bool FileMetaStore::remove(std::string const& parentId, std::string const& name) {
    return removePlacement(parentId, name);
}

bool FileMetaStore::removePlacement(std::string_view parentId, std::string_view name) {
    auto entry = _index.find(IndexKeyView{parentId, name});
    if (entry == _index.end()) return true;
    auto it = _records.find(entry->second.view());
    // An entry under the empty parent id may name an object already removed
    // by id; it is then simply dropped.
    if (it != _records.end()) {
        ParentSet& parents = it->second.parents;
        auto parent = parents.find(parentId);
        if (parent != parents.end()) {
            PoolString text = *parent;
            parents.erase(parent);
            text.destroy(_pool);
        }
        if (parents.empty()) eraseRecord(it);
    }
    eraseIndex(entry);
    _dirty = true;
    return true;
}

bool FileMetaStore::remove(std::string const& id) { return removeId(id); }

bool FileMetaStore::removeId(std::string_view id) {
    auto it = _records.find(id);
    if (it == _records.end()) return true;
    // Erased whatever object the entries name by now. A record without
    // parents leaves its entry under the empty parent id in place.
    std::string_view name = it->second.name.view();
    for (PoolString parent : it->second.parents) {
        auto entry = _index.find(IndexKeyView{parent.view(), name});
        if (entry != _index.end()) eraseIndex(entry);
    }
    eraseRecord(it);
    _dirty = true;
    return true;
}

bool FileMetaStore::remove(GoogleDrive::FileMeta& meta) {
    if (!meta.id.empty()) return removeId(meta.id);
    if (meta.name.empty()) return false;
    if (meta.parents.empty()) return removePlacement(std::string_view(), meta.name);
    bool removed = true;
    for (std::string const& parent : meta.parents) {
        if (!removePlacement(parent, meta.name)) removed = false;
    }
    return removed;
}

bool FileMetaStore::removeTree(std::string const& id) {
    removeId(id);
    std::vector<std::string> folders{id};
    std::set<std::string> visited;
    while (!folders.empty()) {
        std::string folder = std::move(folders.back());
        folders.pop_back();
        if (!visited.insert(folder).second) continue;
        // Collected first: removing a placement erases its index entry.
        std::vector<std::pair<std::string, std::string>> children;
        for (auto entry = _index.lower_bound(IndexKeyView{folder, std::string_view()});
             entry != _index.end() && entry->first.parent.view() == folder; ++entry)
            children.emplace_back(entry->first.name.view(), entry->second.view());
        for (auto const& [name, child] : children) {
            bool known = _records.find(child) != _records.end();
            removePlacement(folder, name);
            if (known && _records.find(child) == _records.end()) folders.push_back(child);
        }
    }
    return true;
}

void FileMetaStore::eraseRecord(RecordMap::iterator it) {
    PoolString id = it->first;
    PoolString name = it->second.name;
    for (PoolString parent : it->second.parents) parent.destroy(_pool);
    _records.erase(it);
    id.destroy(_pool);
    name.destroy(_pool);
}

void FileMetaStore::eraseIndex(IndexMap::iterator it) {
    IndexKey key = it->first;
    PoolString id = it->second;
    _index.erase(it);
    key.parent.destroy(_pool);
    key.name.destroy(_pool);
    id.destroy(_pool);
}

}  // namespace GoogleDriveTA
}  // namespace Backup
}  // namespace TAVO
