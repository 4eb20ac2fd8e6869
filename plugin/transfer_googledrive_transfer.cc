// File content requests: the drive agent streams the file and reports
// progress line by line until its final response.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <thread>

#include "backup/error.h"
#include "backup/json_text.h"
#include "googledrive_error.h"
#include "local_md5.h"
#include "plugin_log.h"
#include "transfer_googledrive.h"
#include "transfer_googledrive_trace.h"

namespace TAVO {
namespace Backup {
namespace {
char const kLogSource[] = "transfer_googledrive";
// A request is sent once and again after each of up to this many failed reads.
int const kMaxResends = 9;

// Marks a request the drive agent is still answering. Leaving the loop before
// its final message (a cancel, an exception from the engine's callback) closes
// and reaps the agent: its remaining lines must never be read as the answers to
// later requests. The next operation starts a new agent.
class OutstandingRequest {
  public:
    explicit OutstandingRequest(AgentClient& client) : _client(client) {}
    ~OutstandingRequest() {
        if (_open) _client.abandon();
    }
    void sent() { _open = true; }
    void answered() { _open = false; }

  private:
    AgentClient& _client;
    bool _open = false;
};

using Clock = std::chrono::steady_clock;

// Progress messages come as fast as the drive agent moves data: at page-cache
// speed about one a millisecond, and being woken for each one costs this
// process more CPU than everything else a download does here. So after a
// progress message that leaves nothing more to read, while the end is
// predictably far off, the loop pauses and then takes whatever has queued up
// with one read. A pause covers at most half the time the transfer's rate so
// far predicts is left, so the final answer
// is not kept waiting, and at most 50 ms, the channel's own bound between two
// polls of the cancel hook.
void pauseForMoreProgress(Clock::time_point sentAt, double fraction) {
    using std::chrono::duration_cast;
    using std::chrono::microseconds;
    if (!(fraction > 0 && fraction < 1)) return;
    double const elapsedUs =
        static_cast<double>(duration_cast<microseconds>(Clock::now() - sentAt).count());
    double const pauseUs = std::min(50000.0, elapsedUs * (1 - fraction) / fraction / 2);
    if (pauseUs >= 2000) std::this_thread::sleep_for(microseconds(static_cast<long>(pauseUs)));
}
}  // namespace

bool TransferAgentGoogleDrive::sendRequestAndUpdateProgress(Json::Value const& request,
                                                            long& fileSize, ProgressHook progress) {
    bool taken = false;
    return transferWithResends(request, fileSize, progress, BeforeResend(), taken);
}

bool TransferAgentGoogleDrive::transferWithResends(Json::Value request, long& fileSize,
                                                   ProgressHook progress,
                                                   BeforeResend const& beforeResend, bool& taken) {
    OperationTrace trace("sendRequestAndUpdateProgress",
                         isDebug() ? TAVO::JsonText::toString(request) : std::string());
    taken = false;
    bool retry = false;
    int resends = 0;
    // Kept across re-sends: the engine only ever sees the position grow.
    long lastReported = 0;
    bool oddProgressLogged = false;
    OutstandingRequest outstanding(_client);

    while (true) {
        if (!_client.sendRequest(request)) {
            setError(ERR_GENERAL);
            GD_LOG(LOG_ERR, "_client.sendRequest() failed");
            return false;
        }
        outstanding.sent();
        Clock::time_point const sentAt = Clock::now();
        while (true) {
            if (isCanceled()) {
                setError(ERR_CANCELED);
                return false;
            }
            if (!_client.readResponse(_response, retry)) {
                // The agent's own final answer, or a channel that was closed.
                outstanding.answered();
                if (resends < kMaxResends && retry) {
                    ++resends;
                    GD_LOG(LOG_DEBUG, "_client.readResponse() failed, retry [%d]", resends);
                    if (!beforeResend) break;  // send the request again
                    // Drive may have stored it all the same: look first.
                    Json::Value const failure = _response;
                    Resend const next = beforeResend(request);
                    if (next == Resend::Again) break;
                    if (next == Resend::Taken) return taken = true;
                    _response = failure;
                }
                return googledriveConverTransferResponse(false, _response, true,
                                                         "sendRequestAndUpdateProgress", __LINE__);
            }
            if (_response.get("complete", true).asBool()) {
                outstanding.answered();
                return googledriveConverTransferResponse(true, _response, true,
                                                         "sendRequestAndUpdateProgress", __LINE__);
            }
            Json::Value const& reported = _response.get("progress", 0);
            if (!reported.isNumeric() && !oddProgressLogged) {
                GD_LOG(LOG_WARNING, "progress is not a number, taken as 0: [%s]",
                       TAVO::JsonText::toString(reported).c_str());
                oddProgressLogged = true;
            }
            double const fraction = reported.isNumeric() ? reported.asDouble() : 0;
            if (!progress.empty()) {
                long position =
                    static_cast<long>(std::round(static_cast<double>(fileSize) * fraction));
                if (position > lastReported) {
                    progress(position - lastReported);
                    lastReported = position;
                }
            }
            if (!_client.hasBufferedLine()) pauseForMoreProgress(sentAt, fraction);
        }
    }
}

bool TransferAgentGoogleDrive::downloadFile(std::string const& id, std::string const& outputPath,
                                            std::string const& requestRange, long fileSize,
                                            ProgressHook progress) {
    GD_LOG(LOG_DEBUG,
           "@downloadFile: id=[%s] -> local_path=[%s], request_range=[%s], file_size=[%ld]",
           id.c_str(), outputPath.c_str(), requestRange.c_str(), fileSize);
    if (!checkAndCreateClient()) {
        GD_LOG(LOG_ERR, "create client failed [%d]", getError());
        return false;
    }
    Json::Value request;
    request["fn"] = "downloadFile";
    request["id"] = id;
    request["outputPath"] = outputPath;
    long size = fileSize;
    return sendRequestAndUpdateProgress(request, size, progress);
}

bool TransferAgentGoogleDrive::storeContent(Json::Value const& request, long fileSize,
                                            ProgressHook progress, GoogleDrive::FileMeta& meta,
                                            BeforeResend const& beforeResend) {
    if (!checkAndCreateClient()) {
        GD_LOG(LOG_ERR, "create client failed [%d]", getError());
        return false;
    }
    if (!checkAndInitCache()) {
        GD_LOG(LOG_ERR, "Failed to init cache");
        return false;
    }
    long size = fileSize;
    bool taken = false;
    if (!transferWithResends(request, size, progress, beforeResend, taken)) {
        GD_LOG(LOG_ERR, "sendRequestAndUpdateProgress() failed");
        return false;
    }
    if (!taken && !readResponseRecord(meta)) return false;
    if (landedInTrash(meta)) return false;
    if (_update_node_cache) _node_cache.insert(meta);
    return true;
}

bool TransferAgentGoogleDrive::uploadFile(std::string const& name, std::string const& parentId,
                                          std::string const& localPath, long fileSize,
                                          ProgressHook progress, GoogleDrive::FileMeta& meta) {
    GD_LOG(LOG_DEBUG, "@uploadFile: local_path=[%s] -> name=[%s], pid=[%s], file_size=[%ld]",
           localPath.c_str(), name.c_str(), parentId.c_str(), fileSize);
    // The empty variant keeps "inputPath" so the agent handles both alike.
    Json::Value request;
    request["fn"] = fileSize <= 0 ? "uploadEmptyFile" : "uploadFile";
    request["name"] = name;
    request["parentId"] = parentId;
    request["inputPath"] = localPath;
    BeforeResend look = [&](Json::Value& again) {
        return lookBeforeUploadResend(again, fileSize, meta);
    };
    try {
        if (storeContent(request, fileSize, progress, meta, look)) return true;
    } catch (...) {
        // The engine's progress callback threw while the agent was storing:
        // the agent is abandoned and the file may be there all the same.
        noteLostCreation(parentId, name);
        throw;
    }
    noteLostCreation(parentId, name);
    return false;
}

bool TransferAgentGoogleDrive::overwriteFile(std::string const& id, std::string const& localPath,
                                             long fileSize, ProgressHook progress,
                                             GoogleDrive::FileMeta& meta) {
    GD_LOG(LOG_DEBUG, "@overwriteFile: local_path=[%s] -> id=[%s], file_size=[%ld]",
           localPath.c_str(), id.c_str(), fileSize);
    Json::Value request;
    request["fn"] = fileSize <= 0 ? "updateEmptyFile" : "updateFile";
    request["id"] = id;
    request["inputPath"] = localPath;
    return storeContent(request, fileSize, progress, meta);
}

TransferAgentGoogleDrive::Resend TransferAgentGoogleDrive::lookBeforeUploadResend(
    Json::Value& request, long fileSize, GoogleDrive::FileMeta& meta) {
    std::string const fn = request["fn"].asString();
    if (fn != "uploadFile" && fn != "uploadEmptyFile") return Resend::Again;  // an update repeats
    std::string const pid = request["parentId"].asString();
    std::string const name = request["name"].asString();
    std::list<GoogleDrive::FileMeta> named;
    if (!listNamedInWhole(pid, name, named)) return Resend::GiveUp;
    if (named.empty()) return Resend::Again;
    GoogleDrive::FileMeta const& there = named.front();
    if (named.size() > 1 || there.isDir) {
        GD_LOG(LOG_ERR, "upload of [%s] into [%s] in doubt, and the name is taken", name.c_str(),
               pid.c_str());
        return Resend::GiveUp;
    }
    std::string md5;
    if (there.size == static_cast<uint64_t>(std::max(fileSize, 0L)) &&
        localFileMd5(request["inputPath"].asString(), md5) && md5 == there.md5Checksum) {
        GD_LOG(LOG_DEBUG, "upload of [%s] was stored: id=[%s]", name.c_str(), there.id.c_str());
        meta = there;
        return Resend::Taken;
    }
    // The one file of that name: what the path names now, so it is
    // overwritten, never joined by a second one.
    GD_LOG(LOG_DEBUG, "upload of [%s] in doubt: overwriting id=[%s]", name.c_str(),
           there.id.c_str());
    Json::Value update;
    update["fn"] = fileSize <= 0 ? "updateEmptyFile" : "updateFile";
    update["id"] = there.id;
    update["inputPath"] = request["inputPath"];
    request = update;
    return Resend::Again;
}

}  // namespace Backup
}  // namespace TAVO
