#include "file_meta_store_format.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

#include "backup/json_text.h"
#include "googledrive_meta_cursor.h"

namespace TAVO {
namespace Backup {
namespace GoogleDriveTA {

std::string _meta_to_str(std::string const& id, FileMetaRecord const& record) {
    Json::Value value;
    value["i"] = id;
    value["n"] = record.name;
    value["p"] = Json::Value(Json::arrayValue);
    value["d"] = record.isDir;
    for (std::string const& parent : record.parents) value["p"].append(parent);
    return JsonText::toString(value);
}

namespace {

// A member that is absent or null reads as empty; any other type than a
// string makes the line unusable.
bool readString(Json::Value const& value, std::string& out) {
    if (value.isNull()) return true;
    if (!value.isString()) return false;
    out = value.asString();
    return true;
}

}  // namespace

bool _str_to_meta(std::string const& line, GoogleDrive::FileMeta& meta) {
    Json::Value parsed;
    if (!JsonText::fromString(line, parsed) || !parsed.isObject()) return false;
    // Read through a const reference so that absent members are not created.
    Json::Value const& value = parsed;
    GoogleDrive::FileMeta read;
    if (!readString(value["i"], read.id) || !readString(value["n"], read.name)) return false;
    Json::Value const& isDir = value["d"];
    if (!isDir.isNull() && !isDir.isBool()) return false;
    read.isDir = isDir.isBool() && isDir.asBool();
    Json::Value const& parents = value["p"];
    if (!parents.isNull() && !parents.isArray()) return false;
    for (Json::Value const& parent : parents) {
        if (!parent.isString()) return false;
        read.parents.insert(parent.asString());
    }
    meta.id = std::move(read.id);
    meta.name = std::move(read.name);
    meta.isDir = read.isDir;
    meta.parents.insert(read.parents.begin(), read.parents.end());
    return true;
}

namespace internal {

void normalizeParents(std::vector<std::string_view>& parents) {
    if (parents.size() < 2) return;
    bool ascending = true;
    for (size_t i = 1; i < parents.size() && ascending; ++i)
        ascending = parents[i - 1] < parents[i];
    if (ascending) return;
    std::sort(parents.begin(), parents.end());
    parents.erase(std::unique(parents.begin(), parents.end()), parents.end());
}

bool parseCanonicalLine(std::string_view line, RecordView& out) {
    out.parents.clear();
    out.scratch.clear();
    // Unescaped text is never longer than the line, so views into the
    // scratch buffer stay valid while it fills.
    out.scratch.reserve(line.size());
    GoogleDrive::JsonLineCursor in(line, out.scratch);
    if (!in.literal("{\"d\":") || !in.boolean(out.isDir)) return false;
    if (!in.literal(",\"i\":") || !in.string(out.id)) return false;
    if (!in.literal(",\"n\":") || !in.string(out.name)) return false;
    if (!in.literal(",\"p\":[")) return false;
    if (!in.peek(']')) {
        do {
            std::string_view parent;
            if (!in.string(parent)) return false;
            out.parents.push_back(parent);
        } while (in.literal(","));
    }
    return in.literal("]}") && in.atEnd();
}

namespace {

// True when one of the 8 bytes of `word` is below 0x20, '"' or '\\'. Names
// almost never hold one, so most strings are copied whole.
inline bool mayNeedEscape(uint64_t word) {
    constexpr uint64_t kOnes = 0x0101010101010101ull;
    constexpr uint64_t kHigh = 0x8080808080808080ull;
    uint64_t quote = word ^ (kOnes * '"');
    uint64_t backslash = word ^ (kOnes * '\\');
    uint64_t found = ((word - kOnes * 0x20) & ~word) | ((quote - kOnes) & ~quote) |
                     ((backslash - kOnes) & ~backslash);
    return (found & kHigh) != 0;
}

bool needsEscape(std::string_view text) {
    char const* p = text.data();
    size_t n = text.size();
    for (; n >= 8; p += 8, n -= 8) {
        uint64_t word;
        memcpy(&word, p, 8);
        if (mayNeedEscape(word)) return true;
    }
    for (; n > 0; ++p, --n) {
        unsigned char c = static_cast<unsigned char>(*p);
        if (c < 0x20 || c == '"' || c == '\\') return true;
    }
    return false;
}

}  // namespace

char* writeQuoted(char* out, std::string_view text) {
    static char const kHex[] = "0123456789abcdef";
    *out++ = '"';
    if (!needsEscape(text)) {
        if (!text.empty()) memcpy(out, text.data(), text.size());
        out += text.size();
        *out++ = '"';
        return out;
    }
    for (char ch : text) {
        unsigned char c = static_cast<unsigned char>(ch);
        if (c >= 0x20 && c != '"' && c != '\\') {
            *out++ = ch;
            continue;
        }
        *out++ = '\\';
        switch (c) {
            case '"':
                *out++ = '"';
                break;
            case '\\':
                *out++ = '\\';
                break;
            case '\b':
                *out++ = 'b';
                break;
            case '\f':
                *out++ = 'f';
                break;
            case '\n':
                *out++ = 'n';
                break;
            case '\r':
                *out++ = 'r';
                break;
            case '\t':
                *out++ = 't';
                break;
            default:
                memcpy(out, "u00", 3);
                out[3] = kHex[c >> 4];
                out[4] = kHex[c & 15];
                out += 5;
        }
    }
    *out++ = '"';
    return out;
}

}  // namespace internal
}  // namespace GoogleDriveTA
}  // namespace Backup
}  // namespace TAVO
