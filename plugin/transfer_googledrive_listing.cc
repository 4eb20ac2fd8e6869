// Directory listings: one folder's children, a folder tree depth first, and
// the top of the Drive.
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

bool TransferAgentGoogleDrive::listChildrenMeta(GoogleDrive::FileMeta const& parent,
                                                std::list<GoogleDrive::FileMeta>& list) {
    if (!parent.isDir) {
        GD_LOG(LOG_ERR, "Error: [%s] is not a directory.", parent.name.c_str());
        setError(ERR_REMOTE_NOT_DIR);
        return false;
    }
    list.clear();
    if (!listObjects(parent.id, "", list)) {
        GD_LOG(LOG_ERR, "listObjects() failed, parent folder: id=[%s], name=[%s], error[%d]",
               parent.id.c_str(), parent.name.c_str(), getError());
        return false;
    }
    return true;
}

bool TransferAgentGoogleDrive::listChildrenInfo(GoogleDrive::FileMeta const& parent,
                                                std::list<FileInfo>& list) {
    std::list<GoogleDrive::FileMeta> children;
    if (!listChildrenMeta(parent, children)) {
        GD_LOG(LOG_ERR, "listChildrenMeta() failed, parent folder: id=[%s], name=[%s], error[%d]",
               parent.id.c_str(), parent.name.c_str(), getError());
        return false;
    }
    list.clear();
    for (auto const& child : children) {
        FileInfo info(child.name);
        if (!fileMetaToFileInfo(child, info)) {
            GD_LOG(LOG_ERR, "Failed to convert file_meta to file_info. pid=[%s], name=[%s]",
                   parent.id.c_str(), child.name.c_str());
            setError(ERR_GENERAL);
            return false;
        }
        list.push_back(info);
    }
    return true;
}

bool TransferAgentGoogleDrive::listChildrenRecursive(std::string const& rpath,
                                                     GoogleDrive::FileMeta const& parent,
                                                     ListHook callback, void* arg) {
    if (isCanceled()) {
        setError(ERR_CANCELED);
        return false;
    }
    std::list<GoogleDrive::FileMeta> children;
    if (!listChildrenMeta(parent, children)) {
        GD_LOG(LOG_ERR, "listChildrenMeta() failed, error[%d]", getError());
        return false;
    }
    return visitChildren(rpath, parent, children, callback, arg);
}

bool TransferAgentGoogleDrive::visitChildren(std::string const& rpath,
                                             GoogleDrive::FileMeta const& parent,
                                             std::list<GoogleDrive::FileMeta> const& children,
                                             ListHook callback, void* arg) {
    for (auto const& child : children) {
        FileInfo info(Path::join(rpath, child.name));
        if (!fileMetaToFileInfo(child, info)) {
            GD_LOG(LOG_ERR, "Failed to convert file_meta to file_info. pid=[%s], name=[%s]",
                   parent.id.c_str(), child.name.c_str());
            setError(ERR_GENERAL);
            return false;
        }
        if (info.isDirType()) {
            // Depth first, before the later siblings, descending by id.
            if (!listChildrenRecursive(info.getRpath(), child, callback, arg)) {
                GD_LOG(LOG_ERR, "listChildrenRecursive() failed, error[%d]", getError());
                return false;
            }
        } else if (info.isRegType()) {
            if (!callback(info, arg)) {
                setError(ERR_GENERAL);
                GD_LOG(LOG_ERR, "Failed to do hook with name: [%s]", info.getRpath().c_str());
                return false;
            }
        }
    }
    return true;
}

bool TransferAgentGoogleDrive::resolveListedFolder(std::string const& path,
                                                   GoogleDrive::FileMeta& folder) {
    std::string remotePath = getRemotePath(path, true);
    if (!findConfirmedMeta(remotePath, folder, false)) {
        GD_LOG(LOG_ERR, "findFileMetaByPath(%s) failed, error[%d]", remotePath.c_str(), getError());
        return false;
    }
    return true;
}

bool TransferAgentGoogleDrive::listDir(std::string const& path, std::list<FileInfo>& list) try {
    OperationTrace trace("listDir", path);
    list.clear();
    if (getContainer().empty() || !isValidRelativePath(path, true)) {
        setError(ERR_BAD_ARGUMENT);
        return false;
    }
    GoogleDrive::FileMeta folder;
    bool listed = resolveListedFolder(path, folder) && listChildrenInfo(folder, list);
    if (placedFolderLooksGone(listed, list.empty(), folder, path)) {
        listed = resolveListedFolder(path, folder) && listChildrenInfo(folder, list);
    }
    return listed;
}
GD_CATCH_AT_EDGE("listDir")

bool TransferAgentGoogleDrive::placedFolderLooksGone(bool listed, bool empty,
                                                     GoogleDrive::FileMeta const& folder,
                                                     std::string const& path) {
    // Drive lists nothing, without an error, below a folder id that no longer
    // exists: an empty listing of a folder the cache placed proves nothing.
    bool suspect = listed ? empty && folder.status.empty() : getError() == ERR_REMOTE_NOT_FOUND;
    return suspect && droppedStalePlacement(getRemotePath(path, true));
}

bool TransferAgentGoogleDrive::listDirRecursive(std::string const& path, ListHook hook,
                                                void* arg) try {
    OperationTrace trace("listDirRecursive", path);
    if (getContainer().empty() || !isValidRelativePath(path, true) || hook.empty()) {
        setError(ERR_BAD_ARGUMENT);
        return false;
    }
    GoogleDrive::FileMeta folder;
    std::list<GoogleDrive::FileMeta> children;
    bool listed = resolveListedFolder(path, folder) && listChildrenMeta(folder, children);
    if (placedFolderLooksGone(listed, children.empty(), folder, path)) {
        listed = resolveListedFolder(path, folder) && listChildrenMeta(folder, children);
    }
    return listed && visitChildren("", folder, children, hook, arg);
}
GD_CATCH_AT_EDGE("listDirRecursive")

bool TransferAgentGoogleDrive::listContainer(std::list<FileInfo>& list) try {
    OperationTrace trace("listContainer", "");
    GoogleDrive::FileMeta root;
    if (!findFileMetaByPath(false, "/", root)) {
        GD_LOG(LOG_ERR, "findFileMetaByPath(/) failed, error[%d]", getError());
        return false;
    }
    return listChildrenInfo(root, list);
}
GD_CATCH_AT_EDGE("listContainer")

}  // namespace Backup
}  // namespace TAVO
