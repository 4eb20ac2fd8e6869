// The long requests of Server: downloads and uploads, streamed with progress
// messages between the request and its final response.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include "content_copy.h"
#include "fd.h"
#include "server.h"

namespace DriveEmulator {

namespace {

[[noreturn]] void localFailure(std::string const& what, std::string const& path) {
    // The drive agent's own failures (not the service's) carry negative codes.
    throw Error(-1, what + " " + path + ": " + std::strerror(errno));
}

// Sends the progress messages of one transfer and carries out the faults
// that act on them.
class ProgressSender {
  public:
    ProgressSender(std::function<bool(Json::Value const&)> send, std::int64_t total,
                   FiredFaults const& fired, std::function<void(std::string const&)> exitNow)
        : _send(std::move(send)), _total(total), _fired(fired), _exit_now(std::move(exitNow)) {
        if (_fired.exitAfterProgress && *_fired.exitAfterProgress <= 0) {
            _exit_now("exited at the start of the transfer (fault)");
        }
    }

    // The real progress points; a played sequence replaces them.
    ProgressCallback callback() {
        if (_fired.progress) return ProgressCallback();
        return [this](std::int64_t done) {
            sendFraction(_total > 0 ? std::min(1.0, double(done) / double(_total)) : 1.0);
        };
    }

    // Plays the fault's sequence, if any, and exits when a fault says the
    // final response must never come.
    void beforeFinal() {
        if (_fired.progress) {
            for (double fraction : *_fired.progress) sendFraction(fraction);
        }
        if (_fired.exitAfterProgress) {
            _exit_now("exited after " + std::to_string(_sent) + " progress messages (fault)");
        }
    }

  private:
    void sendFraction(double fraction) {
        _send(progressMessage(fraction));
        ++_sent;
        if (_fired.exitAfterProgress && _sent >= *_fired.exitAfterProgress) {
            _exit_now("exited after " + std::to_string(_sent) + " progress messages (fault)");
        }
    }

    std::function<bool(Json::Value const&)> _send;
    std::int64_t _total;
    FiredFaults const& _fired;
    std::function<void(std::string const&)> _exit_now;
    std::int64_t _sent = 0;
};

}  // namespace

void Server::download(Request const& request, FiredFaults const& fired) {
    std::string const id = request.get("id");
    std::string const outputPath = request.get("outputPath");
    StoredObject stored;
    Settings settings;
    {
        ReadTransaction read(_store.db());
        settings = _store.settings();
        stored = _store.get(id);
    }
    if (stored.object.isDir) {
        throw Error(403, "Only files with binary content can be downloaded.");
    }
    // Truncate only a file that holds something: ext4 flushes a file that was
    // truncated to zero as soon as it is closed, and the plug-in hands us the
    // empty temporary file it made, which would turn every download into a
    // synchronous write of the whole file.
    Fd out(::open(outputPath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    if (out.get() < 0) localFailure("cannot write", outputPath);
    struct stat existing;
    if (::fstat(out.get(), &existing) != 0 ||
        (existing.st_size > 0 && ::ftruncate(out.get(), 0) != 0)) {
        localFailure("cannot write", outputPath);
    }

    auto size = static_cast<std::int64_t>(stored.object.size);
    std::int64_t length = fired.shortDownload ? std::max<std::int64_t>(0, size - 1) : size;
    ProgressSender progress([this](Json::Value const& m) { return send(m); }, length, fired,
                            [&](std::string const& why) { exitNow(request, why); });
    if (length > 0) {
        // An update in another process may retire the blob we were told
        // about between reading the row and opening the file: look again.
        int in = -1;
        for (int attempt = 0; in < 0; ++attempt) {
            in = ::open(_store.blobs().path(stored.blob).c_str(), O_RDONLY | O_CLOEXEC);
            if (in >= 0) break;
            if (errno != ENOENT || attempt == 3) {
                throw Error(500, "Internal Error (content of " + id + " unreadable)");
            }
            ReadTransaction read(_store.db());
            stored = _store.get(id);
            size = static_cast<std::int64_t>(stored.object.size);
            length = fired.shortDownload ? std::max<std::int64_t>(0, size - 1) : size;
        }
        Fd blob(in);
        CopyResult copied = copyBytes(blob.get(), out.get(), length, settings.progressBytes,
                                      progress.callback(), [this] { return clientGone(); });
        if (copied.bytes != length) {
            throw Error(500, "Internal Error (content of " + id + " is shorter than its size)");
        }
    }
    if (fired.longDownload) {
        char const extra = '\n';
        if (::write(out.get(), &extra, 1) != 1) localFailure("cannot write", outputPath);
    }
    if (!out.close()) localFailure("cannot write", outputPath);
    progress.beforeFinal();

    Json::Value response = commit(
        request,
        [] {
            Json::Value done(Json::objectValue);
            done["success"] = true;
            done["complete"] = true;
            return done;
        },
        appliedNote(fired));
    answerApplied(fired, response);
}

void Server::upload(Request const& request, FiredFaults const& fired) {
    bool const update = request.kind == Kind::Update;
    std::string const inputPath = request.get("inputPath");
    Settings settings;
    std::int64_t oldSize = 0;
    {
        // Refuse before reading anything when the target is wrong.
        ReadTransaction read(_store.db());
        settings = _store.settings();
        if (update) {
            StoredObject target = _store.get(request.get("id"));
            if (target.object.isDir) throw Error(400, "A folder has no content to update.");
            oldSize = static_cast<std::int64_t>(target.object.size);
        } else {
            _store.getFolder(request.get("parentId"));
        }
    }

    NewContent content{"", 0, kEmptyMd5, 0};
    // Drive keeps the modification time a client gives at upload; ours is
    // that of the local file, so a restore can give it back.
    struct stat local {};
    if (::stat(inputPath.c_str(), &local) == 0) content.mtime = local.st_mtime;
    std::optional<PendingBlob> blob;
    std::optional<ProgressSender> progress;
    if (request.empty) {
        // The empty variants make an empty file whatever the local path holds.
        progress.emplace([this](Json::Value const& m) { return send(m); }, 0, fired,
                         [&](std::string const& why) { exitNow(request, why); });
    } else {
        Fd in(::open(inputPath.c_str(), O_RDONLY | O_CLOEXEC));
        if (in.get() < 0) localFailure("cannot read", inputPath);
        struct stat st;
        if (::fstat(in.get(), &st) != 0) localFailure("cannot read", inputPath);
        content.mtime = st.st_mtime;
        {
            ReadTransaction read(_store.db());
            _store.checkQuota(static_cast<std::int64_t>(st.st_size) - oldSize);
        }
        progress.emplace([this](Json::Value const& m) { return send(m); },
                         static_cast<std::int64_t>(st.st_size), fired,
                         [&](std::string const& why) { exitNow(request, why); });
        blob.emplace(_store.blobs());
        CopyResult copied = copyWithMd5(in.get(), blob->fd(), settings.progressBytes,
                                        progress->callback(), [this] { return clientGone(); });
        if (copied.bytes > 0) {
            content = NewContent{blob->name(), copied.bytes, copied.md5, content.mtime};
            blob->publish(settings.fsync);
        }
    }
    progress->beforeFinal();

    Json::Value response = commit(
        request,
        [&] {
            Object object;
            if (update) {
                std::string old = _store.updateFile(request.get("id"), content);
                if (!old.empty()) _discard.push_back(old);
                object = _store.get(request.get("id")).object;
            } else {
                object = _store.createFile(request.get("parentId"), request.get("name"), content,
                                           fired.listingLag);
            }
            Json::Value done = objectResponse(object);
            done["complete"] = true;
            return done;
        },
        appliedNote(fired));
    if (!content.blob.empty()) blob->keep();
    answerApplied(fired, response);
}

}  // namespace DriveEmulator
