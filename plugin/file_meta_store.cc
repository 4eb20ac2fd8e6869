// The node cache in memory: records by id and the (parent id, name) index.
#include "file_meta_store.h"

#include <algorithm>
#include <set>
#include <utility>
#include <vector>

#include "file_meta_store_format.h"

namespace TAVO {
namespace Backup {
namespace GoogleDriveTA {

using internal::IndexKey;
using internal::IndexProbe;
using internal::kNoText;
using internal::RecordView;
using internal::TextRef;

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

namespace {
// The overlay is merged into the sorted rows once it holds this many rows,
// or half as many as the sorted rows, whichever is more: each merge costs a
// pass over the rows, so a store that only grows merges about as often as a
// vector grows. Added records are found by hash, so a large overlay costs no
// lookup time; only its index entries sit in an ordered map.
size_t const kMinMerge = 1024;
}  // namespace

FileMetaStore::FileMetaStore()
    : _dirty(false),
      _loading(false),
      _new_index(internal::IndexOrder{&_text}),
      _live_records(0),
      _live_entries(0),
      _dead_rows(0) {}

FileMetaStore::~FileMetaStore() = default;

void FileMetaStore::clear() {
    if (_live_records != 0 || _live_entries != 0) _dirty = true;
    _new_records.clear();
    _new_index.clear();
    std::vector<Record>().swap(_records);
    std::vector<IndexEntry>().swap(_index);
    std::vector<uint32_t>().swap(_index_begin);
    std::vector<uint32_t>().swap(_parent_lists);
    _parents.clear();
    _text.clear();
    _live_records = _live_entries = _dead_rows = 0;
}

FileMetaStore::Record* FileMetaStore::slotOf(std::string_view id) {
    uint64_t const prefix = internal::orderPrefix(id);
    auto it =
        std::lower_bound(_records.begin(), _records.end(), id,
                         [this, prefix](Record const& r, std::string_view key) {
                             return r.idPrefix != prefix ? r.idPrefix < prefix : text(r.id) < key;
                         });
    if (it != _records.end() && it->idPrefix == prefix && text(it->id) == id) return &*it;
    return _new_records.find(id, _text);
}

FileMetaStore::Record const* FileMetaStore::liveRecord(std::string_view id) const {
    Record const* record = const_cast<FileMetaStore*>(this)->slotOf(id);
    return record && !record->dead ? record : nullptr;
}

TextRef* FileMetaStore::entryOf(uint32_t parent, std::string_view name,
                                IndexOverlay::iterator* hint) {
    if (parent + 1 < _index_begin.size()) {
        auto end = _index.begin() + _index_begin[parent + 1];
        auto it = std::lower_bound(
            _index.begin() + _index_begin[parent], end, name,
            [this](IndexEntry const& e, std::string_view key) { return text(e.name) < key; });
        if (it != end && text(it->name) == name) return &it->id;
    }
    auto added = _new_index.lower_bound(IndexProbe{parent, name});
    if (hint) *hint = added;
    bool found = added != _new_index.end() && added->first.parent == parent &&
                 text(added->first.name) == name;
    return found ? &added->second : nullptr;
}

TextRef const* FileMetaStore::entryOf(uint32_t parent, std::string_view name) const {
    return const_cast<FileMetaStore*>(this)->entryOf(parent, name);
}

bool FileMetaStore::find(std::string const& id, GoogleDrive::FileMeta& meta) const {
    return findById(id, meta);
}

bool FileMetaStore::findById(std::string_view id, GoogleDrive::FileMeta& meta) const {
    Record const* record = liveRecord(id);
    if (!record) return false;
    // Built aside and moved in: `id` may be the caller's meta.id itself.
    GoogleDrive::FileMeta found;
    found.id = std::string(id);
    found.name = std::string(text(record->name));
    forEachParent(*record, [&](uint32_t parent) {
        found.parents.emplace_hint(found.parents.end(), text(_parents.textOf(parent)));
    });
    found.isDir = record->isDir;
    meta = std::move(found);
    return true;
}

bool FileMetaStore::find(std::string const& parentId, std::string const& name,
                         GoogleDrive::FileMeta& meta) const {
    uint32_t parent;
    if (!_parents.find(parentId, _text, parent)) return false;
    TextRef const* id = entryOf(parent, name);
    return id && *id != kNoText && findById(text(*id), meta);
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

bool FileMetaStore::sameRecord(Record const& record, RecordView const& view) const {
    if (bool(record.isDir) != view.isDir || text(record.name) != view.name) return false;
    if (record.parentCount != view.parents.size()) return false;
    auto wanted = view.parents.begin();
    bool same = true;
    forEachParent(record, [&](uint32_t parent) {
        same = same && text(_parents.textOf(parent)) == *wanted++;
    });
    return same;
}

void FileMetaStore::setParents(Record& record, std::vector<std::string_view> const& parents) {
    record.parentCount = static_cast<uint32_t>(parents.size());
    if (parents.size() == 1) {
        record.parents = _parents.intern(parents[0], _text);
        return;
    }
    record.parents = static_cast<uint32_t>(_parent_lists.size());
    for (std::string_view parent : parents) _parent_lists.push_back(_parents.intern(parent, _text));
}

void FileMetaStore::dropParent(Record& record, uint32_t parent) {
    if (record.parentCount == 1) {
        if (record.parents == parent) record.parentCount = 0;
        return;
    }
    uint32_t* first = _parent_lists.data() + record.parents;
    uint32_t* last = first + record.parentCount;
    uint32_t* found = std::find(first, last, parent);
    if (found == last) return;
    std::copy(found + 1, last, found);
    if (--record.parentCount == 1) record.parents = *first;
}

bool FileMetaStore::insertView(RecordView const& view) {
    // REQUIRES: view.parents ascending without repeats.
    Record* slot = slotOf(view.id);
    if (slot && !slot->dead) {
        if (sameRecord(*slot, view)) return true;
        removeId(view.id);
        slot = slotOf(view.id);
    }
    Record record{};
    record.id = slot ? slot->id : _text.add(view.id);
    record.idPrefix = internal::orderPrefix(text(record.id));
    record.name = _text.add(view.name);
    record.isDir = view.isDir;
    setParents(record, view.parents);
    if (slot) {
        *slot = record;
        --_dead_rows;
    } else {
        _new_records.add(record, text(record.id), _text);
    }
    ++_live_records;

    // The object inserted last takes over a shared (parent, name).
    if (view.parents.empty())
        setIndex(_parents.intern(std::string_view(), _text), record.name, record.id);
    forEachParent(record, [&](uint32_t parent) { setIndex(parent, record.name, record.id); });
    _dirty = true;
    mergeWhenLarge();
    return true;
}

void FileMetaStore::setIndex(uint32_t parent, TextRef name, TextRef id) {
    IndexOverlay::iterator hint;
    TextRef* entry = entryOf(parent, text(name), &hint);
    if (!entry) {
        _new_index.emplace_hint(hint, IndexKey{parent, name}, id);
    } else if (*entry == kNoText) {
        *entry = id;
        --_dead_rows;
    } else {
        *entry = id;
        return;
    }
    ++_live_entries;
}

void FileMetaStore::eraseIndex(uint32_t parent, std::string_view name) {
    TextRef* entry = entryOf(parent, name);
    if (!entry || *entry == kNoText) return;
    auto added = _new_index.find(IndexProbe{parent, name});
    if (added != _new_index.end()) {
        _new_index.erase(added);
    } else {
        *entry = kNoText;
        ++_dead_rows;
    }
    --_live_entries;
}

void FileMetaStore::eraseRecord(Record* record) {
    // Rows and added records alike wait, marked, for the next merge.
    --_live_records;
    record->dead = 1;
    ++_dead_rows;
}

bool FileMetaStore::remove(std::string const& parentId, std::string const& name) {
    return removePlacement(parentId, name);
}

bool FileMetaStore::removePlacement(std::string_view parentId, std::string_view name) {
    uint32_t parent;
    if (!_parents.find(parentId, _text, parent)) return true;
    TextRef const* entry = entryOf(parent, name);
    if (!entry || *entry == kNoText) return true;
    // An entry under the empty parent id may name an object already removed
    // by id; it is then simply dropped.
    Record* record = slotOf(text(*entry));
    if (record && !record->dead) {
        dropParent(*record, parent);
        if (record->parentCount == 0) eraseRecord(record);
    }
    eraseIndex(parent, name);
    _dirty = true;
    return true;
}

bool FileMetaStore::remove(std::string const& id) { return removeId(id); }

bool FileMetaStore::removeId(std::string_view id) {
    Record* record = slotOf(id);
    if (!record || record->dead) return true;
    // Erased whatever object the entries name by now. A record without
    // parents leaves its entry under the empty parent id in place.
    std::string_view name = text(record->name);
    forEachParent(*record, [&](uint32_t parent) { eraseIndex(parent, name); });
    eraseRecord(record);
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
        uint32_t parent;
        if (!visited.insert(folder).second || !_parents.find(folder, _text, parent)) continue;
        // Collected first: removing a placement erases its index entry.
        std::vector<std::pair<std::string, std::string>> children;
        if (parent + 1 < _index_begin.size()) {
            for (uint32_t i = _index_begin[parent]; i < _index_begin[parent + 1]; ++i)
                if (_index[i].id != kNoText)
                    children.emplace_back(text(_index[i].name), text(_index[i].id));
        }
        for (auto it = _new_index.lower_bound(IndexProbe{parent, std::string_view()});
             it != _new_index.end() && it->first.parent == parent; ++it)
            children.emplace_back(text(it->first.name), text(it->second));
        for (auto const& [name, child] : children) {
            bool known = liveRecord(child) != nullptr;
            removePlacement(folder, name);
            if (known && !liveRecord(child)) folders.push_back(child);
        }
    }
    return true;
}

void FileMetaStore::mergeWhenLarge() {
    if (_loading) return;
    size_t pending = _new_records.size() + _new_index.size() + _dead_rows;
    if (pending >= std::max(kMinMerge, (_records.size() + _index.size()) / 2)) merge();
}

void FileMetaStore::merge() {
    if (_new_records.size() == 0 && _new_index.empty() && _dead_rows == 0) return;
    std::vector<Record> records;
    records.reserve(_live_records);
    std::vector<uint32_t> lists;
    forEachRecord([&](Record const& record) {
        records.push_back(record);
        if (record.parentCount < 2) return;
        records.back().parents = static_cast<uint32_t>(lists.size());
        forEachParent(record, [&](uint32_t parent) { lists.push_back(parent); });
    });

    std::vector<IndexEntry> index;
    index.reserve(_live_entries);
    internal::IndexOrder order{&_text};
    auto added = _new_index.begin();
    for (IndexEntry const& entry : _index) {
        if (entry.id == kNoText) continue;
        IndexKey key{entry.parent, entry.name};
        for (; added != _new_index.end() && order(added->first, key); ++added)
            index.push_back({added->first.parent, added->first.name, added->second});
        index.push_back(entry);
    }
    for (; added != _new_index.end(); ++added)
        index.push_back({added->first.parent, added->first.name, added->second});

    _records.swap(records);
    _parent_lists.swap(lists);
    _index.swap(index);
    _new_records.clear();
    _new_index.clear();
    _dead_rows = 0;
    indexParents();
}

void FileMetaStore::indexParents() {
    _index_begin.assign(_parents.size() + 1, 0);
    for (IndexEntry const& entry : _index) ++_index_begin[entry.parent + 1];
    for (size_t p = 1; p < _index_begin.size(); ++p) _index_begin[p] += _index_begin[p - 1];
}

}  // namespace GoogleDriveTA
}  // namespace Backup
}  // namespace TAVO
