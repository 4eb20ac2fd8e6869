// Node cache attachment, persistence and verification against the service.
#include <unistd.h>

#include <cstdio>

#include "backup/error.h"
#include "backup/path.h"
#include "plugin_log.h"
#include "transfer_googledrive.h"
#include "transfer_googledrive_edge.h"

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

void TransferAgentGoogleDrive::freezeNodeCache(bool freeze) {
    // A frozen cache misses what is made or listed meanwhile.
    if (freeze) _whole_folders.clear();
    _update_node_cache = !freeze;
}

bool TransferAgentGoogleDrive::dropNodeCache() {
    _node_cache.clear();
    _whole_folders.clear();
    if (!_cache_path.empty()) _node_cache.save(_cache_path);
    return true;
}

bool TransferAgentGoogleDrive::flushCache() try {
    if (_cache_path.empty()) return true;
    return _node_cache.save(_cache_path);
}
GD_CATCH_AT_EDGE("flushCache")

bool TransferAgentGoogleDrive::verifyNode(std::string const& remotePath, bool mustBeCached) {
    return checkNode(remotePath, mustBeCached) == NodeCheck::Holds;
}

TransferAgentGoogleDrive::NodeCheck TransferAgentGoogleDrive::checkNode(
    std::string const& remotePath, bool mustBeCached) {
    std::string id;
    if (!findNodeIdByPath(true, remotePath, id)) {
        if (!mustBeCached) return NodeCheck::Holds;
        // Absent from the cache and from the service alike is no disagreement
        // (a target without the engine's layout).
        GoogleDrive::FileMeta meta;
        if (findFileMetaByPath(false, remotePath, meta)) {
            GD_LOG(LOG_ERR, "missing [%s] in cache", remotePath.c_str());
            return NodeCheck::Mismatch;
        }
        if (getError() == ERR_REMOTE_NOT_FOUND) return NodeCheck::Holds;
        GD_LOG(LOG_ERR, "cannot check [%s], error[%d]", remotePath.c_str(), getError());
        return NodeCheck::Unknown;
    }
    std::string parentId;
    if (!findNodeIdByPath(true, Path::dirname(remotePath), parentId)) {
        GD_LOG(LOG_ERR, "internal error: [%s]'s parent not found", remotePath.c_str());
        return NodeCheck::Mismatch;
    }
    GoogleDrive::FileMeta meta;
    if (!getObjectMeta(id, meta)) {
        if (getError() == ERR_REMOTE_NOT_FOUND) {
            GD_LOG(LOG_ERR, "missing [%s] in cloud", remotePath.c_str());
            return NodeCheck::Mismatch;
        }
        // A service or drive agent failure proves nothing about the cache.
        GD_LOG(LOG_ERR, "cannot check [%s], error[%d]", remotePath.c_str(), getError());
        return NodeCheck::Unknown;
    }
    if (Path::basename(remotePath) != meta.name) {
        GD_LOG(LOG_ERR, "node has been renamed, [%s]", remotePath.c_str());
        return NodeCheck::Mismatch;
    }
    if (meta.parents.count(parentId) == 0) {
        GD_LOG(LOG_ERR, "node not below the original parent, [%s]", remotePath.c_str());
        return NodeCheck::Mismatch;
    }
    return NodeCheck::Holds;
}

bool TransferAgentGoogleDrive::checkCache() try {
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

    // The cache is dropped only on proof that it is wrong: dropping it on a
    // passing failure would also throw away what protects the walks against
    // the lag of Drive's name listings.
    // Thawed on every way out, an exception included: a cache left frozen
    // would stop learning for the rest of the agent's life.
    struct Thaw {
        TransferAgentGoogleDrive& agent;
        ~Thaw() { agent.freezeNodeCache(false); }
    } thaw{*this};
    freezeNodeCache(true);
    std::string container = getContainer();
    NodeCheck containerCheck = NodeCheck::Holds;
    if (!container.empty()) containerCheck = checkNode(Path::join("/", container), true);
    bool verified = containerCheck != NodeCheck::Unknown;
    if (verified && !container.empty() && !getTargetId().empty()) {
        for (auto const& entry : kLayout) {
            NodeCheck check = checkNode(getRemotePath(entry.rpath, true), entry.mustBeCached);
            if (check == NodeCheck::Unknown) {
                verified = false;
                break;
            }
            if (check == NodeCheck::Mismatch) {
                freezeNodeCache(false);
                GD_LOG(LOG_ERR, "(%d:%p) drop node cache", getpid(), static_cast<void*>(this));
                dropNodeCache();
                return true;
            }
        }
    }
    freezeNodeCache(false);
    if (containerCheck == NodeCheck::Mismatch) {
        GD_LOG(LOG_ERR, "(%d:%p) drop node cache", getpid(), static_cast<void*>(this));
        dropNodeCache();
    } else if (!verified) {
        GD_LOG(LOG_ERR, "(%d:%p) node cache not verified, kept", getpid(),
               static_cast<void*>(this));
    }
    return true;
}
GD_CATCH_AT_EDGE("checkCache")

}  // namespace Backup
}  // namespace TAVO
