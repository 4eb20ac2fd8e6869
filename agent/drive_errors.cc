#include "drive_errors.h"

#include <json/reader.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <thread>

namespace DriveAgent {

char const* const kQuotaMessage = "The user's Drive storage quota has been exceeded.";
char const* const kDailyLimitMessage = "Drive's daily upload limit reached; run again tomorrow";
char const* const kSharedDriveFullMessage =
    "the shared drive holds Drive's limit of 400,000 items; nothing more can be stored in it";

namespace {

Json::Value parseBody(std::string const& body) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string errors;
    if (!reader->parse(body.data(), body.data() + body.size(), &value, &errors) ||
        !value.isObject()) {
        return Json::Value();
    }
    return value;
}

std::string statusText(long status) {
    switch (status) {
        case 400:
            return "Bad Request";
        case 401:
            return "Invalid Credentials";
        case 403:
            return "Forbidden";
        case 404:
            return "Not Found";
        case 408:
            return "Request Timeout";
        case 429:
            return "Too Many Requests";
        case 500:
            return "Internal Error";
        case 502:
            return "Bad Gateway";
        case 503:
            return "Service Unavailable";
        case 504:
            return "Gateway Timeout";
        default:
            return "HTTP " + std::to_string(status);
    }
}

// Drive words its daily upload limit (about 750 GB) as a user rate limit, in
// a sentence of its own: lower case with a period, where the per-user request
// rate limit is "User Rate Limit Exceeded" followed by advice on quotas.
bool isDailyLimit(std::string const& reason, std::string const& message) {
    return reason == "userRateLimitExceeded" && message == "User rate limit exceeded.";
}

std::string messageOf(Json::Value const& body) {
    Json::Value const& message = body["error"]["message"];
    return message.isString() ? message.asString() : "";
}

}  // namespace

AgentFailure driveFailure(long status, std::string const& body) {
    Json::Value error = parseBody(body)["error"];
    std::string reason;
    std::string message;
    if (error.isObject()) {
        Json::Value const& errors = error["errors"];
        if (errors.isArray() && !errors.empty() && errors[0].isObject()) {
            reason = errors[0].get("reason", "").asString();
        }
        if (error["message"].isString()) message = error["message"].asString();
    }
    int code = static_cast<int>(status);
    if (code == 429) return AgentFailure(429, message.empty() ? statusText(429) : message);
    if (isDailyLimit(reason, message)) return AgentFailure(403, kDailyLimitMessage);
    if (reason == "userRateLimitExceeded") return AgentFailure(403, "User Rate Limit Exceeded");
    // quotaExceeded is an API usage quota of the project, not a full account.
    if (reason == "rateLimitExceeded" || reason == "sharingRateLimitExceeded" ||
        reason == "quotaExceeded") {
        return AgentFailure(403, "Rate Limit Exceeded");
    }
    if (reason == "teamDriveFileLimitExceeded") return AgentFailure(403, kSharedDriveFullMessage);
    if (reason == "storageQuotaExceeded") {
        return AgentFailure(403, kQuotaMessage);
    }
    if (code == 401) return AgentFailure(401, "Invalid Credentials");
    if (message.empty() || message == kQuotaMessage) message = statusText(status);
    return AgentFailure(code, message);
}

AgentFailure tokenFailure(long status, std::string const& body) {
    Json::Value answer = parseBody(body);
    std::string error = answer["error"].isString() ? answer["error"].asString() : "";
    if (error == "invalid_grant" || error == "invalid_client" || error == "unauthorized_client") {
        return AgentFailure(401, "Token has been expired or revoked.");
    }
    return driveFailure(status, body);
}

AgentFailure transportFailure(HttpResponse const& response) {
    if (response.bodyTooLarge) {
        return AgentFailure(kAnswerTooLarge, "the service's answer is larger than " +
                                                 std::to_string(kMaxAnswerBody >> 20) +
                                                 " MiB; it was not read");
    }
    if (isTlsRefusal(response.curlCode)) {
        return AgentFailure(kTlsRefused,
                            "the service's TLS certificate was refused (an intercepting proxy, or "
                            "a wrong clock on this machine?): " +
                                response.error);
    }
    return AgentFailure(kTransportFailure, "connection failed: " + response.error);
}

std::string reasonOf(std::string const& body) {
    Json::Value const parsed = parseBody(body);
    Json::Value const& errors = parsed["error"]["errors"];
    if (!errors.isArray() || errors.empty() || !errors[0].isObject()) return "";
    Json::Value const& reason = errors[0]["reason"];
    return reason.isString() ? reason.asString() : "";
}

bool isPassing(HttpResponse const& response) {
    if (response.transportFailed())
        return !response.bodyTooLarge && !isTlsRefusal(response.curlCode);
    long status = response.status;
    if (status == 408 || status == 429 || (status >= 500 && status <= 599)) return true;
    if (status != 403) return false;
    std::string reason = reasonOf(response.body);
    if (isDailyLimit(reason, messageOf(parseBody(response.body)))) return false;
    return reason == "rateLimitExceeded" || reason == "userRateLimitExceeded" ||
           reason == "quotaExceeded";
}

void pauseBeforeResume(HttpResponse const& response, int attempt) {
    long asked = std::min(retryAfterSeconds(response), 120L);
    if (asked > 0) {
        std::this_thread::sleep_for(std::chrono::seconds(asked));
        return;
    }
    char const* unitText = std::getenv("TAVO_AGENT_PAUSE_UNIT_MS");
    long unit = unitText && *unitText ? std::strtol(unitText, nullptr, 10) : 1000;
    long units = 1L << std::min(std::max(attempt - 1, 0), 5);
    std::this_thread::sleep_for(std::chrono::milliseconds(std::max(0L, unit) * units));
}

long retryAfterSeconds(HttpResponse const& response) {
    std::string value = response.header("retry-after");
    if (value.empty()) return 0;
    char* end = nullptr;
    long seconds = std::strtol(value.c_str(), &end, 10);
    return end && *end == '\0' && seconds > 0 ? seconds : 0;
}

}  // namespace DriveAgent
