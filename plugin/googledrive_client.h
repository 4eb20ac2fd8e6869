// The plug-in's client of the drive agent process: how it is started (its
// environment, command line and handshake), how its responses are judged, and
// which failures are worth retrying. The pipe itself is the engine's channel.
#pragma once

#include <json/value.h>

#include <string>

#include "backup/agent_client.h"

namespace TAVO {
namespace Backup {

// The interpreter and script that make up the drive agent.
extern char const* const kDriveAgentInterpreter;  // "/usr/bin/python"
extern char const* const kDriveAgentScript;
// The OAuth client the application is registered as; handed to every agent.
extern char const* const kGoogleDriveClientId;
extern char const* const kGoogleDriveClientSecret;

class GoogleDriveClient : public AgentClient {
  public:
    // An unconnected channel with the retry policy (10 attempts, 5 pause units, needRetry).
    GoogleDriveClient();
    ~GoogleDriveClient() override;

    // Starts a new drive agent (closing any current one) with the tokens and
    // client credentials in its environment and waits for its ready line
    // "start". Returns false without touching the channel when the cancel hook
    // fires first. On failure records core error 0x300 (a token the agent calls
    // "not a valid base64 string") or 0x2a00 (anything else) and leaves the
    // channel closed. The five credential variables never outlive the call and
    // LANG is restored. `flag` is ignored.
    bool connect(std::string const& accessToken, std::string const& refreshToken,
                 bool flag) override;

    // The response's "success", false when absent.
    bool isSuccessResponse(Json::Value const& response) const override;

    // Replaces `response` by {"success": false, "error_message": "user canceled",
    // "error_code": -3}; returns true.
    bool fillCanceledResponse(Json::Value& response) const override;
};

// The retry predicate: true for a failed response whose "error_code" is 408,
// 5xx, -2, -4, or 403 with exactly "User Rate Limit Exceeded".
bool needRetry(Json::Value const& response);

// Core error numbers recorded by connect().
enum { kCoreErrInvalidToken = 0x300, kCoreErrAgentStart = 0x2a00, kCoreErrCanceled = 0x2a01 };

}  // namespace Backup
}  // namespace TAVO
