// The engine's channel to a helper process: newline-delimited JSON requests
// on the child's stdin, one JSON response per line on its stdout. Subclasses
// say how the helper is started and how its answers are judged.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <boost/function.hpp>

#include <string>

#include "core/pipe_open.h"

namespace TAVO {
namespace Backup {

class AgentClient {
public:
    typedef boost::function<bool(Json::Value const&)> RetryPredicate;

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

    // Retry policy of send():
    //  - `maxAttempts`: how many times one request is sent at most (the first
    //    attempt included); values below 1 count as 1.
    //  - `pauseUnits`: the pause before the first retry, in pause units (one
    //    second each in production); each further retry doubles it, up to 32
    //    units, so 5 gives 5, 10, 20, 32, 32, ... seconds, the exponential
    //    back-off Drive asks for on rate limits. readResponse() pauses
    //    `pauseUnits` before returning a retryable failure.
    //  - `needRetry`: true for a failed response worth sending again.
    // The environment variable TAVO_AGENT_PAUSE_UNIT_MS overrides the length of
    // one pause unit in milliseconds (tests set it to 0 or 1).
    void setRetryPolicy(int maxAttempts, int pauseUnits, RetryPredicate needRetry);

    // Stores the channel's cancel predicate, polled before each attempt and
    // during pauses. Always true.
    bool setCancelHook(boost::function<bool()> hook);

    // True while a started helper is attached.
    bool isConnected() const { return _pipe != nullptr; }

    // Ends the helper: closes its stdin, waits up to 2 s for it to exit, then
    // kills it; always reaps it. Harmless when not connected.
    void close();

    // Reads the next line of the helper's output, without its line feed.
    // False when nothing could be read (helper gone, or not connected); the
    // channel is closed then.
    bool readString(std::string& line);

    // Writes `request` as one line. False when not connected or the helper no
    // longer reads (the channel is closed then).
    bool sendRequest(Json::Value const& request);

    // Reads the next message into `response`. True when it is a success by
    // isSuccessResponse. On false `response` is the failure: the helper's own
    // failure response, or one made up by the channel ({"success": false,
    // "error_code": -1, "error_message": ...}) when the helper died, closed its
    // output or wrote a line that is not JSON (the channel is then closed), or
    // the canceled response when the cancel hook fired. `retry` is set to the
    // retry predicate's verdict on a failure and to false otherwise.
    bool readResponse(Json::Value& response, bool& retry);

    // One complete exchange under the retry policy: sends `request`, reads the
    // answer, and while the answer is a retryable failure and attempts remain,
    // pauses and sends again (reconnecting is the caller's business: a closed
    // channel ends the exchange). True when the final answer is a success; on
    // false `response` holds the final failure.
    bool send(Json::Value const& request, Json::Value& response);

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
    void fillChannelFailure(Json::Value& response, char const* why) const;
    // Sleeps `units` pause units, waking early when the cancel hook fires.
    void pause(int units) const;

    int _max_attempts = 1;
    int _pause_units = 0;
    RetryPredicate _need_retry;
    boost::function<bool()> _cancel_hook;
    std::string _read_buffer;  // bytes read but not yet consumed
    size_t _read_pos = 0;
};

}  // namespace Backup
}  // namespace TAVO
