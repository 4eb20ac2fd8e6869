// The conversion of drive agent answers into engine error codes and the retry
// predicate: the tables the rest of the plug-in relies on to tell "missing"
// from "failed" from "try again".
#include <gtest/gtest.h>
#include <syslog.h>

#include "backup/error.h"
#include "backup/json_text.h"
#include "googledrive_client.h"
#include "googledrive_error.h"
#include "support/syslog_capture.h"

using namespace TAVO::Backup;
using TestSupport::capturedSyslog;

namespace {
char const kQuotaMessage[] = "The user's Drive storage quota has been exceeded.";

// A failed answer; code 0 leaves out "error_code", code 1 makes it a success.
Json::Value answer(int code, std::string const& message = "") {
    Json::Value v(Json::objectValue);
    v["success"] = code == 1;
    if (code != 0 && code != 1) v["error_code"] = code;
    if (!message.empty()) v["error_message"] = message;
    return v;
}
}  // namespace

TEST(ResponseConversion, MapsEveryCodeAndLogsAtTheRightPriority) {
    struct Row {
        Json::Value response;
        bool logAsError;
        int wantCode;
        int wantPriority;
    } const rows[] = {
        {answer(400, "Invalid Value"), true, 7, LOG_ERR},
        {answer(401), true, 2107, LOG_ERR},
        {answer(403, kQuotaMessage), true, 2002, LOG_ERR},
        // Without its final period the quota message is just another refusal.
        {answer(403, std::string(kQuotaMessage, sizeof kQuotaMessage - 2)), true, 2000, LOG_ERR},
        {answer(403, "User Rate Limit Exceeded"), true, 2000, LOG_ERR},
        {answer(404), true, 2003, LOG_DEBUG},
        {answer(408), true, 2104, LOG_ERR},
        {answer(-2), true, 2103, LOG_ERR},
        {answer(-3, "user canceled"), true, 4, LOG_ERR},
        {answer(-4), true, 2102, LOG_ERR},
        {answer(503), true, 1, LOG_ERR},
        {answer(503), false, 1, LOG_DEBUG},
        {answer(0), true, 1, LOG_ERR},
        {Json::Value(), true, 1, LOG_ERR},
        // The channel failed although the answer says success: code 0, general failure.
        {answer(1), true, 1, LOG_ERR},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(TAVO::JsonText::toString(row.response));
        TestSupport::clearSyslog();
        setError(0);
        EXPECT_FALSE(
            googledriveConverTransferResponse(false, row.response, row.logAsError, "caller", 42));
        EXPECT_EQ(row.wantCode, getError());
        auto lines = capturedSyslog();
        ASSERT_EQ(1u, lines.size());
        EXPECT_EQ(row.wantPriority, lines[0].priority);
        EXPECT_EQ(0u, lines[0].text.find("googledrive_error:"));
        EXPECT_NE(std::string::npos, lines[0].text.find("caller:42 failed, "));
    }
    // A successful exchange changes nothing.
    TestSupport::clearSyslog();
    EXPECT_TRUE(googledriveConverTransferResponse(true, answer(500), true, "x", 1));
    EXPECT_EQ(1, getError());
    EXPECT_TRUE(capturedSyslog().empty());
}

TEST(RetryPredicate, RetriesOnlyTransientFailures) {
    for (int code : {408, 429, 500, 503, 599, -2, -4}) EXPECT_TRUE(needRetry(answer(code))) << code;
    for (int code : {400, 404, 499, 600, 200, -3, -5, 0})
        EXPECT_FALSE(needRetry(answer(code))) << code;
    EXPECT_TRUE(needRetry(answer(403, "User Rate Limit Exceeded")));
    EXPECT_TRUE(needRetry(answer(403, "Rate Limit Exceeded")));
    EXPECT_FALSE(needRetry(answer(403, "Rate limit exceeded")));
    TestSupport::clearSyslog();
    Json::Value success = answer(503);
    success["success"] = true;
    EXPECT_FALSE(needRetry(success));
    EXPECT_TRUE(TestSupport::syslogHas("why success stat need retry?", LOG_ERR));
}
