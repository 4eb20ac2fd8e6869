// A pool paced as one client: a rate limit slows every worker at once, by a
// fraction of the pace that met it, and clean answers speed them up slowly.
#include "client_pace.h"

#include <gtest/gtest.h>

namespace {

using gdhost::ClientPace;
using std::chrono::milliseconds;
using std::chrono::seconds;

class ClientPaceTest : public ::testing::Test {
  protected:
    // Eight workers that started a job every 125 ms for two seconds (8 a
    // second), then met a limit.
    void startEightASecond() {
        for (int i = 0; i < 16; ++i) {
            now += milliseconds(125);
            pace.started(now);
        }
    }
    ClientPace pace{8};
    ClientPace::Clock::time_point now{};
};

TEST_F(ClientPaceTest, CleanAnswersLeaveThePoolUnpaced) {
    startEightASecond();
    EXPECT_FALSE(pace.clean(now + seconds(1)));
    EXPECT_FALSE(pace.paced());
    EXPECT_TRUE(pace.mayStart(7, now));
    EXPECT_FALSE(pace.mayStart(8, now));
    EXPECT_EQ("", pace.describe());
}

TEST_F(ClientPaceTest, ALimitSlowsEveryWorkerOncePerBurst) {
    startEightASecond();
    ASSERT_TRUE(pace.limited(now));
    // Half the jobs in flight, three quarters of the starts a second.
    EXPECT_EQ(4u, pace.inFlight());
    EXPECT_EQ(milliseconds(166), std::chrono::duration_cast<milliseconds>(pace.interval()));
    EXPECT_EQ("paced: 4 at a time, a start every 0.17 s", pace.describe());
    EXPECT_FALSE(pace.mayStart(0, now + milliseconds(100)));
    EXPECT_TRUE(pace.mayStart(3, now + milliseconds(170)));
    EXPECT_FALSE(pace.mayStart(4, now + seconds(1)));
    // Answers to requests sent before the slow-down: the same burst.
    EXPECT_FALSE(pace.limited(now + milliseconds(900)));
    EXPECT_EQ(4u, pace.inFlight());
    ASSERT_TRUE(pace.limited(now + milliseconds(1100)));
    EXPECT_EQ(2u, pace.inFlight());
    EXPECT_GE(pace.interval(), milliseconds(222));
    // Never slower than a start every ten seconds.
    for (int i = 2; i < 60; ++i) pace.limited(now + seconds(2 * i));
    EXPECT_EQ(1u, pace.inFlight());
    EXPECT_EQ(seconds(10), pace.interval());
}

TEST_F(ClientPaceTest, CleanAnswersSpeedUpSlowlyUntilUnpaced) {
    startEightASecond();
    pace.limited(now);
    auto const limitedInterval = pace.interval();
    // A second of clean answers: one tenth of a start a second more.
    pace.clean(now + seconds(1));
    EXPECT_LT(pace.interval(), limitedInterval);
    EXPECT_GT(pace.interval(), milliseconds(160));
    EXPECT_EQ(4u, pace.inFlight());
    pace.clean(now + seconds(2));
    EXPECT_EQ(5u, pace.inFlight());
    int second = 2;
    while (pace.paced() && second < 1000) pace.clean(now + seconds(++second));
    EXPECT_FALSE(pace.paced());
    EXPECT_GT(second, 400) << "back to full speed only after minutes of clean answers";
    EXPECT_TRUE(pace.mayStart(7, now + seconds(second)));
}

}  // namespace
