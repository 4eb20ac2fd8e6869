#include "loopback_redirect.h"

#include <httplib.h>

#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace gdhost {

struct LoopbackRedirect::State {
    httplib::Server server;
    std::thread thread;
    int port = 0;
    std::mutex lock;
    std::condition_variable arrived;
    std::optional<Query> query;
    std::function<std::string(Query const&)> page;
};

LoopbackRedirect::LoopbackRedirect(std::function<std::string(Query const&)> page)
    : _state(std::make_unique<State>()) {
    State& s = *_state;
    s.page = std::move(page);
    s.server.Get("/", [&s](httplib::Request const& req, httplib::Response& res) {
        std::unique_lock<std::mutex> guard(s.lock);
        // Requests after the answer (a reload) change nothing.
        if (s.query || (!req.has_param("code") && !req.has_param("error"))) {
            res.status = 404;
            return;
        }
        s.query.emplace(req.params.begin(), req.params.end());
        res.set_content(s.page(*s.query), "text/html; charset=utf-8");
        s.arrived.notify_all();
    });
    s.port = s.server.bind_to_any_port("127.0.0.1");
    if (s.port <= 0) throw std::runtime_error("cannot listen on 127.0.0.1");
    s.thread = std::thread([&s] { s.server.listen_after_bind(); });
    // stop() does nothing to a server not yet running.
    while (!s.server.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

LoopbackRedirect::~LoopbackRedirect() {
    _state->server.stop();
    _state->thread.join();
}

std::string LoopbackRedirect::uri() const {
    return "http://127.0.0.1:" + std::to_string(_state->port) + "/";
}

std::optional<LoopbackRedirect::Query> LoopbackRedirect::wait(std::chrono::milliseconds timeout,
                                                              std::function<bool()> const& stop) {
    State& s = *_state;
    auto deadline = std::chrono::steady_clock::now() + timeout;
    std::unique_lock<std::mutex> guard(s.lock);
    // Short slices, so that a stop request is seen soon.
    while (!s.query && !stop() && std::chrono::steady_clock::now() < deadline) {
        s.arrived.wait_until(guard, std::min(deadline, std::chrono::steady_clock::now() +
                                                           std::chrono::milliseconds(100)));
    }
    return s.query;
}

}  // namespace gdhost
