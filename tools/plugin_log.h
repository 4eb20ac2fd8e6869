// What the plug-in writes to syslog while the tool runs. The tool defines
// syslog() itself, which takes precedence over the C library's for the
// plug-in module and the engine libraries it loads, so that each line can be
// shown or kept as the reason of the operation that failed.
#pragma once

#include <functional>
#include <string>

namespace gdhost {

// Shows the plug-in's lines on stderr as they are written: with `verbose` all
// of them, else only warnings (retries and their pauses), so that a person
// sees a retry as it happens instead of a long silence. With `verbose` the
// agent's operation trace is shown too ("trace: ..." lines).
void showPluginLog(bool verbose);

// Calls `hook` (from the thread that logs) each time the plug-in logs that
// the service answered with a rate limit and the request will be sent again
// (403 "User Rate Limit Exceeded" or "Rate Limit Exceeded", 429). An empty
// hook stops the calls.
void onRateLimit(std::function<void()> hook);

// Whether a log line of the plug-in tells of such a rate limit.
bool isRateLimitLine(std::string const& line);

// Why an operation failed, in the plug-in's own words.
struct LoggedReason {
    std::string text;     // one line; empty when the plug-in logged no error
    int serviceCode = 0;  // the drive agent's error code in that line, when it gave one
};

// Forgets the errors logged so far: call before each operation of a run,
// from the thread that runs it. `subject` (a remote path, say) names what the
// operation works on in the retry lines a person sees.
void beginOperation(std::string subject = std::string());

// The first error the plug-in logged on this thread since beginOperation():
// the deepest cause, before the callers' lines that repeat it. A drive
// agent's answer is reduced to its message.
LoggedReason loggedReason();

// `line` as a reason: "source:NN " prefixes dropped, an embedded answer
// {"error_code":N,"error_message":"..."} reduced to its message and code.
LoggedReason reasonFromLine(std::string const& line);

// The channel's retry warning `line` in a person's words, naming `subject`:
// what failed, how long the answer took and how long the pause before the
// next try is. Empty when `line` is not a retry warning.
std::string retryWords(std::string const& line, std::string const& subject);

}  // namespace gdhost
