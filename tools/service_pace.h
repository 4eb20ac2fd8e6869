// How long the service takes to answer, judged from the jobs the workers
// run, so that a pool starts workers beyond its first only when they pay.
// Against a service that answers at once (the emulator on this machine, say)
// a job is all local work, and one worker with its drive agent already keeps
// the processors busy: more workers would only take turns on them. At a
// service's latency most of a job is waiting, and workers overlap the waits.
#pragma once

#include <chrono>
#include <deque>

namespace gdhost {

class ServicePace {
  public:
    using Clock = std::chrono::steady_clock;

    // Jobs that took at least this long, as the median of the last five, are
    // mostly waiting on the service: a request to a real one costs 50-300 ms,
    // one to a local emulator well under a millisecond.
    static constexpr Clock::duration kSlowJob = std::chrono::milliseconds(10);
    // One job still running after this long shows a slow service (or a large
    // transfer) at once, without waiting for the median of finished ones.
    static constexpr Clock::duration kLongJob = std::chrono::milliseconds(50);

    // A worker's first job includes the start of its drive agent and its
    // way to the destination (two requests): still running after this long,
    // it shows a slow service; a local emulator answers it in tens of ms.
    static constexpr Clock::duration kLongFirstJob = std::chrono::milliseconds(100);

    // A finished job took `took`. Leave out a worker's first job: it includes
    // the start of its drive agent.
    void finished(Clock::duration took);
    // A job has been running for `sofar` (`first`: a worker's first).
    void running(Clock::duration sofar, bool first = false);
    // Takes the service as slow without waiting for jobs to show it.
    void assumeSlow() { _slow = true; }
    // Whether the service has shown itself slow; once it has, it stays so
    // (workers already started are not stopped).
    bool slow() const { return _slow; }
    // How much longer a job running for `sofar` must run to show the service
    // slow: when to look again.
    Clock::duration untilSlow(Clock::duration sofar) const;

  private:
    std::deque<Clock::duration> _recent;  // the last finished jobs' times
    bool _slow = false;
};

}  // namespace gdhost
