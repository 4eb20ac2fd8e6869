#include "plugin_log.h"

#include <json/reader.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include "backup/transfer_agent.h"

namespace gdhost {

namespace {

std::mutex gMutex;
int gShownMask = LOG_MASK(LOG_WARNING);
thread_local bool tHasReason = false;
thread_local std::string tReason;
thread_local std::string tSubject;
std::function<void()> gRateLimitHook;

// glibc's syslog expands %m itself; vsnprintf must not see it.
std::string expandErrno(char const* format, int savedErrno) {
    std::string out;
    for (char const* p = format; *p; ++p) {
        if (p[0] == '%' && p[1] == '%') {
            out += "%%";
            ++p;
        } else if (p[0] == '%' && p[1] == 'm') {
            for (char const* e = strerror(savedErrno); *e; ++e)
                out += *e == '%' ? "%%" : std::string(1, *e);
            ++p;
        } else {
            out += *p;
        }
    }
    return out;
}

void record(int priority, char const* format, va_list args) {
    int savedErrno = errno;
    std::string expanded = expandErrno(format, savedErrno);
    char buffer[2048];
    vsnprintf(buffer, sizeof buffer, expanded.c_str(), args);
    int level = LOG_PRI(priority);
    if (level <= LOG_ERR && !tHasReason) {
        tHasReason = true;
        tReason = buffer;
    }
    std::string worded = level == LOG_WARNING ? retryWords(buffer, tSubject) : std::string();
    {
        std::lock_guard<std::mutex> lock(gMutex);
        bool verbose = gShownMask & LOG_MASK(LOG_DEBUG);
        if (!worded.empty()) fprintf(stderr, "gdrive_host: %s\n", worded.c_str());
        if ((gShownMask & LOG_MASK(level)) && (worded.empty() || verbose)) {
            fprintf(stderr, "gdrive_host[%d]: %s\n", static_cast<int>(getpid()), buffer);
        }
    }
    if (gRateLimitHook && level == LOG_WARNING && isRateLimitLine(buffer)) gRateLimitHook();
    errno = savedErrno;
}

bool isSourcePrefix(std::string const& word) {
    size_t colon = word.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == word.size()) return false;
    return word.find_first_not_of("0123456789", colon + 1) == std::string::npos &&
           word.find_first_of(" []{}\"") == std::string::npos;
}

}  // namespace

void showPluginLog(bool verbose) {
    {
        std::lock_guard<std::mutex> lock(gMutex);
        gShownMask = verbose ? LOG_UPTO(LOG_DEBUG) : LOG_MASK(LOG_WARNING);
    }
    if (!verbose) return;
    TAVO::Backup::TransferAgent::setDebug(true);
    TAVO::Backup::TransferAgent::setDebugSink(
        [](std::string const& line) { fprintf(stderr, "trace: %s\n", line.c_str()); });
}

void onRateLimit(std::function<void()> hook) { gRateLimitHook = std::move(hook); }

bool isRateLimitLine(std::string const& line) {
    // The channel's retry warning: "helper answered error CODE (MESSAGE) after ...".
    for (char const* answer :
         {"answered error 429 (", "answered error 403 (User Rate Limit Exceeded)",
          "answered error 403 (Rate Limit Exceeded)"}) {
        if (line.find(answer) != std::string::npos) return true;
    }
    return false;
}

void beginOperation(std::string subject) {
    tHasReason = false;
    tReason.clear();
    tSubject = std::move(subject);
}

std::string retryWords(std::string const& line, std::string const& subject) {
    // "helper answered error CODE (MESSAGE) after MS ms; retry N of M in MS ms"
    static std::string const kStart = "helper answered error ";
    size_t at = line.find(kStart);
    size_t close = line.rfind(") after ");
    if (at == std::string::npos || close == std::string::npos) return std::string();
    char* end = nullptr;
    long code = std::strtol(line.c_str() + at + kStart.size(), &end, 10);
    if (end == nullptr || std::string(end).rfind(" (", 0) != 0) return std::string();
    std::string const message(static_cast<char const*>(end) + 2, line.c_str() + close);
    long long tookMs = 0, pauseMs = 0;
    int retry = 0, of = 0;
    if (std::sscanf(line.c_str() + close, ") after %lld ms; retry %d of %d in %lld ms", &tookMs,
                    &retry, &of, &pauseMs) != 4) {
        return std::string();
    }
    auto seconds = [](long long ms) {
        char text[32];
        snprintf(text, sizeof text, "%.1f s", ms / 1000.0);
        return std::string(text);
    };
    std::string const what = message.empty() ? "error " + std::to_string(code)
                                             : message + " (error " + std::to_string(code) + ")";
    return (subject.empty() ? std::string("retrying") : "retrying " + subject) + " in " +
           seconds(pauseMs) + " (retry " + std::to_string(retry) + " of " + std::to_string(of) +
           "): " + what + ", answered after " + seconds(tookMs);
}

LoggedReason loggedReason() { return reasonFromLine(tReason); }

LoggedReason reasonFromLine(std::string const& line) {
    LoggedReason reason;
    size_t start = 0;
    for (;;) {
        size_t space = line.find(' ', start);
        if (space == std::string::npos || !isSourcePrefix(line.substr(start, space - start))) break;
        start = space + 1;
    }
    reason.text = line.substr(start);
    size_t brace = line.find('{');
    if (brace == std::string::npos) return reason;
    Json::Value answer;
    std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    if (!reader->parse(line.data() + brace, line.data() + line.size(), &answer, nullptr) ||
        !answer.isObject()) {
        return reason;
    }
    Json::Value message = answer["error_message"], code = answer["error_code"];
    if (code.isInt()) reason.serviceCode = code.asInt();
    if (message.isString() && !message.asString().empty()) {
        reason.text = message.asString();
        if (code.isInt()) reason.text += " (" + std::to_string(code.asInt()) + ")";
    }
    return reason;
}

}  // namespace gdhost

// The plug-in and the engine libraries log through these.
extern "C" void vsyslog(int priority, char const* format, va_list args) {
    gdhost::record(priority, format, args);
}

extern "C" void syslog(int priority, char const* format, ...) {
    va_list args;
    va_start(args, format);
    gdhost::record(priority, format, args);
    va_end(args);
}
