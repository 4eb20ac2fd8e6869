// The engine's per-thread error state and the numbers it uses for errors.
#pragma once

namespace TAVO {
namespace Backup {

// Error codes of the engine. Plug-ins report failures by returning false and
// leaving one of these in the calling thread's error state.
enum ErrorCode {
    ERR_NONE = 0,
    ERR_GENERAL = 1,
    ERR_BAD_ARGUMENT = 3,
    ERR_CANCELED = 4,
    ERR_BAD_REQUEST = 7,
    ERR_LOCAL_NOT_FOUND = 1001,
    ERR_LOCAL_PERMISSION = 1002,
    ERR_LOCAL_NO_SPACE = 1003,
    ERR_LOCAL_NOT_REGULAR = 1004,
    ERR_LOCAL_IO = 1005,
    ERR_LOCAL_NAME_TOO_LONG = 1006,
    ERR_REMOTE_REFUSED = 2000,
    ERR_REMOTE_QUOTA = 2002,
    ERR_REMOTE_NOT_FOUND = 2003,
    ERR_REMOTE_IS_DIR = 2004,
    ERR_REMOTE_NOT_DIR = 2005,
    ERR_AGENT_FAILURE_4 = 2102,
    ERR_AGENT_FAILURE_2 = 2103,
    ERR_REMOTE_TIMEOUT = 2104,
    ERR_CREDENTIALS = 2107,
};

// Records `code` as the calling thread's current error.
void setError(int code);

// The calling thread's current error; 0 until something sets one.
int getError();

// Maps an errno left by stat/lstat to an ErrorCode. `isLocal` is true when the
// path is on the local side (it always is for this engine).
int getErrorCodeByLibcStat(int err, bool isLocal);

// Maps an errno left by open/read/write/rename/mkstemp to an ErrorCode.
int getErrorCodeByLibcFileIo(int err, bool isLocal);

}  // namespace Backup
}  // namespace TAVO
