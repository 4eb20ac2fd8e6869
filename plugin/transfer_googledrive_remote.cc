// Single-object requests to the drive agent: metadata, listing by query,
// folder creation, deletion and the account. Each keeps the node cache in
// step with what the service reported, unless the cache is frozen.
#include <algorithm>
#include <set>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "backup/error.h"
#include "backup/path.h"
#include "googledrive_error.h"
#include "plugin_log.h"
#include "transfer_googledrive.h"
#include "transfer_googledrive_edge.h"
#include "transfer_googledrive_names.h"
#include "transfer_googledrive_trace.h"

namespace TAVO {
namespace Backup {
namespace {
char const kLogSource[] = "transfer_googledrive";
// Attempts of one folder create, as many as the channel's own budget.
int const kCreateAttempts = 10;

// A page repeated under a new token, or pages that overlap, list one object
// twice; taken for two objects, it would be judged a copy of itself. Keeps
// the first listing of each id.
void dropRepeatedIds(std::list<GoogleDrive::FileMeta>& list) {
    if (list.size() < 2) return;
    std::vector<std::string_view> ids;
    ids.reserve(list.size());
    for (auto const& meta : list) ids.push_back(meta.id);
    std::sort(ids.begin(), ids.end());
    if (std::adjacent_find(ids.begin(), ids.end()) == ids.end()) return;
    std::unordered_set<std::string> seen;
    list.remove_if([&seen](GoogleDrive::FileMeta const& m) { return !seen.insert(m.id).second; });
}
// A lagging listing can still show an object under a folder it has left.
// Taken for a child, it would be resolved there, or settled as a copy that
// lives elsewhere too while the real child is deleted. Only an object whose
// parents are reported and leave `pid` out is dropped; "root" names the root
// by alias, which no parent list holds.
void dropForeignChildren(std::string const& pid, std::list<GoogleDrive::FileMeta>& list) {
    if (pid == "root") return;
    list.remove_if([&pid](GoogleDrive::FileMeta const& m) {
        return !m.parents.empty() && m.parents.count(pid) == 0;
    });
}
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
    // An answer without an id describes no object (a stray progress line, a
    // bare success): entered into the cache it would take the root's place.
    if (meta.setFileMeta(_response) && !meta.id.empty()) return true;
    GD_LOG(LOG_ERR, "setFileMeta failed, [%s]", _response.toStyledString().c_str());
    setError(ERR_GENERAL);
    return false;
}

bool TransferAgentGoogleDrive::landedInTrash(GoogleDrive::FileMeta const& meta) {
    if (meta.status != "TRASH") return false;
    // Drive trashes what a trashed folder holds, new objects included: the
    // folder was trashed since the plug-in last saw it in place.
    GD_LOG(LOG_WARNING, "[%s] id=[%s] is in the trash: its folder was trashed meanwhile",
           meta.name.c_str(), meta.id.c_str());
    for (auto const& parent : meta.parents) _confirmed_folders.forget(parent);
    setError(ERR_REMOTE_NOT_FOUND);
    return true;
}

void TransferAgentGoogleDrive::dropCachedTree(std::string const& id) {
    if (!_update_node_cache) return;
    // Unknown by now (its record went when the service said it was gone): it
    // may have been a folder.
    GoogleDrive::FileMeta known;
    if (!_node_cache.find(id, known) || known.isDir) _whole_folders.clear();
    _node_cache.removeTree(id);
}

void TransferAgentGoogleDrive::forgetWholeAround(std::string const& id) {
    GoogleDrive::FileMeta known;
    if (_node_cache.find(id, known)) {
        for (auto const& parent : known.parents) _whole_folders.forget(parent);
    }
    _whole_folders.forget(id);
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
        if (getError() == ERR_REMOTE_NOT_FOUND) forgetWholeAround(id);
        if (_update_node_cache && getError() == ERR_REMOTE_NOT_FOUND) _node_cache.remove(id);
        return false;
    }
    if (!readResponseRecord(meta)) return false;
    if (meta.status == "TRASH") {
        // A trashed object is absent to the engine.
        forgetWholeAround(id);
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
    std::string query = "('" + escapeQueryLiteral(pid) + "' in parents)";
    if (!name.empty()) query += " and (name = '" + escapeQueryLiteral(name) + "')";

    std::string pageToken;
    // A token seen twice would make the listing go round for ever.
    std::set<std::string> seenTokens;
    do {
        if (!pageToken.empty()) {
            if (!seenTokens.insert(pageToken).second) {
                GD_LOG(LOG_ERR, "listObjects: page token [%s] repeats, pid=[%s]", pageToken.c_str(),
                       pid.c_str());
                setError(ERR_GENERAL);
                return false;
            }
            if (isCanceled()) {
                setError(ERR_CANCELED);
                return false;
            }
        }
        Json::Value request;
        request["fn"] = "listObjects";
        if (!pageToken.empty()) request["pageToken"] = pageToken;
        request["queryFilter"] = query;
        GoogleDrive::ListingPage page;
        bool read = false;
        AgentClient::SuccessLineReader readPage = [&](char const* begin, char const* end) {
            return read = GoogleDrive::readListingPage(
                       std::string_view(begin, static_cast<size_t>(end - begin)), page);
        };
        if (!_client.send(request, _response, readPage)) {
            return googledriveConverTransferResponse(false, _response, true, "listObjects",
                                                     __LINE__);
        }
        bool pageRead = read || readListingAnswer(page);
        // On a bad object the ones before it stay in the list, as on earlier pages.
        for (auto& meta : page.objects) list.push_back(std::move(meta));
        if (!pageRead) return false;
        pageToken = page.nextPageToken;
    } while (!pageToken.empty());

    dropRepeatedIds(list);
    dropForeignChildren(pid, list);
    if (_update_node_cache) learnListing(pid, list, name.empty());
    return true;
}

bool TransferAgentGoogleDrive::readListingAnswer(GoogleDrive::ListingPage& page) {
    page.objects.clear();
    page.nextPageToken =
        _response.isMember("nextPageToken") ? _response["nextPageToken"].asString() : std::string();
    if (!_response.isMember("objects")) return true;
    for (Json::Value const& object : _response["objects"]) {
        GoogleDrive::FileMeta meta;
        if (!meta.setFileMeta(object) || meta.id.empty()) {
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
        page.objects.push_back(std::move(meta));
    }
    return true;
}

void TransferAgentGoogleDrive::learnListing(std::string const& pid,
                                            std::list<GoogleDrive::FileMeta> const& list,
                                            bool whole) {
    // Objects of a name Drive holds more than once in this folder stay out of
    // the index, and an entry learned before is dropped: a later walk must ask
    // the service and be refused again, not pick one of them from the cache.
    // Names are compared byte for byte: "A" and "a" are two files.
    std::vector<std::pair<std::string_view, size_t>> names;
    names.reserve(list.size());
    for (auto const& meta : list) names.emplace_back(meta.name, names.size());
    std::sort(names.begin(), names.end());
    std::vector<bool> clashes(list.size(), false);
    for (size_t i = 1; i < names.size(); ++i) {
        if (names[i].first != names[i - 1].first) continue;
        clashes[names[i].second] = clashes[names[i - 1].second] = true;
    }
    // Below a folder in its confirmed place, the folders just listed by a
    // name of their own are in their places too: walking into them later
    // asks the service nothing more.
    bool const placed = pid == "root" || _confirmed_folders.trusted(pid);
    // A name left out of the index would read as absent.
    bool const clashed = std::find(clashes.begin(), clashes.end(), true) != clashes.end();
    if (clashed) {
        _whole_folders.forget(pid);
    } else if (whole) {
        _whole_folders.listed(pid);
    }
    size_t position = 0;
    for (auto const& meta : list) {
        if (clashes[position++]) {
            _node_cache.remove(pid, meta.name);
        } else {
            _node_cache.insert(meta);
            if (placed && meta.isDir) _confirmed_folders.confirm(meta.id);
        }
    }
}

void TransferAgentGoogleDrive::noteLostCreation(std::string const& pid, std::string const& name) {
    // A closed channel means the answer never came, and Drive may apply a
    // request it answers with a passing failure: the object may be there.
    bool const passing = !_response.get("success", false).asBool() && needRetry(_response);
    if (!_client.isConnected() || passing) _creations_in_doubt.insert({pid, name});
}

bool TransferAgentGoogleDrive::listNamedInWhole(std::string const& pid, std::string const& name,
                                                std::list<GoogleDrive::FileMeta>& named) {
    if (!listObjects(pid, "", named)) {
        GD_LOG(LOG_ERR, "listObjects failed: pid=[%s], name=[%s], error[%d]", pid.c_str(), "",
               getError());
        return false;
    }
    named.remove_if([&name](GoogleDrive::FileMeta const& m) { return m.name != name; });
    return true;
}

TransferAgentGoogleDrive::Resend TransferAgentGoogleDrive::lookBeforeFolderResend(
    std::string const& pid, std::string const& name, GoogleDrive::FileMeta& meta) {
    std::list<GoogleDrive::FileMeta> named;
    if (!listNamedInWhole(pid, name, named)) return Resend::GiveUp;
    if (named.empty()) return Resend::Again;
    if (named.size() == 1 && named.front().isDir) {
        GD_LOG(LOG_DEBUG, "folder [%s] in [%s] was made: id=[%s]", name.c_str(), pid.c_str(),
               named.front().id.c_str());
        meta = named.front();
        return Resend::Taken;
    }
    GD_LOG(LOG_ERR, "folder [%s] in [%s] in doubt, and the name is taken", name.c_str(),
           pid.c_str());
    return Resend::GiveUp;
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
    // Not the channel's own retries: Drive may have made the folder before
    // failing the request, and a second one of the name would be refused for
    // ever. So each time the outcome is unknown, look before sending again.
    bool taken = false;
    for (int attempt = 1; !taken; ++attempt) {
        if (attempt > 1 && isCanceled()) {
            noteLostCreation(pid, name);
            setError(ERR_CANCELED);
            return false;
        }
        bool retry = false;
        if (!_client.sendRequest(request)) {
            _response = Json::Value(Json::objectValue);
            _response["success"] = false;
            _response["error_code"] = -1;
            _response["error_message"] = "the request could not be written";
        } else if (_client.readResponse(_response, retry)) {
            break;
        }
        if (retry && attempt < kCreateAttempts) {
            Json::Value const failure = _response;
            switch (lookBeforeFolderResend(pid, name, meta)) {
                case Resend::Again:
                    continue;
                case Resend::Taken:
                    taken = true;
                    continue;
                case Resend::GiveUp:
                    _response = failure;
                    break;
            }
        }
        noteLostCreation(pid, name);
        return googledriveConverTransferResponse(false, _response, true, "createFolder", __LINE__);
    }
    if (!taken && !readResponseRecord(meta)) return false;
    if (landedInTrash(meta)) return false;
    if (_update_node_cache) _node_cache.insert(meta);
    // One taken after a lost answer may hold what another client put there.
    if (!taken && _update_node_cache) _whole_folders.made(meta.id);
    if (pid == "root" || _confirmed_folders.trusted(pid)) _confirmed_folders.confirm(meta.id);
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
        googledriveConverTransferResponse(false, _response, true, "removeObject", __LINE__);
        // Already gone on the service: forget it here too.
        if (getError() == ERR_REMOTE_NOT_FOUND) dropCachedTree(id);
        return false;
    }
    // What the cache knows below a deleted folder went with it; left in, it
    // would make the cache file grow with every deleted backup version.
    dropCachedTree(id);
    _confirmed_folders.forget(id);
    _whole_folders.forget(id);
    return true;
}

bool TransferAgentGoogleDrive::getAccountInfo(AccountInfo& info) try {
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
GD_CATCH_AT_EDGE("getAccountInfo")

}  // namespace Backup
}  // namespace TAVO
