// Opaque object ids shaped like Drive's: 33 characters of the URL-safe
// alphabet, random, so that tests never come to rely on their order.
#pragma once

#include <string>

namespace DriveEmulator {

// A fresh id for a file or folder ("1" and 32 random characters).
std::string newObjectId();
// A fresh id for an account's root folder ("0A" and 31 random characters).
std::string newRootId();
// `count` random characters of the URL-safe alphabet.
std::string randomToken(size_t count);

}  // namespace DriveEmulator
