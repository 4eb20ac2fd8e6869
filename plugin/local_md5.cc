#include "local_md5.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <vector>

namespace TAVO {
namespace Backup {

bool localFileMd5(std::string const& path, std::string& hex) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    std::unique_ptr<int, void (*)(int*)> closer(&fd, [](int* f) { ::close(*f); });
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_md5(), nullptr) != 1) return false;
    std::vector<char> buffer(1 << 20);
    for (;;) {
        ssize_t n = ::read(fd, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) break;
        if (EVP_DigestUpdate(ctx.get(), buffer.data(), static_cast<size_t>(n)) != 1) return false;
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(ctx.get(), digest, &length) != 1) return false;
    static char const kDigits[] = "0123456789abcdef";
    hex.clear();
    for (unsigned int i = 0; i < length; ++i) {
        hex += kDigits[digest[i] >> 4];
        hex += kDigits[digest[i] & 15];
    }
    return true;
}

}  // namespace Backup
}  // namespace TAVO
