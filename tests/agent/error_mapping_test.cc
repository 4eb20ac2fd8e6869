// Every way the service fails, as the drive agent answers it, through the
// plug-in's own conversion and retry predicate: the engine must see the
// code, and retry exactly when, the failure calls for.
#include <gtest/gtest.h>

#include "backup/error.h"
#include "drive_errors.h"
#include "googledrive_client.h"
#include "googledrive_error.h"

using namespace DriveAgent;

namespace {

std::string driveBody(int status, std::string const& reason, std::string const& message) {
    return "{\"error\": {\"errors\": [{\"domain\": \"global\", \"reason\": \"" + reason +
           "\", \"message\": \"" + message + "\"}], \"code\": " + std::to_string(status) +
           ", \"message\": \"" + message + "\"}}";
}

// The engine's code and the plug-in's retry decision for one agent failure.
std::pair<int, bool> throughPlugin(AgentFailure const& failure) {
    Json::Value answer(Json::objectValue);
    answer["success"] = false;
    answer["error_code"] = failure.code();
    answer["error_message"] = failure.what();
    TAVO::Backup::setError(0);
    TAVO::Backup::googledriveConverTransferResponse(false, answer, true, "test", 1);
    return {TAVO::Backup::getError(), TAVO::Backup::needRetry(answer)};
}

}  // namespace

TEST(ErrorMapping, DecidesByReasonNotWording) {
    struct Row {
        char const* what;
        long status;
        std::string body;
        int engineCode;
        bool retried;
    } const rows[] = {
        {"user rate limit", 403,
         driveBody(403, "userRateLimitExceeded",
                   "User Rate Limit Exceeded. Rate of requests for user exceed configured project "
                   "quota."),
         2000, true},
        // Drive's daily upload limit: its own sentence under the same reason.
        {"daily upload limit", 403,
         driveBody(403, "userRateLimitExceeded", "User rate limit exceeded."), 2000, false},
        {"project rate limit", 403, driveBody(403, "rateLimitExceeded", "Rate limit exceeded."),
         2000, true},
        {"API usage quota", 403, driveBody(403, "quotaExceeded", "Quota exceeded."), 2000, true},
        {"too many requests", 429, driveBody(429, "rateLimitExceeded", "Rate limit exceeded"), 1,
         true},
        {"full account, other wording", 403,
         driveBody(403, "storageQuotaExceeded", "The user has exceeded their Drive storage quota"),
         2002, false},
        {"quota wording without the reason", 403,
         driveBody(403, "insufficientFilePermissions",
                   "The user's Drive storage quota has been exceeded."),
         2000, false},
        {"no permission", 403, driveBody(403, "insufficientFilePermissions", "No access."), 2000,
         false},
        {"daily limit", 403, driveBody(403, "dailyLimitExceeded", "Daily Limit Exceeded"), 2000,
         false},
        {"not found", 404, driveBody(404, "notFound", "File not found: x."), 2003, false},
        {"bad query", 400, driveBody(400, "invalid", "Invalid Value"), 7, false},
        {"expired token", 401, driveBody(401, "authError", "Invalid Credentials"), 2107, false},
        {"timeout", 408, "", 2104, true},
        {"backend error", 500, driveBody(500, "backendError", "Backend Error"), 1, true},
        {"proxy page", 502, "<html><body>Bad Gateway</body></html>", 1, true},
        {"unavailable, no body", 503, "", 1, true},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.what);
        auto [code, retried] = throughPlugin(driveFailure(row.status, row.body));
        EXPECT_EQ(row.engineCode, code);
        EXPECT_EQ(row.retried, retried);
    }
}

TEST(ErrorMapping, RefusedGrantsAreRefusedCredentialsAndTransportFailuresAreRetried) {
    for (char const* error : {"invalid_grant", "invalid_client"}) {
        SCOPED_TRACE(error);
        auto [code, retried] =
            throughPlugin(tokenFailure(400, std::string("{\"error\": \"") + error + "\"}"));
        EXPECT_EQ(2107, code);
        EXPECT_FALSE(retried);
    }
    EXPECT_EQ(std::make_pair(1, true), throughPlugin(tokenFailure(503, "")));
    HttpResponse dropped;
    dropped.curlCode = CURLE_RECV_ERROR;
    dropped.error = "Connection reset by peer";
    EXPECT_EQ(std::make_pair(2103, true), throughPlugin(transportFailure(dropped)));
}

TEST(ErrorMapping, RetryAfterIsReadInSeconds) {
    HttpResponse response;
    EXPECT_EQ(0, retryAfterSeconds(response));
    response.headers["retry-after"] = "7";
    EXPECT_EQ(7, retryAfterSeconds(response));
    response.headers["retry-after"] = "Wed, 21 Oct 2015 07:28:00 GMT";
    EXPECT_EQ(0, retryAfterSeconds(response));
}
