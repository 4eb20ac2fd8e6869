// The single-answer requests of the pipe protocol, each a few Drive API calls.
// Each returns the success answer or throws AgentFailure.
#pragma once

#include <json/value.h>

#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "drive_api.h"

namespace DriveAgent {

// Drive hands out at most 1000 ids a call. The first batch covers the share
// of a tree one agent of a worker pool stores, in one call (agent/README.md,
// "Why 250 ids first").
constexpr int kFirstIdBatch = 250;
constexpr int kMaxIdBatch = 1000;

// Ids for new objects from files.generateIds, fetched a batch at a time, so
// that a create sent twice (its answer lost) cannot make two objects.
class IdPool {
  public:
    explicit IdPool(DriveApi& api) : _api(api) {}
    // An id never handed out before. When the pool is empty it asks for a
    // batch twice the last one (kFirstIdBatch first, at most kMaxIdBatch),
    // so that a long run of creates costs few calls. Throws AgentFailure
    // when the service gives none.
    std::string next();
    // The id for a create of `name` in `parentId` (a folder or a file): the
    // one handed out for the same create before, until that create is
    // settled. A create sent again after an answer that was lost or failed
    // then meets the object the first attempt made (409) instead of making
    // a second one of the name.
    std::string forCreate(std::string const& parentId, std::string const& name, bool folder);
    // That create was answered, or its id is of no more use: a later create
    // of the same key gets a new id.
    void settle(std::string const& parentId, std::string const& name, bool folder);

  private:
    DriveApi& _api;
    int _batch = 0;  // the size of the last batch asked for
    std::vector<std::string> _ids;
    std::map<std::tuple<std::string, std::string, bool>, std::string> _pending;
};

Json::Value getObjectMeta(DriveApi& api, std::string const& id);
// The query with "trashed = false" added: the plug-in fails a whole listing
// on one trashed entry, and Drive lists trashed objects unless told not to.
Json::Value listObjects(DriveApi& api, std::string const& query, std::string const& pageToken);
// Created under a pre-generated id, the same for a repeated create; an
// object already holding that id (an earlier attempt whose answer was lost
// or failed) is answered with, unless it is gone or trashed.
Json::Value createFolder(DriveApi& api, IdPool& ids, std::string const& name,
                         std::string const& parentId);
Json::Value deleteObject(DriveApi& api, std::string const& id);
// "quota" is null when the account has no limit.
Json::Value getAccountInfo(DriveApi& api);

// {"success": true} merged with `record`.
Json::Value successWith(Json::Value record);

}  // namespace DriveAgent
