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
    // Queues, behind the listed ones, every local file of at most `upTo`
    // bytes: when the tree is most likely stored already, the time spent
    // waiting for the listing is better spent hashing ahead of it.
    void guessUpTo(int64_t upTo);
    // Drops the guesses not hashed yet (the one being hashed is finished).
    void stopGuessing();
    // Hashes at most `budget` bytes of what is queued; true while more is.
    bool step(size_t budget = size_t{1} << 20);
    // The MD5 (lower-case hex) of the local file at `rpath` as read, or null
    // when it was not queued, not finished or could not be read.
    std::string const* md5(std::string const& rpath) const;

  private:
    void closeCurrent();

    std::string _top;
    std::map<std::string, int64_t> _sizes;
    std::deque<std::string> _queue;    // listed with the local size
    std::deque<std::string> _guesses;  // see guessUpTo
    std::map<std::string, std::string> _done;
    std::string _current;  // the file being hashed, while _fd is open
    int _fd = -1;
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> _ctx;
};

}  // namespace gdhost
