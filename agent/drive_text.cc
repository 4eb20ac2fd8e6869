#include "drive_text.h"

namespace DriveAgent {

namespace {

constexpr char32_t kByteBlock = 0x10FE00;  // + the byte (0x80 to 0xFF)

bool isStandIn(char32_t c) { return c >= kByteBlock + 0x80 && c <= kByteBlock + 0xFF; }

// The length of the valid UTF-8 sequence at `at` and its code point, or 0.
size_t validSequence(std::string const& s, size_t at, char32_t& c) {
    unsigned char const lead = static_cast<unsigned char>(s[at]);
    size_t length = lead < 0x80                    ? 1
                    : lead >= 0xC2 && lead <= 0xDF ? 2
                    : lead >= 0xE0 && lead <= 0xEF ? 3
                    : lead >= 0xF0 && lead <= 0xF4 ? 4
                                                   : 0;
    if (length == 0 || at + length > s.size()) return 0;
    c = length == 1 ? lead : lead & (0x7F >> length);
    for (size_t i = 1; i < length; ++i) {
        unsigned char const next = static_cast<unsigned char>(s[at + i]);
        if ((next & 0xC0) != 0x80) return 0;
        c = (c << 6) | (next & 0x3F);
    }
    static char32_t const kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    if (c < kLeast[length] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return 0;
    return length;
}

void appendUtf8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

}  // namespace

std::string toDriveText(std::string const& bytes) {
    std::string out;
    out.reserve(bytes.size());
    for (size_t at = 0; at < bytes.size();) {
        char32_t c = 0;
        size_t length = validSequence(bytes, at, c);
        if (length > 0 && !isStandIn(c)) {
            out.append(bytes, at, length);
            at += length;
            continue;
        }
        // A stand-in already in the name is sent byte by byte too, so that
        // the way back cannot mistake it for one of ours.
        for (size_t end = at + (length > 0 ? length : 1); at < end; ++at) {
            appendUtf8(out, kByteBlock + static_cast<unsigned char>(bytes[at]));
        }
    }
    return out;
}

std::string fromDriveText(std::string const& text) {
    std::string out;
    out.reserve(text.size());
    for (size_t at = 0; at < text.size();) {
        char32_t c = 0;
        size_t length = validSequence(text, at, c);
        if (length == 0) {
            out += text[at++];  // not Drive's text after all: kept as it came
        } else {
            if (isStandIn(c)) {
                out += static_cast<char>(c - kByteBlock);
            } else {
                out.append(text, at, length);
            }
            at += length;
        }
    }
    return out;
}

}  // namespace DriveAgent
