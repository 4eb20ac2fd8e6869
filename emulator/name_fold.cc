#include "name_fold.h"

#include <locale.h>
#include <wctype.h>

namespace DriveEmulator {

namespace {

// towlower needs a UTF-8 locale; we make our own instead of changing the
// process's, which other code (and the message framing) relies on.
locale_t utf8Locale() {
    static locale_t locale = [] {
        locale_t l = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(0));
        if (!l) l = newlocale(LC_CTYPE_MASK, "en_US.UTF-8", static_cast<locale_t>(0));
        return l;
    }();
    return locale;
}

// Decodes one UTF-8 sequence at `s[i]`; returns its length, 0 when invalid.
size_t decode(std::string const& s, size_t i, char32_t& cp) {
    auto byte = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
    unsigned char b = byte(i);
    size_t len = b < 0x80 ? 1 : (b >> 5) == 6 ? 2 : (b >> 4) == 14 ? 3 : (b >> 3) == 30 ? 4 : 0;
    if (len == 0 || i + len > s.size()) return 0;
    cp = len == 1 ? b : len == 2 ? (b & 0x1f) : len == 3 ? (b & 0x0f) : (b & 0x07);
    for (size_t k = 1; k < len; ++k) {
        if ((byte(i + k) & 0xc0) != 0x80) return 0;
        cp = (cp << 6) | (byte(i + k) & 0x3f);
    }
    static char32_t const kMin[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kMin[len] || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff)) return 0;
    return len;
}

void encode(char32_t cp, std::string& out) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xc0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3f));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xe0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3f));
        out += static_cast<char>(0x80 | (cp & 0x3f));
    } else {
        out += static_cast<char>(0xf0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3f));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3f));
        out += static_cast<char>(0x80 | (cp & 0x3f));
    }
}

}  // namespace

std::string foldName(std::string const& name) {
    locale_t locale = utf8Locale();
    std::string out;
    out.reserve(name.size());
    for (size_t i = 0; i < name.size();) {
        char32_t cp = 0;
        size_t len = decode(name, i, cp);
        if (len == 0) {
            out += name[i++];
            continue;
        }
        if (cp < 0x80) {
            out += static_cast<char>(cp >= 'A' && cp <= 'Z' ? cp + ('a' - 'A') : cp);
        } else if (locale) {
            encode(static_cast<char32_t>(towlower_l(static_cast<wint_t>(cp), locale)), out);
        } else {
            out.append(name, i, len);
        }
        i += len;
    }
    return out;
}

}  // namespace DriveEmulator
