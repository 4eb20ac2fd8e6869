// Turns the service's failed answers into the pipe protocol's failures. The
// decision rests on the HTTP status and Drive's `reason`, never on its
// wording: the plug-in compares a few messages whole (the quota sentence, the
// rate limits), so those are always written here in the plug-in's words.
#pragma once

#include <string>

#include "agent_failure.h"
#include "http.h"

namespace DriveAgent {

// The quota sentence the plug-in turns into its quota error.
extern char const* const kQuotaMessage;
// What the agent answers (403) when Drive's daily upload allowance is spent:
// no retry helps before the next day, and the host tool stops its run on it.
extern char const* const kDailyLimitMessage;
// What the agent answers (403) when a shared drive holds as many items as
// Drive allows: nothing more can be stored there until some are removed.
extern char const* const kSharedDriveFullMessage;

// The failure a Drive API answer with `status` (400 or above) and `body`
// stands for: a rate limit becomes 403 "User Rate Limit Exceeded" or "Rate
// Limit Exceeded", a full account 403 with kQuotaMessage, 429 and 5xx keep
// their status; a body that is not Drive's JSON (a proxy's HTML page) gives
// the status with a short text.
AgentFailure driveFailure(long status, std::string const& body);

// The failure an OAuth token endpoint answer stands for: a refused grant or
// client is 401 (refused credentials), anything else as driveFailure.
AgentFailure tokenFailure(long status, std::string const& body);

// The failure a transport error stands for (-2, retryable by the plug-in);
// an answer stopped at kMaxAnswerBody is kAnswerTooLarge and a refused TLS
// certificate kTlsRefused, neither retried.
AgentFailure transportFailure(HttpResponse const& response);

// Seconds the answer's Retry-After header asks for (0 when absent or a date).
long retryAfterSeconds(HttpResponse const& response);

// Drive's reason in an error body ("rateLimitExceeded", ...), empty if none.
std::string reasonOf(std::string const& body);

// True for a failure that passes with time, after which a transfer may go on
// where it was: a failed connection, 408, 429, 5xx, and Drive's 403 rate
// limits other than its daily upload limit.
bool isPassing(HttpResponse const& response);

// Sleeps before the agent's own resume attempt `attempt` (1, 2, ...): what
// the answer's Retry-After asks (at most two minutes), else exponential
// back-off of 1, 2, 4 ... 32 units of TAVO_AGENT_PAUSE_UNIT_MS (default 1 s).
void pauseBeforeResume(HttpResponse const& response, int attempt);

}  // namespace DriveAgent
