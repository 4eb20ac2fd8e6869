// A child process on two pipes, spoken to line by line: what the benchmarks
// use as the bare reference beside the plug-in's channel.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace BenchSupport {

class ChildPipe {
  public:
    // Runs `program` (argv[0] and one argument) with `env` added, or, when
    // `program` is empty, forks `body` (reading fd 0, writing fd 1).
    ChildPipe(std::string const& program, std::vector<std::string> const& env,
              void (*body)(std::string const&), std::string const& bodyArg) {
        int in[2], out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe failed");
        }
        _pid = ::fork();
        if (_pid == 0) {
            ::dup2(in[0], 0);
            ::dup2(out[1], 1);
            if (program.empty()) {
                // Without an exec, our other pipe ends would stay open here
                // and keep this child (and the emulator) from seeing EOF.
                ::close_range(3, ~0u, 0);
                body(bodyArg);
                ::_exit(0);
            }
            for (auto const& e : env) ::putenv(const_cast<char*>(e.c_str()));
            ::execl(program.c_str(), program.c_str(), "drive_agent.py",
                    static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ::close(in[0]);
        ::close(out[1]);
        _to = in[1];
        _from = out[0];
    }
    ChildPipe(ChildPipe const&) = delete;
    ChildPipe& operator=(ChildPipe const&) = delete;
    ~ChildPipe() {
        ::close(_to);
        ::close(_from);
        int status;
        ::waitpid(_pid, &status, 0);
    }

    pid_t pid() const { return _pid; }

    void write(std::string const& text) {
        for (size_t done = 0; done < text.size();) {
            ssize_t n = ::write(_to, text.data() + done, text.size() - done);
            if (n <= 0) throw std::runtime_error("child gone");
            done += static_cast<size_t>(n);
        }
    }

    std::string readLine() {
        for (;;) {
            size_t end = _buffer.find('\n', _start);
            if (end != std::string::npos) {
                std::string line = _buffer.substr(_start, end - _start);
                _start = end + 1;
                if (_start == _buffer.size()) {
                    _buffer.clear();
                    _start = 0;
                }
                return line;
            }
            char chunk[65536];
            ssize_t n = ::read(_from, chunk, sizeof chunk);
            if (n <= 0) throw std::runtime_error("child gone");
            _buffer.append(chunk, static_cast<size_t>(n));
        }
    }

  private:
    pid_t _pid = -1;
    int _to = -1;
    int _from = -1;
    std::string _buffer;
    size_t _start = 0;
};

}  // namespace BenchSupport
