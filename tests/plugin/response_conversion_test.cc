// The conversion of drive agent answers into engine error codes, the retry
// predicate and the canceled response: the tables the rest of the plug-in
// relies on to tell "missing" from "failed" from "try again".
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
Json::Value parse(std::string const& text) {
    Json::Value v;
    EXPECT_TRUE(TAVO::JsonText::fromString(text, v)) << text;
    return v;
}
}  // namespace

TEST(ResponseConversion, MapsEveryCodeAndLogsAtTheRightPriority) {
    struct Row {
        char const* response;
        bool logAsError;
        int wantCode;
        int wantPriority;
    } const rows[] = {
        {R"({"success":false,"error_code":400,"error_message":"Invalid Value"})", true, 7, LOG_ERR},
        {R"({"success":false,"error_code":401})", true, 2107, LOG_ERR},
        {R"({"success":false,"error_code":403,"error_message":"The user's Drive storage quota has been exceeded."})",
         true, 2002, LOG_ERR},
        // Without its final period the quota message is just another refusal.
        {R"({"success":false,"error_code":403,"error_message":"The user's Drive storage quota has been exceeded"})",
         true, 2000, LOG_ERR},
        {R"({"success":false,"error_code":403,"error_message":"User Rate Limit Exceeded"})", true,
         2000, LOG_ERR},
        {R"({"success":false,"error_code":404})", true, 2003, LOG_DEBUG},
        {R"({"success":false,"error_code":404})", false, 2003, LOG_DEBUG},
        {R"({"success":false,"error_code":408})", true, 2104, LOG_ERR},
        {R"({"success":false,"error_code":-2})", true, 2103, LOG_ERR},
        {R"({"success":false,"error_code":-3,"error_message":"user canceled"})", true, 4, LOG_ERR},
        {R"({"success":false,"error_code":-4})", true, 2102, LOG_ERR},
        {R"({"success":false,"error_code":503})", true, 1, LOG_ERR},
        {R"({"success":false,"error_code":503})", false, 1, LOG_DEBUG},
        {R"({"success":false})", true, 1, LOG_ERR},
        {R"({"success":false})", false, 1, LOG_ERR},
        {R"({})", false, 1, LOG_ERR},
        // The channel failed although the answer says success: code 0, general failure.
        {R"({"success":true})", true, 1, LOG_ERR},
        {R"({"success":true})", false, 1, LOG_DEBUG},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.response);
        TestSupport::clearSyslog();
        setError(0);
        Json::Value response = parse(row.response);
        EXPECT_FALSE(
            googledriveConverTransferResponse(false, response, row.logAsError, "caller", 42));
        EXPECT_EQ(row.wantCode, getError());
        auto lines = capturedSyslog();
        ASSERT_EQ(1u, lines.size());
        EXPECT_EQ(row.wantPriority, lines[0].priority);
        EXPECT_NE(std::string::npos, lines[0].text.find("caller:42 failed, {"));
        EXPECT_EQ(0u, lines[0].text.find("googledrive_error:"));
    }
}

TEST(ResponseConversion, NullResponseIsAGeneralFailure) {
    TestSupport::clearSyslog();
    EXPECT_FALSE(googledriveConverTransferResponse(false, Json::Value(), true, "x", 1));
    EXPECT_EQ(1, getError());
    ASSERT_EQ(1u, capturedSyslog().size());
    EXPECT_EQ(LOG_ERR, capturedSyslog()[0].priority);
}

TEST(ResponseConversion, SuccessfulExchangeChangesNothing) {
    TestSupport::clearSyslog();
    setError(2003);
    EXPECT_TRUE(googledriveConverTransferResponse(
        true, parse(R"({"success":false,"error_code":500})"), true, "x", 1));
    EXPECT_EQ(2003, getError());
    EXPECT_TRUE(capturedSyslog().empty());
}

TEST(RetryPredicate, RetriesOnlyTransientFailures) {
    struct Row {
        char const* response;
        bool retry;
    } const rows[] = {
        {R"({"success":false,"error_code":403,"error_message":"User Rate Limit Exceeded"})", true},
        {R"({"success":false,"error_code":403,"error_message":"Rate Limit Exceeded"})", true},
        {R"({"success":false,"error_code":403,"error_message":"Rate limit exceeded"})", false},
        {R"({"success":false,"error_code":429,"error_message":"Too Many Requests"})", true},
        {R"({"success":false,"error_code":408})", true},
        {R"({"success":false,"error_code":400})", false},
        {R"({"success":false,"error_code":404})", false},
        {R"({"success":false,"error_code":499})", false},
        {R"({"success":false,"error_code":500})", true},
        {R"({"success":false,"error_code":503})", true},
        {R"({"success":false,"error_code":599})", true},
        {R"({"success":false,"error_code":600})", false},
        {R"({"success":false,"error_code":200})", false},
        {R"({"success":false,"error_code":0})", false},
        {R"({"success":false,"error_code":-2})", true},
        {R"({"success":false,"error_code":-4})", true},
        {R"({"success":false,"error_code":-3})", false},
        {R"({"success":false,"error_code":-5})", false},
        {R"({"success":false})", false},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.response);
        EXPECT_EQ(row.retry, needRetry(parse(row.response)));
    }
}

TEST(RetryPredicate, SuccessIsNeverRetriedAndIsLogged) {
    TestSupport::clearSyslog();
    EXPECT_FALSE(needRetry(parse(R"({"success":true,"error_code":503})")));
    EXPECT_TRUE(TestSupport::syslogHas("why success stat need retry?", LOG_ERR));
}

TEST(CanceledResponse, ReplacesWhateverWasThere) {
    GoogleDriveClient client;
    Json::Value response = parse(R"({"success":true,"id":"x","objects":[1,2]})");
    EXPECT_TRUE(client.fillCanceledResponse(response));
    EXPECT_EQ(R"({"error_code":-3,"error_message":"user canceled","success":false})",
              TAVO::JsonText::toString(response));
    EXPECT_FALSE(client.isSuccessResponse(response));
    EXPECT_FALSE(client.isSuccessResponse(Json::Value()));
    EXPECT_TRUE(client.isSuccessResponse(parse(R"({"success":true})")));
}
