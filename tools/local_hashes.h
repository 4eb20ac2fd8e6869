// MD5s of local files worked out a slice at a time while the tool waits for
// the service, so that comparing a tree with its copy costs no time of its
// own once the listing is in.
#pragma once

#include <openssl/evp.h>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>

namespace gdhost {

class LocalHashes {
  public:
    // The regular files below `localTop` by path relative to it, with their sizes.
    LocalHashes(std::string localTop, std::map<std::string, int64_t> sizes);
    ~LocalHashes();
    LocalHashes(LocalHashes const&) = delete;
    LocalHashes& operator=(LocalHashes const&) = delete;

    // A remote file of `size` bytes at `rpath`: the local file there is
    // queued for hashing when it has the same size (else nothing decides on
    // its MD5).
    void listed(std::string const& rpath, int64_t size);
    // Hashes at most `budget` bytes of what is queued; true while more is.
    bool step(size_t budget = size_t{1} << 20);
    // The MD5 (lower-case hex) of the local file at `rpath` as read, or null
    // when it was not queued, not finished or could not be read.
    std::string const* md5(std::string const& rpath) const;

  private:
    void closeCurrent();

    std::string _top;
    std::map<std::string, int64_t> _sizes;
    std::deque<std::string> _queue;
    std::map<std::string, std::string> _done;
    int _fd = -1;  // the file at the front of the queue, while being hashed
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> _ctx;
};

}  // namespace gdhost
