// Starting a helper with TAVOPipeOpen, watched from the helper's side.
#include "core/pipe_open.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <string>

#include "backup/json_text.h"

namespace {

// One request to a started fake_agent and its parsed answer, over the raw pipe.
Json::Value ask(TAVOPipe* pipe) {
    static char const kRequest[] = "{}\n";
    EXPECT_EQ(static_cast<ssize_t>(sizeof kRequest - 1),
              write(pipe->writeFd, kRequest, sizeof kRequest - 1));
    std::string line;
    char c;
    while (read(pipe->readFd, &c, 1) == 1 && c != '\n') line += c;
    Json::Value answer;
    EXPECT_TRUE(TAVO::JsonText::fromString(line, answer)) << line;
    return answer;
}

// Closes the pipe and waits for the helper, which exits at the end of its input.
void finish(TAVOPipe* pipe, pid_t pid) {
    TAVOPipeFree(pipe);
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

bool noChildLeft() {
    errno = 0;
    return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

class PipeOpenTest : public ::testing::Test {
  protected:
    void SetUp() override { unsetenv("TAVO_ROOT"); }
    void TearDown() override { unsetenv("TAVO_ROOT"); }
};

TEST_F(PipeOpenTest, OnlyTheStandardDescriptorsReachTheChild) {
    // Descriptors of ours without close-on-exec, as a careless host leaves them.
    int stray = open("/dev/null", O_RDONLY);
    int strayPipe[2];
    ASSERT_GE(stray, 0);
    ASSERT_EQ(0, pipe(strayPipe));

    pid_t pid = -1;
    TAVOPipe* pipe = TAVOPipeOpen(&pid, FAKE_AGENT_PATH, "fds", nullptr);
    ASSERT_NE(nullptr, pipe) << strerror(errno);
    EXPECT_GT(pid, 0);
    EXPECT_TRUE(fcntl(pipe->readFd, F_GETFD) & FD_CLOEXEC);
    EXPECT_TRUE(fcntl(pipe->writeFd, F_GETFD) & FD_CLOEXEC);

    std::set<int> expected = {0, 1};
    if (fcntl(2, F_GETFD) >= 0) expected.insert(2);  // stderr is inherited when we have one
    std::set<int> seen;
    Json::Value const answer = ask(pipe);
    for (Json::Value const& fd : answer["fds"]) seen.insert(fd.asInt());
    EXPECT_EQ(expected, seen);

    finish(pipe, pid);
    close(stray);
    close(strayPipe[0]);
    close(strayPipe[1]);
}

TEST_F(PipeOpenTest, ProgramThatCannotRunGivesNullAndNoChild) {
    struct Case {
        char const* program;
        int error;
    } const cases[] = {{"/nonexistent/agent", ENOENT}, {"/etc/passwd", EACCES}, {"/tmp", EACCES}};
    for (Case const& c : cases) {
        SCOPED_TRACE(c.program);
        pid_t pid = 12345;
        errno = 0;
        EXPECT_EQ(nullptr, TAVOPipeOpen(&pid, c.program, nullptr));
        EXPECT_EQ(c.error, errno) << strerror(errno);
        EXPECT_EQ(12345, pid) << "the pid is left untouched";
        EXPECT_TRUE(noChildLeft());
    }
}

}  // namespace
