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
#include <utility>

#include "backup/process_privilege.h"
#include "file_meta_store.h"
#include "file_meta_store_format.h"

namespace TAVO {
namespace Backup {
namespace GoogleDriveTA {

using internal::RecordView;
using internal::TextRef;

namespace {

char const kLogSource[] = "file_meta_store";
size_t const kMaxReserve = size_t(1) << 22;
size_t const kMaxTextReserve = size_t(1) << 30;

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

}  // namespace

// Builds the store from a file in one pass. A file written by save() lists
// its records in ascending id order, each id once; while that holds, records
// are appended to the sorted rows and the index is built at the end from one
// sort, instead of one search per line. As soon as a line breaks the order,
// the pending index is built and the remaining lines go through insert().
// The result is the same: for distinct ascending ids, insert() never
// replaces a record, and each (parent, name) ends up naming the last, that
// is the greatest, id placed there.
class FileMetaStore::BulkLoader {
  public:
    BulkLoader(FileMetaStore& store, size_t expectedRecords) : _store(store) {
        _pending.reserve(expectedRecords);
        _store._records.reserve(expectedRecords);
        internal::adviseHugePages(_pending.data(), _pending.capacity() * sizeof(Pending));
        internal::adviseHugePages(_store._records.data(),
                                  _store._records.capacity() * sizeof(Record));
    }

    void add(RecordView& line) {
        internal::normalizeParents(line.parents);
        std::vector<Record>& records = _store._records;
        if (_ordered && records.size() < std::numeric_limits<uint32_t>::max() &&
            (records.empty() || _store.text(records.back().id) < line.id)) {
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
        FileMetaStore& store = _store;
        bucketByParent();
        // Within a parent: by name, and among equal names by file order.
        auto byName = [&store](Pending const& a, Pending const& b) {
            if (a.name_prefix != b.name_prefix) return a.name_prefix < b.name_prefix;
            int order = store.text(a.name).compare(store.text(b.name));
            if (order != 0) return order < 0;
            return a.order < b.order;
        };
        for (size_t p = 0; p + 1 < _bucket_begin.size(); ++p)
            std::sort(_pending.begin() + _bucket_begin[p], _pending.begin() + _bucket_begin[p + 1],
                      byName);
        std::vector<IndexEntry>& index = store._index;
        index.reserve(_pending.size());
        for (size_t i = 0; i < _pending.size(); ++i) {
            Pending const& entry = _pending[i];
            if (i + 1 < _pending.size() && samePlacement(entry, _pending[i + 1])) continue;
            index.push_back({entry.parent, entry.name, entry.id});
        }
        store._live_entries = index.size();
        store.indexParents();
        std::vector<Pending>().swap(_pending);
    }

  private:
    // An index entry to be, with the order of its record in the file. It
    // carries the record's id, so that building the index reads no record;
    // its default constructor leaves it unset, so that a buffer of them is
    // not written twice.
    struct Pending {
        Pending() {}
        Pending(uint64_t namePrefix, uint32_t parentNumber, TextRef nameText, uint32_t fileOrder,
                TextRef idText)
            : name_prefix(namePrefix),
              parent(parentNumber),
              name(nameText),
              order(fileOrder),
              id(idText) {}
        uint64_t name_prefix;
        uint32_t parent;
        TextRef name;
        uint32_t order;
        TextRef id;
    };

    // Orders the pending entries by parent number with one counting pass,
    // keeping file order within a parent, and notes where each parent's run
    // begins. Parents are few and dense, so this costs two sweeps instead of
    // a sort of every entry against every other.
    void bucketByParent() {
        _bucket_begin.assign(_store._parents.size() + 1, 0);
        for (Pending const& entry : _pending) ++_bucket_begin[entry.parent + 1];
        for (size_t p = 1; p < _bucket_begin.size(); ++p) _bucket_begin[p] += _bucket_begin[p - 1];
        std::vector<size_t> next(_bucket_begin.begin(), _bucket_begin.end() - 1);
        std::vector<Pending> sorted(_pending.size());
        internal::adviseHugePages(sorted.data(), sorted.size() * sizeof(Pending));
        for (Pending const& entry : _pending) sorted[next[entry.parent]++] = entry;
        _pending.swap(sorted);
    }

    bool samePlacement(Pending const& a, Pending const& b) const {
        return a.parent == b.parent && a.name_prefix == b.name_prefix &&
               _store.text(a.name) == _store.text(b.name);
    }

    void append(RecordView const& line) {
        Record record{};
        record.id = _store._text.add(line.id);
        record.idPrefix = internal::orderPrefix(line.id);
        record.name = _store._text.add(line.name);
        record.isDir = line.isDir;
        _store.setParents(record, line.parents);
        uint32_t order = static_cast<uint32_t>(_store._records.size());
        _store._records.push_back(record);
        ++_store._live_records;
        uint64_t prefix = internal::orderPrefix(line.name);
        // A record without parents is indexed under the empty parent id.
        if (line.parents.empty())
            _pending.emplace_back(prefix, _store._parents.intern(std::string_view(), _store._text),
                                  record.name, order, record.id);
        _store.forEachParent(record, [&](uint32_t parent) {
            _pending.emplace_back(prefix, parent, record.name, order, record.id);
        });
        _store._dirty = true;
    }

    FileMetaStore& _store;
    bool _ordered = true;
    std::vector<Pending> _pending;
    std::vector<size_t> _bucket_begin;
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
    if (fstat(fileno(file.get()), &info) == 0 && info.st_size > 0) {
        expected = std::min(static_cast<size_t>(info.st_size) / 64, kMaxReserve);
        // The strings take less than the lines that hold them.
        _text.reserve(std::min(static_cast<size_t>(info.st_size), kMaxTextReserve));
    }
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
    _loading = false;
    merge();
    _path = path;
    _dirty = false;
    _loading = false;
    return true;
}

}  // namespace GoogleDriveTA
}  // namespace Backup
}  // namespace TAVO
