#include "support/syslog_capture.h"

#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace {

std::mutex g_mutex;
std::vector<TestSupport::LogLine> g_lines;

// glibc's syslog expands %m itself; do the same before vsnprintf sees it.
std::string expandErrno(char const* fmt, int savedErrno) {
    std::string out;
    for (char const* p = fmt; *p; ++p) {
        if (p[0] == '%' && p[1] == '%') {
            out += "%%";
            ++p;
        } else if (p[0] == '%' && p[1] == 'm') {
            for (char const* e = strerror(savedErrno); *e; ++e) {
                out += *e;
                if (*e == '%') out += '%';
            }
            ++p;
        } else {
            out += *p;
        }
    }
    return out;
}

void record(int priority, char const* fmt, va_list args) {
    int savedErrno = errno;
    std::string format = expandErrno(fmt, savedErrno);
    va_list copy;
    va_copy(copy, args);
    int n = vsnprintf(nullptr, 0, format.c_str(), copy);
    va_end(copy);
    std::string text(n > 0 ? n : 0, '\0');
    if (n > 0) vsnprintf(&text[0], n + 1, format.c_str(), args);
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.push_back({LOG_PRI(priority), text});
    errno = savedErrno;
}

}  // namespace

extern "C" void syslog(int priority, char const* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    record(priority, fmt, args);
    va_end(args);
}

extern "C" void vsyslog(int priority, char const* fmt, va_list args) {
    record(priority, fmt, args);
}

namespace TestSupport {

void clearSyslog() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.clear();
}

std::vector<LogLine> capturedSyslog() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_lines;
}

std::vector<LogLine> syslogLinesContaining(std::string const& needle) {
    std::vector<LogLine> out;
    for (auto const& line : capturedSyslog())
        if (line.text.find(needle) != std::string::npos) out.push_back(line);
    return out;
}

bool syslogHas(std::string const& needle, int priority) {
    for (auto const& line : syslogLinesContaining(needle))
        if (priority < 0 || line.priority == priority) return true;
    return false;
}

}  // namespace TestSupport
