#include "background_digest.h"

#include <algorithm>
#include <cstring>

#include "md5_hex.h"

namespace DriveAgent {

BackgroundDigest::BackgroundDigest(EVP_MD const* md, size_t capacity)
    : _md(md), _ring(std::max<size_t>(capacity, 1)), _ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free) {
    EVP_DigestInit_ex(_ctx.get(), _md, nullptr);
    _thread = std::thread([this] { run(); });
}

BackgroundDigest::~BackgroundDigest() {
    {
        std::lock_guard<std::mutex> guard(_lock);
        _stop = true;
    }
    _added.notify_one();
    _thread.join();
}

void BackgroundDigest::add(char const* data, size_t n) {
    while (n > 0) {
        size_t room = 0;
        char* at = reserve(n, room);
        std::memcpy(at, data, room);
        commit(room);
        data += room;
        n -= room;
    }
}

char* BackgroundDigest::reserve(size_t want, size_t& room) {
    std::unique_lock<std::mutex> lock(_lock);
    _hashed.wait(lock, [this] { return _in - _out < _ring.size(); });
    // The free part of the ring up to its end: the hashing thread only reads
    // bytes between _out and _in, so it is the caller's without a lock.
    size_t at = static_cast<size_t>(_in % _ring.size());
    room = std::min({std::max<size_t>(want, 1), _ring.size() - static_cast<size_t>(_in - _out),
                     _ring.size() - at});
    return _ring.data() + at;
}

void BackgroundDigest::commit(size_t n) {
    if (n == 0) return;
    {
        std::lock_guard<std::mutex> guard(_lock);
        _in += n;
    }
    _added.notify_one();
}

void BackgroundDigest::drain(std::unique_lock<std::mutex>& lock) {
    _hashed.wait(lock, [this] { return _out == _in; });
}

void BackgroundDigest::reset() {
    std::unique_lock<std::mutex> lock(_lock);
    drain(lock);
    EVP_DigestInit_ex(_ctx.get(), _md, nullptr);
}

std::string BackgroundDigest::hexDigest() {
    std::unique_lock<std::mutex> lock(_lock);
    drain(lock);
    std::string hex = finishHexDigest(_ctx.get());
    EVP_DigestInit_ex(_ctx.get(), _md, nullptr);
    return hex;
}

void BackgroundDigest::run() {
    std::unique_lock<std::mutex> lock(_lock);
    for (;;) {
        _added.wait(lock, [this] { return _stop || _out < _in; });
        if (_stop) return;  // what is left is nobody's business any more
        size_t at = static_cast<size_t>(_out % _ring.size());
        size_t part = std::min(static_cast<size_t>(_in - _out), _ring.size() - at);
        lock.unlock();
        EVP_DigestUpdate(_ctx.get(), _ring.data() + at, part);
        lock.lock();
        _out += part;
        _hashed.notify_all();
    }
}

}  // namespace DriveAgent
