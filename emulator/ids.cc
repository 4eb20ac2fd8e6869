#include "ids.h"

#include <sys/random.h>

#include <cerrno>
#include <random>

namespace DriveEmulator {

namespace {
char const kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

void fillRandom(unsigned char* bytes, size_t count) {
    size_t done = 0;
    while (done < count) {
        ssize_t n = getrandom(bytes + done, count - done, 0);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (errno != EINTR) {
            // No kernel entropy interface: ids need to be unique, not secret.
            static thread_local std::mt19937_64 fallback{std::random_device{}()};
            for (; done < count; ++done) bytes[done] = static_cast<unsigned char>(fallback());
        }
    }
}
}  // namespace

std::string randomToken(size_t count) {
    std::string bytes(count, '\0');
    fillRandom(reinterpret_cast<unsigned char*>(&bytes[0]), count);
    for (auto& c : bytes) c = kAlphabet[static_cast<unsigned char>(c) & 63];
    return bytes;
}

std::string newObjectId() { return "1" + randomToken(32); }

std::string newRootId() { return "0A" + randomToken(31); }

}  // namespace DriveEmulator
