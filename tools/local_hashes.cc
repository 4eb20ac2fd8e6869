#include "local_hashes.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "long_paths.h"
#include "md5_hex.h"

namespace gdhost {

LocalHashes::LocalHashes(std::string localTop, std::map<std::string, int64_t> sizes)
    : _top(std::move(localTop)),
      _sizes(std::move(sizes)),
      _ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free) {}

LocalHashes::~LocalHashes() { closeCurrent(); }

void LocalHashes::listed(std::string const& rpath, int64_t size) {
    auto local = _sizes.find(rpath);
    if (local == _sizes.end() || local->second != size) return;
    _sizes.erase(local);  // queued once, whoever lists it again
    if (!_done.count(rpath) && rpath != _current) _queue.push_back(rpath);
}

void LocalHashes::guessUpTo(int64_t upTo) {
    for (auto const& [rpath, size] : _sizes)
        if (size <= upTo) _guesses.push_back(rpath);
}

void LocalHashes::stopGuessing() { _guesses.clear(); }

void LocalHashes::closeCurrent() {
    if (_fd >= 0) ::close(_fd);
    _fd = -1;
    _current.clear();
}

bool LocalHashes::step(size_t budget) {
    static thread_local std::vector<char> buffer(size_t{1} << 20);
    while (budget > 0) {
        if (_fd < 0) {
            std::deque<std::string>& next = _queue.empty() ? _guesses : _queue;
            if (next.empty()) break;
            _current = std::move(next.front());
            next.pop_front();
            if (_done.count(_current)) continue;  // a guess listed since, or the other way
            _fd = ::open(reachable(_top + "/" + _current).c_str(), O_RDONLY | O_CLOEXEC);
            if (_fd < 0) {
                _current.clear();  // the comparison will read it and say why
                continue;
            }
            EVP_DigestInit_ex(_ctx.get(), EVP_md5(), nullptr);
        }
        ssize_t n = ::read(_fd, buffer.data(), std::min(buffer.size(), budget));
        if (n < 0 && errno == EINTR) continue;
        if (n > 0) {
            EVP_DigestUpdate(_ctx.get(), buffer.data(), static_cast<size_t>(n));
            budget -= static_cast<size_t>(n);
            continue;
        }
        if (n == 0) _done[_current] = DriveAgent::finishHexDigest(_ctx.get());
        closeCurrent();
    }
    return _fd >= 0 || !_queue.empty() || !_guesses.empty();
}

std::string const* LocalHashes::md5(std::string const& rpath) const {
    auto found = _done.find(rpath);
    return found == _done.end() ? nullptr : &found->second;
}

}  // namespace gdhost
