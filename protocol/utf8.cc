#include "utf8.h"

namespace Utf8 {

size_t decodeAt(std::string const& text, size_t at, char32_t& cp) {
    auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
    unsigned char const lead = byte(at);
    size_t const length = lead < 0x80                    ? 1
                          : lead >= 0xC2 && lead <= 0xDF ? 2
                          : lead >= 0xE0 && lead <= 0xEF ? 3
                          : lead >= 0xF0 && lead <= 0xF4 ? 4
                                                         : 0;
    if (length == 0 || at + length > text.size()) return 0;
    cp = length == 1 ? lead : lead & (0x7F >> length);
    for (size_t k = 1; k < length; ++k) {
        if ((byte(at + k) & 0xC0) != 0x80) return 0;
        cp = (cp << 6) | (byte(at + k) & 0x3F);
    }
    static char32_t const kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kLeast[length] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
    return length;
}

void append(std::string& out, char32_t cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

bool isValid(std::string const& text) {
    char32_t cp = 0;
    for (size_t at = 0, length = 0; at < text.size(); at += length) {
        length = decodeAt(text, at, cp);
        if (length == 0) return false;
    }
    return true;
}

}  // namespace Utf8
