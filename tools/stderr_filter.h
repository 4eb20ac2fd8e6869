// The plug-in writes two start-up lines to stderr each time it starts the
// drive agent; a person running one command wants none of them. While a
// filter is active, stderr (fd 2, which child processes share) runs through
// a pipe and a thread that forwards every line but those.
#pragma once

#include <cstdio>
#include <thread>

namespace gdhost {

class StderrFilter {
  public:
    // Starts filtering; does nothing when the pipe cannot be made.
    StderrFilter();
    // Puts the real stderr back and forwards what is still in the pipe; the
    // processes that inherited the pipe must have ended.
    ~StderrFilter();
    StderrFilter(StderrFilter const&) = delete;
    StderrFilter& operator=(StderrFilter const&) = delete;

  private:
    void forward();

    int _real = -1;  // the original stderr
    int _read = -1;  // read end of the pipe now behind fd 2
    std::thread _thread;
};

// The real stderr, for output rewritten in place (the progress line): it must
// not wait for a line feed in the filter.
FILE* liveOutput();

}  // namespace gdhost
