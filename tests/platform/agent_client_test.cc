// The helper channel against a scripted fake helper (fake_agent.cc).
#include "backup/agent_client.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <time.h>

#include <chrono>
#include <set>
#include <string>

#include "backup/json_text.h"
#include "support/syslog_capture.h"

namespace TAVO::Backup {
namespace {

// Starts fake_agent with one script, as a subclass's connect() starts its helper.
class FakeAgentClient : public AgentClient {
  public:
    bool start(std::string const& script) {
        _script = script;
        return connect("", "", true);
    }
    bool connect(std::string const&, std::string const&, bool) override {
        close();
        _pipe = TAVOPipeOpen(&_child_pid, FAKE_AGENT_PATH, _script.c_str(), nullptr);
        return _pipe != nullptr;
    }
    bool isSuccessResponse(Json::Value const& response) const override {
        return response.get("success", false).asBool();
    }
    bool fillCanceledResponse(Json::Value& response) const override {
        response.clear();
        response["success"] = false;
        response["error_code"] = -3;
        response["error_message"] = "user canceled";
        return true;
    }
    pid_t childPid() const { return _child_pid; }
    // Bytes the helper has written that the channel has not read yet.
    int unread() const {
        int n = 0;
        return ioctl(_pipe->readFd, FIONREAD, &n) == 0 ? n : -1;
    }

  private:
    std::string _script;
};

bool retryServerErrors(Json::Value const& response) {
    int code = response.get("error_code", -1).asInt();
    return code >= 500 && code <= 599;
}

// True once `pid` is neither running nor a zombie of ours.
bool isReaped(pid_t pid) {
    errno = 0;
    return waitpid(pid, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

long elapsedMs(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 since)
        .count();
}

Json::Value request(std::string const& fn) {
    Json::Value value;
    value["fn"] = fn;
    return value;
}

class AgentClientTest : public ::testing::Test {
  protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_DFL);
        setenv("TAVO_AGENT_PAUSE_UNIT_MS", "0", 1);
        unsetenv("TAVO_AGENT_CLOSE_GRACE_MS");
        TestSupport::clearSyslog();
        client.setRetryPolicy(10, 1, retryServerErrors);
    }

    FakeAgentClient client;
    Json::Value response;
};

// --- retry policy -----------------------------------------------------------

TEST_F(AgentClientTest, BudgetCountsEveryAttempt) {
    struct Case {
        int maxAttempts;
        int sends;
    } const cases[] = {{3, 3}, {1, 1}, {0, 1}, {-2, 1}};
    for (Case const& c : cases) {
        SCOPED_TRACE("maxAttempts " + std::to_string(c.maxAttempts));
        // The failure that spends the budget returns without a pause.
        setenv("TAVO_AGENT_PAUSE_UNIT_MS", c.sends == 1 ? "10000" : "0", 1);
        client.setRetryPolicy(c.maxAttempts, 1, retryServerErrors);
        ASSERT_TRUE(client.start("fail:503;fail:503;fail:503;fail:503;echo"));
        auto const started = std::chrono::steady_clock::now();
        EXPECT_FALSE(client.send(request("a"), response));
        EXPECT_LT(elapsedMs(started), 1000);
        EXPECT_EQ(503, response["error_code"].asInt());
        EXPECT_EQ(c.sends, response["n"].asInt());
        client.close();
    }
}

TEST_F(AgentClientTest, PausesDoubleAndFollowTheUnitOverride) {
    // Units 1, 2 and 4 of 100 ms: 700 ms. Tripling would take 1.3 s, not
    // growing 300 ms, the default one-second unit 7 s.
    setenv("TAVO_AGENT_PAUSE_UNIT_MS", "100", 1);
    ASSERT_TRUE(client.start("fail:503;fail:503;fail:503;echo"));
    auto const started = std::chrono::steady_clock::now();
    ASSERT_TRUE(client.send(request("a"), response));
    long const took = elapsedMs(started);
    EXPECT_GE(took, 700);
    EXPECT_LT(took, 1150);
}

TEST_F(AgentClientTest, CancelHookStopsSendingAndCutsPausesShort) {
    client.setCancelHook([] { return true; });
    ASSERT_TRUE(client.start("fail:503;echo"));
    EXPECT_FALSE(client.send(request("a"), response));
    EXPECT_EQ(R"({"error_code":-3,"error_message":"user canceled","success":false})",
              JsonText::toString(response));

    setenv("TAVO_AGENT_PAUSE_UNIT_MS", "10000", 1);
    // Fires well after the 503 has arrived, during the ten-second pause.
    auto const started = std::chrono::steady_clock::now();
    client.setCancelHook([&started] { return elapsedMs(started) > 300; });
    EXPECT_FALSE(client.send(request("b"), response));
    EXPECT_LT(elapsedMs(started), 1000);
    EXPECT_EQ(-3, response["error_code"].asInt());

    client.setCancelHook(boost::function<bool()>());
    ASSERT_TRUE(client.send(request("c"), response));
    EXPECT_EQ(2, response["n"].asInt()) << "only the request before the pause was sent";
    EXPECT_EQ("c", response["request"]["fn"].asString());
}

// --- a helper that misbehaves ---------------------------------------------

class MisbehavingHelperTest : public AgentClientTest,
                              public ::testing::WithParamInterface<char const*> {};

TEST_P(MisbehavingHelperTest, FailsTheExchangeClosesAndReaps) {
    // Even a predicate that retries everything must not resend on a dead channel.
    client.setRetryPolicy(5, 1, [](Json::Value const&) { return true; });
    ASSERT_TRUE(client.start(GetParam()));
    pid_t const pid = client.childPid();
    EXPECT_FALSE(client.send(request("a"), response));
    EXPECT_FALSE(response["success"].asBool());
    EXPECT_EQ(-1, response["error_code"].asInt());
    EXPECT_FALSE(response["error_message"].asString().empty());
    EXPECT_FALSE(client.isConnected());
    EXPECT_TRUE(isReaped(pid));
    EXPECT_TRUE(TestSupport::syslogHas("helper channel closed", LOG_ERR));
}

INSTANTIATE_TEST_SUITE_P(Helpers, MisbehavingHelperTest,
                         ::testing::Values("die",                        // killed mid-request
                                           "closeout",                   // closes its output
                                           "reply:this is not json",     // garbage
                                           "reply:[true]",               // JSON, not an object
                                           "reply:{\"success\":true",    // truncated JSON
                                           "partial:{\"success\":true}"  // no line feed, then exit
                                           ));

// Only stdin, stdout and stderr reach a helper: none of the host's own
// descriptors, nor the parent's ends of the channel.
TEST_F(AgentClientTest, OnlyTheStandardDescriptorsReachTheHelper) {
    int stray = open("/dev/null", O_RDONLY);  // no close-on-exec, as a careless host leaves it
    ASSERT_GE(stray, 0);
    ASSERT_TRUE(client.start("fds"));
    ASSERT_TRUE(client.send(request("a"), response));
    std::set<int> want = {0, 1}, seen;
    if (fcntl(2, F_GETFD) >= 0) want.insert(2);  // stderr is inherited when we have one
    for (Json::Value const& fd : response["fds"]) seen.insert(fd.asInt());
    EXPECT_EQ(want, seen);
    close(stray);
}

TEST_F(AgentClientTest, CloseGivesGraceThenKillsAndReapsEveryHelper) {
    // A stubborn helper gets its grace time; a well-behaved one does not wait it out.
    for (bool stubborn : {true, false}) {
        setenv("TAVO_AGENT_CLOSE_GRACE_MS", stubborn ? "50" : "2000", 1);
        ASSERT_TRUE(client.start(stubborn ? "hang" : ""));
        pid_t const pid = client.childPid();
        auto const started = std::chrono::steady_clock::now();
        client.close();
        long const took = elapsedMs(started);
        EXPECT_GE(took, stubborn ? 50 : 0);
        EXPECT_LT(took, 1000);
        EXPECT_TRUE(isReaped(pid));
    }
}

TEST_F(AgentClientTest, WriteToVanishedHelperRaisesNoSigpipeAndLeavesTheHostsOwn) {
    sigset_t pipeOnly, old;
    sigemptyset(&pipeOnly);
    sigaddset(&pipeOnly, SIGPIPE);
    for (bool hostHasOne : {false, true}) {
        SCOPED_TRACE(hostHasOne);
        if (hostHasOne) {
            pthread_sigmask(SIG_BLOCK, &pipeOnly, &old);
            raise(SIGPIPE);
        }
        ASSERT_TRUE(client.start("closein"));
        std::string line;
        ASSERT_TRUE(client.readString(line));
        ASSERT_EQ("stdin closed", line);
        // With SIGPIPE at its default action, a stray one would end this test.
        EXPECT_FALSE(client.sendRequest(request("a")));
        sigset_t pending, mask;
        sigpending(&pending);
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        EXPECT_EQ(hostHasOne, sigismember(&pending, SIGPIPE));
        EXPECT_EQ(hostHasOne, sigismember(&mask, SIGPIPE)) << "the signal mask is put back";
    }
    struct timespec now = {0, 0};
    EXPECT_EQ(SIGPIPE, sigtimedwait(&pipeOnly, nullptr, &now));
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

// --- reading ------------------------------------------------------------------

TEST_F(AgentClientTest, LineFeedJustPastAFullReadIsFound) {
    // One read takes the pipe's 64 KiB: "short" and all of the long line but
    // its feed, which the next read brings after the partial line moved up.
    std::string const longLine(65536 - 6, 'x');
    ASSERT_TRUE(client.start("say:short|" + longLine + "|next;exit"));
    for (int waited = 0; client.unread() < 65536 && waited < 5000; ++waited) usleep(1000);
    std::string line;
    for (std::string const& want : {std::string("short"), longLine, std::string("next")}) {
        ASSERT_TRUE(client.readString(line));
        EXPECT_TRUE(line == want) << line.size();
    }
}

}  // namespace
}  // namespace TAVO::Backup
