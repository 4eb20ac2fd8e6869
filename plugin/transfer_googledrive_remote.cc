// Single-object requests to the drive agent: metadata, listing by query,
// folder creation, deletion and the account. Each keeps the node cache in
// step with what the service reported, unless the cache is frozen.
#include "backup/error.h"
#include "backup/path.h"
#include "googledrive_error.h"
#include "plugin_log.h"
#include "transfer_googledrive.h"
#include "transfer_googledrive_trace.h"

namespace TAVO {
namespace Backup {
namespace {
char const kLogSource[] = "transfer_googledrive";
}  // namespace

// The opening every request shares: a drive agent, the node cache, and (for
// the requests that change something) no pending cancellation.
#define GD_OPEN_REQUEST(withCache, withCancel)                        \
    do {                                                              \
        if (!checkAndCreateClient()) {                                \
            GD_LOG(LOG_ERR, "create client failed [%d]", getError()); \
            return false;                                             \
        }                                                             \
        if ((withCache) && !checkAndInitCache()) {                    \
            GD_LOG(LOG_ERR, "Failed to init cache");                  \
            return false;                                             \
        }                                                             \
        if ((withCancel) && isCanceled()) {                           \
            setError(ERR_CANCELED);                                   \
            return false;                                             \
        }                                                             \
    } while (0)

bool TransferAgentGoogleDrive::readResponseRecord(GoogleDrive::FileMeta& meta) {
    if (meta.setFileMeta(_response)) return true;
    GD_LOG(LOG_ERR, "setFileMeta failed, [%s]", _response.toStyledString().c_str());
    setError(ERR_GENERAL);
    return false;
}

bool TransferAgentGoogleDrive::getObjectMeta(std::string const& id, GoogleDrive::FileMeta& meta) {
    GD_LOG(LOG_DEBUG, "@getObjectMeta: id=[%s]", id.c_str());
    GD_OPEN_REQUEST(true, false);

    Json::Value request;
    request["fn"] = "getObjectMeta";
    request["id"] = id;
    if (!_client.send(request, _response)) {
        googledriveConverTransferResponse(false, _response, true, "getObjectMeta", __LINE__);
        // The service no longer knows the id: forget it too.
        if (_update_node_cache && getError() == ERR_REMOTE_NOT_FOUND) _node_cache.remove(id);
        return false;
    }
    if (!readResponseRecord(meta)) return false;
    if (meta.status == "TRASH") {
        // A trashed object is absent to the engine.
        if (_update_node_cache) _node_cache.remove(id);
        GD_LOG(LOG_DEBUG, "id [%s] has been trashed", id.c_str());
        setError(ERR_REMOTE_NOT_FOUND);
        return false;
    }
    if (_update_node_cache) _node_cache.insert(meta);
    return true;
}

bool TransferAgentGoogleDrive::listObjects(std::string const& pid, std::string const& name,
                                           std::list<GoogleDrive::FileMeta>& list) {
    GD_LOG(LOG_DEBUG, "@listObjects: pid=[%s], fname=[%s]", pid.c_str(), name.c_str());
    GD_OPEN_REQUEST(true, false);

    list.clear();
    // Sent as Drive's own query language, unquoted: a name the query cannot
    // hold comes back as the service's error.
    std::string query = "('" + pid + "' in parents)";
    if (!name.empty()) query += " and (name = '" + name + "')";

    std::string pageToken;
    do {
        Json::Value request;
        request["fn"] = "listObjects";
        if (!pageToken.empty()) request["pageToken"] = pageToken;
        request["queryFilter"] = query;
        if (!_client.send(request, _response)) {
            return googledriveConverTransferResponse(false, _response, true, "listObjects",
                                                     __LINE__);
        }
        pageToken = _response.isMember("nextPageToken") ? _response["nextPageToken"].asString()
                                                        : std::string();
        if (_response.isMember("objects")) {
            for (Json::Value const& object : _response["objects"]) {
                GoogleDrive::FileMeta meta;
                if (!meta.setFileMeta(object)) {
                    GD_LOG(LOG_ERR, "setFileMeta failed, [%s]", object.toStyledString().c_str());
                    setError(ERR_GENERAL);
                    GD_LOG(LOG_ERR, "set_filemeta_list() filed");
                    return false;
                }
                if (meta.status == "TRASH") {
                    GD_LOG(LOG_ERR, "list trashed object, [%s]", object.toStyledString().c_str());
                    setError(ERR_REMOTE_NOT_FOUND);
                    GD_LOG(LOG_ERR, "set_filemeta_list() filed");
                    return false;
                }
                list.push_back(meta);
            }
        }
    } while (!pageToken.empty());

    if (_update_node_cache) {
        for (auto const& meta : list) _node_cache.insert(meta);
    }
    return true;
}

bool TransferAgentGoogleDrive::createFolder(std::string const& name, std::string const& pid,
                                            GoogleDrive::FileMeta& meta) {
    OperationTrace trace("createFolder", Path::join(pid, name));
    GD_LOG(LOG_DEBUG, "@createFolder: name=[%s], pid=[%s]", name.c_str(), pid.c_str());
    GD_OPEN_REQUEST(true, true);

    Json::Value request;
    request["fn"] = "createFolder";
    request["name"] = name;
    request["parentId"] = pid;
    if (!_client.send(request, _response)) {
        return googledriveConverTransferResponse(false, _response, true, "createFolder", __LINE__);
    }
    if (!readResponseRecord(meta)) return false;
    if (_update_node_cache) _node_cache.insert(meta);
    return true;
}

bool TransferAgentGoogleDrive::removeObject(std::string const& id) {
    OperationTrace trace("removeObject", id);
    GD_LOG(LOG_DEBUG, "@removeObject: id=[%s]", id.c_str());
    GD_OPEN_REQUEST(true, true);

    Json::Value request;
    request["fn"] = "deleteObject";
    request["id"] = id;
    if (!_client.send(request, _response)) {
        return googledriveConverTransferResponse(false, _response, true, "removeObject", __LINE__);
    }
    // Records below a deleted folder stay; a later walk through them misses
    // on the service and forgets them then.
    if (_update_node_cache) _node_cache.remove(id);
    return true;
}

bool TransferAgentGoogleDrive::getAccountInfo(AccountInfo& info) {
    OperationTrace trace("getAccountInfo", "");
    GD_OPEN_REQUEST(false, true);

    Json::Value request;
    request["fn"] = "getAccountInfo";
    if (!_client.send(request, _response)) {
        return googledriveConverTransferResponse(false, _response, true, "getAccountInfo",
                                                 __LINE__);
    }
    if (_response.isMember("account")) info.account = _response["account"].asString();
    if (_response.isMember("userName")) info.userName = _response["userName"].asString();
    if (_response.isMember("quota")) {
        if (_response["quota"].isNull()) {
            info.isUnlimitedQuota = true;
        } else {
            info.quota = _response["quota"].asInt64();
        }
    }
    if (_response.isMember("usedSize")) info.usedSize = _response["usedSize"].asInt64();
    return true;
}

}  // namespace Backup
}  // namespace TAVO
