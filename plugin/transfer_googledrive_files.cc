// The engine's file operations: sendFile stores a local file at a relative
// path of the target, recvFile fetches one.
#include <sys/stat.h>

#include <cerrno>

#include "backup/error.h"
#include "backup/path.h"
#include "backup/path_check.h"
#include "backup/scoped_temp_file.h"
#include "plugin_log.h"
#include "transfer_googledrive.h"
#include "transfer_googledrive_edge.h"
#include "transfer_googledrive_trace.h"

namespace TAVO {
namespace Backup {
namespace {
char const kLogSource[] = "transfer_googledrive";
}  // namespace

bool TransferAgentGoogleDrive::sendFile(std::string const& local, std::string const& remote) try {
    return sendFile(local, remote, ProgressHook());
}
GD_CATCH_AT_EDGE("sendFile")

bool TransferAgentGoogleDrive::sendFile(std::string const& local, std::string const& remote,
                                        ProgressHook progress) try {
    FileInfo info(remote);
    return sendFile(local, remote, progress, true, info);
}
GD_CATCH_AT_EDGE("sendFile")

bool TransferAgentGoogleDrive::sendFile(std::string const& local, std::string const& remote,
                                        ProgressHook progress, bool flag) try {
    FileInfo info(remote);
    return sendFile(local, remote, progress, flag, info);
}
GD_CATCH_AT_EDGE("sendFile")

bool TransferAgentGoogleDrive::sendFile(std::string const& local, std::string const& remote,
                                        ProgressHook progress, bool /*flag*/, FileInfo& info) try {
    OperationTrace trace("sendFile", local, remote);
    info.clear();
    if (getContainer().empty() || !isValidFileLocalPath(local, false) ||
        !isValidFileRelativePath(remote, false)) {
        setError(ERR_BAD_ARGUMENT);
        return false;
    }

    std::string abs = Path::absPath(local);
    struct stat st;
    // lstat: a symbolic link is refused, not followed.
    if (lstat(abs.c_str(), &st) != 0) {
        int err = errno;
        GD_LOG(LOG_ERR, "lstat failed, %m [%s]", abs.c_str());
        setError(getErrorCodeByLibcStat(err, true));
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        setError(ERR_LOCAL_NOT_REGULAR);
        return false;
    }
    if (isCanceled()) {
        setError(ERR_CANCELED);
        return false;
    }

    std::string remotePath = getRemotePath(remote, true);
    GoogleDrive::FileMeta meta;
    bool stored = storeFileAt(local, remote, remotePath, st.st_size, progress, meta);
    // A parent that the cache placed may have been replaced: once more.
    if (!stored && getError() == ERR_REMOTE_NOT_FOUND && droppedStalePlacement(remotePath)) {
        stored = storeFileAt(local, remote, remotePath, st.st_size, progress, meta);
    }
    if (!stored) return false;

    if (!fileMetaToFileInfo(meta, info)) {
        GD_LOG(LOG_ERR, "Failed to convert file meta to file info. path=[%s]", remote.c_str());
        setError(ERR_GENERAL);
        return false;
    }
    GD_LOG(LOG_DEBUG, "sendFile to [%s], id=[%s]: mtime=[%ld], size=[%ld], checksum=[%s]",
           remotePath.c_str(), meta.id.c_str(), static_cast<long>(info.getMtime()),
           static_cast<long>(info.getSize()), info.getChecksum().c_str());
    return true;
}
GD_CATCH_AT_EDGE("sendFile")

bool TransferAgentGoogleDrive::storeFileAt(std::string const& local, std::string const& remote,
                                           std::string const& remotePath, long size,
                                           ProgressHook progress, GoogleDrive::FileMeta& meta) {
    std::string parentPath = Path::dirname(remotePath);
    // The folder a new file goes into is where the path says, not one that
    // another client moved away since the cache learned it.
    GoogleDrive::FileMeta parent;
    if (!findConfirmedMeta(parentPath, parent, false)) {
        // A missing parent is the engine's to create; not worth an error line.
        if (getError() != ERR_REMOTE_NOT_FOUND) {
            GD_LOG(LOG_ERR, "failed to get parent [%s]'s id, error[%d]", parentPath.c_str(),
                   getError());
        }
        return false;
    }
    std::string const& parentId = parent.id;

    std::string name = Path::basename(remotePath);
    // An overwrite, like a delete, must reach the file the path names now,
    // not one that another client moved away with a folder the cache knows.
    bool const absent = knownAbsent(parentId, name);
    if (absent) setError(ERR_REMOTE_NOT_FOUND);
    if (!absent && findConfirmedMeta(remotePath, meta)) {
        if (meta.isDir) {
            GD_LOG(LOG_ERR, "[%s] exists, is dir.", remote.c_str());
            setError(ERR_REMOTE_IS_DIR);
            return false;
        }
        GD_LOG(LOG_DEBUG, "[%s] exists, is reaular file, to be overwrite", remote.c_str());
        std::string id = meta.id;
        if (!overwriteFile(id, local, size, progress, meta)) {
            GD_LOG(LOG_ERR, "Failed to overwrite file [%s]->[%s], id=[%s], error[%d]",
                   local.c_str(), remote.c_str(), id.c_str(), getError());
            return false;
        }
    } else if (getError() == ERR_REMOTE_NOT_FOUND) {
        GD_LOG(LOG_DEBUG, "[%s] not exists, to be upload", remote.c_str());
        if (!uploadFile(name, parentId, local, size, progress, meta)) {
            GD_LOG(LOG_ERR, "Failed to upload file [%s]->[%s], pid=[%s], name=[%s], error[%d]",
                   local.c_str(), remotePath.c_str(), parentId.c_str(), name.c_str(), getError());
            return false;
        }
    } else {
        GD_LOG(LOG_ERR, "statMeta(%s) failed, error[%d]", remotePath.c_str(), getError());
        return false;
    }

    return true;
}

bool TransferAgentGoogleDrive::recvFile(std::string const& remote, std::string const& local) try {
    return recvFile(remote, local, ProgressHook());
}
GD_CATCH_AT_EDGE("recvFile")

bool TransferAgentGoogleDrive::recvFile(std::string const& remote, std::string const& local,
                                        ProgressHook progress) try {
    FileInfo info("");
    return recvFile(remote, local, progress, info);
}
GD_CATCH_AT_EDGE("recvFile")

bool TransferAgentGoogleDrive::recvFile(std::string const& remote, std::string const& local,
                                        ProgressHook progress, FileInfo& info) try {
    OperationTrace trace("recvFile", remote, local);
    if (getContainer().empty() || !isValidFileLocalPath(local, false) ||
        !isValidFileRelativePath(remote, false)) {
        setError(ERR_BAD_ARGUMENT);
        return false;
    }
    std::string abs = Path::absPath(local);
    info.clear();

    struct stat st;
    // A missing destination is the normal case; only an existing non-file is refused.
    if (lstat(abs.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
        setError(ERR_LOCAL_NOT_REGULAR);
        return false;
    }

    std::string remotePath = getRemotePath(remote, true);
    GoogleDrive::FileMeta meta;
    if (!statMetaConfirmingAbsence(remotePath, meta)) {
        if (getError() != ERR_REMOTE_NOT_FOUND) {
            GD_LOG(LOG_ERR, "statMeta(%s) error[%d]", remotePath.c_str(), getError());
        }
        return false;
    }
    if (meta.isDir) {
        GD_LOG(LOG_ERR, "Error: [%s] is not a regular file, is dir", remote.c_str());
        setError(ERR_REMOTE_IS_DIR);
        return false;
    }
    if (isCanceled()) {
        setError(ERR_CANCELED);
        return false;
    }

    // The download lands beside the destination and replaces it only once it
    // is complete, so a failure never leaves a partial file in its place.
    ScopedTempFile tmp(abs, true);
    if (!tmp.isValid()) {
        setError(getErrorCodeByLibcFileIo(errno, true));
        GD_LOG(LOG_ERR, "create temp failed, %m");
        return false;
    }

    if (meta.size == 0) {
        if (!tmp.rename(abs)) {
            setError(getErrorCodeByLibcFileIo(errno, true));
            GD_LOG(LOG_ERR, "rename failed, %m");
            return false;
        }
        return true;
    }

    if (!fileMetaToFileInfo(meta, info)) {
        GD_LOG(LOG_ERR, "Failed to convert file meta to file info. path=[%s]", remote.c_str());
        setError(ERR_GENERAL);
        return false;
    }
    if (!downloadFile(meta.id, tmp.getPath(), "", info.getSize(), progress)) {
        int code = getError();
        GD_LOG(LOG_ERR, "download file id=[%s] path=[%s]->[%s] failed, error[%d]", meta.id.c_str(),
               remote.c_str(), tmp.getPath().c_str(), code);
        return false;
    }

    struct stat got = {};
    if (lstat(tmp.getPath().c_str(), &got) != 0 ||
        static_cast<uint64_t>(got.st_size) != meta.size) {
        GD_LOG(LOG_ERR, "get a bad file %ld != %lu", static_cast<long>(got.st_size),
               static_cast<unsigned long>(meta.size));
        setError(ERR_GENERAL);
        return false;
    }
    if (!tmp.rename(abs)) {
        setError(getErrorCodeByLibcFileIo(errno, true));
        GD_LOG(LOG_ERR, "rename temp failed, %m");
        return false;
    }
    GD_LOG(LOG_DEBUG, "recvFile: mtime=[%ld], size=[%ld], checksum=[%s]",
           static_cast<long>(info.getMtime()), static_cast<long>(info.getSize()),
           info.getChecksum().c_str());
    return true;
}
GD_CATCH_AT_EDGE("recvFile")

}  // namespace Backup
}  // namespace TAVO
