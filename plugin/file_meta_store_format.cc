#include "file_meta_store_format.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

#include "backup/json_text.h"

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

namespace {

// A cursor over one line. Every method returns false as soon as the text
// leaves the writer's shape; the caller then falls back to the full parser.
class LineCursor {
  public:
    LineCursor(std::string_view line, std::string& scratch)
        : _p(line.data()), _end(line.data() + line.size()), _scratch(scratch) {}

    bool literal(std::string_view text) {
        if (static_cast<size_t>(_end - _p) < text.size() || memcmp(_p, text.data(), text.size()))
            return false;
        _p += text.size();
        return true;
    }

    bool boolean(bool& value) {
        if (literal("true")) {
            value = true;
            return true;
        }
        if (literal("false")) {
            value = false;
            return true;
        }
        return false;
    }

    bool peek(char c) const { return _p != _end && *_p == c; }

    // A quoted string. Without escapes the result points into the line;
    // otherwise the unescaped bytes go to the scratch buffer, whose capacity
    // the caller has made large enough never to move.
    bool string(std::string_view& value) {
        if (!literal("\"")) return false;
        char const* start = _p;
        while (_p != _end) {
            unsigned char c = static_cast<unsigned char>(*_p);
            if (c == '"') {
                value = std::string_view(start, static_cast<size_t>(_p - start));
                ++_p;
                return true;
            }
            if (c == '\\') break;
            if (c < 0x20) return false;  // raw control bytes, NUL included
            ++_p;
        }
        if (_p == _end) return false;
        size_t first = _scratch.size();
        _scratch.append(start, static_cast<size_t>(_p - start));
        while (_p != _end) {
            unsigned char c = static_cast<unsigned char>(*_p++);
            if (c == '"') {
                value = std::string_view(_scratch.data() + first, _scratch.size() - first);
                return true;
            }
            if (c < 0x20) return false;
            if (c != '\\') {
                _scratch += static_cast<char>(c);
                continue;
            }
            if (!escape()) return false;
        }
        return false;
    }

    // Only JSON whitespace may follow the object.
    bool atEnd() {
        for (; _p != _end; ++_p)
            if (*_p != ' ' && *_p != '\t' && *_p != '\r' && *_p != '\n') return false;
        return true;
    }

  private:
    bool escape() {
        if (_p == _end) return false;
        switch (*_p++) {
            case '"':
                _scratch += '"';
                return true;
            case '\\':
                _scratch += '\\';
                return true;
            case '/':
                _scratch += '/';
                return true;
            case 'b':
                _scratch += '\b';
                return true;
            case 'f':
                _scratch += '\f';
                return true;
            case 'n':
                _scratch += '\n';
                return true;
            case 'r':
                _scratch += '\r';
                return true;
            case 't':
                _scratch += '\t';
                return true;
            case 'u':
                break;
            default:
                return false;
        }
        // \u00xx below 0x80 is one byte; anything wider is left to the full
        // parser, which knows UTF-8 and surrogate pairs.
        if (_end - _p < 4 || _p[0] != '0' || _p[1] != '0') return false;
        int high = hexDigit(_p[2]);
        int low = hexDigit(_p[3]);
        if (high < 0 || high > 7 || low < 0) return false;
        _scratch += static_cast<char>(high * 16 + low);
        _p += 4;
        return true;
    }

    static int hexDigit(char c) {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    }

    char const* _p;
    char const* _end;
    std::string& _scratch;
};

}  // namespace

bool parseCanonicalLine(std::string_view line, RecordView& out) {
    out.parents.clear();
    out.scratch.clear();
    // Unescaped text is never longer than the line, so views into the
    // scratch buffer stay valid while it fills.
    out.scratch.reserve(line.size());
    LineCursor in(line, out.scratch);
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
