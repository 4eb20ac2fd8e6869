// Reading the node cache file.
#include <stdio_ext.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <numeric>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "backup/process_privilege.h"
#include "file_meta_store.h"
#include "file_meta_store_format.h"

namespace TAVO {
namespace Backup {
namespace GoogleDriveTA {

using internal::IndexKey;
using internal::PoolAllocator;
using internal::PoolString;
using internal::RecordView;

namespace {

char const kLogSource[] = "file_meta_store";
size_t const kMaxReserve = size_t(1) << 22;

struct FileCloser {
    void operator()(FILE* file) const { fclose(file); }
};

// The one buffer that getdelim() grows and reuses for every line.
struct LineBuffer {
    LineBuffer() = default;
    LineBuffer(LineBuffer const&) = delete;
    LineBuffer& operator=(LineBuffer const&) = delete;
    ~LineBuffer() { free(data); }
    char* data = nullptr;
    size_t capacity = 0;
};

// The first 8 bytes of `text` as a big-endian number, zero-padded: numbers
// that differ order their strings as byte-wise comparison does.
uint64_t orderPrefix(std::string_view text) {
    unsigned char bytes[8] = {};
    memcpy(bytes, text.data(), std::min(text.size(), sizeof bytes));
    uint64_t prefix = 0;
    for (unsigned char byte : bytes) prefix = prefix << 8 | byte;
    return prefix;
}

}  // namespace

// Builds the store from a file in one pass. A file written by save() lists
// its records in ascending id order, each id once; while that holds, records
// are appended at the end of the map and the index is built at the end from
// one sorted pass, instead of one tree descent per line. As soon as a line
// breaks the order, the pending index is built and the remaining lines go
// through insert(). The result is the same: for distinct ascending ids,
// insert() never replaces a record, and each (parent, name) ends up naming
// the last, that is the greatest, id placed there.
class FileMetaStore::BulkLoader {
  public:
    BulkLoader(FileMetaStore& store, size_t expectedRecords) : _store(store) {
        _pending.reserve(expectedRecords);
    }

    void add(RecordView& line) {
        internal::normalizeParents(line.parents);
        if (_ordered && _added < std::numeric_limits<uint32_t>::max() &&
            (_added == 0 || _last_id < line.id)) {
            append(line);
            return;
        }
        finish();
        _store.insertView(line);
    }

    // Builds the index of the records appended so far. Also called when
    // loading stops on an exception, so that what was read stays consistent.
    void finish() {
        if (!_ordered) return;
        _ordered = false;
        // Sorting by the rank of the parent among the few distinct parents
        // sorts by parent without reading the parent ids again.
        std::vector<uint32_t> bySlot(_parents.size());
        std::iota(bySlot.begin(), bySlot.end(), 0);
        std::sort(bySlot.begin(), bySlot.end(), [this](uint32_t a, uint32_t b) {
            return _parents[a].view() < _parents[b].view();
        });
        std::vector<uint32_t> rankOfSlot(_parents.size());
        for (uint32_t rank = 0; rank < bySlot.size(); ++rank) rankOfSlot[bySlot[rank]] = rank;
        for (Pending& entry : _pending) entry.parent = rankOfSlot[entry.parent];

        std::sort(_pending.begin(), _pending.end(), [](Pending const& a, Pending const& b) {
            if (a.parent != b.parent) return a.parent < b.parent;
            if (a.name_prefix != b.name_prefix) return a.name_prefix < b.name_prefix;
            int byName = a.name.view().compare(b.name.view());
            if (byName != 0) return byName < 0;
            return a.order < b.order;
        });
        internal::StorePool& pool = _store._pool;
        IndexMap& index = _store._index;
        size_t const kAhead = 8;
        for (size_t i = 0; i < _pending.size(); ++i) {
            if (i + kAhead < _pending.size()) {
                _pending[i + kAhead].name.prefetch();
                _pending[i + kAhead].id.prefetch();
            }
            Pending const& entry = _pending[i];
            if (i + 1 < _pending.size() && samePlacement(entry, _pending[i + 1])) continue;
            std::string_view parent = _parents[bySlot[entry.parent]].view();
            index.emplace_hint(
                index.end(),
                IndexKey{PoolString::make(pool, parent), PoolString::make(pool, entry.name.view())},
                PoolString::make(pool, entry.id.view()));
        }
        std::vector<Pending>().swap(_pending);
        std::vector<PoolString>().swap(_parents);
        _slots = {};
    }

  private:
    // An index entry to be. The strings are the record's own: only the entry
    // that wins its (parent, name) is copied into the index.
    struct Pending {
        uint64_t name_prefix;
        PoolString name;
        PoolString id;
        uint32_t parent;  // slot of the parent id, then its rank
        uint32_t order;   // of the record in the file
    };

    static bool samePlacement(Pending const& a, Pending const& b) {
        return a.parent == b.parent && a.name_prefix == b.name_prefix &&
               a.name.view() == b.name.view();
    }

    void append(RecordView const& line) {
        internal::StorePool& pool = _store._pool;
        RecordMap& records = _store._records;
        auto it = records.emplace_hint(records.end(), std::piecewise_construct,
                                       std::forward_as_tuple(PoolString::make(pool, line.id)),
                                       std::forward_as_tuple(PoolAllocator<PoolString>(&pool)));
        _last_id = it->first.view();
        PooledRecord& record = it->second;
        record.name = PoolString::make(pool, line.name);
        record.isDir = line.isDir;
        for (std::string_view parent : line.parents)
            record.parents.emplace_hint(record.parents.end(), PoolString::make(pool, parent));

        uint64_t prefix = orderPrefix(line.name);
        uint32_t order = _added++;
        // A record without parents is indexed under the empty parent id.
        if (record.parents.empty())
            _pending.push_back({prefix, record.name, it->first, slotOf(PoolString()), order});
        for (PoolString parent : record.parents)
            _pending.push_back({prefix, record.name, it->first, slotOf(parent), order});
        _store._dirty = true;
    }

    // Nothing is freed while records are appended, so the first record's
    // copy of a parent id can stand for it.
    uint32_t slotOf(PoolString parent) {
        auto found = _slots.try_emplace(parent.view(), static_cast<uint32_t>(_parents.size()));
        if (found.second) _parents.push_back(parent);
        return found.first->second;
    }

    FileMetaStore& _store;
    bool _ordered = true;
    uint32_t _added = 0;
    std::string_view _last_id;
    std::vector<Pending> _pending;
    std::vector<PoolString> _parents;  // by slot
    std::unordered_map<std::string_view, uint32_t> _slots;
};

bool FileMetaStore::load(std::string const& path) {
    // An empty path goes on to fail the open with "no such file" and so ends
    // as an empty, clean store.
    if (path.empty()) syslog(LOG_ERR, "%s:%d invalid path", kLogSource, __LINE__);
    ProcessPrivilege privilege;
    if (!privilege.BeRoot()) {
        syslog(LOG_ERR, "%s:%d be root failed. %m", kLogSource, __LINE__);
        return false;
    }
    int savedErrno = errno;
    std::unique_ptr<FILE, FileCloser> file(fopen(path.c_str(), "rb"));
    if (!file) {
        if (errno != ENOENT) {
            syslog(LOG_ERR, "%s:%d open failed, %m [%s]", kLogSource, __LINE__, path.c_str());
            return false;
        }
        // No cache yet.
        errno = savedErrno;
        clear();
        _path = path;
        _dirty = false;
        return true;
    }
    __fsetlocking(file.get(), FSETLOCKING_BYCALLER);

    clear();
    _loading = true;
    // Room for the index entries to be, guessed from the file's size; the
    // pages a guess too large leaves untouched cost no memory.
    struct stat info;
    size_t expected = 0;
    if (fstat(fileno(file.get()), &info) == 0 && info.st_size > 0)
        expected = std::min(static_cast<size_t>(info.st_size) / 64, kMaxReserve);
    BulkLoader loader(*this, expected);
    RecordView line;
    std::string lineCopy;
    LineBuffer buffer;
    ssize_t length;
    try {
        while ((length = getdelim(&buffer.data, &buffer.capacity, '\n', file.get())) != -1) {
            std::string_view text(buffer.data, static_cast<size_t>(length));
            if (internal::parseCanonicalLine(text, line)) {
                loader.add(line);
                continue;
            }
            // Anything else is read as any JSON would be, and skipped when it
            // does not parse.
            lineCopy.assign(text.data(), text.size());
            GoogleDrive::FileMeta meta;
            if (!_str_to_meta(lineCopy, meta)) continue;
            line.id = meta.id;
            line.name = meta.name;
            line.isDir = meta.isDir;
            line.parents.assign(meta.parents.begin(), meta.parents.end());
            loader.add(line);
        }
    } catch (...) {
        // What was read stays, indexed, as the lines before would have left it.
        loader.finish();
        _loading = false;
        throw;
    }
    loader.finish();
    // A read error (a folder in the file's place, a bad disk) ends the file
    // early: what was read stays, and the next save replaces the file.
    if (ferror(file.get()))
        syslog(LOG_ERR, "%s:%d read failed, %m [%s]", kLogSource, __LINE__, path.c_str());
    file.reset();
    _path = path;
    _dirty = false;
    _loading = false;
    return true;
}

}  // namespace GoogleDriveTA
}  // namespace Backup
}  // namespace TAVO
