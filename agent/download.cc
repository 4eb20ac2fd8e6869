#include "download.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "agent_failure.h"
#include "background_digest.h"
#include "drive_errors.h"
#include "protocol_out.h"

namespace DriveAgent {

namespace {

constexpr int kStalledAttempts = 6;

[[noreturn]] void localFailure(std::string const& path) {
    throw AgentFailure(kLocalFailure, "cannot write " + path + ": " + std::strerror(errno));
}

// The output file with what was written so far and its running digest.
class Output {
  public:
    // The digest's 8 MiB of slack lets its thread lose the core for a while
    // without holding up the receiving one, as for uploads.
    Output(std::string const& path, EVP_MD const* md) : _path(path), _digest(md, size_t{8} << 20) {
        _fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (_fd < 0) localFailure(path);
        restart();
    }
    ~Output() {
        if (_fd >= 0) ::close(_fd);
    }
    // Back to an empty file (the service ignored our Range).
    void restart() {
        struct stat st;
        if (::fstat(_fd, &st) != 0 || (st.st_size > 0 && ::ftruncate(_fd, 0) != 0))
            localFailure(_path);
        _digest.reset();
        _written = 0;
        _used = 0;
        _room = 0;
    }
    // Takes the next `n` bytes; false when a write failed (see writeErrno).
    // They reach the file and the digest in blocks of 32 KiB gathered in the
    // digest's own buffer: curl hands a fast download over in pieces of
    // about 16 KiB, and a write and a hand-over to the digest's thread for
    // each cost more than gathering them. Measured on two cores, the agent
    // spent 1.0-1.2 CPU seconds per GiB with blocks of 32 KiB and 1.4-1.7
    // with 64 KiB or a MiB (most likely because a block this small is still
    // in the core's first cache when the file's write copies it).
    bool append(char const* data, size_t n) {
        while (n > 0) {
            if (_used == _room) {
                if (!flushPending()) return false;
                _block = _digest.reserve(kBlock, _room);
            }
            size_t part = std::min(n, _room - _used);
            std::memcpy(_block + _used, data, part);
            _used += part;
            data += part;
            n -= part;
        }
        return true;
    }
    // Writes and hashes what append() holds back; false when a write failed.
    bool flushPending() {
        size_t const n = _used;
        _used = 0;
        _room = 0;
        if (n == 0) return true;
        // Hashed while it is written: the digest only reads the block, and
        // the block is not reused before the next reserve().
        _digest.commit(n);
        for (size_t done = 0; done < n;) {
            ssize_t w =
                ::pwrite(_fd, _block + done, n - done, _written + static_cast<std::int64_t>(done));
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0) {
                _write_errno = errno;
                return false;
            }
            done += static_cast<size_t>(w);
        }
        _written += static_cast<std::int64_t>(n);
        return true;
    }
    // Bytes taken so far, those held back included.
    std::int64_t written() const { return _written + static_cast<std::int64_t>(_used); }
    int writeErrno() const { return _write_errno; }
    std::string hexDigest() { return _digest.hexDigest(); }
    void close() {
        if (::close(_fd) != 0) {
            _fd = -1;
            localFailure(_path);
        }
        _fd = -1;
    }

  private:
    static constexpr size_t kBlock = size_t{32} << 10;

    std::string _path;
    int _fd = -1;
    BackgroundDigest _digest;
    std::int64_t _written = 0;
    int _write_errno = 0;
    char* _block = nullptr;  // room in the digest's buffer, _used bytes of it taken
    size_t _room = 0;
    size_t _used = 0;
};

// The start offset a 206 answer's Content-Range names ("bytes 100-199/1000").
std::int64_t rangeStart(HttpResponse const& response) {
    std::string range = response.header("content-range");
    size_t space = range.find(' ');
    return space == std::string::npos ? -1 : std::atoll(range.c_str() + space + 1);
}

}  // namespace

Json::Value downloadContent(DriveApi& api, std::string const& id, std::string const& outputPath,
                            int out) {
    std::string const path = "files/" + api.http().escape(id);
    // SHA-256 when the service has it: it hashes more than twice as fast as MD5
    // where the CPU has SHA instructions. Files stored long ago may only have
    // an MD5.
    std::string const fields = std::string(kFileFields) + ",sha256Checksum";
    Json::Value file = api.call(
        api.api("GET", path, "fields=" + api.http().escape(fields) + "&supportsAllDrives=true"));
    std::string const mimeType = file.get("mimeType", "").asString();
    if (mimeType == "application/vnd.google-apps.folder") {
        throw AgentFailure(403, "Only files with binary content can be downloaded.");
    }
    // A 403 with words other than a rate limit's: the plug-in does not retry it.
    std::string const why = notDownloadable(mimeType);
    if (!why.empty()) throw AgentFailure(403, why);
    std::int64_t const size = std::atoll(file.get("size", "0").asString().c_str());
    std::string expected = file.get("sha256Checksum", "").asString();
    EVP_MD const* md = EVP_sha256();
    if (expected.empty()) {
        expected = file.get("md5Checksum", "").asString();
        md = EVP_md5();
    }
    Output output(outputPath, md);
    ProgressLines progress(out, size);
    int stalled = 0;
    while (output.written() < size) {
        std::int64_t before = output.written();
        // The owner of a file Drive flagged as malware or spam may still have it.
        HttpRequest request =
            api.api("GET", path, "alt=media&acknowledgeAbuse=true&supportsAllDrives=true");
        request.headers.push_back("Range: bytes=" + std::to_string(before) + "-");
        bool first = true;
        request.sink = [&](char const* data, size_t n, HttpResponse const& answer) {
            if (first) {
                first = false;
                // A 200 is the whole file again; a 206 must start where we are.
                if (answer.status == 200) {
                    output.restart();
                } else if (rangeStart(answer) != before) {
                    return false;
                }
            }
            if (!output.append(data, n)) return false;
            progress.reached(output.written());
            return output.written() <= size;
        };
        HttpResponse response;
        response = api.exchange(request);
        output.flushPending();
        if (output.writeErrno() != 0) {
            errno = output.writeErrno();
            localFailure(outputPath);
        }
        bool const answered =
            !response.transportFailed() && response.status >= 200 && response.status < 300;
        // A 5xx, 429 or rate limit passes: the download goes on from the bytes
        // it has, instead of the plug-in's retry starting it again from 0.
        if (!answered && !isPassing(response)) api.fail(response);
        if (output.written() > before) {
            stalled = 0;
        } else if (++stalled >= kStalledAttempts) {
            if (!answered) api.fail(response);
            throw AgentFailure(kTransportFailure, "the download makes no progress");
        } else if (!answered) {
            pauseBeforeResume(response, stalled);
        }
    }
    output.close();
    progress.finish();
    if (!expected.empty() && output.hexDigest() != expected) {
        throw AgentFailure(kIntegrityFailure,
                           "the downloaded bytes do not match the file's checksum");
    }
    Json::Value done(Json::objectValue);
    done["success"] = true;
    done["complete"] = true;
    return done;
}

}  // namespace DriveAgent
