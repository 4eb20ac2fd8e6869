// Names on a NAS are bytes, often in no particular encoding (an old share's
// Latin-1); Drive's are Unicode text, and its JSON must be UTF-8. Every byte
// that is not part of valid UTF-8 travels as one code point of a private-use
// block of plane 16 (U+10FE80 to U+10FEFF), and comes back as that byte, so
// that a name survives the round trip through Drive byte for byte.
#pragma once

#include <string>

namespace DriveAgent {

// `bytes` as valid UTF-8: valid sequences as they are, any other byte (and
// the bytes of a code point of the private block itself) as its stand-in.
std::string toDriveText(std::string const& bytes);

// The bytes `text` (valid UTF-8 from Drive) stands for: the inverse of
// toDriveText.
std::string fromDriveText(std::string const& text);

}  // namespace DriveAgent
