// Folder and container changes, and the existence and status queries. The
// changes take the wanted end state as success: creating an existing folder
// or removing a missing object is not an error.
#include "backup/error.h"
#include "backup/path.h"
#include "backup/path_check.h"
#include "plugin_log.h"
#include "transfer_googledrive.h"
#include "transfer_googledrive_edge.h"
#include "transfer_googledrive_trace.h"

namespace TAVO {
namespace Backup {
namespace {
char const kLogSource[] = "transfer_googledrive";
}  // namespace

bool TransferAgentGoogleDrive::createDir(std::string const& path) try {
    OperationTrace trace("createDir", path);
    if (getContainer().empty() || !isValidRelativePath(path, false)) {
        setError(ERR_BAD_ARGUMENT);
        return false;
    }
    std::string remotePath = getRemotePath(path, true);
    // Not statInfo: a new folder is the usual case here, and a replaced
    // parent shows when the creation below it fails.
    GoogleDrive::FileMeta meta;
    bool tried = false;
    bool const made = createdUnasked(remotePath, tried);
    if (tried) return made;
    if (findConfirmedMeta(remotePath, meta)) {
        if (meta.isDir) return true;
        setError(ERR_REMOTE_NOT_DIR);
        return false;
    }
    if (getError() != ERR_REMOTE_NOT_FOUND) {
        GD_LOG(LOG_ERR, "statInfo failed, error[%d]", getError());
        return false;
    }
    if (createMissingDir(remotePath)) return true;
    // A parent that the cache placed may have been replaced: once more.
    return getError() == ERR_REMOTE_NOT_FOUND && droppedStalePlacement(remotePath) &&
           createMissingDir(remotePath);
}
GD_CATCH_AT_EDGE("createDir")

bool TransferAgentGoogleDrive::createdUnasked(std::string const& remotePath, bool& tried) {
    tried = false;
    int const before = getError();
    GoogleDrive::FileMeta parent;
    std::string const name = Path::basename(remotePath);
    if (!findConfirmedMeta(Path::dirname(remotePath), parent, false) ||
        !knownAbsent(parent.id, name)) {
        // The usual way: it meets the same failure, and says so.
        setError(before);
        return false;
    }
    tried = true;
    GoogleDrive::FileMeta meta;
    if (!createFolder(name, parent.id, meta)) {
        GD_LOG(LOG_ERR, "createFolder() failed, name=[%s], pid=[%s], error[%d]", name.c_str(),
               parent.id.c_str(), getError());
        // The parent gone or trashed meanwhile: the usual way finds it again.
        tried = getError() != ERR_REMOTE_NOT_FOUND;
        return false;
    }
    GD_LOG(LOG_DEBUG, "create dir [%s]: id=[%s]", remotePath.c_str(), meta.id.c_str());
    return true;
}

bool TransferAgentGoogleDrive::createMissingDir(std::string const& remotePath) {
    std::string parentPath = Path::dirname(remotePath);
    // Missing parents are not created: the engine creates its tree top down.
    GoogleDrive::FileMeta parent;
    if (!findConfirmedMeta(parentPath, parent, false)) {
        GD_LOG(LOG_ERR, "findNodeIdByPath(%s) failed, error[%d]", parentPath.c_str(), getError());
        return false;
    }
    std::string const& parentId = parent.id;
    std::string name = Path::basename(remotePath);
    GoogleDrive::FileMeta meta;
    if (!createFolder(name, parentId, meta)) {
        GD_LOG(LOG_ERR, "createFolder() failed, name=[%s], pid=[%s], error[%d]", name.c_str(),
               parentId.c_str(), getError());
        return false;
    }
    GD_LOG(LOG_DEBUG, "create dir [%s]: id=[%s]", remotePath.c_str(), meta.id.c_str());
    return true;
}

bool TransferAgentGoogleDrive::createContainer(std::string const& name) try {
    OperationTrace trace("createContainer", name);
    if (!isValidRelativePath(name, false)) {
        setError(ERR_BAD_REQUEST);
        return false;
    }
    GoogleDrive::FileMeta meta;
    if (statMeta(Path::join("/", name), meta)) {
        if (meta.isDir) return true;
        setError(ERR_REMOTE_NOT_DIR);
        return false;
    }
    if (getError() != ERR_REMOTE_NOT_FOUND) {
        GD_LOG(LOG_ERR, "statMeta failed, error[%d]", getError());
        return false;
    }
    meta = GoogleDrive::FileMeta();
    if (!createFolder(name, "root", meta)) {
        GD_LOG(LOG_ERR, "createFolder(/%s) failed, error[%d]", name.c_str(), getError());
        return false;
    }
    GD_LOG(LOG_DEBUG, "create container [%s], id=[%s]", name.c_str(), meta.id.c_str());
    return true;
}
GD_CATCH_AT_EDGE("createContainer")

bool TransferAgentGoogleDrive::removeExisting(std::string const& remotePath, bool wantDir) {
    GoogleDrive::FileMeta meta;
    int const before = getError();
    bool found = findConfirmedMeta(remotePath, meta);
    // Nothing there may only mean that a folder on the way was replaced; the
    // 2003 of that first look must not tell the engine "already gone".
    if (!found && getError() == ERR_REMOTE_NOT_FOUND && droppedStalePlacement(remotePath)) {
        setError(before);
        found = findConfirmedMeta(remotePath, meta);
    }
    if (!found) {
        // Already gone is success; 2003 stays readable in the error state.
        if (getError() == ERR_REMOTE_NOT_FOUND) return true;
        GD_LOG(LOG_ERR, "findFileMetaByPath(%s) failed, error[%d]", remotePath.c_str(), getError());
        return false;
    }
    if (meta.isDir && !wantDir) {
        GD_LOG(LOG_ERR, "Error: [%s] is not a regular file, is dir", remotePath.c_str());
        setError(ERR_REMOTE_IS_DIR);
        return false;
    }
    if (!meta.isDir && wantDir) {
        GD_LOG(LOG_ERR, "Error: [%s] is not a dir", remotePath.c_str());
        setError(ERR_REMOTE_NOT_DIR);
        return false;
    }
    // One request even for a folder: the service deletes its content with it.
    if (removeObject(meta.id)) return true;
    // Deleted elsewhere since it was looked up: the wanted end state, and 2003
    // stays readable as for a path that was missing from the start.
    return getError() == ERR_REMOTE_NOT_FOUND;
}

bool TransferAgentGoogleDrive::removeFile(std::string const& path) try {
    OperationTrace trace("removeFile", path);
    if (getContainer().empty() || !isValidFileRelativePath(path, false)) {
        setError(ERR_BAD_ARGUMENT);
        return false;
    }
    return removeExisting(getRemotePath(path, true), false);
}
GD_CATCH_AT_EDGE("removeFile")

bool TransferAgentGoogleDrive::removeDirRecursive(std::string const& path) try {
    OperationTrace trace("removeDirRecursive", path);
    if (getContainer().empty() || !isValidRelativePath(path, false)) {
        setError(ERR_BAD_ARGUMENT);
        return false;
    }
    return removeExisting(getRemotePath(path, true), true);
}
GD_CATCH_AT_EDGE("removeDirRecursive")

bool TransferAgentGoogleDrive::isExist(std::string const& path) try {
    OperationTrace trace("isExist", path);
    FileInfo info(path);
    return statInfo(path, info);
}
GD_CATCH_AT_EDGE("isExist")

bool TransferAgentGoogleDrive::isFileExist(std::string const& path) try {
    OperationTrace trace("isFileExist", path);
    FileInfo info(path);
    if (!statInfo(path, info)) return false;
    if (!info.isRegType()) {
        setError(ERR_REMOTE_IS_DIR);
        return false;
    }
    return true;
}
GD_CATCH_AT_EDGE("isFileExist")

bool TransferAgentGoogleDrive::stat(std::string const& path, FileInfo& info) try {
    OperationTrace trace("stat", path);
    return statInfo(path, info);
}
GD_CATCH_AT_EDGE("stat")

}  // namespace Backup
}  // namespace TAVO
