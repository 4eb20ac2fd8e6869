// A TCP proxy on a loopback port in front of another loopback port that
// drops every connection whenever the bytes it has carried in one direction
// cross another multiple of a step, as a flaky network does mid-transfer.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace DriveFake {

class CutProxy {
  public:
    // Forwards 127.0.0.1:<listen port> to 127.0.0.1:`targetPort`.
    explicit CutProxy(int targetPort);
    ~CutProxy();
    CutProxy(CutProxy const&) = delete;
    CutProxy& operator=(CutProxy const&) = delete;

    std::string url() const { return "http://127.0.0.1:" + std::to_string(_port); }
    // Drops the connection carrying bytes every `step` bytes sent upstream
    // (client to server) or downstream; 0 for never.
    void cutEvery(std::int64_t upstreamStep, std::int64_t downstreamStep);
    std::int64_t upstreamBytes() const { return _up; }
    std::int64_t downstreamBytes() const { return _down; }
    int cuts() const { return _cuts; }

  private:
    void acceptLoop();
    void pump(int client);

    int _target;
    int _port = 0;
    int _listener = -1;
    std::atomic<bool> _stop{false};
    std::atomic<std::int64_t> _up{0}, _down{0}, _up_step{0}, _down_step{0};
    std::atomic<int> _cuts{0};
    std::thread _acceptor;
    std::vector<std::thread> _pumps;
};

}  // namespace DriveFake
