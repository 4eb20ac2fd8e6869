// A cursor for the few JSON shapes the plug-in reads in bulk (node cache
// lines, listing pages) without building a Json::Value tree. It understands a
// strict subset of JSON: whatever it does not understand makes a method
// return false, and the caller then hands the whole text to the general JSON
// parser, so the subset only has to agree with that parser where it accepts.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace TAVO {
namespace Backup {
namespace GoogleDrive {

class JsonLineCursor {
  public:
    // Unescaped strings are appended to `scratch`; the caller reserves at
    // least the text's size in it first, so views into it never move.
    JsonLineCursor(std::string_view text, std::string& scratch)
        : _p(text.data()), _end(text.data() + text.size()), _scratch(scratch) {}

    // Consumes `text` when the input continues with exactly these bytes.
    bool literal(std::string_view text) {
        if (static_cast<size_t>(_end - _p) < text.size() || memcmp(_p, text.data(), text.size()))
            return false;
        _p += text.size();
        return true;
    }

    // literal() after JSON whitespace.
    bool token(std::string_view text) {
        skipSpace();
        return literal(text);
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

    // The digits of an unsigned integer of at most 19 of them (so it fits in
    // 64 bits), without leading zero. A sign, fraction or exponent is left
    // unread, for the caller's next token to refuse.
    bool unsignedInteger(uint64_t& value) {
        char const* start = _p;
        value = 0;
        while (_p != _end && *_p >= '0' && *_p <= '9') value = value * 10 + (*_p++ - '0');
        size_t digits = static_cast<size_t>(_p - start);
        return digits > 0 && digits <= 19 && (digits == 1 || *start != '0');
    }

    bool peek(char c) const { return _p != _end && *_p == c; }

    // A quoted string. Without escapes the result points into the text;
    // otherwise the unescaped bytes go to the scratch buffer.
    bool string(std::string_view& value) {
        if (!literal("\"")) return false;
        char const* start = _p;
        // Ids and names are mostly plain bytes: skip them eight at a time.
        while (_end - _p >= 8 && plainWord(_p)) _p += 8;
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

    void skipSpace() {
        while (_p != _end && (*_p == ' ' || *_p == '\t' || *_p == '\r' || *_p == '\n')) ++_p;
    }

    // Only JSON whitespace may follow.
    bool atEnd() {
        skipSpace();
        return _p == _end;
    }

  private:
    // True when none of the eight bytes at `p` is a quote, a backslash or a
    // control byte (a byte-wise "has zero" and "has less than" test).
    static bool plainWord(char const* p) {
        uint64_t word;
        memcpy(&word, p, sizeof word);
        uint64_t constexpr ones = 0x0101010101010101ULL, highs = 0x8080808080808080ULL;
        uint64_t const quote = word ^ (ones * '"'), backslash = word ^ (ones * '\\');
        uint64_t const special = ((quote - ones) & ~quote) | ((backslash - ones) & ~backslash) |
                                 ((word - ones * 0x20) & ~word);
        return (special & highs) == 0;
    }

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

}  // namespace GoogleDrive
}  // namespace Backup
}  // namespace TAVO
