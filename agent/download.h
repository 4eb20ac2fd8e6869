// Downloads streamed to the local path, resumed with a Range request after a
// dropped connection or a short answer, and checked against Drive's MD5.
#pragma once

#include <json/value.h>

#include <string>

#include "drive_api.h"

namespace DriveAgent {

// Writes the contents of `id` to `outputPath` with progress lines on `out`;
// returns {"success": true, "complete": true}. Throws AgentFailure: the
// service's refusal, -1 for the local file, -2 when the connection keeps
// failing, -4 when the bytes do not match the file's MD5.
Json::Value downloadContent(DriveApi& api, std::string const& id, std::string const& outputPath,
                            int out);

}  // namespace DriveAgent
