#include "backup/error.h"

#include <cerrno>

namespace TAVO {
namespace Backup {
namespace {
thread_local int t_error = ERR_NONE;

// errno values common to stat and file I/O.
int mapCommon(int err) {
    switch (err) {
        case ENOENT:
        case ENOTDIR:
            return ERR_LOCAL_NOT_FOUND;
        case EACCES:
        case EPERM:
        case EROFS:
            return ERR_LOCAL_PERMISSION;
        case ENAMETOOLONG:
            return ERR_LOCAL_NAME_TOO_LONG;
        case ENOSPC:
        case EDQUOT:
            return ERR_LOCAL_NO_SPACE;
        case EINVAL:
            return ERR_BAD_ARGUMENT;
        default:
            return -1;
    }
}
}  // namespace

void setError(int code) { t_error = code; }
int getError() { return t_error; }

int getErrorCodeByLibcStat(int err, bool /*isLocal*/) {
    int code = mapCommon(err);
    return code >= 0 ? code : ERR_GENERAL;
}

int getErrorCodeByLibcFileIo(int err, bool /*isLocal*/) {
    int code = mapCommon(err);
    if (code >= 0) return code;
    switch (err) {
        case EIO:
        case EFBIG:
        case EISDIR:
            return ERR_LOCAL_IO;
        default:
            return ERR_GENERAL;
    }
}

}  // namespace Backup
}  // namespace TAVO
