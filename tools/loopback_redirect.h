// The end of an OAuth flow for installed applications: a web server on
// 127.0.0.1 that waits for the browser to come back with the authorization
// server's answer in the query of its redirect.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace gdhost {

class LoopbackRedirect {
  public:
    using Query = std::map<std::string, std::string>;
    // Listens on 127.0.0.1 at a port the system picks; `page` gives the text
    // the browser is shown for the answer's parameters. Throws
    // std::runtime_error when it cannot listen.
    explicit LoopbackRedirect(std::function<std::string(Query const&)> page);
    ~LoopbackRedirect();
    LoopbackRedirect(LoopbackRedirect const&) = delete;
    LoopbackRedirect& operator=(LoopbackRedirect const&) = delete;

    // "http://127.0.0.1:PORT/", the redirect_uri to give the authorization server.
    std::string uri() const;

    // The query parameters of the first request for "/" that carries a
    // `code` or an `error` (since construction), once it came; std::nullopt
    // when `timeout` passed or `stop` said so first.
    std::optional<Query> wait(std::chrono::milliseconds timeout, std::function<bool()> const& stop);

  private:
    struct State;
    std::unique_ptr<State> _state;
};

}  // namespace gdhost
