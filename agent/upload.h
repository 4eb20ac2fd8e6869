// Uploads and content updates. A file up to kWholeUpload goes in one
// multipart request (metadata and content); a larger one as Drive's
// resumable upload, streamed from the local file chunk by chunk in bounded
// memory. After a dropped connection the session's status query says what
// the service holds, and the upload goes on from there; an expired session
// starts a new one.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

#include "drive_api.h"
#include "protocol_out.h"
#include "requests.h"

namespace DriveAgent {

// The largest file sent in one request: a resumable upload costs a second
// request (its session), which for a small file is most of its time and,
// against the service's write rate, half of its speed. Drive takes multipart
// bodies up to 5 MB; a multipart request cut short is sent again whole.
constexpr std::int64_t kWholeUpload = std::int64_t{4} << 20;

struct UploadTarget {
    std::string id;        // update: the file; create: empty
    std::string name;      // create only
    std::string parentId;  // create only
};

// Sends `inputPath` (nothing when `empty`) to `target`, writing progress lines
// to `out`, and returns the final answer with the object's record and
// "complete": true. The object's modifiedTime is the local file's. The MD5
// Drive reports must match the bytes read; a new object that does not is
// deleted again. Throws AgentFailure.
Json::Value uploadContent(DriveApi& api, IdPool& ids, UploadTarget const& target,
                          std::string const& inputPath, bool empty, int out);

}  // namespace DriveAgent
