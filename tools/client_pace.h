// The pace at which a pool's workers start jobs, kept as one client's: Drive
// limits requests per account (about three writes a second sustained), not
// per process, and workers that each back off on their own only take turns
// at the limit. So when any worker meets a rate limit (403 "User Rate Limit
// Exceeded" or "Rate Limit Exceeded", 429), all slow down at once: fewer
// jobs in flight and a least time between two job starts, each cut to a
// fraction at a time. While answers come clean they speed up again, a little
// every second (additive increase, multiplicative decrease), so that a run
// settles just under the service's limit. The plug-in's own retries of the
// refused request are left as they are. Times are passed in, never read
// from a clock, so that a test drives them.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <string>

namespace gdhost {

class ClientPace {
  public:
    using Clock = std::chrono::steady_clock;

    // A pool of `most` workers: unpaced, all of them may run a job.
    explicit ClientPace(size_t most);

    // Whether a job may start at `now` while `running` jobs are out.
    bool mayStart(size_t running, Clock::time_point now) const;
    // How long after `now` the least time between starts lets the next one
    // go (zero when it may go now).
    Clock::duration untilStart(Clock::time_point now) const;
    // A job started at `now`.
    void started(Clock::time_point now);
    // A worker met a rate limit at `now`. Limits within a second of the last
    // slow-down come from the same burst and slow down no further. True when
    // it slowed down.
    bool limited(Clock::time_point now);
    // A job was answered at `now` without meeting a rate limit. True when the
    // pace changed by a whole job in flight or came back to none.
    bool clean(Clock::time_point now);

    // Whether the pool is slowed down at all.
    bool paced() const { return _startsPerSecond > 0; }
    // Jobs allowed in flight at once.
    size_t inFlight() const;
    // The least time between two job starts (zero when unpaced).
    Clock::duration interval() const;
    // "paced: 2 at a time, a start every 0.40 s" (empty when unpaced).
    std::string describe() const;

  private:
    size_t _most;
    double _inFlight;             // jobs in flight allowed, 1 to _most
    double _startsPerSecond = 0;  // 0: no least time between starts
    Clock::time_point _lastStart{};
    Clock::time_point _slowedAt{};
    Clock::time_point _eased{};             // when the last increase was counted up to
    std::deque<Clock::time_point> _starts;  // within the last measuring window
};

}  // namespace gdhost
