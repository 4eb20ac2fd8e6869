#include "googledrive_error.h"

#include "backup/error.h"
#include "backup/json_text.h"
#include "plugin_log.h"

namespace TAVO {
namespace Backup {
namespace {

char const kLogSource[] = "googledrive_error";
char const kQuotaExceeded[] = "The user's Drive storage quota has been exceeded.";

int errorCodeFor(int code, std::string const& message) {
    switch (code) {
        case 400:
            return ERR_BAD_REQUEST;
        case 401:
            return ERR_CREDENTIALS;
        case 403:
            return message == kQuotaExceeded ? ERR_REMOTE_QUOTA : ERR_REMOTE_REFUSED;
        case 404:
            return ERR_REMOTE_NOT_FOUND;
        case 408:
            return ERR_REMOTE_TIMEOUT;
        case -2:
            return ERR_AGENT_FAILURE_2;
        case -3:
            return ERR_CANCELED;
        case -4:
            return ERR_AGENT_FAILURE_4;
        default:
            return ERR_GENERAL;
    }
}

}  // namespace

bool googledriveConverTransferResponse(bool ok, Json::Value const& response, bool logAsError,
                                       char const* caller, int callerLine) {
    if (ok) return true;
    // A null or non-object response has no members; reading one must not throw.
    bool isObject = response.isObject();
    bool success = isObject && response.get("success", false).asBool();
    int code = success ? 0 : (isObject ? response.get("error_code", -1).asInt() : -1);
    std::string message = isObject ? response.get("error_message", "").asString() : "";

    // Path resolution probes for names that do not exist: a 404 is routine.
    int priority = (code == 404 || (code != -1 && !logAsError)) ? LOG_DEBUG : LOG_ERR;
    GD_LOG(priority, "%s:%d failed, %s", caller, callerLine,
           TAVO::JsonText::toString(response).c_str());
    setError(errorCodeFor(code, message));
    return false;
}

}  // namespace Backup
}  // namespace TAVO
