#include "token_cache.h"

#include <fcntl.h>
#include <json/reader.h>
#include <json/writer.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

#include "md5_hex.h"

namespace DriveAgent {

namespace {

// An access token is a few hundred bytes: anything much larger is not ours.
constexpr ssize_t kMaxFileBytes = 16 << 10;

std::string folderOf(std::string const& path) {
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool writeAll(int fd, std::string const& text) {
    for (size_t done = 0; done < text.size();) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0) return false;
        done += size_t(n);
    }
    return true;
}

}  // namespace

std::optional<CachedToken> TokenCache::load() const {
    if (_path.empty()) return std::nullopt;
    // No link is followed, and a FIFO put in the file's place cannot hold
    // the agent up.
    int fd = ::open(_path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    struct stat st;
    std::string text(kMaxFileBytes, '\0');
    ssize_t n = -1;
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == ::geteuid() &&
        (st.st_mode & 077) == 0 && st.st_size < kMaxFileBytes) {
        n = ::read(fd, text.data(), text.size());
    }
    ::close(fd);
    if (n <= 0) return std::nullopt;
    text.resize(size_t(n));

    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    std::string errors;
    if (!reader->parse(text.data(), text.data() + text.size(), &root, &errors) ||
        !root.isObject() || root["grant"] != _grant || !root["access_token"].isString() ||
        !root["expires_at_ms"].isInt64() || !root["life_s"].isInt64()) {
        return std::nullopt;
    }
    CachedToken cached;
    cached.token = root["access_token"].asString();
    cached.expiresAt = std::chrono::system_clock::time_point(
        std::chrono::milliseconds(root["expires_at_ms"].asInt64()));
    cached.life = std::chrono::seconds(root["life_s"].asInt64());
    if (cached.token.empty() || cached.expiresAt - std::chrono::system_clock::now() > cached.life) {
        return std::nullopt;
    }
    return cached;
}

void TokenCache::store(CachedToken const& token) const {
    if (_path.empty()) return;
    Json::Value root(Json::objectValue);
    root["grant"] = _grant;
    root["access_token"] = token.token;
    root["expires_at_ms"] = Json::Int64(
        std::chrono::duration_cast<std::chrono::milliseconds>(token.expiresAt.time_since_epoch())
            .count());
    root["life_s"] = Json::Int64(token.life.count());
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    std::string text = Json::writeString(writer, root) + "\n";

    std::string temp = _path + ".XXXXXX";
    int fd = ::mkstemp(temp.data());  // mode 0600, in the file's own folder
    if (fd < 0) return;
    bool written = ::fchmod(fd, 0600) == 0 && writeAll(fd, text) && ::fsync(fd) == 0;
    written = ::close(fd) == 0 && written;
    if (!written || ::rename(temp.c_str(), _path.c_str()) != 0) {
        ::unlink(temp.c_str());
        return;
    }
    int folder = ::open(folderOf(_path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder >= 0) {
        ::fsync(folder);
        ::close(folder);
    }
}

void TokenCache::drop(std::string const& token) const {
    auto cached = load();
    // Another agent may have put a fresh token there since: that one stays.
    if (cached && cached->token == token) ::unlink(_path.c_str());
}

std::string grantDigest(AgentConfig const& config) {
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    EVP_DigestInit_ex(ctx, EVP_sha256(), nullptr);
    // Lengths first, so that no two different triples hash the same text.
    for (std::string const* part : {&config.tokenUrl, &config.clientId, &config.refreshToken}) {
        std::string length = std::to_string(part->size()) + ":";
        EVP_DigestUpdate(ctx, length.data(), length.size());
        EVP_DigestUpdate(ctx, part->data(), part->size());
    }
    std::string hex = finishHexDigest(ctx);
    EVP_MD_CTX_free(ctx);
    return hex;
}

std::string tokenCachePath(AgentConfig const& config, std::string const& grant) {
    if (config.tokenCache == "off") return std::string();
    if (!config.tokenCache.empty()) return config.tokenCache;
    return config.configFolder + "/drive_agent-" + grant.substr(0, 16) + ".token";
}

}  // namespace DriveAgent
