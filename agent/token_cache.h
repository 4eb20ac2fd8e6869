// An access token kept in a file between drive agents of one grant, so that
// the agents of a run (and of the next run within the hour) share one token
// instead of each fetching its own. Every failure to read or write the file
// is silent: the agent then fetches a token as if there were no file.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "agent_config.h"

namespace DriveAgent {

struct CachedToken {
    std::string token;
    std::chrono::system_clock::time_point expiresAt;
    std::chrono::seconds life{0};  // as the token endpoint gave it
};

class TokenCache {
  public:
    // The file `path` (empty: no cache) holding tokens of the grant `grant`
    // (grantDigest's text).
    TokenCache(std::string path, std::string grant)
        : _path(std::move(path)), _grant(std::move(grant)) {}

    // The token in the file when the file is a regular file owned by this
    // user with no group or other permissions, wholly readable, of this
    // grant, and its expiry lies within its life from now (a wall clock set
    // back makes it suspect); nullopt otherwise.
    std::optional<CachedToken> load() const;
    // Replaces the file with `token` atomically (a temporary file in the same
    // folder, synced, mode 0600, renamed over it, the folder synced).
    void store(CachedToken const& token) const;
    // Removes the file if it still holds `token`, which the service refused.
    void drop(std::string const& token) const;

  private:
    std::string _path, _grant;
};

// The grant a token belongs to, as hex: a SHA-256 of the token endpoint, the
// client id and the refresh token (which no file ever holds).
std::string grantDigest(AgentConfig const& config);

// The cache file of `config`: its token_cache setting ("off": none), else a
// file named after the grant in the folder of the configuration file (or of
// the program), so that two accounts sharing a configuration keep one each.
std::string tokenCachePath(AgentConfig const& config, std::string const& grant);

}  // namespace DriveAgent
