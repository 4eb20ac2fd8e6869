#include "googledrive_client.h"

#include <cstdio>
#include <cstdlib>

#include "core/core_error.h"
#include "core/pipe_open.h"
#include "plugin_log.h"

namespace TAVO {
namespace Backup {

char const* const kDriveAgentInterpreter = "/usr/bin/python";
char const* const kDriveAgentScript =
    "/var/packages/Coffervault/target/addon/google_drive/python/drive_agent.py";
char const* const kGoogleDriveClientId =
    "418305926774-k2v9q8m4x7c1p0r6t3w5z8b2n4j7h1fd.apps.googleusercontent.com";
char const* const kGoogleDriveClientSecret = "Qm7vT2xK_pL9R-04Hd3WaNce";

namespace {

char const kLogSource[] = "googledrive_client";
char const kAccessTokenVar[] = "GOOGLEDRIVE_ACCESS_TOKEN";
char const kRefreshTokenVar[] = "GOOGLEDRIVE_REFRESH_TOKEN";
char const kUserAgentVar[] = "TAVO_USER_AGENT";
char const kClientIdVar[] = "GOOGLEDRIVE_CLIENT_ID";
char const kClientSecretVar[] = "GOOGLEDRIVE_CLIENT_SECRET";

// The credentials are in our environment only while a drive agent is started.
void removeCredentialVariables() {
    unsetenv(kAccessTokenVar);
    unsetenv(kRefreshTokenVar);
    unsetenv(kUserAgentVar);
    unsetenv(kClientIdVar);
    unsetenv(kClientSecretVar);
}

// Sets LANG for the agent's start and puts the previous value back on scope exit.
class ScopedLang {
  public:
    ScopedLang() {
        char const* old = getenv("LANG");
        _had = old != nullptr;
        if (_had) _old = old;
        setenv("LANG", "en_US.utf8", 1);
    }
    ~ScopedLang() {
        if (_had) {
            setenv("LANG", _old.c_str(), 1);
        } else {
            unsetenv("LANG");
        }
    }

  private:
    bool _had;
    std::string _old;
};

}  // namespace

GoogleDriveClient::GoogleDriveClient() { setRetryPolicy(10, 5, needRetry); }

GoogleDriveClient::~GoogleDriveClient() {}

bool GoogleDriveClient::connect(std::string const& accessToken, std::string const& refreshToken,
                                bool /*flag*/) {
    // A refusal recorded by an earlier start must not be read as this one's.
    TLIBCErrSetEx(0, kLogSource, __LINE__);
    if (isCanceled()) {
        TLIBCErrSetEx(kCoreErrCanceled, kLogSource, __LINE__);
        return false;
    }
    close();

    // std::string always has character data, so the "bad parameters" case of
    // a null token cannot arise through this interface.
    setenv(kAccessTokenVar, accessToken.c_str(), 1);
    setenv(kRefreshTokenVar, refreshToken.c_str(), 1);

    std::string userAgent = AgentClient::getTavoUserAgent();
    if (!userAgent.empty()) {
        setenv(kUserAgentVar, userAgent.c_str(), 1);
        setenv(kClientIdVar, kGoogleDriveClientId, 1);
        setenv(kClientSecretVar, kGoogleDriveClientSecret, 1);
    } else {
        GD_LOG(LOG_ERR, "googledrive_user_agent failed");
        removeCredentialVariables();
    }

    {
        ScopedLang lang;
        _pipe = TAVOPipeOpen(&_child_pid, kDriveAgentInterpreter, kDriveAgentScript, nullptr);
    }

    auto fail = [this](int coreError, int line) {
        TLIBCErrSetEx(coreError, kLogSource, line);
        removeCredentialVariables();
        close();
        return false;
    };

    if (!_pipe) {
        GD_LOG(LOG_ERR, "TAVOPipeOpen failed");
        return fail(kCoreErrAgentStart, __LINE__);
    }
    fprintf(stderr, "%s:%d pipe opened\n", kLogSource, __LINE__);

    std::string ready;
    if (!readString(ready)) {
        // The engine gave up waiting: no fault of the drive agent's.
        if (isCanceled()) {
            GD_LOG(LOG_INFO, "canceled while waiting for the ready msg from drive_agent.py");
            return fail(kCoreErrCanceled, __LINE__);
        }
        GD_LOG(LOG_ERR, "could not read ready msg from drive_agent.py");
        return fail(kCoreErrAgentStart, __LINE__);
    }
    if (ready.find("is not a valid base64 string") != std::string::npos) {
        return fail(kCoreErrInvalidToken, __LINE__);
    }
    if (ready == "start") {
        removeCredentialVariables();
        fprintf(stderr, "%s:%d agent ready\n", kLogSource, __LINE__);
        return true;
    }
    GD_LOG(LOG_ERR, "agent start failed: %s", ready.c_str());
    return fail(kCoreErrAgentStart, __LINE__);
}

bool GoogleDriveClient::isSuccessResponse(Json::Value const& response) const {
    return response.isObject() && response.get("success", false).asBool();
}

bool GoogleDriveClient::fillCanceledResponse(Json::Value& response) const {
    // Assigning an empty object also copes with a response that was not one.
    response = Json::Value(Json::objectValue);
    response["success"] = false;
    response["error_message"] = "user canceled";
    response["error_code"] = -3;
    return true;
}

bool needRetry(Json::Value const& response) {
    if (response.isObject() && response.get("success", false).asBool()) {
        GD_LOG(LOG_ERR, "why success stat need retry?");
        return false;
    }
    int code = response.isObject() ? response.get("error_code", -1).asInt() : -1;
    std::string message = response.isObject() ? response.get("error_message", "").asString() : "";
    // Drive words its rate limits three ways; all ask for the same back-off.
    if (code == 403)
        return message == "User Rate Limit Exceeded" || message == "Rate Limit Exceeded";
    if (code == 408 || code == 429) return true;
    if (code >= 500 && code <= 599) return true;
    return code == -2 || code == -4;
}

}  // namespace Backup
}  // namespace TAVO
