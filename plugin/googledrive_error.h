// The one place where a failed drive agent response becomes an engine error code.
#pragma once

#include <json/value.h>

namespace TAVO {
namespace Backup {

// Returns true and does nothing else when `ok` is true. Otherwise logs the
// response ("<caller>:<line> failed, <response>"; at LOG_DEBUG for a 404, or
// for any coded failure when `logAsError` is false; else LOG_ERR), sets the
// engine error code that the response's "error_code" maps to (400 -> 7,
// 401 -> 2107, 403 -> 2002 for the quota message else 2000, 404 -> 2003,
// 408 -> 2104, -2 -> 2103, -3 -> 4, -4 -> 2102, anything else -> 1) and
// returns false. The response is not changed.
bool googledriveConverTransferResponse(bool ok, Json::Value const& response, bool logAsError,
                                       char const* caller, int callerLine);

}  // namespace Backup
}  // namespace TAVO
