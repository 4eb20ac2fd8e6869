// Writing the node cache file, and the debugging dump.
#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <vector>

#include "backup/process_privilege.h"
#include "backup/scoped_temp_file.h"
#include "file_meta_store.h"
#include "file_meta_store_format.h"

namespace TAVO {
namespace Backup {
namespace GoogleDriveTA {

using internal::TextRef;

namespace {
char const kLogSource[] = "file_meta_store";
// Lines are gathered in memory and written in pieces of about this size.
size_t const kWriteChunk = size_t(1) << 20;
// Written bytes are handed to the disk in the background every this many, so
// that the final fsync of a large file has little left to wait for.
off_t const kWritebackStep = off_t(8) << 20;

// Gathers text in a buffer and hands it to a stream in large pieces. The
// first failed write is remembered; later ones are not attempted.
class ChunkWriter {
  public:
    explicit ChunkWriter(FILE* stream) : _stream(stream), _buffer(kWriteChunk) {}
    ChunkWriter(ChunkWriter const&) = delete;
    ChunkWriter& operator=(ChunkWriter const&) = delete;
    ~ChunkWriter() { flush(); }

    // Room for `bytes` more bytes; commit() says how much was used.
    char* reserve(size_t bytes) {
        if (_used + bytes > _buffer.size()) {
            flush();
            if (bytes > _buffer.size()) _buffer.resize(bytes);
        }
        return _buffer.data() + _used;
    }
    void commit(char* end) { _used = static_cast<size_t>(end - _buffer.data()); }
    void write(std::string_view text) {
        char* out = reserve(text.size());
        if (!text.empty()) memcpy(out, text.data(), text.size());
        commit(out + text.size());
    }
    // False once any write has failed; errno then tells why.
    bool flush() {
        if (_used && _good) _good = fwrite(_buffer.data(), 1, _used, _stream) == _used;
        _written += static_cast<off_t>(_used);
        _used = 0;
        if (_good && _written - _queued >= kWritebackStep && fflush(_stream) == 0) {
            // Only a head start: failures show in the final fsync.
            sync_file_range(fileno(_stream), _queued, _written - _queued, SYNC_FILE_RANGE_WRITE);
            _queued = _written;
        }
        return _good;
    }

  private:
    FILE* _stream;
    std::vector<char> _buffer;
    size_t _used = 0;
    bool _good = true;
    off_t _written = 0;  // bytes handed to the stream
    off_t _queued = 0;   // of which writeback was started
};

// Syncs the folder that holds `path`, so that a rename into it survives a
// power cut. Returns false with errno set on failure.
bool syncFolderOf(std::string const& path) {
    size_t slash = path.rfind('/');
    std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    bool synced = fsync(fd) == 0;
    int savedErrno = errno;
    close(fd);
    errno = savedErrno;
    return synced;
}

// rename(), except that an empty folder in the target's place, which no
// cache file can be read from, is replaced too.
bool renameOnto(ScopedTempFile& temp, std::string const& target) {
    if (temp.rename(target)) return true;
    if (errno != EISDIR) return false;
    int renameErrno = errno;
    if (rmdir(target.c_str()) == 0 && temp.rename(target)) return true;
    errno = renameErrno;
    return false;
}

}  // namespace

bool FileMetaStore::save(std::string const& path) {
    if (!_dirty) return true;
    std::string const& target = path.empty() ? _path : path;
    if (target.empty()) {
        syslog(LOG_ERR, "%s:%d invalid path", kLogSource, __LINE__);
        return false;
    }
    ProcessPrivilege privilege;
    if (!privilege.BeRoot()) {
        syslog(LOG_ERR, "%s:%d be root failed. %m", kLogSource, __LINE__);
        return false;
    }
    ScopedTempFile temp(target, true);
    if (!temp.isValid()) {
        syslog(LOG_ERR, "%s:%d create temp file failed, %m", kLogSource, __LINE__);
        return false;
    }
    FILE* file = fopen(temp.getPath().c_str(), "wb");
    if (!file) {
        syslog(LOG_ERR, "%s:%d open failed, %m [%s]", kLogSource, __LINE__, path.c_str());
        return false;
    }
    // Every step is checked: nothing goes into place that is not complete
    // on disk. On failure the temporary file goes with `temp`.
    bool written = writeRecords(file);
    if (!written)
        syslog(LOG_ERR, "%s:%d write failed, %m [%s]", kLogSource, __LINE__, path.c_str());
    if (written && fflush(file) != 0) {
        syslog(LOG_ERR, "%s:%d flush failed, %m [%s]", kLogSource, __LINE__, path.c_str());
        written = false;
    }
    if (written && fsync(fileno(file)) != 0) {
        syslog(LOG_ERR, "%s:%d sync failed, %m [%s]", kLogSource, __LINE__, path.c_str());
        written = false;
    }
    if (fclose(file) != 0 && written) {
        syslog(LOG_ERR, "%s:%d close failed, %m [%s]", kLogSource, __LINE__, path.c_str());
        written = false;
    }
    if (!written) return false;
    if (!renameOnto(temp, target)) {
        syslog(LOG_ERR, "%s:%d rename failed, %m, [%s]", kLogSource, __LINE__, path.c_str());
        return false;
    }
    // The new file is in place but may not survive a power cut: stay dirty
    // so that the next save writes it again.
    if (!syncFolderOf(target)) {
        syslog(LOG_ERR, "%s:%d folder sync failed, %m [%s]", kLogSource, __LINE__, path.c_str());
        return false;
    }
    _dirty = false;
    return true;
}

bool FileMetaStore::writeRecords(FILE* file) {
    // The overlay is walked beside the sorted rows, not merged into them:
    // a save after a few changes then costs no more than the writing.
    ChunkWriter out(file);
    forEachRecord([&](Record const& record) {
        out.commit(writeLine(out.reserve(lineCapacity(record)), record));
    });
    return out.flush();
}

size_t FileMetaStore::lineCapacity(Record const& record) const {
    size_t bytes = 32 + internal::quotedCapacity(text(record.id).size()) +
                   internal::quotedCapacity(text(record.name).size());
    forEachParent(record, [&](uint32_t parent) {
        bytes += 1 + internal::quotedCapacity(text(_parents.textOf(parent)).size());
    });
    return bytes;
}

char* FileMetaStore::writeLine(char* out, Record const& record) const {
    // The bytes _meta_to_str() gives: members in key order d, i, n, p.
    auto put = [&out](std::string_view text) {
        memcpy(out, text.data(), text.size());
        out += text.size();
    };
    put(record.isDir ? "{\"d\":true,\"i\":" : "{\"d\":false,\"i\":");
    out = internal::writeQuoted(out, text(record.id));
    put(",\"n\":");
    out = internal::writeQuoted(out, text(record.name));
    put(",\"p\":[");
    bool first = true;
    forEachParent(record, [&](uint32_t parent) {
        if (!first) *out++ = ',';
        first = false;
        out = internal::writeQuoted(out, text(_parents.textOf(parent)));
    });
    put("]}\n");
    return out;
}

bool FileMetaStore::dump(FILE* stream) const {
    ChunkWriter out(stream);
    out.write("[record]\n");
    forEachRecord([&](Record const& record) {
        out.commit(writeLine(out.reserve(lineCapacity(record)), record));
    });
    out.write("[index]\n");
    // In the byte order of the parent ids, not of their numbers.
    struct Line {
        std::string_view parent, name, id;
    };
    std::vector<Line> index;
    auto add = [&](uint32_t parent, TextRef name, TextRef id) {
        if (id != internal::kNoText)
            index.push_back({text(_parents.textOf(parent)), text(name), text(id)});
    };
    for (IndexEntry const& entry : _index) add(entry.parent, entry.name, entry.id);
    for (auto const& [key, id] : _new_index) add(key.parent, key.name, id);
    std::sort(index.begin(), index.end(), [](Line const& a, Line const& b) {
        return a.parent != b.parent ? a.parent < b.parent : a.name < b.name;
    });
    for (Line const& line : index) {
        out.write(line.parent);
        out.write(",");
        out.write(line.name);
        out.write(" -> ");
        out.write(line.id);
        out.write("\n");
    }
    return true;
}

}  // namespace GoogleDriveTA
}  // namespace Backup
}  // namespace TAVO
