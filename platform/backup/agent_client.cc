#include "backup/agent_client.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>

#include "backup/json_text.h"

namespace TAVO {
namespace Backup {
namespace {

char const kLogSource[] = "agent_client";
char const kCanceledWhileWaiting[] = "canceled while waiting for the helper";
char const kEngineVersion[] = "1.0";

// One read() takes this much: a usual message fits several times over, so it
// costs one system call.
size_t const kReadChunk = 64 * 1024;
// A longer line is a runaway helper, not a message.
size_t const kMaxLine = 256 * 1024 * 1024;
// A buffer grown past this for one long message is given back afterwards.
size_t const kKeepBuffer = 1024 * 1024;

long const kDefaultPauseUnitMs = 1000;
long const kDefaultCloseGraceMs = 2000;
int const kMaxBackoffUnits = 32;
// The longest sleep between two polls of the cancel hook during a retry pause.
long const kCancelPollMs = 50;
// The longest wait for the helper's output between two polls of the cancel hook.
int const kReadCancelPollMs = 100;
// A non-JSON line is quoted in the log up to this many bytes.
size_t const kLoggedLineBytes = 200;

// A whole number of milliseconds of 0 or more from the environment, else `fallback`.
long envMilliseconds(char const* name, long fallback) {
    char const* text = getenv(name);
    if (text == nullptr || *text == '\0') return fallback;
    char* end = nullptr;
    errno = 0;
    long value = strtol(text, &end, 10);
    if (errno != 0 || *end != '\0' || value < 0) return fallback;
    return value;
}

using Clock = std::chrono::steady_clock;

void sleepFor(Clock::duration span) {
    long long const ns = std::chrono::duration_cast<std::chrono::nanoseconds>(span).count();
    struct timespec left = {static_cast<time_t>(ns / 1000000000),
                            static_cast<long>(ns % 1000000000)};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

// Writing to a pipe whose reader has gone raises SIGPIPE, whose default action
// ends the host. For the duration of a write the signal is blocked in this
// thread, and one that the write itself raised is consumed before the mask is
// put back, so the host neither dies nor sees it later.
class ScopedSigpipeBlock {
  public:
    ScopedSigpipeBlock() {
        sigemptyset(&_pipe_only);
        sigaddset(&_pipe_only, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &_pipe_only, &_old_mask);
        // Unblocked before, it cannot have been pending for this thread; blocked
        // before, a pending one is the host's and must be left alone.
        if (sigismember(&_old_mask, SIGPIPE)) {
            sigset_t pending;
            sigpending(&pending);
            _was_pending = sigismember(&pending, SIGPIPE);
        }
    }
    ~ScopedSigpipeBlock() {
        if (_raised && !_was_pending) {
            struct timespec now = {0, 0};
            while (sigtimedwait(&_pipe_only, nullptr, &now) < 0 && errno == EINTR) {
            }
        }
        pthread_sigmask(SIG_SETMASK, &_old_mask, nullptr);
    }
    // The write failed with EPIPE: a SIGPIPE is pending for this thread now.
    void raised() { _raised = true; }

  private:
    sigset_t _pipe_only;
    sigset_t _old_mask;
    bool _was_pending = false;
    bool _raised = false;
};

// Ends and reaps `pid`, giving it `graceMs` to exit on its own first.
void reapChild(pid_t pid, long graceMs) {
    Clock::time_point const deadline = Clock::now() + std::chrono::milliseconds(graceMs);
    long delayMs = 1;
    for (;;) {
        pid_t done = waitpid(pid, nullptr, WNOHANG);
        if (done == pid) return;
        if (done < 0 && errno == EINTR) continue;
        if (done < 0) return;  // not our child (any more): nothing to reap
        Clock::duration const left = deadline - Clock::now();
        if (left <= Clock::duration::zero()) break;
        sleepFor(std::min<Clock::duration>(std::chrono::milliseconds(delayMs), left));
        delayMs = std::min(delayMs * 2, 20L);
    }
    kill(pid, SIGKILL);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
}

}  // namespace

AgentClient::AgentClient() {}

AgentClient::~AgentClient() { close(); }

void AgentClient::setRetryPolicy(int maxAttempts, int pauseUnits, RetryPredicate needRetry) {
    _max_attempts = std::max(1, maxAttempts);
    _pause_units = std::max(0, pauseUnits);
    _need_retry = needRetry;
}

bool AgentClient::setCancelHook(boost::function<bool()> hook) {
    _cancel_hook = hook;
    return true;
}

void AgentClient::close() {
    if (_pipe != nullptr) {
        TAVOPipeFree(_pipe);
        _pipe = nullptr;
    }
    _read_pos = _read_end = 0;
    if (_read_buffer.size() > kKeepBuffer) std::vector<char>().swap(_read_buffer);
    _retry_streak = 0;
    if (_child_pid > 0) {
        reapChild(_child_pid, envMilliseconds("TAVO_AGENT_CLOSE_GRACE_MS", kDefaultCloseGraceMs));
        _child_pid = -1;
    }
}

void AgentClient::abandon() {
    if (_pipe != nullptr && _child_pid > 0) kill(_child_pid, SIGTERM);
    close();
}

void AgentClient::dropChannel(char const* why) {
    syslog(LOG_ERR, "%s:%d helper channel closed: %s", kLogSource, __LINE__, why);
    close();
}

bool AgentClient::nextLine(char const*& begin, char const*& end, char const*& why) {
    if (_pipe == nullptr) {
        why = "not connected";
        return false;
    }
    size_t scanned = _read_pos;  // no line feed before this offset
    for (;;) {
        char* base = _read_buffer.data();
        if (scanned < _read_end) {
            char* lf = static_cast<char*>(memchr(base + scanned, '\n', _read_end - scanned));
            if (lf != nullptr) {
                begin = base + _read_pos;
                end = lf;
                _read_pos = static_cast<size_t>(lf - base) + 1;
                return true;
            }
        }
        scanned = _read_end;
        if (_read_pos == _read_end) {
            _read_pos = _read_end = scanned = 0;
            if (_read_buffer.size() > kKeepBuffer) std::vector<char>().swap(_read_buffer);
        }
        if (_read_buffer.empty()) _read_buffer.resize(kReadChunk);
        if (_read_end == _read_buffer.size()) {
            if (_read_pos > 0) {
                // Move the partial line to the front to make room behind it.
                size_t kept = _read_end - _read_pos;
                memmove(_read_buffer.data(), _read_buffer.data() + _read_pos, kept);
                scanned -= _read_pos;
                _read_pos = 0;
                _read_end = kept;
            } else if (_read_buffer.size() >= kMaxLine) {
                why = "line too long";
                return false;
            } else {
                _read_buffer.resize(std::min(_read_buffer.size() * 2, kMaxLine));
            }
        }
        if (!waitReadable(why)) return false;
        ssize_t got =
            ::read(_pipe->readFd, _read_buffer.data() + _read_end, _read_buffer.size() - _read_end);
        if (got > 0) {
            _read_end += static_cast<size_t>(got);
        } else if (got < 0 && errno == EINTR) {
            continue;
        } else {
            why = got < 0                  ? "read from helper failed"
                  : _read_pos == _read_end ? "helper closed its output"
                                           : "helper closed its output mid-line";
            return false;
        }
    }
}

bool AgentClient::waitReadable(char const*& why) {
    // Without a hook there is nothing to poll: the read itself blocks.
    if (!_cancel_hook) return true;
    // The hook is asked only once the helper has been silent for a while: an
    // answer that comes at once is taken, and a busy helper is not abandoned
    // for a cancel that its answer would have beaten.
    struct pollfd watched = {_pipe->readFd, POLLIN, 0};
    for (;;) {
        int ready = ::poll(&watched, 1, kReadCancelPollMs);
        if (ready > 0) return true;  // data, end of file or an error: read() tells which
        if (ready < 0 && errno != EINTR) return true;
        if (isCanceled()) {
            why = kCanceledWhileWaiting;
            return false;
        }
    }
}

bool AgentClient::writeAll(std::string const& text, char const*& why) {
    ScopedSigpipeBlock block;
    char const* p = text.data();
    size_t left = text.size();
    while (left > 0) {
        ssize_t put = ::write(_pipe->writeFd, p, left);
        if (put >= 0) {
            p += put;
            left -= static_cast<size_t>(put);
        } else if (errno == EPIPE) {
            block.raised();
            why = "helper no longer reads its input";
            return false;
        } else if (errno != EINTR) {
            why = "write to helper failed";
            return false;
        }
    }
    return true;
}

bool AgentClient::hasBufferedLine() const {
    return _read_pos < _read_end &&
           memchr(_read_buffer.data() + _read_pos, '\n', _read_end - _read_pos) != nullptr;
}

bool AgentClient::readString(std::string& line) {
    char const* begin = nullptr;
    char const* end = nullptr;
    char const* why = nullptr;
    if (!nextLine(begin, end, why)) {
        if (_pipe != nullptr) dropChannel(why);
        return false;
    }
    line.assign(begin, end);
    return true;
}

bool AgentClient::sendRequest(Json::Value const& request) {
    if (_pipe == nullptr) {
        _send_failure = "not connected";
        return false;
    }
    std::string text = JsonText::toString(request);
    text += '\n';
    if (!writeAll(text, _send_failure)) {
        dropChannel(_send_failure);
        return false;
    }
    _sent_at = Clock::now();
    return true;
}

bool AgentClient::readResponse(Json::Value& response, bool& retry) {
    return readAnswer(response, retry, nullptr);
}

bool AgentClient::readAnswer(Json::Value& response, bool& retry,
                             SuccessLineReader const* readSuccessLine) {
    retry = false;
    char const* begin = nullptr;
    char const* end = nullptr;
    char const* why = nullptr;
    if (!nextLine(begin, end, why)) {
        if (why == kCanceledWhileWaiting) {
            // The helper is still working on a request nobody waits for any
            // more: its answer must never be read as the next one's, so it goes.
            response = Json::Value(Json::objectValue);
            fillCanceledResponse(response);
            syslog(LOG_DEBUG, "%s:%d helper abandoned: %s", kLogSource, __LINE__, why);
            abandon();
            return false;
        }
        fillChannelFailure(response, why);
        if (_pipe != nullptr) dropChannel(why);
        return false;
    }
    if (readSuccessLine && (*readSuccessLine)(begin, end)) {
        _retry_streak = 0;
        response = Json::Value(Json::objectValue);
        return true;
    }
    // The subclass's judges read members, so anything but an object is refused
    // here (JsonCpp would assert on a member lookup in an array).
    if (!JsonText::fromString(begin, end, response) || !response.isObject()) {
        size_t shown = std::min(static_cast<size_t>(end - begin), kLoggedLineBytes);
        syslog(LOG_ERR, "%s:%d helper wrote a line that is not a JSON object: [%.*s]", kLogSource,
               __LINE__, static_cast<int>(shown), begin);
        fillChannelFailure(response, "helper wrote a line that is not a JSON object");
        dropChannel("unreadable message");
        return false;
    }
    if (isSuccessResponse(response)) {
        _retry_streak = 0;
        return true;
    }
    retry = _need_retry && _need_retry(response);
    if (!retry) {
        _retry_streak = 0;
        return false;
    }
    if (++_retry_streak >= _max_attempts) {
        // The budget is spent: whoever retries now does so without a pause.
        _retry_streak = 0;
        return false;
    }
    // Warned, not debugged: a person waiting on a command sees why it is slow,
    // and how long the answer took (the helper may have waited on the service)
    // as well as the pause that follows.
    int units = backoffUnits(_retry_streak);
    long long const tookMs =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - _sent_at).count();
    syslog(LOG_WARNING,
           "%s:%d helper answered error %d (%s) after %lld ms; retry %d of %d in %lld ms",
           kLogSource, __LINE__, response.get("error_code", -1).asInt(),
           response.get("error_message", "").asString().c_str(), tookMs, _retry_streak,
           _max_attempts - 1,
           static_cast<long long>(units) *
               envMilliseconds("TAVO_AGENT_PAUSE_UNIT_MS", kDefaultPauseUnitMs));
    if (!pause(units)) {
        _retry_streak = 0;
        retry = false;
        response = Json::Value(Json::objectValue);
        fillCanceledResponse(response);
    }
    return false;
}

bool AgentClient::send(Json::Value const& request, Json::Value& response) {
    return exchange(request, response, nullptr);
}

bool AgentClient::send(Json::Value const& request, Json::Value& response,
                       SuccessLineReader const& readSuccessLine) {
    return exchange(request, response, &readSuccessLine);
}

bool AgentClient::exchange(Json::Value const& request, Json::Value& response,
                           SuccessLineReader const* readSuccessLine) {
    _retry_streak = 0;
    for (int attempt = 1;; ++attempt) {
        if (isCanceled()) {
            _retry_streak = 0;
            response = Json::Value(Json::objectValue);
            fillCanceledResponse(response);
            return false;
        }
        if (!sendRequest(request)) {
            fillChannelFailure(response, _send_failure);
            return false;
        }
        bool retry = false;
        if (readAnswer(response, retry, readSuccessLine)) return true;
        if (!retry || attempt >= _max_attempts) {
            _retry_streak = 0;
            return false;
        }
    }
}

void AgentClient::fillChannelFailure(Json::Value& response, char const* why) const {
    response = Json::Value(Json::objectValue);
    response["success"] = false;
    response["error_code"] = -1;
    response["error_message"] = why;
}

int AgentClient::backoffUnits(int retry) const {
    if (_pause_units <= 0) return 0;
    if (_pause_units >= kMaxBackoffUnits) return _pause_units;
    int units = _pause_units;
    for (int i = 1; i < retry && units < kMaxBackoffUnits; ++i) units *= 2;
    return std::min(units, kMaxBackoffUnits);
}

bool AgentClient::pause(int units) const {
    long long totalMs = static_cast<long long>(units) *
                        envMilliseconds("TAVO_AGENT_PAUSE_UNIT_MS", kDefaultPauseUnitMs);
    if (totalMs <= 0) return !isCanceled();
    Clock::time_point const deadline = Clock::now() + std::chrono::milliseconds(totalMs);
    for (;;) {
        if (isCanceled()) return false;
        Clock::duration const left = deadline - Clock::now();
        if (left <= Clock::duration::zero()) return true;
        sleepFor(std::min<Clock::duration>(left, std::chrono::milliseconds(kCancelPollMs)));
    }
}

std::string AgentClient::getTavoUserAgent() {
    if (char const* override = getenv("TAVO_USER_AGENT_OVERRIDE")) return override;
    struct utsname system;
    if (uname(&system) != 0) return std::string();
    return std::string("TavoBackup/") + kEngineVersion + " (" + system.sysname + " " +
           system.machine + ")";
}

}  // namespace Backup
}  // namespace TAVO
