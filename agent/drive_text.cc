#include "drive_text.h"

#include "utf8.h"

namespace DriveAgent {

namespace {

constexpr char32_t kByteBlock = 0x10FE00;  // + the byte (0x80 to 0xFF)

bool isStandIn(char32_t c) { return c >= kByteBlock + 0x80 && c <= kByteBlock + 0xFF; }

}  // namespace

std::string toDriveText(std::string const& bytes) {
    std::string out;
    out.reserve(bytes.size());
    for (size_t at = 0; at < bytes.size();) {
        char32_t c = 0;
        size_t length = Utf8::decodeAt(bytes, at, c);
        if (length > 0 && !isStandIn(c)) {
            out.append(bytes, at, length);
            at += length;
            continue;
        }
        // A stand-in already in the name is sent byte by byte too, so that
        // the way back cannot mistake it for one of ours.
        for (size_t end = at + (length > 0 ? length : 1); at < end; ++at) {
            Utf8::append(out, kByteBlock + static_cast<unsigned char>(bytes[at]));
        }
    }
    return out;
}

std::string fromDriveText(std::string const& text) {
    std::string out;
    out.reserve(text.size());
    for (size_t at = 0; at < text.size();) {
        char32_t c = 0;
        size_t length = Utf8::decodeAt(text, at, c);
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
