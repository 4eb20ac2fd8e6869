#include "stderr_filter.h"

#include <fcntl.h>
#include <unistd.h>

#include <string>

namespace gdhost {

namespace {

FILE* gLive = nullptr;

bool endsWith(std::string const& text, std::string const& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// "googledrive_client:102 pipe opened" and "googledrive_client:114 agent ready".
bool startupLine(std::string const& line) {
    return line.rfind("googledrive_client:", 0) == 0 &&
           (endsWith(line, " pipe opened") || endsWith(line, " agent ready"));
}

void writeAll(int fd, std::string const& text) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n <= 0) return;
        done += static_cast<size_t>(n);
    }
}

}  // namespace

FILE* liveOutput() { return gLive ? gLive : stderr; }

StderrFilter::StderrFilter() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return;
    _real = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    if (_real < 0 || dup2(ends[1], STDERR_FILENO) < 0) {
        close(ends[0]);
        close(ends[1]);
        if (_real >= 0) close(_real);
        _real = -1;
        return;
    }
    close(ends[1]);
    _read = ends[0];
    gLive = fdopen(dup(_real), "w");
    if (gLive) setvbuf(gLive, nullptr, _IONBF, 0);
    _thread = std::thread([this] { forward(); });
}

StderrFilter::~StderrFilter() {
    if (_real < 0) return;
    fflush(stderr);
    dup2(_real, STDERR_FILENO);  // closes the last write end this process holds
    _thread.join();
    close(_read);
    close(_real);
    if (gLive) fclose(gLive);
    gLive = nullptr;
}

void StderrFilter::forward() {
    std::string pending;
    char buffer[4096];
    for (;;) {
        ssize_t n = read(_read, buffer, sizeof buffer);
        if (n <= 0) break;
        pending.append(buffer, static_cast<size_t>(n));
        size_t start = 0;
        for (size_t end; (end = pending.find('\n', start)) != std::string::npos; start = end + 1) {
            std::string line = pending.substr(start, end - start);
            if (!startupLine(line)) writeAll(_real, line + "\n");
        }
        pending.erase(0, start);
    }
    if (!pending.empty()) writeAll(_real, pending);
}

}  // namespace gdhost
