// Captures what the code under test writes to syslog. The test executable
// defines syslog() itself, which takes precedence over the C library's for
// every caller in the process, the shared libraries included.
#pragma once

#include <string>
#include <vector>

namespace TestSupport {

struct LogLine {
    int priority;      // LOG_ERR, LOG_DEBUG, ... (facility bits removed)
    std::string text;  // the formatted message, %m expanded
};

// Starts a fresh capture: forgets earlier lines.
void clearSyslog();
// Every line captured since the last clearSyslog(), in order.
std::vector<LogLine> capturedSyslog();
// The captured lines whose text contains `needle`.
std::vector<LogLine> syslogLinesContaining(std::string const& needle);
// True when some captured line contains `needle` (at `priority`, unless -1).
bool syslogHas(std::string const& needle, int priority = -1);

}  // namespace TestSupport
