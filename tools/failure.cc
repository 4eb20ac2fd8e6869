#include "failure.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "backup/error.h"
#include "interrupt.h"
#include "plugin_log.h"

namespace gdhost {

using namespace TAVO::Backup;

char const* const kDailyUploadLimit = "Drive's daily upload limit reached; run again tomorrow";
char const* const kSharedDriveFull =
    "the shared drive holds Drive's limit of 400,000 items; nothing more can be stored in it";

char const* meaningOf(int engineCode) {
    switch (engineCode) {
        case ERR_NONE:
            return "no error";
        case ERR_GENERAL:
            return "general failure";
        case ERR_BAD_ARGUMENT:
            return "bad argument or missing setting";
        case ERR_CANCELED:
            return interrupted() ? "canceled" : "canceled by the drive agent";
        case ERR_BAD_REQUEST:
            return "malformed request or invalid name";
        case ERR_LOCAL_NOT_FOUND:
            return "local file not found";
        case ERR_LOCAL_PERMISSION:
            return "local permission denied";
        case ERR_LOCAL_NO_SPACE:
            return "no space left on the local disk";
        case ERR_LOCAL_NOT_REGULAR:
            return "local path is not a regular file";
        case ERR_LOCAL_IO:
            return "local input/output error";
        case ERR_LOCAL_NAME_TOO_LONG:
            return "local name too long";
        case ERR_REMOTE_REFUSED:
            return "refused by the service";
        case ERR_REMOTE_QUOTA:
            return "quota exceeded";
        case ERR_REMOTE_NOT_FOUND:
            return "not found";
        case ERR_REMOTE_IS_DIR:
            return "is a folder";
        case ERR_REMOTE_NOT_DIR:
            return "not a folder";
        case ERR_AGENT_FAILURE_4:
            return "drive agent failure (-4), retries spent";
        case ERR_AGENT_FAILURE_2:
            return "drive agent failure (-2), retries spent";
        case ERR_REMOTE_TIMEOUT:
            return "request timed out, retries spent";
        case ERR_CREDENTIALS:
            // The most common cause with a client of one's own: Google expires
            // the refresh tokens of a client still in "Testing" status weekly.
            return "credentials refused (run gdrive_host authorize again; a refresh token of an "
                   "OAuth client in \"Testing\" status expires after 7 days: see README, "
                   "\"Using a real Google Drive account\")";
        default:
            return "unknown error";
    }
}

int exitCodeFor(int engineCode, Wanted wanted, int serviceCode) {
    bool spentRetries = serviceCode == 429 || (serviceCode >= 500 && serviceCode <= 599);
    switch (engineCode) {
        case ERR_GENERAL:
            return spentRetries ? kExitTemporary : kExitError;
        case ERR_NONE:
            return kExitOk;
        case ERR_BAD_ARGUMENT:
            return kExitUsage;
        case ERR_CANCELED:
            return interrupted() ? kExitCanceled : kExitError;
        case ERR_LOCAL_NOT_FOUND:
        case ERR_REMOTE_NOT_FOUND:
            return wanted == Wanted::kFolder ? kExitFolderNotFound : kExitFileNotFound;
        case ERR_AGENT_FAILURE_4:
        case ERR_AGENT_FAILURE_2:
        case ERR_REMOTE_TIMEOUT:
            return kExitTemporary;
        case ERR_REMOTE_QUOTA:
        case ERR_CREDENTIALS:
            return kExitFatal;
        default:
            return kExitError;
    }
}

Failure describeFailure(int engineCode, Wanted wanted) {
    Failure failure;
    failure.engineCode = engineCode;
    LoggedReason reason = loggedReason();
    failure.words = "error " + std::to_string(engineCode) + ", " + meaningOf(engineCode);
    // Where the code says it all, the log line would only repeat it.
    bool plain = engineCode == ERR_REMOTE_NOT_FOUND || engineCode == ERR_REMOTE_IS_DIR ||
                 engineCode == ERR_REMOTE_NOT_DIR || engineCode == ERR_CANCELED ||
                 reason.text.find("error[") != std::string::npos;
    if (!reason.text.empty() && !plain) {
        failure.words += ": " + reason.text;
    } else if (engineCode == ERR_GENERAL) {
        failure.words += " (see the log with -v)";
    }
    failure.exitCode = exitCodeFor(engineCode, wanted, reason.serviceCode);
    // The drive agent writes downloads itself, and its full disk reaches the
    // engine as a general failure: only its words tell it.
    bool diskFull =
        engineCode == ERR_LOCAL_NO_SPACE ||
        (engineCode == ERR_GENERAL && reason.text.find(strerror(ENOSPC)) != std::string::npos);
    failure.stopsRun = engineCode == ERR_CREDENTIALS || engineCode == ERR_REMOTE_QUOTA ||
                       diskFull || failure.exitCode == kExitCanceled;
    failure.passing = failure.exitCode == kExitTemporary ||
                      (engineCode == ERR_GENERAL &&
                       reason.text.find("helper channel closed") != std::string::npos);
    // The plug-in maps these as any refusal; every further upload (today, or
    // until the shared drive is cleared) would meet them too.
    for (char const* limit : {kDailyUploadLimit, kSharedDriveFull}) {
        if (engineCode == ERR_REMOTE_REFUSED && reason.text.find(limit) != std::string::npos) {
            failure.words = limit;
            failure.exitCode = kExitFatal;
            failure.stopsRun = true;
        }
    }
    return failure;
}

int reportFailure(std::string const& operation, std::string const& path, int engineCode,
                  Wanted wanted) {
    std::string what = path.empty() ? operation : operation + " " + path;
    Failure failure = describeFailure(engineCode, wanted);
    fprintf(stderr, "gdrive_host: %s: %s\n", what.c_str(), failure.words.c_str());
    return failure.exitCode;
}

int reportProblem(std::string const& message, int exitCode) {
    fprintf(stderr, "gdrive_host: %s\n", message.c_str());
    return exitCode;
}

}  // namespace gdhost
