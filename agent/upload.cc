#include "upload.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <random>

#include "agent_failure.h"
#include "background_digest.h"
#include "drive_errors.h"
#include "drive_text.h"

namespace DriveAgent {

namespace {

// A multiple of 256 KiB, as Drive requires of every chunk but the last.
constexpr std::int64_t kChunk = 32 << 20;
// Failed exchanges in a row, without the service taking a byte more, before
// the upload gives up with -2 (the plug-in may then send it again).
constexpr int kStalledAttempts = 6;
constexpr int kSessionRestarts = 3;

// The MD5 of the bytes read for the upload, hashed on a thread of its own.
// Its 8 MiB of slack lets the hashing thread lose its core for a while (to
// the sender, or the receiving end on the same machine) without holding up
// the sender; with 1 MiB the sender stalled often enough to cost a tenth.
class Md5 {
  public:
    Md5() : _digest(EVP_md5(), size_t{8} << 20) {}
    // Hashes the part of [offset, offset + n) not hashed yet; bytes re-read
    // for a resume are skipped, and reads never leave a gap.
    void add(char const* data, size_t n, std::int64_t offset) {
        std::int64_t end = offset + static_cast<std::int64_t>(n);
        if (end <= _done || offset > _done) return;
        _digest.add(data + (_done - offset), static_cast<size_t>(end - _done));
        _done = end;
    }
    std::string hex() { return _digest.hexDigest(); }

  private:
    BackgroundDigest _digest;
    std::int64_t _done = 0;
};

// The state of one resumable session: where it lives and how much of the
// file the service confirmed.
class Session {
  public:
    Session(DriveApi& api, IdPool& ids, UploadTarget const& target, int fd, std::int64_t size,
            std::string const& modifiedTime, ProgressLines& progress)
        : _api(api),
          _ids(ids),
          _target(target),
          _fd(fd),
          _size(size),
          _modified_time(modifiedTime),
          _progress(progress) {}

    Json::Value run();
    std::string md5() { return _md5 ? _md5->hex() : _whole_md5; }
    std::string const& createdId() const { return _new_id; }

  private:
    // The first request of an upload of `uploadType` to the target, with its
    // metadata as the JSON body.
    HttpRequest startRequest(std::string const& uploadType);
    // A file up to kWholeUpload created or updated in one multipart request.
    Json::Value sendWhole();
    void open();
    HttpResponse sendChunk();
    HttpResponse queryStatus();
    // Reads a 308's Range header into _offset.
    void confirm(HttpResponse const& response);
    // The file this upload creates, when the service holds it whole under
    // its new id; null otherwise (an update, nothing there, no answer).
    Json::Value storedUnderNewId();

    DriveApi& _api;
    IdPool& _ids;
    UploadTarget const& _target;
    int _fd;
    std::int64_t _size;
    std::string _modified_time;
    ProgressLines& _progress;
    std::unique_ptr<Md5> _md5;  // resumable uploads only: a thread and its ring
    std::string _whole_md5;     // of a file sent in one request
    std::string _url;
    std::string _new_id;
    bool _made_before = false;  // _new_id is taken: the upload updates it
    std::int64_t _offset = 0;
};

HttpRequest Session::startRequest(std::string const& uploadType) {
    Json::Value meta(Json::objectValue);
    std::string path = "files";
    std::string method = "POST";
    bool const create = _target.id.empty() && !_made_before;
    if (create) {
        if (_new_id.empty()) _new_id = _ids.forCreate(_target.parentId, _target.name, false);
        meta["id"] = _new_id;
        meta["name"] = toDriveText(_target.name);
        meta["parents"].append(_target.parentId);
    } else {
        path += "/" + _api.http().escape(_made_before ? _new_id : _target.id);
        method = "PATCH";
    }
    if (!_modified_time.empty()) meta["modifiedTime"] = _modified_time;
    HttpRequest request = _api.apiJson(method, path, "", meta);
    request.url =
        _api.config().apiUrl + "/upload/drive/v3/" + path + "?uploadType=" + uploadType +
        "&supportsAllDrives=true&prettyPrint=false&fields=" + _api.http().escape(kFileFields);
    return request;
}

Json::Value Session::sendWhole() {
    bool const create = _target.id.empty() && !_made_before;
    HttpRequest request = startRequest("multipart");
    std::string const meta = request.body;
    // The content part ends at the first delimiter: the boundary must not
    // occur in the content. Boundaries of one length let the content be read
    // once, straight into the body, and the parts around it be rewritten.
    std::mt19937_64 random(std::random_device{}());
    std::string boundary;
    auto head = [&] {
        char text[32];
        std::snprintf(text, sizeof text, "tavo_part_%016llx",
                      static_cast<unsigned long long>(random()));
        boundary = text;
        return "--" + boundary + "\r\nContent-Type: application/json; charset=UTF-8\r\n\r\n" +
               meta + "\r\n--" + boundary + "\r\nContent-Type: application/octet-stream\r\n\r\n";
    };
    std::string& body = request.body;
    body = head();
    size_t const start = body.size();
    body.reserve(start + static_cast<size_t>(_size) + boundary.size() + 8);
    body.resize(start + static_cast<size_t>(_size));
    for (size_t done = 0; done < static_cast<size_t>(_size);) {
        ssize_t n = ::pread(_fd, &body[start + done], static_cast<size_t>(_size) - done,
                            static_cast<off_t>(done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) throw AgentFailure(kLocalFailure, "the file shrank while it was read");
        done += static_cast<size_t>(n);
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    EVP_Digest(body.data() + start, static_cast<size_t>(_size), digest, &length, EVP_md5(),
               nullptr);
    static char const* const kDigits = "0123456789abcdef";
    _whole_md5.clear();
    for (unsigned i = 0; i < length; ++i) {
        _whole_md5 += kDigits[digest[i] >> 4];
        _whole_md5 += kDigits[digest[i] & 15];
    }
    while (body.find("--" + boundary, start) != std::string::npos) body.replace(0, start, head());
    body += "\r\n--" + boundary + "--\r\n";
    request.headers = {"Content-Type: multipart/related; boundary=" + boundary};
    // Safe to repeat: a create carries its id, an update the same bytes.
    HttpResponse response = _api.exchange(request);
    if (response.transportFailed()) response = _api.exchange(request);
    if (create && response.status == 409) {
        // An earlier attempt made the file under this id (its answer lost or
        // failed): it is brought up to date, never doubled.
        _made_before = true;
        return sendWhole();
    }
    if (response.transportFailed() || response.status < 200 || response.status >= 300)
        _api.fail(response);
    _progress.reached(_size);
    return parseJson(response.body);
}

void Session::open() {
    bool const create = _target.id.empty() && !_made_before;
    HttpRequest request = startRequest("resumable");
    request.headers.push_back("X-Upload-Content-Length: " + std::to_string(_size));
    HttpResponse response = _api.exchange(request);
    if (response.transportFailed()) response = _api.exchange(request);
    if (create && response.status == 409) {
        // An earlier attempt of this upload made the file under this id (its
        // answer lost or failed): it is brought up to date, never doubled.
        _made_before = true;
        open();
        return;
    }
    if (response.transportFailed() || response.status != 200) _api.fail(response);
    _url = response.header("location");
    if (_url.empty()) throw AgentFailure(kTransportFailure, "the service gave no upload session");
    _url += (_url.find('?') == std::string::npos ? "?" : "&") + std::string("prettyPrint=false");
    _offset = 0;
}

HttpResponse Session::sendChunk() {
    std::int64_t length = std::min(kChunk, _size - _offset);
    HttpRequest request;
    request.method = "PUT";
    request.url = _url;
    request.uploadFd = _fd;
    request.uploadOffset = _offset;
    request.uploadLength = length;
    request.onRead = [this](char const* data, size_t n, std::int64_t offset) {
        _md5->add(data, n, offset);
        _progress.reached(offset + static_cast<std::int64_t>(n));
    };
    request.headers.push_back("Content-Range: bytes " + std::to_string(_offset) + "-" +
                              std::to_string(_offset + length - 1) + "/" + std::to_string(_size));
    return _api.exchange(request);
}

HttpResponse Session::queryStatus() {
    HttpRequest request;
    request.method = "PUT";
    request.url = _url;
    request.headers.push_back("Content-Range: bytes */" + std::to_string(_size));
    return _api.exchange(request);
}

void Session::confirm(HttpResponse const& response) {
    std::string range = response.header("range");  // "bytes=0-N"
    size_t dash = range.find('-');
    _offset = dash == std::string::npos ? 0 : std::stoll(range.substr(dash + 1)) + 1;
}

Json::Value Session::storedUnderNewId() {
    if (_new_id.empty()) return Json::Value();
    HttpResponse response =
        _api.exchange(_api.api("GET", "files/" + _api.http().escape(_new_id),
                               "supportsAllDrives=true&fields=" + _api.http().escape(kFileFields)));
    if (response.transportFailed() || response.status != 200) return Json::Value();
    Json::Value file = parseJson(response.body);
    if (file.get("size", "").asString() != std::to_string(_size)) return Json::Value();
    return file;
}

Json::Value Session::run() {
    if (_size <= kWholeUpload) return sendWhole();
    _md5 = std::make_unique<Md5>();
    open();
    int stalled = 0;
    int restarts = 0;
    for (;;) {
        std::int64_t before = _offset;
        HttpResponse response = sendChunk();
        // A dropped connection, a failing server or a rate limit mid-chunk:
        // the session stays valid, and its status query tells what the
        // service kept. A cut connection is asked at once; an answer that
        // asks for patience, and every further query, after a pause.
        for (int queries = 0; isPassing(response) && stalled < kStalledAttempts; ++queries) {
            ++stalled;
            if (queries > 0 || !response.transportFailed())
                pauseBeforeResume(response, queries + 1);
            response = queryStatus();
        }
        if (response.status == 200 || response.status == 201) return parseJson(response.body);
        if (response.transportFailed() || response.status >= 500) {
            // Only the last chunk's answer may have been lost: ask for the file.
            Json::Value stored = storedUnderNewId();
            if (!stored.isNull()) return stored;
        }
        if (response.status == 308) {
            confirm(response);
            if (_offset > before)
                stalled = 0;
            else if (++stalled >= kStalledAttempts)
                throw AgentFailure(kTransportFailure, "the upload makes no progress");
            continue;
        }
        if ((response.status == 404 || response.status == 410) && restarts < kSessionRestarts) {
            // The session expired: the service kept nothing of it.
            ++restarts;
            open();
            continue;
        }
        _api.fail(response);
    }
}

// `when` as RFC 3339 in UTC, to the millisecond, as Drive writes times.
std::string rfc3339(struct timespec const& when) {
    std::tm tm{};
    gmtime_r(&when.tv_sec, &tm);
    char text[40];
    size_t n = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &tm);
    std::snprintf(text + n, sizeof text - n, ".%03ldZ", when.tv_nsec / 1000000);
    return text;
}

}  // namespace

Json::Value uploadContent(DriveApi& api, IdPool& ids, UploadTarget const& target,
                          std::string const& inputPath, bool empty, int out) {
    int fd = -1;
    std::int64_t size = 0;
    std::string modifiedTime;
    if (empty) {
        // The plug-in names the file for an empty one too; one that cannot be
        // examined leaves the service's own time.
        struct stat st;
        if (::stat(inputPath.c_str(), &st) == 0) modifiedTime = rfc3339(st.st_mtim);
    } else {
        fd = ::open(inputPath.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat st;
        if (fd < 0 || ::fstat(fd, &st) != 0) {
            int error = errno;
            if (fd >= 0) ::close(fd);
            throw AgentFailure(kLocalFailure,
                               "cannot read " + inputPath + ": " + std::strerror(error));
        }
        size = st.st_size;
        modifiedTime = rfc3339(st.st_mtim);
    }
    std::unique_ptr<int, void (*)(int*)> closer(&fd, [](int* f) {
        if (*f >= 0) ::close(*f);
    });
    ProgressLines progress(out, size);
    Session session(api, ids, target, fd, size, modifiedTime, progress);
    Json::Value file = session.run();
    progress.finish();
    std::string expected = session.md5();
    if (file.get("md5Checksum", "").asString() != expected) {
        if (!session.createdId().empty()) {
            ids.settle(target.parentId, target.name, false);
            try {
                deleteObject(api, session.createdId());
            } catch (AgentFailure const&) {
                // The answer says what went wrong; a leftover is the lesser harm.
            }
        }
        throw AgentFailure(kIntegrityFailure,
                           "the service stored other bytes than were sent (MD5 " +
                               file.get("md5Checksum", "").asString() + ", sent " + expected + ")");
    }
    if (target.id.empty()) ids.settle(target.parentId, target.name, false);
    Json::Value answer = successWith(objectRecord(file));
    answer["complete"] = true;
    return answer;
}

}  // namespace DriveAgent
