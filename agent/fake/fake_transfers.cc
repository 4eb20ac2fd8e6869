// The fake's content routes: Drive's resumable upload protocol (a session
// per upload, chunks with Content-Range, 308 with Range while incomplete,
// the status query "bytes */N", expired sessions) and alt=media downloads
// with Range.
#include <fcntl.h>
#include <json/reader.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <utility>

#include "content_copy.h"
#include "fake_state.h"
#include "ids.h"
#include "md5_hex.h"

namespace DriveFake {

using DriveEmulator::Error;
using DriveEmulator::ReadTransaction;
using DriveEmulator::WriteTransaction;

namespace {

constexpr size_t kWriteBlock = 1 << 20;

std::string hexDigest(EVP_MD_CTX* ctx) { return DriveAgent::finishHexDigest(ctx); }

Json::Value parseMeta(std::string const& body) {
    Json::Value value;
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    reader->parse(body.data(), body.data() + body.size(), &value, &errors);
    return value.isObject() ? value : Json::Value(Json::objectValue);
}

void finish(FakeDrive::State& s, UploadSession& session, httplib::Response& res);

// Drive takes metadata and content in one request up to this size.
constexpr size_t kMultipartMedia = 5000000;

// The value of `name` among a header's parameters ("...; boundary=x"),
// unquoted; empty when absent.
std::string headerParam(std::string const& header, std::string const& name) {
    size_t at = header.find("; " + name + "=");
    if (at == std::string::npos) at = header.find(";" + name + "=");
    if (at == std::string::npos) return "";
    at = header.find('=', at) + 1;
    std::string value = header.substr(at, header.find(';', at) - at);
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
        value = value.substr(1, value.size() - 2);
    return value;
}

// The metadata and content parts of a multipart/related body as Drive
// documents it: the boundary named in the Content-Type, the body opening
// with its delimiter, exactly two parts each with a Content-Type (the first
// JSON), the closing delimiter last. Returns what is wrong, empty when
// nothing is. The content part ends at the first delimiter: a boundary
// that occurs in the content cuts it, as it would at Drive.
std::string splitMultipart(httplib::Request const& req, std::string& meta, std::string& media) {
    std::string const type = req.get_header_value("Content-Type");
    if (type.rfind("multipart/related;", 0) != 0) return "not multipart/related";
    std::string const boundary = headerParam(type, "boundary");
    if (boundary.empty() || boundary.size() > 70) return "no boundary";
    std::string const delimiter = "--" + boundary;
    std::string const& body = req.body;
    if (body.compare(0, delimiter.size() + 2, delimiter + "\r\n") != 0)
        return "the body does not open with the boundary";
    std::vector<std::pair<std::string, std::string>> parts;  // headers, content
    size_t at = delimiter.size() + 2;
    for (;;) {
        size_t blank = body.find("\r\n\r\n", at);
        size_t end = body.find("\r\n" + delimiter, at);
        if (end == std::string::npos) return "a part without its closing delimiter";
        if (blank == std::string::npos || blank > end) return "a part without headers";
        parts.emplace_back(body.substr(at, blank + 2 - at),
                           body.substr(blank + 4, end - blank - 4));
        at = end + 2 + delimiter.size();
        if (body.compare(at, 2, "--") == 0) {
            at += 2;
            break;
        }
        if (body.compare(at, 2, "\r\n") != 0) return "a delimiter not followed by a line end";
        at += 2;
    }
    if (body.substr(at) != "" && body.substr(at) != "\r\n") return "bytes after the last part";
    if (parts.size() != 2) return std::to_string(parts.size()) + " parts instead of 2";
    auto contentType = [](std::string const& headers) {
        std::string lower = headers;
        for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        size_t at = lower.find("content-type:");
        if (at != 0 && (at == std::string::npos || lower.compare(at - 2, 2, "\r\n") != 0))
            return std::string();
        at = lower.find_first_not_of(' ', at + 13);
        return lower.substr(at, lower.find("\r\n", at) - at);
    };
    if (contentType(parts[0].first).rfind("application/json", 0) != 0)
        return "the first part is not JSON metadata";
    if (contentType(parts[1].first).empty()) return "the content part has no Content-Type";
    meta = parts[0].second;
    media = parts[1].second;
    return "";
}

void startSession(FakeDrive::State& s, httplib::Request const& req, httplib::Response& res,
                  std::string const& updateId) {
    bool const multipart = req.get_param_value("uploadType") == "multipart";
    std::string metaText = req.body, media;
    if (multipart) {
        std::string problem = splitMultipart(req, metaText, media);
        if (problem.empty() && media.size() > kMultipartMedia)
            problem = "content past 5 MB: a resumable upload is needed";
        Json::Value parsed;
        Json::CharReaderBuilder builder;
        builder["strictRoot"] = true;
        std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        std::string errors;
        if (problem.empty() &&
            (!reader->parse(metaText.data(), metaText.data() + metaText.size(), &parsed, &errors) ||
             !parsed.isObject()))
            problem = "the metadata part is no JSON object";
        if (!problem.empty()) {
            sendError(res, 400, "badContent", "Malformed multipart body: " + problem + ".");
            return;
        }
    }
    Json::Value meta = parseMeta(metaText);
    std::optional<std::int64_t> mtime;
    if (!modifiedTimeOf(meta, mtime)) {
        sendError(res, 400, "invalid", "Invalid value for: modifiedTime");
        return;
    }
    std::lock_guard<std::mutex> guard(s.lock);
    UploadSession session;
    session.update = !updateId.empty();
    session.fields = req.get_param_value("fields");
    session.mtime = mtime;
    session.size = multipart ? static_cast<std::int64_t>(media.size())
                             : std::atoll(req.get_header_value("X-Upload-Content-Length").c_str());
    try {
        ReadTransaction read(s.store.db());
        std::int64_t oldSize = 0;
        if (session.update) {
            DriveEmulator::StoredObject target = s.store.get(updateId);
            if (target.object.isDir) throw Error(400, "A folder has no content to update.");
            session.id = target.object.id;
            oldSize = static_cast<std::int64_t>(target.object.size);
        } else {
            session.parentId = meta["parents"].isArray() && !meta["parents"].empty()
                                   ? meta["parents"][0].asString()
                                   : "root";
            s.store.getFolder(session.parentId);
            session.name = meta.get("name", "Untitled").asString();
            session.id = meta.get("id", "").asString();
            if (!session.id.empty() && s.store.find(session.id)) {
                throw Error(409, "A file already exists with the provided ID.");
            }
        }
        s.store.checkQuota(session.size - oldSize);
        session.blob = std::make_unique<DriveEmulator::PendingBlob>(s.store.blobs());
    } catch (Error const& e) {
        sendModelError(res, e);
        return;
    }
    std::string sid = DriveEmulator::randomToken(40);
    session.md5.reset(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    EVP_DigestInit_ex(session.md5.get(), EVP_md5(), nullptr);
    session.sha256.reset(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    EVP_DigestInit_ex(session.sha256.get(), EVP_sha256(), nullptr);
    ++s.counters.uploadStarts;
    if (multipart) {
        // Metadata and content in one request: stored at once.
        if (!media.empty() && ::pwrite(session.blob->fd(), media.data(), media.size(), 0) !=
                                  static_cast<ssize_t>(media.size())) {
            sendError(res, 500, "backendError", "Cannot store the content.");
            return;
        }
        EVP_DigestUpdate(session.md5.get(), media.data(), media.size());
        EVP_DigestUpdate(session.sha256.get(), media.data(), media.size());
        session.received = session.size;
        finish(s, session, res);
        return;
    }
    s.sessions[sid] = std::move(session);
    ++s.counters.sessions;
    std::string path =
        updateId.empty() ? "/upload/drive/v3/files" : "/upload/drive/v3/files/" + updateId;
    // The session lives where the client reached us (a proxy in front, say).
    std::string host = req.get_header_value("Host");
    if (host.empty()) host = "127.0.0.1:" + std::to_string(s.port);
    res.set_header("Location", (s.tls ? "https://" : "http://") + host + path +
                                   "?uploadType=resumable&upload_id=" + sid);
    res.status = 200;
}

// Publishes a complete session's content as the file's new version.
void finish(FakeDrive::State& s, UploadSession& session, httplib::Response& res) {
    DriveEmulator::NewContent content{"", 0, DriveEmulator::kEmptyMd5};
    std::string md5 = hexDigest(session.md5.get());
    std::string sha256 = hexDigest(session.sha256.get());
    if (s.corruptNext) {
        // Bytes damaged on the service's side: the checksum no longer matches.
        s.corruptNext = false;
        md5 = DriveEmulator::md5Hex(md5);
    } else if (session.size > 0) {
        s.sha256ByMd5[md5] = sha256;
    }
    if (session.size > 0) {
        content = DriveEmulator::NewContent{session.blob->name(), session.size, md5};
        session.blob->publish(false);
    }
    try {
        WriteTransaction txn(s.store.db());
        DriveEmulator::Object object;
        if (session.update) {
            std::string old = s.store.updateFile(session.id, content);
            if (session.mtime) s.store.setMtime(session.id, *session.mtime);
            object = s.store.get(session.id).object;
            txn.commit();
            if (!old.empty()) s.store.blobs().discard(old);
        } else {
            object =
                s.store.createFile(session.parentId, session.name, content, s.lagNext, session.id);
            if (session.mtime) {
                s.store.setMtime(object.id, *session.mtime);
                object.mtime = *session.mtime;
            }
            txn.commit();
            s.lagNext = 0;
        }
        if (session.size > 0) session.blob->keep();
        session.finished = fileResource(object);
        sendJson(res, session.finished);
    } catch (Error const& e) {
        sendModelError(res, e);
    }
}

// Stores what arrives of a chunk as it arrives: a connection dropped
// mid-chunk leaves the bytes received so far, as Drive keeps them.
void receiveChunk(FakeDrive::State& s, httplib::Request const& req, httplib::Response& res,
                  httplib::ContentReader const& reader) {
    std::lock_guard<std::mutex> guard(s.lock);
    std::string sid = req.get_param_value("upload_id");
    auto found = s.sessions.find(sid);
    if (found != s.sessions.end() && s.expireSessions > 0 && found->second.finished.isNull()) {
        --s.expireSessions;
        s.sessions.erase(found);
        found = s.sessions.end();
    }
    if (found == s.sessions.end()) {
        sendError(res, 404, "notFound", "Upload session expired or unknown.");
        return;
    }
    UploadSession& session = found->second;
    // "bytes FIRST-LAST/TOTAL" carries data; "bytes */TOTAL" asks for the status.
    std::string range = req.get_header_value("Content-Range");
    if (range.rfind("bytes ", 0) != 0) {
        sendError(res, 400, "badContent", "Missing Content-Range.");
        return;
    }
    if (range.compare(6, 1, "*") != 0) {
        std::int64_t position = std::atoll(range.c_str() + 6);
        if (position > session.received) {
            sendError(res, 400, "badContent", "Content-Range does not follow what was received.");
            return;
        }
        // httplib hands the body over a few kilobytes at a time; written
        // like that, unaligned, the kernel spends more zeroing and locking
        // pages than copying. Gathered into a megabyte, the fake stays out of
        // the way of the client it measures.
        std::string pending;
        pending.reserve(kWriteBlock);
        bool stored = true;
        auto flush = [&] {
            if (pending.empty()) return true;
            if (::pwrite(session.blob->fd(), pending.data(), pending.size(), session.received) !=
                static_cast<ssize_t>(pending.size()))
                return false;
            EVP_DigestUpdate(session.md5.get(), pending.data(), pending.size());
            EVP_DigestUpdate(session.sha256.get(), pending.data(), pending.size());
            session.received += static_cast<std::int64_t>(pending.size());
            pending.clear();
            return true;
        };
        reader([&](char const* data, size_t n) {
            std::int64_t end = position + static_cast<std::int64_t>(n);
            std::int64_t have = session.received + static_cast<std::int64_t>(pending.size());
            if (session.finished.isNull() && end > have && end <= session.size) {
                std::int64_t skip = have - position;
                pending.append(data + skip, static_cast<size_t>(end - have));
                if (pending.size() >= kWriteBlock && !flush()) {
                    stored = false;
                    return false;
                }
            }
            position = end;
            return true;
        });
        // A dropped connection keeps what arrived before it, as Drive does.
        if (!flush()) stored = false;
        if (!stored) {
            sendError(res, 500, "backendError", "Cannot store the chunk.");
            return;
        }
    }
    if (!session.finished.isNull()) {
        sendJson(res, session.finished);
        return;
    }
    // Only a chunk completes an upload: "bytes */N" asks for the status,
    // and Drive answers an unfinished session's with 308, an empty one's too.
    if (session.received == session.size && range.compare(6, 1, "*") != 0) {
        finish(s, session, res);
        return;
    }
    res.status = 308;
    if (session.received > 0)
        res.set_header("Range", "bytes=0-" + std::to_string(session.received - 1));
}

}  // namespace

void addTransferRoutes(FakeDrive::State& state) {
    auto& s = state;
    s.server->Post("/upload/drive/v3/files",
                   [&s](httplib::Request const& req, httplib::Response& res) {
                       if (createRefused(s, req, res)) return;
                       startSession(s, req, res, "");
                   });
    s.server->Patch(R"(/upload/drive/v3/files/([^/]+))",
                    [&s](httplib::Request const& req, httplib::Response& res) {
                        startSession(s, req, res, req.matches[1]);
                    });
    auto chunk = [&s](httplib::Request const& req, httplib::Response& res,
                      httplib::ContentReader const& reader) { receiveChunk(s, req, res, reader); };
    s.server->Put("/upload/drive/v3/files", chunk);
    s.server->Put(R"(/upload/drive/v3/files/([^/]+))", chunk);
}

void serveMedia(FakeDrive::State& s, httplib::Request const& req, httplib::Response& res) {
    int fd = -1;
    std::int64_t size = 0;
    std::int64_t limit = 0;
    bool corrupt = false;
    {
        std::lock_guard<std::mutex> guard(s.lock);
        try {
            ReadTransaction read(s.store.db());
            DriveEmulator::StoredObject stored = s.store.get(req.matches[1]);
            if (stored.object.isDir || !nativeTypeOf(s, stored.object.id).empty()) {
                sendError(res, 403, "fileNotDownloadable",
                          "Only files with binary content can be downloaded. Use Export with Docs "
                          "Editors files.");
                return;
            }
            if (s.abusive.count(stored.object.id) &&
                req.get_param_value("acknowledgeAbuse") != "true") {
                sendError(res, 403, "cannotDownloadAbusiveFile",
                          "This file has been identified as malware or spam and cannot be "
                          "downloaded.");
                return;
            }
            size = static_cast<std::int64_t>(stored.object.size);
            if (!stored.blob.empty())
                fd = ::open(s.store.blobs().path(stored.blob).c_str(), O_RDONLY | O_CLOEXEC);
        } catch (Error const& e) {
            sendModelError(res, e);
            return;
        }
        limit = s.mediaLimit;
        if (s.ignoreRanges > 0) {
            --s.ignoreRanges;
            const_cast<httplib::Request&>(req).ranges.clear();
        }
        corrupt = s.corruptMedia;
        s.corruptMedia = false;
    }
    std::int64_t first = 0;
    std::int64_t last = size - 1;
    bool ranged = req.ranges.size() == 1;
    if (ranged) {
        first = req.ranges[0].first >= 0 ? req.ranges[0].first : 0;
        if (req.ranges[0].second >= 0) last = std::min<std::int64_t>(last, req.ranges[0].second);
        if (first >= size && size > 0) {
            if (fd >= 0) ::close(fd);
            res.status = 416;
            return;
        }
    }
    if (limit > 0) last = std::min(last, first + limit - 1);
    // The ranges are answered here, so that a short answer can be made.
    const_cast<httplib::Request&>(req).ranges.clear();
    std::int64_t length = std::max<std::int64_t>(0, last - first + 1);
    res.status = ranged ? 206 : 200;
    if (ranged) {
        res.set_header("Content-Range", "bytes " + std::to_string(first) + "-" +
                                            std::to_string(last) + "/" + std::to_string(size));
    }
    if (length == 0 || fd < 0) {
        if (fd >= 0) ::close(fd);
        res.set_content("", "application/octet-stream");
        return;
    }
    res.set_content_provider(
        static_cast<size_t>(length), "application/octet-stream",
        [fd, first, corrupt, counters = &s.counters](size_t offset, size_t want,
                                                     httplib::DataSink& sink) {
            char buffer[1 << 16];
            ssize_t n = ::pread(fd, buffer, std::min(want, sizeof buffer),
                                static_cast<off_t>(first + static_cast<std::int64_t>(offset)));
            if (n <= 0) return false;
            if (corrupt && offset == 0) buffer[0] = static_cast<char>(~buffer[0]);
            counters->mediaBytes += n;
            return sink.write(buffer, static_cast<size_t>(n));
        },
        [fd](bool) { ::close(fd); });
}

}  // namespace DriveFake
