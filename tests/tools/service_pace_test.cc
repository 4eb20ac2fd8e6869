// When a pool starts more workers: only once jobs show the service slow,
// and never for one job held up by this machine.
#include "service_pace.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using gdhost::ServicePace;
using std::chrono::milliseconds;

TEST(ServicePaceTest, TheMedianOfRecentJobsDecides) {
    struct Case {
        char const* what;
        std::vector<int> jobsMs;
        bool slow;
    } const cases[] = {
        {"a service answering at once", {1, 1, 2, 1, 1, 1, 1}, false},
        {"jobs held up among fast ones", {1, 40, 1, 1, 30, 1}, false},
        {"too few jobs to tell", {20, 20, 20, 20}, false},
        {"latency in most jobs", {1, 12, 1, 15, 11}, true},
        {"fast jobs after slow ones do not undo it", {20, 20, 20, 20, 20, 1, 1, 1, 1, 1}, true},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.what);
        ServicePace pace;
        for (int ms : c.jobsMs) pace.finished(milliseconds(ms));
        EXPECT_EQ(c.slow, pace.slow());
    }
}

TEST(ServicePaceTest, OneLongRunningJobShowsItAtOnce) {
    ServicePace pace;
    pace.running(milliseconds(49));
    EXPECT_FALSE(pace.slow());
    EXPECT_EQ(milliseconds(1), pace.untilSlow(milliseconds(49)));
    EXPECT_EQ(milliseconds(0), pace.untilSlow(milliseconds(70)));
    pace.running(milliseconds(50));
    EXPECT_TRUE(pace.slow());
}

}  // namespace
