// Node cache attachment, persistence and verification against the service.
#include <unistd.h>

#include <cstdio>

#include "backup/error.h"
#include "backup/path.h"
#include "plugin_log.h"
#include "transfer_googledrive.h"

namespace TAVO {
namespace Backup {
namespace {
char const kLogSource[] = "transfer_googledrive";
char const kNodeCacheFile[] = "ta_cache.node";
}  // namespace

bool TransferAgentGoogleDrive::checkAndInitCache() {
    if (_is_cache_inited) return true;
    std::string dir = TargetCache::getCachePath(getRepository(), _target_id);
    if (!dir.empty()) {
        GD_LOG(LOG_DEBUG, "cache_path=[%s]", dir.c_str());
        if (!enableNodeCache(Path::join(dir, kNodeCacheFile))) {
            GD_LOG(LOG_ERR, "enable node cache failed");
        }
    } else {
        GD_LOG(LOG_DEBUG, "cache_path is empty");
    }
    // Attempted once per agent whatever happened: a broken cache folder makes
    // the cache memory-only rather than failing every operation.
    _is_cache_inited = true;
    return true;
}

bool TransferAgentGoogleDrive::enableNodeCache(std::string const& path) {
    _cache_path = path;
    if (path.empty()) {
        GD_LOG(LOG_ERR, "invalid path for node cache");
        return false;
    }
    if (!_node_cache.load(path)) {
        // Stays attached: the next flush writes a good file over the bad one.
        GD_LOG(LOG_DEBUG, "load node cache failed");
    }
    if (_dump_node_cache) _node_cache.dump(stderr);
    GD_LOG(LOG_DEBUG, "node cache enabled on [%s]", path.c_str());
    return true;
}

void TransferAgentGoogleDrive::freezeNodeCache(bool freeze) { _update_node_cache = !freeze; }

bool TransferAgentGoogleDrive::dropNodeCache() {
    _node_cache.clear();
    if (!_cache_path.empty()) _node_cache.save(_cache_path);
    return true;
}

bool TransferAgentGoogleDrive::flushCache() {
    if (_cache_path.empty()) return true;
    return _node_cache.save(_cache_path);
}

bool TransferAgentGoogleDrive::verifyNode(std::string const& remotePath, bool mustBeCached) {
    std::string id;
    if (!findNodeIdByPath(true, remotePath, id)) {
        if (!mustBeCached) return true;
        GD_LOG(LOG_ERR, "missing [%s] in cache", remotePath.c_str());
        return false;
    }
    std::string parentId;
    if (!findNodeIdByPath(true, Path::dirname(remotePath), parentId)) {
        GD_LOG(LOG_ERR, "internal error: [%s]'s parent not found", remotePath.c_str());
        return false;
    }
    GoogleDrive::FileMeta meta;
    if (!getObjectMeta(id, meta)) {
        if (getError() == ERR_REMOTE_NOT_FOUND) {
            GD_LOG(LOG_ERR, "missing [%s] in cloud", remotePath.c_str());
        }
        return false;
    }
    if (Path::basename(remotePath) != meta.name) {
        GD_LOG(LOG_ERR, "node has been renamed, [%s]", remotePath.c_str());
        return false;
    }
    if (meta.parents.count(parentId) == 0) {
        GD_LOG(LOG_ERR, "node not below the original parent, [%s]", remotePath.c_str());
        return false;
    }
    return true;
}

bool TransferAgentGoogleDrive::checkCache() {
    struct LayoutEntry {
        char const* rpath;
        bool mustBeCached;
    };
    // The fixed entries of a backup target; other entries are not verified:
    // a stale one surfaces later as a failed request.
    static LayoutEntry const kLayout[] = {
        {"", true},        {"tavobkpinfo.db", false},   {"Pool", true},
        {"Control", true}, {"_Tavo_TaskConfig", false}, {"TavonicsCoffervault.bkpi", false},
    };

    freezeNodeCache(true);
    std::string container = getContainer();
    bool containerFailed = false;
    if (!container.empty()) {
        containerFailed = !verifyNode(Path::join("/", container), true);
    }
    if (!container.empty() && !getTargetId().empty()) {
        for (auto const& entry : kLayout) {
            if (!verifyNode(getRemotePath(entry.rpath, true), entry.mustBeCached)) {
                freezeNodeCache(false);
                GD_LOG(LOG_ERR, "(%d:%p) drop node cache", getpid(), static_cast<void*>(this));
                dropNodeCache();
                return true;
            }
        }
    }
    freezeNodeCache(false);
    if (containerFailed) {
        GD_LOG(LOG_ERR, "(%d:%p) drop node cache", getpid(), static_cast<void*>(this));
        dropNodeCache();
    }
    return true;
}

}  // namespace Backup
}  // namespace TAVO
