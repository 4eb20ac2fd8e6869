// The MD5 of an OpenSSL digest context as Drive writes it (lower-case hex).
#pragma once

#include <openssl/evp.h>

#include <string>

namespace DriveAgent {

// Finishes `ctx` and returns its digest in lower-case hex; `ctx` is spent.
inline std::string finishHexDigest(EVP_MD_CTX* ctx) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned len = 0;
    EVP_DigestFinal_ex(ctx, digest, &len);
    static char const* const digits = "0123456789abcdef";
    std::string text;
    for (unsigned i = 0; i < len; ++i) {
        text += digits[digest[i] >> 4];
        text += digits[digest[i] & 15];
    }
    return text;
}

}  // namespace DriveAgent
