#include "content_copy.h"

#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "drive_types.h"

namespace DriveEmulator {

char const* const kEmptyMd5 = "d41d8cd98f00b204e9800998ecf8427e";

namespace {

// Big enough that a system call moves a lot per trip, small enough that the
// hashing thread starts early and progress points are not too coarse.
constexpr std::int64_t kCopyChunk = 8 << 20;
constexpr size_t kHashBuffer = 1 << 20;

[[noreturn]] void ioFailure(char const* what) {
    throw Error(-1, std::string(what) + ": " + std::strerror(errno));
}

class Md5 {
  public:
    Md5() : _ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free) {
        if (!_ctx || EVP_DigestInit_ex(_ctx.get(), EVP_md5(), nullptr) != 1) {
            throw Error(500, "Internal Error (MD5 unavailable)");
        }
    }
    void update(void const* data, size_t size) { EVP_DigestUpdate(_ctx.get(), data, size); }
    std::string hex() {
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int size = 0;
        EVP_DigestFinal_ex(_ctx.get(), digest, &size);
        static char const kHex[] = "0123456789abcdef";
        std::string out;
        for (unsigned int i = 0; i < size; ++i) {
            out += kHex[digest[i] >> 4];
            out += kHex[digest[i] & 15];
        }
        return out;
    }

  private:
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> _ctx;
};

// Moves one chunk from `in` to `out`; 0 at the end of `in`. Uses the kernel's
// copy while it works and falls back to read/write for good when it does not
// (pipes, file systems without support).
class ChunkMover {
  public:
    ChunkMover(int in, int out) : _in(in), _out(out) {}

    std::int64_t move(std::int64_t limit) {
        if (_kernel) {
            for (;;) {
                ssize_t n =
                    ::copy_file_range(_in, nullptr, _out, nullptr, static_cast<size_t>(limit), 0);
                if (n >= 0) return n;
                if (errno == EINTR) continue;
                if (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP ||
                    errno == EBADF) {
                    _kernel = false;
                    break;
                }
                ioFailure("copy failed");
            }
        }
        if (_buffer.empty()) _buffer.resize(kHashBuffer);
        size_t want = static_cast<size_t>(std::min<std::int64_t>(limit, _buffer.size()));
        ssize_t got;
        do {
            got = ::read(_in, _buffer.data(), want);
        } while (got < 0 && errno == EINTR);
        if (got < 0) ioFailure("read failed");
        for (ssize_t written = 0; written < got;) {
            ssize_t n = ::write(_out, _buffer.data() + written, static_cast<size_t>(got - written));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) ioFailure("write failed");
            written += n;
        }
        return got;
    }

  private:
    int _in;
    int _out;
    bool _kernel = true;
    std::vector<char> _buffer;
};

class ProgressPoints {
  public:
    ProgressPoints(std::int64_t step, ProgressCallback const& callback)
        : _step(step), _callback(callback) {}
    void advance(std::int64_t done) {
        if (_step <= 0 || !_callback) return;
        if (done / _step > _last / _step) {
            _callback(done);
            _reported = done;
        }
        _last = done;
    }
    void finish(std::int64_t done) {
        if (_step > 0 && _callback && done > 0 && _reported != done) _callback(done);
    }

  private:
    std::int64_t _step;
    ProgressCallback const& _callback;
    std::int64_t _last = 0;
    std::int64_t _reported = 0;
};

void stopIfAbandoned(AbandonCheck const& abandoned) {
    if (abandoned && abandoned()) throw Error(-1, "transfer abandoned: the client went away");
}

std::int64_t chunkFor(std::int64_t progressStep) {
    return progressStep > 0 ? std::min(progressStep, kCopyChunk) : kCopyChunk;
}

}  // namespace

CopyResult copyWithMd5(int in, int out, std::int64_t progressStep, ProgressCallback const& progress,
                       AbandonCheck const& abandoned) {
    std::mutex mutex;
    std::condition_variable changed;
    std::int64_t copied = 0;
    bool finished = false;
    bool hashFailed = false;
    int hashErrno = 0;
    Md5 md5;

    std::thread hasher([&] {
        std::vector<char> buffer(kHashBuffer);
        std::int64_t hashed = 0;
        for (;;) {
            std::int64_t available;
            {
                std::unique_lock<std::mutex> lock(mutex);
                changed.wait(lock, [&] { return copied > hashed || finished; });
                if (copied == hashed) return;  // finished and caught up
                available = copied;
            }
            while (hashed < available) {
                size_t want =
                    static_cast<size_t>(std::min<std::int64_t>(available - hashed, kHashBuffer));
                ssize_t n = ::pread(out, buffer.data(), want, hashed);
                if (n < 0 && errno == EINTR) continue;
                if (n <= 0) {
                    std::lock_guard<std::mutex> lock(mutex);
                    hashFailed = true;
                    hashErrno = n < 0 ? errno : EIO;
                    return;
                }
                md5.update(buffer.data(), static_cast<size_t>(n));
                hashed += n;
            }
        }
    });

    auto stopHasher = [&] {
        {
            std::lock_guard<std::mutex> lock(mutex);
            finished = true;
        }
        changed.notify_one();
        hasher.join();
    };

    ChunkMover mover(in, out);
    ProgressPoints points(progressStep, progress);
    std::int64_t chunk = chunkFor(progressStep);
    std::int64_t total = 0;
    try {
        for (;;) {
            std::int64_t n = mover.move(chunk);
            if (n == 0) break;
            total += n;
            {
                std::lock_guard<std::mutex> lock(mutex);
                copied = total;
            }
            changed.notify_one();
            points.advance(total);
            stopIfAbandoned(abandoned);
        }
    } catch (...) {
        stopHasher();
        throw;
    }
    stopHasher();
    if (hashFailed) {
        errno = hashErrno;
        ioFailure("read back failed");
    }
    points.finish(total);
    return {total, md5.hex()};
}

CopyResult copyBytes(int in, int out, std::int64_t length, std::int64_t progressStep,
                     ProgressCallback const& progress, AbandonCheck const& abandoned) {
    ChunkMover mover(in, out);
    ProgressPoints points(progressStep, progress);
    std::int64_t chunk = chunkFor(progressStep);
    std::int64_t total = 0;
    while (total < length) {
        std::int64_t n = mover.move(std::min(chunk, length - total));
        if (n == 0) break;
        total += n;
        points.advance(total);
        stopIfAbandoned(abandoned);
    }
    points.finish(total);
    return {total, ""};
}

std::string md5Hex(std::string const& data) {
    Md5 md5;
    md5.update(data.data(), data.size());
    return md5.hex();
}

}  // namespace DriveEmulator
