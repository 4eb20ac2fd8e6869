// File content requests: the drive agent streams the file and reports
// progress line by line until its final response.
#include <cmath>

#include "backup/error.h"
#include "backup/json_text.h"
#include "googledrive_error.h"
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
}  // namespace

bool TransferAgentGoogleDrive::sendRequestAndUpdateProgress(Json::Value const& request,
                                                            long& fileSize, ProgressHook progress) {
    OperationTrace trace("sendRequestAndUpdateProgress",
                         isDebug() ? TAVO::JsonText::toString(request) : std::string());
    bool retry = false;
    int resends = 0;
    // Kept across re-sends: the engine only ever sees the position grow.
    long lastReported = 0;
    OutstandingRequest outstanding(_client);

    while (true) {
        if (!_client.sendRequest(request)) {
            setError(ERR_GENERAL);
            GD_LOG(LOG_ERR, "_client.sendRequest() failed");
            return false;
        }
        outstanding.sent();
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
                    break;  // send the request again
                }
                return googledriveConverTransferResponse(false, _response, true,
                                                         "sendRequestAndUpdateProgress", __LINE__);
            }
            if (_response.get("complete", true).asBool()) {
                outstanding.answered();
                return googledriveConverTransferResponse(true, _response, true,
                                                         "sendRequestAndUpdateProgress", __LINE__);
            }
            if (progress.empty()) continue;
            long position = static_cast<long>(std::round(static_cast<double>(fileSize) *
                                                         _response.get("progress", 0).asDouble()));
            if (position > lastReported) {
                progress(position - lastReported);
                lastReported = position;
            }
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
                                            ProgressHook progress, GoogleDrive::FileMeta& meta) {
    if (!checkAndCreateClient()) {
        GD_LOG(LOG_ERR, "create client failed [%d]", getError());
        return false;
    }
    if (!checkAndInitCache()) {
        GD_LOG(LOG_ERR, "Failed to init cache");
        return false;
    }
    long size = fileSize;
    if (!sendRequestAndUpdateProgress(request, size, progress)) {
        GD_LOG(LOG_ERR, "sendRequestAndUpdateProgress() failed");
        return false;
    }
    if (!readResponseRecord(meta)) return false;
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
    if (storeContent(request, fileSize, progress, meta)) return true;
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

}  // namespace Backup
}  // namespace TAVO
