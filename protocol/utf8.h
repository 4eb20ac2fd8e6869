// UTF-8, byte by byte: names on a NAS are bytes, and the places that must
// tell valid text from other bytes (the emulator's case folding, the drive
// agent's names for Drive, the REST fake's strictness) decode it one way.
#pragma once

#include <cstddef>
#include <string>

namespace Utf8 {

// The length of the valid UTF-8 sequence at `text[at]` (no overlong form, no
// surrogate, nothing past U+10FFFF) with its code point in `cp`; 0 when the
// bytes there are not one.
size_t decodeAt(std::string const& text, size_t at, char32_t& cp);

// Appends the UTF-8 form of the code point `cp` (at most U+10FFFF).
void append(std::string& out, char32_t cp);

// Whether all of `text` is valid UTF-8.
bool isValid(std::string const& text);

}  // namespace Utf8
