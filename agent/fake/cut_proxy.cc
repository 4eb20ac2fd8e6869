#include "cut_proxy.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace DriveFake {

namespace {

int loopbackSocket() {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw std::runtime_error("socket failed");
    return fd;
}

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

bool sendAll(int fd, char const* data, size_t n) {
    while (n > 0) {
        ssize_t w = ::send(fd, data, n, MSG_NOSIGNAL);
        if (w <= 0) return false;
        data += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

}  // namespace

CutProxy::CutProxy(int targetPort) : _target(targetPort) {
    _listener = loopbackSocket();
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    if (::bind(_listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(_listener, 16) != 0 ||
        ::getsockname(_listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        ::close(_listener);
        throw std::runtime_error("proxy cannot listen");
    }
    _port = ntohs(address.sin_port);
    _acceptor = std::thread([this] { acceptLoop(); });
}

CutProxy::~CutProxy() {
    _stop = true;
    _acceptor.join();
    for (auto& pump : _pumps) pump.join();
    ::close(_listener);
}

void CutProxy::cutEvery(std::int64_t upstreamStep, std::int64_t downstreamStep) {
    _up_step = upstreamStep;
    _down_step = downstreamStep;
}

void CutProxy::acceptLoop() {
    while (!_stop) {
        pollfd p = {_listener, POLLIN, 0};
        if (::poll(&p, 1, 50) <= 0) continue;
        int client = ::accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) continue;
        _pumps.emplace_back([this, client] { pump(client); });
    }
}

void CutProxy::pump(int client) {
    int server = loopbackSocket();
    sockaddr_in address = loopback(_target);
    if (::connect(server, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(server);
        ::close(client);
        return;
    }
    char buffer[1 << 16];
    bool open = true;
    while (open && !_stop) {
        pollfd p[2] = {{client, POLLIN, 0}, {server, POLLIN, 0}};
        if (::poll(p, 2, 50) <= 0) continue;
        for (int side = 0; side < 2 && open; ++side) {
            if (!(p[side].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            ssize_t n = ::recv(p[side].fd, buffer, sizeof buffer, 0);
            if (n <= 0) {
                open = false;
                break;
            }
            std::atomic<std::int64_t>& total = side == 0 ? _up : _down;
            std::int64_t step = side == 0 ? _up_step : _down_step;
            std::int64_t before = total.fetch_add(n);
            size_t pass = static_cast<size_t>(n);
            bool cut = false;
            if (step > 0) {
                std::int64_t allowed = step - before % step;
                if (allowed <= n) {
                    pass = static_cast<size_t>(allowed);
                    total -= n - allowed;
                    cut = true;
                }
            }
            if (!sendAll(side == 0 ? server : client, buffer, pass) || cut) open = false;
            if (cut) ++_cuts;
        }
    }
    ::close(server);
    ::close(client);
}

}  // namespace DriveFake
