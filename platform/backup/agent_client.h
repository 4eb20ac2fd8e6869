// The engine's channel to a helper process: newline-delimited JSON requests
// on the child's stdin, one JSON response per line on its stdout. Subclasses
// say how the helper is started and how its answers are judged.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <boost/function.hpp>
#include <chrono>
#include <string>
#include <vector>

#include "core/pipe_open.h"

namespace TAVO {
namespace Backup {

class AgentClient {
  public:
    typedef boost::function<bool(Json::Value const&)> RetryPredicate;
    // Offered an answer line, without its line feed, before it is parsed:
    // true when it has read the line as a complete success answer; false
    // leaves the line to the general JSON parser and the success judge.
    typedef boost::function<bool(char const* begin, char const* end)> SuccessLineReader;

    AgentClient();
    // Closes the channel (see close()).
    virtual ~AgentClient();
    AgentClient(AgentClient const&) = delete;
    AgentClient& operator=(AgentClient const&) = delete;

    // Starts the helper and completes its handshake.
    virtual bool connect(std::string const& accessToken, std::string const& refreshToken,
                         bool flag) = 0;
    // Whether `response` reports success.
    virtual bool isSuccessResponse(Json::Value const& response) const = 0;
    // Writes into `response` the failure that stands for a canceled request.
    virtual bool fillCanceledResponse(Json::Value& response) const = 0;

    // Retry policy of send() and readResponse():
    //  - `maxAttempts`: how many times one request is sent at most (the first
    //    attempt included); values below 1 count as 1.
    //  - `pauseUnits`: the pause before the first retry, in pause units (one
    //    second each in production); each further retry doubles it, up to 32
    //    units (a larger `pauseUnits` stays as given), so 5 gives 5, 10, 20,
    //    32, 32, ... seconds: the exponential back-off Drive asks for on rate
    //    limits. 0 or less: no pause.
    //  - `needRetry`: true for a failed response worth sending again; empty
    //    means nothing is retried.
    // The pause is taken inside readResponse(), before it returns a retryable
    // failure, so that a caller running its own send/read loop backs off too.
    // The k-th retryable failure in a row (counted since the last other
    // answer) pauses for the k-th step; the failure that spends the budget
    // (the `maxAttempts`-th in a row) returns at once and restarts the count.
    // The environment variable TAVO_AGENT_PAUSE_UNIT_MS, read at each pause,
    // overrides the length of one pause unit in milliseconds (tests set it to
    // 0 or 1); a value that is not a whole number of 0 or more is ignored.
    void setRetryPolicy(int maxAttempts, int pauseUnits, RetryPredicate needRetry);

    // Stores the channel's cancel predicate, polled by send() before each
    // attempt, by every pause (at least every 50 ms) and while waiting for the
    // helper's next line (at least every 100 ms). Never polled while blocked
    // writing. Always true.
    bool setCancelHook(boost::function<bool()> hook);

    // True while a started helper is attached.
    bool isConnected() const { return _pipe != nullptr; }

    // Ends the helper: closes both pipe ends (its stdin sees end of file),
    // waits up to 2 s for it to exit, then kills it with SIGKILL; always reaps
    // it, so no zombie is left. Bytes read but not consumed are dropped.
    // Harmless when not connected. TAVO_AGENT_CLOSE_GRACE_MS overrides the
    // grace time in milliseconds (tests shorten it).
    void close();

    // Ends the helper in the middle of a request nobody will wait for: SIGTERM
    // at once (a busy helper does not read its input, so it would not notice
    // the end of file), then as close().
    void abandon();

    // Reads the next line of the helper's output, without its line feed, as
    // plain text. False when no complete line could be read (not connected,
    // or the helper closed its output or died, possibly mid-line); the
    // channel is closed then.
    bool readString(std::string& line);

    // Writes `request` as one line of compact JSON. False when not connected
    // or the helper no longer reads (the channel is closed then); a helper
    // that has gone never raises SIGPIPE in the host. Blocks while the
    // helper's input pipe is full.
    bool sendRequest(Json::Value const& request);

    // True when a complete line from the helper is already buffered, so that
    // the next readString() or readResponse() returns without waiting.
    bool hasBufferedLine() const;

    // Reads the next message into `response`. True when it is a success by
    // isSuccessResponse. On false `response` is the failure: the helper's own
    // failure response, or one made up by the channel ({"success": false,
    // "error_code": -1, "error_message": ...}) when not connected, or when the
    // helper died, closed its output or wrote a line that is not a JSON
    // object (the channel is then closed and the helper reaped), or the
    // canceled response when the cancel hook fired during the retry pause or
    // while waiting for the line (the helper is then closed and reaped, so
    // that its late answer is never read as the answer to a later request).
    // `retry` is the retry predicate's verdict on the helper's own failure,
    // and false on success, on a failure made by the channel and on cancel.
    // A retryable failure pauses first (see setRetryPolicy).
    bool readResponse(Json::Value& response, bool& retry);

    // One complete exchange under the retry policy: sends `request`, reads the
    // answer, and while the answer is a retryable failure and attempts remain,
    // pauses and sends again (reconnecting is the caller's business: a closed
    // channel ends the exchange). The cancel hook is polled before each
    // attempt: when it fires nothing more is sent and `response` is the
    // canceled response. True when the final answer is a success; on false
    // `response` holds the final failure.
    bool send(Json::Value const& request, Json::Value& response);
    // send() for answers that a dedicated reader takes faster than the
    // general parser: each answer line goes to `readSuccessLine` first, and a
    // line it takes ends the exchange as a success, `response` an empty object.
    bool send(Json::Value const& request, Json::Value& response,
              SuccessLineReader const& readSuccessLine);

    // The engine's user-agent text, "TavoBackup/<version> (<system> <machine>)";
    // empty when it cannot be built. TAVO_USER_AGENT_OVERRIDE replaces it
    // (an empty value makes it empty) for tests.
    static std::string getTavoUserAgent();

  protected:
    // Filled by TAVOPipeOpen in a subclass's connect().
    pid_t _child_pid = -1;
    // The pipe handle of the attached helper; null when not connected.
    TAVOPipe* _pipe = nullptr;

    bool isCanceled() const { return _cancel_hook && _cancel_hook(); }

  private:
    // Finds the next complete line in [begin, end), without its line feed,
    // reading from the helper as needed; valid until the next read. False
    // with `why` set when no line can be had (the channel is left as it is).
    bool nextLine(char const*& begin, char const*& end, char const*& why);
    // readResponse() and send(), with the optional dedicated reader.
    bool readAnswer(Json::Value& response, bool& retry, SuccessLineReader const* readSuccessLine);
    bool exchange(Json::Value const& request, Json::Value& response,
                  SuccessLineReader const* readSuccessLine);
    // Waits until the helper's output can be read, asking the cancel hook
    // after every 100 ms of silence; false with `why` set when it fired.
    bool waitReadable(char const*& why);
    // Writes all of `text`; false with `why` set when the helper no longer reads.
    bool writeAll(std::string const& text, char const*& why);
    // Logs why the channel failed, then closes it.
    void dropChannel(char const* why);
    void fillChannelFailure(Json::Value& response, char const* why) const;
    // Pause units before the `retry`-th retry in a row (1-based).
    int backoffUnits(int retry) const;
    // Sleeps `units` pause units; false (early) when the cancel hook fires.
    bool pause(int units) const;

    int _max_attempts = 1;
    int _pause_units = 0;
    RetryPredicate _need_retry;
    boost::function<bool()> _cancel_hook;
    int _retry_streak = 0;  // retryable failures in a row from readResponse()
    // Bytes read from the helper: [_read_pos, _read_end) not yet consumed.
    std::vector<char> _read_buffer;
    size_t _read_pos = 0;
    size_t _read_end = 0;
    char const* _send_failure = nullptr;  // why the last sendRequest() failed
    // When the last request was sent: a retry line says how long its answer took.
    std::chrono::steady_clock::time_point _sent_at{};
};

}  // namespace Backup
}  // namespace TAVO
