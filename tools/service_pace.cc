#include "service_pace.h"

#include <algorithm>
#include <vector>

namespace gdhost {

namespace {
// The median of the last this many jobs decides: one job held up by this
// machine (a database checkpoint, another program, the first use of a code
// path) does not make a fast service look slow.
constexpr size_t kWindow = 5;
}  // namespace

void ServicePace::finished(Clock::duration took) {
    _recent.push_back(took);
    if (_recent.size() > kWindow) _recent.pop_front();
    if (_recent.size() < kWindow) return;
    std::vector<Clock::duration> sorted(_recent.begin(), _recent.end());
    std::nth_element(sorted.begin(), sorted.begin() + kWindow / 2, sorted.end());
    if (sorted[kWindow / 2] >= kSlowJob) _slow = true;
}

void ServicePace::running(Clock::duration sofar, bool first) {
    if (sofar >= (first ? kLongFirstJob : kLongJob)) _slow = true;
}

ServicePace::Clock::duration ServicePace::untilSlow(Clock::duration sofar) const {
    return std::max(Clock::duration::zero(), kLongJob - sofar);
}

}  // namespace gdhost
