// OAuth access tokens from the refresh token: fetched when missing, renewed
// before they expire and after the service refused one. A fetched token is
// kept, with its expiry, in the grant's token cache file (token_cache.h) for
// the drive agents that start after this one; the refresh token is never
// written anywhere but into the token requests.
#pragma once

#include <chrono>
#include <string>

#include "agent_config.h"
#include "http.h"
#include "token_cache.h"

namespace DriveAgent {

// A cached token is taken only with this much of its life left: the agent
// that takes it renews a minute before the end anyway, so anything shorter
// would buy a few minutes and then a renewal in the middle of the work. The
// margin also covers a wall clock set back a few minutes since the token was
// kept (a larger step shows as an expiry beyond the token's life, refused).
constexpr std::chrono::minutes kCachedTokenMargin{5};

class TokenSource {
  public:
    TokenSource(Http& http, AgentConfig const& config);

    // A token valid for a while yet: the cached one while it has at least
    // kCachedTokenMargin left, else a new one (then cached). Throws
    // AgentFailure: 401 when the grant or client is refused, -2 when the
    // token endpoint cannot be reached.
    std::string const& accessToken();
    // The service refused the current token: it leaves memory and the cache
    // file, and the next call takes another.
    void expire();

  private:
    bool adoptCached();
    void refresh();
    void renewAt(std::chrono::system_clock::time_point expiresAt, std::chrono::seconds life);

    Http& _http;
    AgentConfig const& _config;
    TokenCache _cache;
    std::string _token;
    std::string _refused;  // never taken from the cache again
    std::chrono::steady_clock::time_point _renew_at;
};

}  // namespace DriveAgent
