#include "stored_index.h"

#include <json/json.h>
#include <sys/stat.h>

#include <cstdint>
#include <fstream>
#include <memory>
#include <string_view>

#include "backup/path.h"
#include "durable_file.h"

namespace gdhost {

namespace {

char const kHeader[] = "gdrive_host stored files 1";

Json::Value lineOf(std::string const& remote, StoredFile const& f) {
    Json::Value v(Json::objectValue);
    v["r"] = remote;
    v["l"] = f.local;
    v["s"] = static_cast<Json::Int64>(f.size);
    v["m"] = static_cast<Json::Int64>(f.mtimeNs);
    v["c"] = static_cast<Json::Int64>(f.ctimeNs);
    v["o"] = static_cast<Json::UInt>(f.mode);
    v["5"] = f.md5;
    v["t"] = static_cast<Json::Int64>(f.remoteMtime);
    return v;
}

bool entryOf(Json::Value const& v, std::string& remote, StoredFile& f) {
    if (!v.isObject() || !v["r"].isString() || !v["l"].isString() || !v["s"].isInt64() ||
        !v["m"].isInt64() || !v["c"].isInt64() || !v["o"].isUInt() || !v["5"].isString() ||
        !v["t"].isInt64()) {
        return false;
    }
    remote = v["r"].asString();
    f.local = v["l"].asString();
    f.size = v["s"].asInt64();
    f.mtimeNs = v["m"].asInt64();
    f.ctimeNs = v["c"].asInt64();
    f.mode = static_cast<mode_t>(v["o"].asUInt());
    f.md5 = v["5"].asString();
    f.remoteMtime = v["t"].asInt64();
    return true;
}

// Reads the lines this tool writes without building a Json::Value: the
// members in the writer's order, strings without escapes or control
// characters, integers without sign. False for anything
// else (a path with a quote or a non-ASCII character, which the writer
// escapes; a time before 1970), which the general parser then reads, so that
// a line means the same whichever reads it.
class LineScan {
  public:
    explicit LineScan(std::string_view line) : _rest(line) {}

    bool entry(std::string& remote, StoredFile& f) {
        int64_t mode = 0;
        return literal("{\"5\":") && string(f.md5) && literal(",\"c\":") && integer(f.ctimeNs) &&
               literal(",\"l\":") && string(f.local) && literal(",\"m\":") && integer(f.mtimeNs) &&
               literal(",\"o\":") && integer(mode) && mode <= UINT32_MAX && literal(",\"r\":") &&
               string(remote) && literal(",\"s\":") && integer(f.size) && literal(",\"t\":") &&
               integer(f.remoteMtime) && literal("}") && _rest.empty() &&
               (f.mode = static_cast<mode_t>(mode), true);
    }

  private:
    bool literal(std::string_view text) {
        if (_rest.substr(0, text.size()) != text) return false;
        _rest.remove_prefix(text.size());
        return true;
    }
    bool string(std::string& out) {
        if (!literal("\"")) return false;
        size_t end = 0;
        while (end < _rest.size() && _rest[end] != '"') {
            unsigned char const c = static_cast<unsigned char>(_rest[end]);
            if (c < 0x20 || c == '\\') return false;
            ++end;
        }
        if (end == _rest.size()) return false;
        out.assign(_rest.data(), end);
        _rest.remove_prefix(end + 1);
        return true;
    }
    bool integer(int64_t& value) {
        size_t digits = 0;
        uint64_t number = 0;  // 19 digits fit, unsigned
        while (digits < _rest.size() && _rest[digits] >= '0' && _rest[digits] <= '9')
            number = number * 10 + static_cast<uint64_t>(_rest[digits++] - '0');
        if (digits == 0 || digits > 19 || (digits > 1 && _rest[0] == '0') || number > INT64_MAX)
            return false;
        value = static_cast<int64_t>(number);
        _rest.remove_prefix(digits);
        return true;
    }

    std::string_view _rest;
};

}  // namespace

bool StoredIndex::notOlder(std::string const& path, std::string const& nodeCache) {
    struct stat index {
    }, cache{};
    return stat(path.c_str(), &index) == 0 && stat(nodeCache.c_str(), &cache) == 0 &&
           nanosOf(index.st_mtim) >= nanosOf(cache.st_mtim);
}

std::string StoredIndex::fileFor(std::string const& nodeCache) {
    return TAVO::Backup::Path::join(TAVO::Backup::Path::dirname(nodeCache), "gdrive_host.stored");
}

bool StoredIndex::load(std::string const& path, std::string const& nodeCache) {
    _files.clear();
    if (!notOlder(path, nodeCache)) return false;
    std::ifstream in(path, std::ios::binary);
    std::string line;
    if (!std::getline(in, line) || line != kHeader) return false;
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::map<std::string, StoredFile> files;
    // The last line counts the entries: an index without it was cut short.
    while (std::getline(in, line)) {
        std::string remote;
        StoredFile f;
        if (!LineScan(line).entry(remote, f)) {
            Json::Value v;
            if (!reader->parse(line.data(), line.data() + line.size(), &v, nullptr)) return false;
            if (v.isObject() && v.size() == 1 && v["files"].isUInt64()) {
                if (v["files"].asUInt64() != files.size() || std::getline(in, line)) return false;
                _files = std::move(files);
                return true;
            }
            if (!entryOf(v, remote, f)) return false;
        }
        // The writer's order: each entry goes at the end.
        files.insert_or_assign(files.end(), std::move(remote), std::move(f));
    }
    return false;
}

StoredFile const* StoredIndex::find(std::string const& remote) const {
    auto found = _files.find(remote);
    return found == _files.end() ? nullptr : &found->second;
}

bool StoredIndex::unchanged(std::string const& remote, std::string const& local,
                            LocalEntry const& entry,
                            TAVO::Backup::FileInfo const& remoteFile) const {
    StoredFile const* f = find(remote);
    return f && !entry.isFolder && f->local == local && f->size == entry.size &&
           f->mtimeNs == entry.mtimeNs && f->ctimeNs == entry.ctimeNs && !remoteFile.isDirType() &&
           remoteFile.getSize() == f->size && remoteFile.getChecksum() == f->md5 &&
           remoteFile.getMtime() == f->remoteMtime;
}

StoredIndex StoredIndex::outside(std::string const& top) const {
    StoredIndex kept;
    for (auto const& entry : _files) {
        if (!isWithin(entry.first, top)) kept._files.insert(kept._files.end(), entry);
    }
    return kept;
}

bool StoredIndex::save(std::string const& path, std::string& error) const {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    std::string text = std::string(kHeader) + "\n";
    for (auto const& [remote, f] : _files)
        text += Json::writeString(builder, lineOf(remote, f)) + "\n";
    Json::Value end(Json::objectValue);
    end["files"] = static_cast<Json::UInt64>(_files.size());
    text += Json::writeString(builder, end) + "\n";
    return replaceFileDurably(path, text, error);
}

}  // namespace gdhost
