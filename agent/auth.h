// OAuth access tokens from the refresh token: fetched when missing, renewed
// before they expire and after the service refused one. Tokens are never
// written anywhere but into the requests that carry them.
#pragma once

#include <chrono>
#include <string>

#include "agent_config.h"
#include "http.h"

namespace DriveAgent {

class TokenSource {
  public:
    TokenSource(Http& http, AgentConfig const& config);

    // A token valid for a while yet. Throws AgentFailure: 401 when the grant
    // or client is refused, -2 when the token endpoint cannot be reached.
    std::string const& accessToken();
    // The service refused the current token: the next call fetches another.
    void expire() { _token.clear(); }

  private:
    void refresh();

    Http& _http;
    AgentConfig const& _config;
    std::string _token;
    std::chrono::steady_clock::time_point _renew_at;
};

}  // namespace DriveAgent
