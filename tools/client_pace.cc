#include "client_pace.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace gdhost {

namespace {
using Seconds = std::chrono::duration<double>;
// Limits this soon after a slow-down answer requests sent before it.
constexpr ClientPace::Clock::duration kBurst = std::chrono::seconds(1);
// Starts over this window measure the pace a limit cuts down.
constexpr ClientPace::Clock::duration kWindow = std::chrono::seconds(2);
// A limit keeps this share of the starts a second and half the jobs in
// flight: a rate limit is a limit on requests a second, and the pace that
// met it was only just over it.
constexpr double kKeptRate = 0.75;
constexpr double kKeptInFlight = 0.5;
// Clean answers add this many starts a second, and jobs in flight, for
// each second they keep coming.
constexpr double kRateGain = 0.1;
constexpr double kInFlightGain = 0.5;
// Never slower than a start every ten seconds.
constexpr double kSlowestRate = 0.1;
// Past this many starts a second, and with every worker allowed, the pool
// is no longer paced.
constexpr double kUnpacedRate = 50;
}  // namespace

ClientPace::ClientPace(size_t most)
    : _most(std::max<size_t>(1, most)), _inFlight(static_cast<double>(_most)) {}

size_t ClientPace::inFlight() const { return static_cast<size_t>(_inFlight); }

ClientPace::Clock::duration ClientPace::interval() const {
    if (!paced()) return Clock::duration::zero();
    return std::chrono::duration_cast<Clock::duration>(Seconds(1 / _startsPerSecond));
}

ClientPace::Clock::duration ClientPace::untilStart(Clock::time_point now) const {
    if (!paced() || _starts.empty()) return Clock::duration::zero();
    return std::max(Clock::duration::zero(), _lastStart + interval() - now);
}

bool ClientPace::mayStart(size_t running, Clock::time_point now) const {
    return running < inFlight() && untilStart(now) == Clock::duration::zero();
}

void ClientPace::started(Clock::time_point now) {
    _lastStart = now;
    _starts.push_back(now);
    while (!_starts.empty() && now - _starts.front() > kWindow) _starts.pop_front();
}

bool ClientPace::limited(Clock::time_point now) {
    if (paced() && now - _slowedAt < kBurst) return false;
    // The pace that met the limit: the starts of the last window, over at
    // least a second (the first starts of a run come all at once).
    while (!_starts.empty() && now - _starts.front() > kWindow) _starts.pop_front();
    double const span =
        std::max(Seconds(now - (_starts.empty() ? now : _starts.front())).count(), 1.0);
    double measured = static_cast<double>(std::max<size_t>(_starts.size(), 2) - 1) / span;
    if (paced()) measured = std::min(measured, _startsPerSecond);
    _startsPerSecond = std::max(kSlowestRate, measured * kKeptRate);
    _inFlight = std::max(1.0, std::floor(_inFlight * kKeptInFlight));
    _slowedAt = _eased = now;
    return true;
}

bool ClientPace::clean(Clock::time_point now) {
    if (!paced() || now <= _eased) return false;
    double const seconds = Seconds(now - _eased).count();
    _eased = now;
    size_t const before = inFlight();
    _inFlight = std::min(static_cast<double>(_most), _inFlight + kInFlightGain * seconds);
    _startsPerSecond += kRateGain * seconds;
    if (_startsPerSecond >= kUnpacedRate && inFlight() == _most) {
        _startsPerSecond = 0;
        return true;
    }
    return inFlight() != before;
}

std::string ClientPace::describe() const {
    if (!paced()) return std::string();
    char text[80];
    snprintf(text, sizeof text, "paced: %zu at a time, a start every %.2f s", inFlight(),
             1 / _startsPerSecond);
    return text;
}

}  // namespace gdhost
