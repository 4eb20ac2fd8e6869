#include "requests.h"

#include <algorithm>

#include "agent_failure.h"
#include "drive_text.h"

namespace DriveAgent {

namespace {

std::string fileQuery(DriveApi& api) {
    return "fields=" + api.http().escape(kFileFields) + "&supportsAllDrives=true";
}

}  // namespace

std::string IdPool::next() {
    if (_ids.empty()) {
        // The creates so far foretell those to come: a run of up to 250
        // creates costs one call, a tree of thousands a call per 1000.
        _batch = std::min(kMaxIdBatch, _batch == 0 ? kFirstIdBatch : _batch * 2);
        Json::Value answer = _api.call(_api.api(
            "GET", "files/generateIds", "count=" + std::to_string(_batch) + "&space=drive"));
        for (auto const& id : answer["ids"]) _ids.push_back(id.asString());
        if (_ids.empty()) throw AgentFailure(kTransportFailure, "the service generated no ids");
    }
    std::string id = _ids.back();
    _ids.pop_back();
    return id;
}

std::string IdPool::forCreate(std::string const& parentId, std::string const& name, bool folder) {
    std::string& id = _pending[std::make_tuple(parentId, name, folder)];
    if (id.empty()) id = next();
    return id;
}

void IdPool::settle(std::string const& parentId, std::string const& name, bool folder) {
    _pending.erase(std::make_tuple(parentId, name, folder));
}

Json::Value successWith(Json::Value record) {
    record["success"] = true;
    return record;
}

Json::Value getObjectMeta(DriveApi& api, std::string const& id) {
    return successWith(
        objectRecord(api.call(api.api("GET", "files/" + api.http().escape(id), fileQuery(api)))));
}

Json::Value listObjects(DriveApi& api, std::string const& query, std::string const& pageToken) {
    Http& http = api.http();
    std::string q =
        query.empty() ? "trashed = false" : "(" + toDriveText(query) + ") and trashed = false";
    std::string params = "q=" + http.escape(q) + "&pageSize=1000&fields=" +
                         http.escape(std::string("nextPageToken,files(") + kFileFields + ")");
    if (!pageToken.empty()) params += "&pageToken=" + http.escape(pageToken);
    params += api.listScope();
    Json::Value answer = api.call(api.api("GET", "files", params));
    Json::Value response(Json::objectValue);
    response["success"] = true;
    Json::Value& objects = response["objects"] = Json::Value(Json::arrayValue);
    for (auto const& file : answer["files"]) objects.append(objectRecord(file));
    if (answer["nextPageToken"].isString() && !answer["nextPageToken"].asString().empty()) {
        response["nextPageToken"] = answer["nextPageToken"];
    }
    return response;
}

Json::Value createFolder(DriveApi& api, IdPool& ids, std::string const& name,
                         std::string const& parentId) {
    Json::Value body(Json::objectValue);
    body["id"] = ids.forCreate(parentId, name, true);
    body["name"] = toDriveText(name);
    body["mimeType"] = "application/vnd.google-apps.folder";
    body["parents"].append(parentId);
    HttpRequest request = api.apiJson("POST", "files", fileQuery(api), body);
    HttpResponse response;
    // The create is safe to repeat under its id: a lost answer is sent again
    // once, and 409 then means the first attempt made it.
    for (int attempt = 0; attempt < 2; ++attempt) {
        response = api.exchange(request);
        if (!response.transportFailed()) break;
    }
    if (response.status == 409) {
        Json::Value made = getObjectMeta(api, body["id"].asString());
        ids.settle(parentId, name, true);
        // Trashed since: the plug-in wants a folder in place, so a new one.
        if (made["properties"]["isTrash"].asBool()) return createFolder(api, ids, name, parentId);
        return made;
    }
    if (response.transportFailed() || response.status < 200 || response.status >= 300) {
        api.fail(response);
    }
    ids.settle(parentId, name, true);
    return successWith(objectRecord(parseJson(response.body)));
}

Json::Value deleteObject(DriveApi& api, std::string const& id) {
    api.call(api.api("DELETE", "files/" + api.http().escape(id), "supportsAllDrives=true"));
    Json::Value response(Json::objectValue);
    response["success"] = true;
    return response;
}

Json::Value getAccountInfo(DriveApi& api) {
    Json::Value about = api.call(api.api(
        "GET", "about",
        "fields=" + api.http().escape("user(displayName,emailAddress),storageQuota(limit,usage)")));
    Json::Value response(Json::objectValue);
    response["success"] = true;
    response["account"] = about["user"].get("emailAddress", "").asString();
    response["userName"] = about["user"].get("displayName", "").asString();
    Json::Value const& quota = about["storageQuota"];
    // Drive leaves "limit" out for an account without one.
    response["quota"] = quota["limit"].isNull()
                            ? Json::Value()
                            : Json::Value(Json::Int64(std::stoll(quota["limit"].asString())));
    response["usedSize"] = Json::Int64(std::stoll(quota.get("usage", "0").asString()));
    return response;
}

}  // namespace DriveAgent
