// Placements the node cache remembers, confirmed with the service before they
// are acted on: another client may have deleted, re-created, renamed or moved
// a folder since the cache learned it. A delete confirms the whole chain up to
// the root; an operation that found nothing confirms the folders on its way,
// and is tried once more when one of them no longer held.
#include <vector>

#include "backup/error.h"
#include "backup/path.h"
#include "plugin_log.h"
#include "transfer_googledrive.h"

namespace TAVO {
namespace Backup {
namespace {
char const kLogSource[] = "transfer_googledrive";
// More re-walks than a path has levels cannot happen: each drops one record.
size_t const kMaxRewalks = 64;
}  // namespace

TransferAgentGoogleDrive::Placement TransferAgentGoogleDrive::confirmStep(
    std::string const& remotePath, std::string const& name, std::string const& id,
    std::string const& parentId, GoogleDrive::FileMeta& fresh) {
    if (getObjectMeta(id, fresh)) {
        if (fresh.name == name && fresh.parents.count(parentId) != 0) {
            if (fresh.isDir) _confirmed_folders.confirm(id);
            return Placement::Holds;
        }
    } else if (getError() != ERR_REMOTE_NOT_FOUND) {
        GD_LOG(LOG_ERR, "cannot confirm [%s] id=[%s] of [%s], error[%d]", name.c_str(), id.c_str(),
               remotePath.c_str(), getError());
        return Placement::Unknown;
    }
    GD_LOG(LOG_WARNING, "cached [%s] (id=[%s]) of [%s] is no longer there, resolving again",
           name.c_str(), id.c_str(), remotePath.c_str());
    _confirmed_folders.forget(id);
    dropCachedTree(id);
    // Renamed or moved: the cache no longer knows all of either folder.
    _whole_folders.forget(id);
    _whole_folders.forget(parentId);
    return Placement::Stale;
}

TransferAgentGoogleDrive::Placement TransferAgentGoogleDrive::confirmSteps(
    std::string const& remotePath, std::vector<std::string> const& parts,
    std::vector<GoogleDrive::FileMeta>& steps, bool lastToo) {
    // steps[0] is the root, whose placement cannot change.
    for (size_t i = 1; i < steps.size() && i < parts.size(); ++i) {
        GoogleDrive::FileMeta& step = steps[i];
        bool const last = i + 1 == steps.size();
        if (!step.status.empty()) {
            // Listed by the service under the step before it, which holds.
            if (step.isDir) _confirmed_folders.confirm(step.id);
            continue;
        }
        if (step.isDir && !(last && lastToo) && _confirmed_folders.trusted(step.id)) continue;
        GoogleDrive::FileMeta fresh;
        Placement placement = confirmStep(remotePath, parts[i], step.id, steps[i - 1].id, fresh);
        if (placement != Placement::Holds) return placement;
        step = fresh;
    }
    return Placement::Holds;
}

bool TransferAgentGoogleDrive::droppedStalePlacement(std::string const& remotePath) {
    int const code = getError();
    // A confirmation that failed for a passing reason (a code worth retrying,
    // a drive agent that went away) proves nothing: the first answer stands.
    auto unconfirmed = [&] {
        bool const passing = !_response.get("success", false).asBool() &&
                             (needRetry(_response) || !_client.isConnected());
        if (passing) setError(code);
        return false;
    };
    std::vector<std::string> parts;
    if (!Path::split(remotePath, parts) || parts.empty()) return false;
    parts[0].clear();
    std::vector<GoogleDrive::FileMeta> steps(1);
    if (!findFileMetaByPidName(false, "", "", steps[0])) return unconfirmed();
    for (size_t i = 1; i < parts.size(); ++i) {
        GoogleDrive::FileMeta step;
        if (!_node_cache.find(steps.back().id, parts[i], step)) break;
        steps.push_back(step);
    }
    // The walk found nothing below the deepest folder the cache placed: when
    // that folder still exists where the cache says, the answer was true, and
    // one request settles it. Each level found gone (deleting a folder takes
    // its content along) is dropped, and the one above is asked in turn.
    bool dropped = false;
    for (size_t i = steps.size() - 1; i >= 1; --i) {
        GoogleDrive::FileMeta fresh;
        Placement placement =
            confirmStep(remotePath, parts[i], steps[i].id, steps[i - 1].id, fresh);
        if (placement == Placement::Unknown) return unconfirmed();
        if (placement == Placement::Holds) break;
        dropped = true;
    }
    if (!dropped) setError(code);
    return dropped;
}

bool TransferAgentGoogleDrive::findConfirmedMeta(std::string const& remotePath,
                                                 GoogleDrive::FileMeta& meta, bool askLast) {
    for (size_t walk = 0; walk < kMaxRewalks; ++walk) {
        std::vector<std::string> parts;
        std::vector<GoogleDrive::FileMeta> steps;
        if (!walkPath(false, remotePath, meta, &parts, &steps)) return false;
        switch (confirmSteps(remotePath, parts, steps, askLast)) {
            case Placement::Holds:
                meta = steps.back();
                return true;
            case Placement::Unknown:
                return false;
            case Placement::Stale:
                break;
        }
    }
    GD_LOG(LOG_ERR, "[%s] keeps moving, not confirmed", remotePath.c_str());
    setError(ERR_GENERAL);
    return false;
}

}  // namespace Backup
}  // namespace TAVO
