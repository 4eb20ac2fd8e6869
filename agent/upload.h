// Uploads and content updates as Drive's resumable uploads, streamed from the
// local file chunk by chunk in bounded memory. After a dropped connection the
// session's status query says what the service holds, and the upload goes on
// from there; an expired session starts a new one.
#pragma once

#include <json/value.h>

#include <string>

#include "drive_api.h"
#include "protocol_out.h"
#include "requests.h"

namespace DriveAgent {

struct UploadTarget {
    std::string id;        // update: the file; create: empty
    std::string name;      // create only
    std::string parentId;  // create only
};

// Sends `inputPath` (nothing when `empty`) to `target`, writing progress lines
// to `out`, and returns the final answer with the object's record and
// "complete": true. The MD5 Drive reports must match the bytes read; a new
// object that does not is deleted again. Throws AgentFailure.
Json::Value uploadContent(DriveApi& api, IdPool& ids, UploadTarget const& target,
                          std::string const& inputPath, bool empty, int out);

}  // namespace DriveAgent
