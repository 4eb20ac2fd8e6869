// Path resolution: a remote path is walked one component at a time from the
// Drive root, asking the node cache first and the service only on a miss.
#include <algorithm>
#include <vector>

#include "backup/error.h"
#include "backup/path.h"
#include "backup/path_check.h"
#include "plugin_log.h"
#include "transfer_googledrive.h"
#include "transfer_googledrive_names.h"

namespace TAVO {
namespace Backup {
namespace {
char const kLogSource[] = "transfer_googledrive";
}  // namespace

bool TransferAgentGoogleDrive::findFileMetaByPidName(bool cacheOnly, std::string const& pid,
                                                     std::string const& name,
                                                     GoogleDrive::FileMeta& meta) {
    GD_LOG(LOG_DEBUG, "@findFileMetaBy Pid[%s] Name[%s]", pid.c_str(), name.c_str());
    if (!pid.empty() && name.empty()) {
        GD_LOG(LOG_ERR, "invalid pid=[%s] with empty name", pid.c_str());
        setError(ERR_BAD_ARGUMENT);
        return false;
    }
    if (!checkAndInitCache()) {
        GD_LOG(LOG_ERR, "Failed to init cache");
        return false;
    }
    if (_node_cache.find(pid, name, meta)) return true;
    if (cacheOnly) {
        GD_LOG(LOG_ERR, "only use cache but not found <pid, name> = <%s, %s>", pid.c_str(),
               name.c_str());
        setError(ERR_GENERAL);
        return false;
    }
    if (pid.empty() && name.empty()) {
        if (!getObjectMeta("root", meta)) {
            GD_LOG(LOG_ERR, "getObjectMeta(root) failed, error[%d]", getError());
            return false;
        }
        return true;
    }
    std::list<GoogleDrive::FileMeta> found;
    if (!listObjects(pid, name, found)) {
        GD_LOG(LOG_ERR, "listObjects failed: pid=[%s], name=[%s], error[%d]", pid.c_str(),
               name.c_str(), getError());
        return false;
    }
    // Drive's name filter ignores case; the engine's file system does not, so
    // "A" beside "a" is another file, never this one.
    auto otherName = [&name](GoogleDrive::FileMeta const& m) { return m.name != name; };
    found.remove_if(otherName);
    if (found.empty() && _creations_in_doubt.count({pid, name}) != 0) {
        // A creation of this name lost its answer: name listings lag behind
        // writes, a listing of the whole folder does not.
        if (!listObjects(pid, "", found)) {
            GD_LOG(LOG_ERR, "listObjects failed: pid=[%s], name=[%s], error[%d]", pid.c_str(), "",
                   getError());
            return false;
        }
        _creations_in_doubt.erase({pid, name});
        found.remove_if(otherName);
    }
    if (found.empty()) {
        GD_LOG(LOG_DEBUG, "not found, pid=%s, name=%s", pid.c_str(), name.c_str());
        setError(ERR_REMOTE_NOT_FOUND);
        return false;
    }
    if (found.size() > 1) {
        switch (settleDuplicates(pid, name, found, meta)) {
            case Settled::Kept:
                return true;
            case Settled::Stopped:
                return false;
            case Settled::Refused:
                break;
        }
        // No tie-break: picking one of two different objects could overwrite
        // or restore the wrong file.
        GD_LOG(LOG_ERR, "list more than one children with the same name, pid=%s,name=%s",
               pid.c_str(), name.c_str());
        setError(ERR_GENERAL);
        return false;
    }
    meta = found.front();
    return true;
}

bool TransferAgentGoogleDrive::knownAbsent(std::string const& pid, std::string const& name) {
    // A frozen cache does not learn what this agent makes or lists; a
    // creation in doubt may have made the name unseen.
    GoogleDrive::FileMeta cached;
    if (pid.empty() || name.empty() || !_update_node_cache || !_whole_folders.whole(pid) ||
        _creations_in_doubt.count({pid, name}) != 0 || _node_cache.find(pid, name, cached)) {
        return false;
    }
    GD_LOG(LOG_DEBUG, "folder [%s] is known whole: [%s] not there, not asked for", pid.c_str(),
           name.c_str());
    return true;
}

TransferAgentGoogleDrive::Settled TransferAgentGoogleDrive::settleDuplicates(
    std::string const& pid, std::string const& name, std::list<GoogleDrive::FileMeta> const& found,
    GoogleDrive::FileMeta& kept) {
    // A retried upload whose first answer was lost leaves such copies behind;
    // without this the name could never be resolved again. Only files are
    // settled: whether a folder is empty cannot be proved against lagging
    // listings, and deleting one deletes all it holds.
    auto const& first = found.front();
    for (auto const& meta : found) {
        if (meta.isDir || meta.md5Checksum.empty() || meta.md5Checksum != first.md5Checksum ||
            meta.size != first.size) {
            return Settled::Refused;
        }
    }
    // A copy that also lives in another folder is kept: deleting it would
    // take it from there too.
    auto elsewhere = [&pid](GoogleDrive::FileMeta const& m) {
        return m.parents.size() != 1 || m.parents.count(pid) == 0;
    };
    auto older = [](GoogleDrive::FileMeta const& a, GoogleDrive::FileMeta const& b) {
        return a.lastModified != b.lastModified ? a.lastModified < b.lastModified : a.id < b.id;
    };
    GoogleDrive::FileMeta const* keep = nullptr;
    for (auto const& meta : found) {
        if (!elsewhere(meta)) continue;
        if (keep != nullptr) return Settled::Refused;
        keep = &meta;
    }
    if (keep == nullptr) keep = &*std::min_element(found.begin(), found.end(), older);

    // A removal that fails leaves a copy that does no harm (the next lookup
    // settles it) and no code behind once the lookup has succeeded.
    int const before = getError();
    for (auto const& meta : found) {
        if (&meta == keep) continue;
        GD_LOG(LOG_WARNING, "removing duplicate [%s] id=[%s], keeping id=[%s]", name.c_str(),
               meta.id.c_str(), keep->id.c_str());
        if (removeObject(meta.id)) continue;
        if (getError() == ERR_CANCELED) return Settled::Stopped;
        GD_LOG(LOG_ERR, "removing duplicate id=[%s] failed, error[%d]", meta.id.c_str(),
               getError());
    }
    setError(before);
    kept = *keep;
    if (_update_node_cache) _node_cache.insert(kept);
    return Settled::Kept;
}

bool TransferAgentGoogleDrive::findFileMetaByPath(bool cacheOnly, std::string const& path,
                                                  GoogleDrive::FileMeta& meta) {
    return walkPath(cacheOnly, path, meta, nullptr, nullptr);
}

bool TransferAgentGoogleDrive::walkPath(bool cacheOnly, std::string const& path,
                                        GoogleDrive::FileMeta& meta,
                                        std::vector<std::string>* partsTaken,
                                        std::vector<GoogleDrive::FileMeta>* steps) {
    GD_LOG(LOG_DEBUG, "@findFileMetaByPath(%s)", path.c_str());
    std::vector<std::string> parts;
    if (!Path::split(path, parts)) {
        GD_LOG(LOG_ERR, "split path [%s] failed", path.c_str());
        setError(ERR_GENERAL);
        return false;
    }
    if (parts.empty()) {
        GD_LOG(LOG_ERR, "invalid list size [%s]", path.c_str());
        setError(ERR_GENERAL);
        return false;
    }
    // The first component stands for the root, whatever it holds.
    parts[0].clear();

    if (steps != nullptr) steps->clear();
    std::string parent;
    GoogleDrive::FileMeta step;
    // Folders the service has just listed below confirmed ones are confirmed
    // too: a later delete need not ask for them again.
    bool chainConfirmed = true;
    for (auto const& component : parts) {
        if (!findFileMetaByPidName(cacheOnly, parent, component, step)) {
            GD_LOG(LOG_DEBUG, "findFileMetaBy Pid[%s] Name[%s] failed, error[%d]", parent.c_str(),
                   component.c_str(), getError());
            return false;
        }
        if (!parent.empty() && step.isDir && chainConfirmed) {
            if (!step.status.empty()) {
                _confirmed_folders.confirm(step.id);
            } else {
                chainConfirmed = _confirmed_folders.trusted(step.id);
            }
        }
        parent = step.id;
        if (steps != nullptr) steps->push_back(step);
    }
    meta = step;
    if (partsTaken != nullptr) *partsTaken = std::move(parts);
    return true;
}

bool TransferAgentGoogleDrive::findNodeIdByPath(bool cacheOnly, std::string const& path,
                                                std::string& id) {
    GoogleDrive::FileMeta meta;
    if (!findFileMetaByPath(cacheOnly, path, meta)) return false;
    id = meta.id;
    return true;
}

bool TransferAgentGoogleDrive::statMeta(std::string const& path, GoogleDrive::FileMeta& meta) {
    if (!findFileMetaByPath(false, path, meta)) {
        GD_LOG(LOG_DEBUG, "findFileMetaByPath(%s) failed, error[%d]", path.c_str(), getError());
        return false;
    }
    // A cache hit carries no size, time, checksum or trash state: ask for them.
    if (meta.status.empty()) {
        std::string id = meta.id;
        if (!getObjectMeta(id, meta)) {
            GD_LOG(LOG_DEBUG, "getObjectMeta(%s) failed, error[%d]", id.c_str(), getError());
            if (getError() != ERR_REMOTE_NOT_FOUND) return false;
            // The remembered object is gone (and forgotten); the path may name
            // another one now. Taken for absent, it would be uploaded twice.
            if (!findFileMetaByPath(false, path, meta)) return false;
            if (meta.status.empty()) return getObjectMeta(meta.id, meta);
        }
    }
    return true;
}

bool TransferAgentGoogleDrive::statMetaConfirmingAbsence(std::string const& path,
                                                         GoogleDrive::FileMeta& meta) {
    // The last step is always asked: a status wants the object's details.
    auto confirmedMeta = [&] { return findConfirmedMeta(path, meta, true); };
    if (confirmedMeta()) return true;
    // Nothing under a folder the cache placed may mean a replaced folder.
    return getError() == ERR_REMOTE_NOT_FOUND && droppedStalePlacement(path) && confirmedMeta();
}

bool TransferAgentGoogleDrive::statInfo(std::string const& rpath, FileInfo& info) {
    if (getContainer().empty() || !isValidRelativePath(rpath, false)) {
        setError(ERR_BAD_ARGUMENT);
        return false;
    }
    std::string remotePath = getRemotePath(rpath, true);
    GoogleDrive::FileMeta meta;
    if (!statMetaConfirmingAbsence(remotePath, meta)) {
        GD_LOG(LOG_DEBUG, "statMeta(%s) failed, error[%d]", remotePath.c_str(), getError());
        return false;
    }
    if (!fileMetaToFileInfo(meta, info)) {
        GD_LOG(LOG_ERR, "Failed to convert file meta to file info. path=[%s]", rpath.c_str());
        setError(ERR_GENERAL);
        return false;
    }
    return true;
}

}  // namespace Backup
}  // namespace TAVO
