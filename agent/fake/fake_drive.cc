#include "fake_drive.h"

#include <json/reader.h>
#include <json/writer.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <ctime>
#include <map>

#include "content_copy.h"
#include "fake_state.h"
#include "ids.h"
#include "utf8.h"

namespace DriveFake {

using DriveEmulator::Error;
using DriveEmulator::Object;
using DriveEmulator::ReadTransaction;
using DriveEmulator::WriteTransaction;

void sendJson(httplib::Response& res, Json::Value const& value, int status) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    res.status = status;
    res.set_content(Json::writeString(builder, value), "application/json; charset=UTF-8");
}

void sendError(httplib::Response& res, int status, std::string const& reason,
               std::string const& message, std::string const& domain) {
    Json::Value error(Json::objectValue);
    Json::Value detail(Json::objectValue);
    detail["domain"] = domain;
    detail["reason"] = reason;
    detail["message"] = message;
    error["error"]["errors"].append(detail);
    error["error"]["code"] = status;
    error["error"]["message"] = message;
    sendJson(res, error, status);
}

void sendModelError(httplib::Response& res, Error const& error) {
    std::string message = error.what();
    switch (error.code()) {
        case 404:
            sendError(res, 404, "notFound", message);
            break;
        case 409:
            sendError(res, 409, "duplicate", message);
            break;
        case 400:
            sendError(res, 400, "invalid", message);
            break;
        case 403:
            // Drive words a full account differently in different places;
            // the agent must go by the reason.
            if (message == DriveEmulator::Messages::kQuotaExceeded) {
                sendError(res, 403, "storageQuotaExceeded",
                          "The user has exceeded their Drive storage quota");
            } else {
                sendError(res, 403, "insufficientFilePermissions", message);
            }
            break;
        default:
            sendError(res, error.code() > 0 ? error.code() : 500, "backendError", message);
    }
}

bool modifiedTimeOf(Json::Value const& meta, std::optional<std::int64_t>& seconds) {
    if (!meta.isMember("modifiedTime")) return true;
    if (!meta["modifiedTime"].isString()) return false;
    std::string const text = meta["modifiedTime"].asString();
    std::tm tm{};
    char const* end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &tm);
    if (!end || text.size() < 20) return false;
    if (*end == '.') {
        ++end;
        if (!std::isdigit(static_cast<unsigned char>(*end))) return false;
        while (std::isdigit(static_cast<unsigned char>(*end))) ++end;
    }
    std::int64_t offset = 0;
    if (*end == '+' || *end == '-') {
        int hours = 0, minutes = 0;
        if (std::sscanf(end + 1, "%2d:%2d", &hours, &minutes) != 2 || std::strlen(end) != 6)
            return false;
        offset = (*end == '+' ? 1 : -1) * (hours * 3600 + minutes * 60);
    } else if (std::string(end) != "Z") {
        return false;
    }
    seconds = static_cast<std::int64_t>(timegm(&tm)) - offset;
    return true;
}

std::string nativeTypeOf(FakeDrive::State& state, std::string const& id) {
    auto found = state.nativeTypes.find(id);
    return found == state.nativeTypes.end() ? "" : found->second;
}

Json::Value fileResource(Object const& object, std::string const& sha256,
                         std::string const& nativeType) {
    Json::Value file(Json::objectValue);
    file["kind"] = "drive#file";
    file["id"] = object.id;
    file["name"] = object.name;
    file["mimeType"] = !nativeType.empty() ? nativeType
                       : object.isDir      ? "application/vnd.google-apps.folder"
                                           : "application/octet-stream";
    if (!object.parents.empty()) {
        for (auto const& parent : object.parents) file["parents"].append(parent);
    }
    if (!nativeType.empty()) {
        // Editor files report a size but have no stored bytes; shortcuts neither.
        if (nativeType != "application/vnd.google-apps.shortcut")
            file["size"] = std::to_string(object.size);
    } else if (!object.isDir) {
        file["size"] = std::to_string(object.size);
        file["md5Checksum"] = object.md5;
        if (!sha256.empty()) file["sha256Checksum"] = sha256;
    }
    char when[32];
    std::time_t t = object.mtime;
    std::tm tm{};
    gmtime_r(&t, &tm);
    std::strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%S.000Z", &tm);
    file["modifiedTime"] = when;
    file["trashed"] = object.trashed;
    return file;
}

namespace {

Json::Value parseBody(std::string const& body) {
    Json::Value value;
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    reader->parse(body.data(), body.data() + body.size(), &value, &errors);
    return value;
}

// Drive's name of the API method `req` calls.
std::string apiMethod(httplib::Request const& req) {
    std::string const& path = req.path;
    if (path == "/drive/v3/about") return "about.get";
    if (path == "/drive/v3/files/generateIds") return "files.generateIds";
    if (path.rfind("/upload/drive/v3/files", 0) == 0) {
        if (req.method == "PUT") return "upload chunk";
        return req.method == "POST" ? "files.create upload" : "files.update upload";
    }
    if (path == "/drive/v3/files") return req.method == "POST" ? "files.create" : "files.list";
    if (path.rfind("/drive/v3/files/", 0) != 0) return "";  // the token endpoint
    if (req.method == "DELETE") return "files.delete";
    if (req.method == "PATCH") return "files.update";
    return req.get_param_value("alt") == "media" ? "files.get media" : "files.get";
}

// A failure rule that fires on this request, if any.
// `committed`: the request was served with success, and only the rules that
// fail a committed request are asked.
std::optional<FailRule> firedRule(FakeDrive::State& state, httplib::Request const& req,
                                  bool committed) {
    // A resumable session's start commits nothing: its 200 is no stored file.
    if (committed && req.method != "PUT" && req.get_param_value("uploadType") == "resumable")
        return std::nullopt;
    std::string what = req.method + " " + req.path;
    std::string method = apiMethod(req);
    for (auto it = state.failures.begin(); it != state.failures.end(); ++it) {
        if (what.find(it->match) == std::string::npos && method != it->match) continue;
        if (it->afterCommit != committed) continue;
        if (it->after > 0) {
            --it->after;
            return std::nullopt;
        }
        FailRule rule = *it;
        if (rule.delayMs == 0) ++state.counters.failuresServed;
        if (--it->times == 0) state.failures.erase(it);
        return rule;
    }
    return std::nullopt;
}

void sendRule(httplib::Response& res, FailRule const& rule) {
    if (rule.retryAfter > 0) res.set_header("Retry-After", std::to_string(rule.retryAfter));
    if (rule.html) {
        res.status = rule.status;
        res.set_content(
            "<html><head><title>502 Bad Gateway</title></head><body>Bad Gateway</body></html>",
            "text/html");
    } else {
        sendError(res, rule.status, rule.reason, rule.message);
    }
}

// Takes a token from the write throttle's bucket; false when it is empty.
bool writeAllowed(FakeDrive::State& state) {
    auto now = std::chrono::steady_clock::now();
    double elapsed = std::chrono::duration<double>(now - state.refilled).count();
    state.refilled = now;
    state.writeTokens = std::min(state.writeBurst, state.writeTokens + elapsed * state.writeRate);
    if (state.writeTokens < 1) return false;
    state.writeTokens -= 1;
    return true;
}

// Drive's answer to a client past its write rate: the request rate limit's
// words, which differ from the daily upload limit's ("User rate limit
// exceeded.").
void sendWriteRateLimit(httplib::Response& res) {
    sendError(res, 403, "userRateLimitExceeded",
              "User Rate Limit Exceeded. Rate of requests for user exceed configured project "
              "quota. You may consider re-evaluating expected per-user traffic to the API and "
              "adjust project quota limits accordingly. You may monitor aggregate quota usage and "
              "adjust limits in your API Console: "
              "https://console.developers.google.com/apis/api/drive.googleapis.com/"
              "quotas?project=418305926774",
              "usageLimits");
}

// The service's latency, faults, then the access token of every API request
// and the write throttle.
httplib::Server::HandlerResponse gate(FakeDrive::State& state, httplib::Request const& req,
                                      httplib::Response& res) {
    std::unique_lock<std::mutex> guard(state.lock);
    std::string method = req.path == "/token" ? "token" : apiMethod(req);
    ++state.requestCounts[method.empty() ? "other" : method];
    if (state.latencyMs > 0) {
        // Other requests are served meanwhile, as by the real service.
        state.stopped.wait_for(guard, std::chrono::milliseconds(state.latencyMs),
                               [&state] { return state.stopping; });
    }
    // An answer made here leaves the request's body unread on the
    // connection, where it would pass for the next request: the client is
    // told to close it.
    auto refused = [&req, &res] {
        if (req.has_header("Content-Length") || req.has_header("Transfer-Encoding"))
            res.set_header("Connection", "close");
        return httplib::Server::HandlerResponse::Handled;
    };
    if (auto rule = firedRule(state, req, false)) {
        if (rule->delayMs == 0) {
            // httplib would cut the error body to the request's Range (416).
            const_cast<httplib::Request&>(req).ranges.clear();
            sendRule(res, *rule);
            return refused();
        }
        // A stall: the other requests go on meanwhile, and the fake's end cuts it short.
        state.stopped.wait_for(guard, std::chrono::milliseconds(rule->delayMs),
                               [&state] { return state.stopping; });
    }
    if (req.path == "/token" || req.path == "/auth")
        return httplib::Server::HandlerResponse::Unhandled;
    if (req.path.rfind("/media/", 0) == 0) {
        // A redirect's target, as Drive's content hosts: no token wanted.
        ++state.counters.redirected;
        if (req.has_header("Authorization")) ++state.counters.leakedTokens;
        return httplib::Server::HandlerResponse::Unhandled;
    }
    state.lastUserAgent = req.get_header_value("User-Agent");
    std::string auth = req.get_header_value("Authorization");
    std::string token = auth.rfind("Bearer ", 0) == 0 ? auth.substr(7) : "";
    auto found = state.tokens.find(token);
    if (found == state.tokens.end() || std::chrono::steady_clock::now() >= found->second) {
        ++state.counters.unauthorized;
        sendError(res, 401, "authError", "Invalid Credentials");
        return refused();
    }
    if (state.writeRate > 0 && req.method != "GET" && !writeAllowed(state)) {
        ++state.counters.throttled;
        sendWriteRateLimit(res);
        return refused();
    }
    if (!Utf8::isValid(req.get_param_value("q"))) {
        sendError(res, 400, "invalid", "Invalid Value");
        return httplib::Server::HandlerResponse::Handled;
    }
    if (sharedDriveRefuses(state, req, res)) return httplib::Server::HandlerResponse::Handled;
    return httplib::Server::HandlerResponse::Unhandled;
}

// A fields mask ("nextPageToken,files(id,name)") as a tree of names; a
// name without children selects its whole value.
struct Mask {
    std::map<std::string, Mask> children;
    bool all = false;  // "*"
};

Mask parseMask(std::string const& text, size_t& at) {
    Mask mask;
    while (at < text.size() && text[at] != ')') {
        size_t end = text.find_first_of(",()", at);
        if (end == std::string::npos) end = text.size();
        std::string name = text.substr(at, end - at);
        name.erase(0, name.find_first_not_of(' '));
        name.erase(name.find_last_not_of(' ') + 1);
        at = end;
        Mask child;
        if (at < text.size() && text[at] == '(') {
            ++at;
            child = parseMask(text, at);
            if (at < text.size() && text[at] == ')') ++at;
        }
        if (name == "*") {
            mask.all = true;
        } else if (!name.empty()) {
            mask.children[name] = child;
        }
        if (at < text.size() && text[at] == ',') ++at;
    }
    return mask;
}

Json::Value applyMask(Json::Value const& value, Mask const& mask) {
    if (mask.all || mask.children.empty()) return value;
    if (value.isArray()) {
        Json::Value list(Json::arrayValue);
        for (auto const& item : value) list.append(applyMask(item, mask));
        return list;
    }
    if (!value.isObject()) return value;
    Json::Value kept(Json::objectValue);
    for (auto const& [name, child] : mask.children) {
        if (value.isMember(name)) kept[name] = applyMask(value[name], child);
    }
    return kept;
}

// The fields mask a successful answer to `req` is cut to: the request's own,
// the one its upload session began with, or Drive's default for the method
// (empty: the whole answer).
std::string maskFor(FakeDrive::State& state, httplib::Request const& req) {
    if (req.has_param("fields")) return req.get_param_value("fields");
    auto session = state.sessions.find(req.get_param_value("upload_id"));
    if (session != state.sessions.end()) return session->second.fields;
    std::string method = apiMethod(req);
    if (method == "files.list")
        return "kind,nextPageToken,incompleteSearch,files(kind,id,name,mimeType)";
    if (method.rfind("files.", 0) == 0 && method != "files.generateIds")
        return "kind,id,name,mimeType";
    return "";
}

// Drive's JSON as Drive sends it: only the fields asked for, indented
// unless the request says prettyPrint=false; and the padding a test asked for.
void shapeAnswer(FakeDrive::State& state, httplib::Request const& req, httplib::Response& res) {
    if (req.path == "/token" || req.path == "/auth") return;
    bool compact = req.get_param_value("prettyPrint") == "false";
    std::lock_guard<std::mutex> guard(state.lock);
    if (!compact) ++state.counters.prettyPrinted;
    if (res.get_header_value("Content-Type").rfind("application/json", 0) != 0) return;
    Json::Value value;
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    if (reader->parse(res.body.data(), res.body.data() + res.body.size(), &value, &errors)) {
        if (res.status >= 200 && res.status < 300) {
            std::string fields = maskFor(state, req);
            size_t at = 0;
            value = applyMask(value, parseMask(fields, at));
        }
        Json::StreamWriterBuilder writer;
        writer["indentation"] = compact ? "" : "  ";
        res.body = Json::writeString(writer, value) + (compact ? "" : "\n");
    }
    if (state.padNext > 0) {
        res.body.append(static_cast<size_t>(state.padNext), ' ');
        state.padNext = 0;
    }
    res.headers.erase("Content-Length");
    res.set_header("Content-Length", std::to_string(res.body.size()));
}

// base64url without padding of the SHA-256 of `verifier`: PKCE's S256.
std::string s256(std::string const& verifier) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    EVP_Digest(verifier.data(), verifier.size(), digest, &length, EVP_sha256(), nullptr);
    std::string text(4 * ((length + 2) / 3) + 1, '\0');
    text.resize(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]), digest, int(length)));
    for (char& c : text) c = c == '+' ? '-' : c == '/' ? '_' : c;
    return text.substr(0, text.find('='));
}

void consent(FakeDrive::State& state, httplib::Request const& req, httplib::Response& res) {
    auto param = [&req](char const* name) { return req.get_param_value(name); };
    std::string redirect = param("redirect_uri");
    if (param("response_type") != "code" || param("client_id").empty() ||
        redirect.rfind("http://127.0.0.1:", 0) != 0 ||
        param("scope") != "https://www.googleapis.com/auth/drive" ||
        param("access_type") != "offline" || param("code_challenge_method") != "S256" ||
        param("code_challenge").empty() || param("state").empty()) {
        sendError(res, 400, "invalid_request", "Required parameter is missing or wrong");
        return;
    }
    std::lock_guard<std::mutex> guard(state.lock);
    std::string code = "4/0fake-" + DriveEmulator::randomToken(24);
    // Google hands out a refresh token on the first consent of a client, and
    // on a later one only when the request insists (prompt=consent).
    bool first = state.consented.insert(param("client_id")).second;
    state.codes[code] =
        AuthCode{param("code_challenge"), redirect, first || param("prompt") == "consent"};
    res.set_redirect(redirect + "?state=" + httplib::detail::encode_query_param(param("state")) +
                     "&code=" + httplib::detail::encode_query_param(code));
}

// True when the request's grant is good: the refresh token, or an unused
// authorization code with its verifier and redirect_uri.
bool granted(FakeDrive::State& state, httplib::Request const& req, bool& refreshToken) {
    std::string grant = req.get_param_value("grant_type");
    if (grant == "refresh_token")
        return !state.revoked && req.get_param_value("refresh_token") == state.refreshToken;
    if (grant != "authorization_code") return false;
    auto found = state.codes.find(req.get_param_value("code"));
    if (found == state.codes.end()) return false;
    AuthCode code = found->second;
    state.codes.erase(found);  // one use, whatever the outcome
    refreshToken = code.refreshToken;
    return code.redirectUri == req.get_param_value("redirect_uri") &&
           code.challenge == s256(req.get_param_value("code_verifier"));
}

void token(FakeDrive::State& state, httplib::Request const& req, httplib::Response& res) {
    std::lock_guard<std::mutex> guard(state.lock);
    Json::Value answer(Json::objectValue);
    auto client = state.clients.find(req.get_param_value("client_id"));
    if (client == state.clients.end() || client->second != req.get_param_value("client_secret")) {
        answer["error"] = "invalid_client";
        answer["error_description"] = "The OAuth client was not found.";
        sendJson(res, answer, 401);
        return;
    }
    bool refreshToken = false;
    if (!granted(state, req, refreshToken)) {
        answer["error"] = "invalid_grant";
        answer["error_description"] = "Token has been expired or revoked.";
        sendJson(res, answer, 400);
        return;
    }
    std::string token = "ya29.fake-" + DriveEmulator::randomToken(24);
    state.tokens[token] = std::chrono::steady_clock::now() + std::chrono::seconds(state.tokenLife);
    ++state.counters.tokenGrants;
    answer["access_token"] = token;
    answer["expires_in"] = state.tokenLife;
    answer["token_type"] = "Bearer";
    if (refreshToken) answer["refresh_token"] = state.refreshToken;
    sendJson(res, answer);
}

void addMetadataRoutes(FakeDrive::State& state) {
    auto& s = state;
    s.server->Get("/drive/v3/files/generateIds", [&s](httplib::Request const& req,
                                                      httplib::Response& res) {
        int count = req.has_param("count") ? std::atoi(req.get_param_value("count").c_str()) : 10;
        if (count < 1 || count > 1000) {
            sendError(res, 400, "invalid", "Invalid value for: count must be 1 to 1000.");
            return;
        }
        Json::Value answer(Json::objectValue);
        answer["kind"] = "drive#generatedIds";
        answer["space"] = "drive";
        for (int i = 0; i < count; ++i) answer["ids"].append(DriveEmulator::newObjectId());
        s.counters.idsGenerated += count;
        sendJson(res, answer);
    });
    s.server->Get(R"(/drive/v3/files/([^/]+))", [&s](httplib::Request const& req,
                                                     httplib::Response& res) {
        if (req.get_param_value("alt") == "media") {
            std::unique_lock<std::mutex> guard(s.lock);
            if (s.redirectMedia > 0) {
                --s.redirectMedia;
                res.set_redirect("http://localhost:" + std::to_string(s.port) + "/media/" +
                                 std::string(req.matches[1]));
                return;
            }
            guard.unlock();
            serveMedia(s, req, res);
            return;
        }
        std::lock_guard<std::mutex> guard(s.lock);
        try {
            ReadTransaction read(s.store.db());
            Object object = s.store.get(req.matches[1]).object;
            auto sha256 = s.sha256ByMd5.find(object.md5);
            sendJson(res, fileResource(object, sha256 == s.sha256ByMd5.end() ? "" : sha256->second,
                                       nativeTypeOf(s, object.id)));
        } catch (Error const& e) {
            sendModelError(res, e);
        }
    });
    s.server->Get("/drive/v3/files", [&s](httplib::Request const& req, httplib::Response& res) {
        std::lock_guard<std::mutex> guard(s.lock);
        try {
            DriveEmulator::Settings settings;
            {
                ReadTransaction read(s.store.db());
                settings = s.store.settings();
            }
            // Drive itself lists trashed objects unless the query says otherwise.
            settings.listTrashed = true;
            // The account's page size is the service's largest page: Drive may
            // answer with fewer objects than asked for and a next page token.
            if (req.has_param("pageSize")) {
                settings.pageSize =
                    std::max(1, std::min({1000, settings.pageSize,
                                          std::stoi(req.get_param_value("pageSize"))}));
            }
            WriteTransaction txn(s.store.db());
            DriveEmulator::ListPage page =
                s.store.list(req.get_param_value("q"), req.get_param_value("pageToken"), settings);
            txn.commit();
            Json::Value answer(Json::objectValue);
            answer["kind"] = "drive#fileList";
            answer["files"] = Json::Value(Json::arrayValue);
            for (auto const& object : page.objects) {
                if (!listedFor(s, req, object.id)) continue;
                answer["files"].append(fileResource(object, "", nativeTypeOf(s, object.id)));
            }
            if (!page.nextPageToken.empty()) answer["nextPageToken"] = page.nextPageToken;
            sendJson(res, answer);
        } catch (Error const& e) {
            sendModelError(res, e);
        }
    });
    s.server->Post("/drive/v3/files", [&s](httplib::Request const& req, httplib::Response& res) {
        if (createRefused(s, req, res)) return;
        Json::Value meta = parseBody(req.body);
        std::optional<std::int64_t> mtime;
        if (!modifiedTimeOf(meta, mtime)) {
            sendError(res, 400, "invalid", "Invalid value for: modifiedTime");
            return;
        }
        std::lock_guard<std::mutex> guard(s.lock);
        try {
            WriteTransaction txn(s.store.db());
            std::string parent = meta["parents"].isArray() && !meta["parents"].empty()
                                     ? meta["parents"][0].asString()
                                     : "root";
            std::string name = meta.get("name", "Untitled").asString();
            std::string id = meta.get("id", "").asString();
            Object object =
                meta.get("mimeType", "").asString() == "application/vnd.google-apps.folder"
                    ? s.store.createFolder(parent, name, s.lagNext, id)
                    : s.store.createFile(parent, name,
                                         DriveEmulator::NewContent{"", 0, DriveEmulator::kEmptyMd5},
                                         s.lagNext, id);
            if (mtime) {
                s.store.setMtime(object.id, *mtime);
                object.mtime = *mtime;
            }
            txn.commit();
            s.lagNext = 0;
            sendJson(res, fileResource(object));
        } catch (Error const& e) {
            sendModelError(res, e);
        }
    });
    s.server->Delete(R"(/drive/v3/files/([^/]+))",
                     [&s](httplib::Request const& req, httplib::Response& res) {
                         std::lock_guard<std::mutex> guard(s.lock);
                         try {
                             WriteTransaction txn(s.store.db());
                             std::vector<std::string> blobs = s.store.remove(req.matches[1]);
                             txn.commit();
                             for (auto const& blob : blobs) s.store.blobs().discard(blob);
                             res.status = 204;
                         } catch (Error const& e) {
                             sendModelError(res, e);
                         }
                     });
    s.server->Get(R"(/media/([^/]+))", [&s](httplib::Request const& req, httplib::Response& res) {
        serveMedia(s, req, res);
    });
    s.server->Get("/drive/v3/about", [&s](httplib::Request const& req, httplib::Response& res) {
        if (!req.has_param("fields")) {
            sendError(res, 400, "required",
                      "The 'fields' parameter is required for this operation.");
            return;
        }
        std::lock_guard<std::mutex> guard(s.lock);
        ReadTransaction read(s.store.db());
        DriveEmulator::Account account = s.store.account();
        Json::Value answer(Json::objectValue);
        answer["user"]["displayName"] = account.userName;
        answer["user"]["emailAddress"] = account.email;
        if (account.quota) answer["storageQuota"]["limit"] = std::to_string(*account.quota);
        answer["storageQuota"]["usage"] = std::to_string(account.usedSize);
        sendJson(res, answer);
    });
}

}  // namespace

FakeDrive::FakeDrive(std::string const& dataFolder, std::string const& certFile,
                     std::string const& keyFile)
    : _state(std::make_unique<State>(dataFolder, certFile, keyFile)) {
    State& s = *_state;
    s.server->set_pre_routing_handler(
        [&s](httplib::Request const& req, httplib::Response& res) { return gate(s, req, res); });
    s.server->set_post_routing_handler([&s](httplib::Request const& req, httplib::Response& res) {
        if (res.status == 200 || res.status == 201) {
            std::unique_lock<std::mutex> guard(s.lock);
            if (auto rule = firedRule(s, req, true)) {
                // The served answer's headers are already made: the failure's
                // replace them.
                res.headers.erase("Content-Type");
                res.headers.erase("Content-Length");
                sendRule(res, *rule);
                res.set_header("Content-Length", std::to_string(res.body.size()));
                return;
            }
        }
        shapeAnswer(s, req, res);
    });
    s.server->Post("/token", [&s](httplib::Request const& req, httplib::Response& res) {
        token(s, req, res);
    });
    s.server->Get("/auth", [&s](httplib::Request const& req, httplib::Response& res) {
        consent(s, req, res);
    });
    addMetadataRoutes(s);
    addTransferRoutes(s);
    s.port = s.server->bind_to_any_port("127.0.0.1");
    if (s.port <= 0) throw std::runtime_error("fake drive cannot listen");
    s.thread = std::thread([&s] { s.server->listen_after_bind(); });
    while (!s.server->is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

FakeDrive::~FakeDrive() {
    {
        std::lock_guard<std::mutex> guard(_state->lock);
        _state->stopping = true;
    }
    _state->stopped.notify_all();
    _state->server->stop();
    _state->thread.join();
}

int FakeDrive::port() const { return _state->port; }
std::string FakeDrive::url() const {
    return (_state->tls ? "https://127.0.0.1:" : "http://127.0.0.1:") +
           std::to_string(_state->port);
}

void FakeDrive::setRefreshToken(std::string const& token) {
    std::lock_guard<std::mutex> guard(_state->lock);
    _state->refreshToken = token;
}
void FakeDrive::setTokenLife(int seconds) {
    std::lock_guard<std::mutex> guard(_state->lock);
    _state->tokenLife = seconds;
}
void FakeDrive::expireAccessTokens() {
    std::lock_guard<std::mutex> guard(_state->lock);
    _state->tokens.clear();
}
void FakeDrive::revokeGrant() {
    std::lock_guard<std::mutex> guard(_state->lock);
    _state->revoked = true;
    _state->tokens.clear();
}
void FakeDrive::addFailure(FailRule const& rule) {
    std::lock_guard<std::mutex> guard(_state->lock);
    _state->failures.push_back(rule);
}
void FakeDrive::expireSessions(int count) {
    std::lock_guard<std::mutex> guard(_state->lock);
    _state->expireSessions = count;
}
void FakeDrive::corruptNextUpload() {
    std::lock_guard<std::mutex> guard(_state->lock);
    _state->corruptNext = true;
}
void FakeDrive::lagNextCreation(int listings) {
    std::lock_guard<std::mutex> guard(_state->lock);
    _state->lagNext = listings;
}
void FakeDrive::limitMediaAnswers(std::int64_t bytes) {
    std::lock_guard<std::mutex> guard(_state->lock);
    _state->mediaLimit = bytes;
}
void FakeDrive::ignoreNextRanges(int count) {
    std::lock_guard<std::mutex> guard(_state->lock);
    _state->ignoreRanges = count;
}
void FakeDrive::corruptNextDownload() {
    std::lock_guard<std::mutex> guard(_state->lock);
    _state->corruptMedia = true;
}
void FakeDrive::redirectNextMedia(int count) {
    std::lock_guard<std::mutex> guard(_state->lock);
    _state->redirectMedia = count;
}
void FakeDrive::acceptClient(std::string const& id, std::string const& secret) {
    std::lock_guard<std::mutex> guard(_state->lock);
    _state->clients[id] = secret;
}
void FakeDrive::flagAbusive(std::string const& id) {
    std::lock_guard<std::mutex> guard(_state->lock);
    _state->abusive.insert(id);
}
void FakeDrive::makeNative(std::string const& id, std::string const& mimeType) {
    std::lock_guard<std::mutex> guard(_state->lock);
    _state->nativeTypes[id] = mimeType;
}
void FakeDrive::padNextAnswer(std::int64_t bytes) {
    std::lock_guard<std::mutex> guard(_state->lock);
    _state->padNext = bytes;
}
void FakeDrive::setLatency(int ms) {
    std::lock_guard<std::mutex> guard(_state->lock);
    _state->latencyMs = ms;
}
void FakeDrive::throttleWrites(double perSecond, int burst) {
    std::lock_guard<std::mutex> guard(_state->lock);
    _state->writeRate = perSecond;
    _state->writeBurst = burst;
    _state->writeTokens = burst;
    _state->refilled = std::chrono::steady_clock::now();
}
std::map<std::string, int> FakeDrive::requestCounts() {
    std::lock_guard<std::mutex> guard(_state->lock);
    return _state->requestCounts;
}
Counters& FakeDrive::counters() { return _state->counters; }
std::string FakeDrive::lastUserAgent() {
    std::lock_guard<std::mutex> guard(_state->lock);
    return _state->lastUserAgent;
}

}  // namespace DriveFake
