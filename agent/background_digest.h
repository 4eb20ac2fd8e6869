// A digest (MD5, SHA-256...) computed on a thread of its own, so that hashing
// a download does not slow down the thread that receives it.
#pragma once

#include <openssl/evp.h>

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace DriveAgent {

class BackgroundDigest {
  public:
    // Hashes with `md` (EVP_md5(), EVP_sha256()...); holds at most `capacity`
    // bytes not yet hashed, add() waits beyond that.
    explicit BackgroundDigest(EVP_MD const* md, size_t capacity = size_t{1} << 20);
    ~BackgroundDigest();
    BackgroundDigest(BackgroundDigest const&) = delete;
    BackgroundDigest& operator=(BackgroundDigest const&) = delete;

    // Queues a copy of the bytes for hashing, after those added before.
    void add(char const* data, size_t n);
    // Room in the digest's own buffer for the next bytes, so that a caller
    // can write them there instead of copying them twice: sets `room` to its
    // size (at least 1, at most `want`) and waits while the buffer is full.
    // Nothing counts until commit(); the room stays the caller's until then.
    char* reserve(size_t want, size_t& room);
    // Queues for hashing the first `n` bytes of the room reserve() gave.
    void commit(size_t n);
    // Forgets every byte added so far: the digest starts over.
    void reset();
    // The lower-case hex digest of the bytes added since the last reset; waits
    // for them to be hashed. The hash starts over afterwards.
    std::string hexDigest();

  private:
    void run();
    // Waits until the hashing thread has caught up with add().
    void drain(std::unique_lock<std::mutex>& lock);

    EVP_MD const* _md;
    std::vector<char> _ring;
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> _ctx;
    std::mutex _lock;
    std::condition_variable _added;   // to the hashing thread
    std::condition_variable _hashed;  // to add() and drain()
    std::uint64_t _in = 0;            // bytes added, ever
    std::uint64_t _out = 0;           // bytes hashed, ever
    bool _stop = false;
    std::thread _thread;
};

}  // namespace DriveAgent
