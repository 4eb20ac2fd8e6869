// The single-answer requests of the pipe protocol, each a few Drive API calls.
// Each returns the success answer or throws AgentFailure.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "drive_api.h"

namespace DriveAgent {

// Ids for new objects from files.generateIds, fetched a batch at a time, so
// that a create sent twice (its answer lost) cannot make two objects.
class IdPool {
  public:
    explicit IdPool(DriveApi& api) : _api(api) {}
    std::string next();

  private:
    DriveApi& _api;
    std::vector<std::string> _ids;
};

Json::Value getObjectMeta(DriveApi& api, std::string const& id);
// The query with "trashed = false" added: the plug-in fails a whole listing
// on one trashed entry, and Drive lists trashed objects unless told not to.
Json::Value listObjects(DriveApi& api, std::string const& query, std::string const& pageToken);
// Created under a pre-generated id; an object already holding that id (an
// earlier attempt whose answer was lost) is answered with.
Json::Value createFolder(DriveApi& api, IdPool& ids, std::string const& name,
                         std::string const& parentId);
Json::Value deleteObject(DriveApi& api, std::string const& id);
// "quota" is null when the account has no limit.
Json::Value getAccountInfo(DriveApi& api);

// {"success": true} merged with `record`.
Json::Value successWith(Json::Value record);

}  // namespace DriveAgent
