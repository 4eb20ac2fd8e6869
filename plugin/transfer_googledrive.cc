// The agent object: construction, settings, lazy connection, remote paths,
// and the plug-in's exported entry points.
#include "transfer_googledrive.h"

#include <exception>

#include "backup/error.h"
#include "backup/path.h"
#include "core/core_error.h"
#include "plugin_log.h"
#include "transfer_googledrive_edge.h"

namespace TAVO {
namespace Backup {
namespace {
char const kLogSource[] = "transfer_googledrive";
std::string const kRootPath = "/";
}  // namespace

bool failAtEdge(char const* source, int line, char const* operation) {
    try {
        throw;
    } catch (std::exception const& e) {
        syslog(LOG_ERR, "%s:%d %s: unexpected exception: %s", source, line, operation, e.what());
    } catch (...) {
        syslog(LOG_ERR, "%s:%d %s: unexpected exception", source, line, operation);
    }
    setError(ERR_GENERAL);
    return false;
}

TransferAgentGoogleDrive::TransferAgentGoogleDrive(Repository const& repository)
    : TransferAgent(repository),
      _is_cache_inited(false),
      _update_node_cache(true),
      _dump_node_cache(false) {}

TransferAgentGoogleDrive::~TransferAgentGoogleDrive() {}

bool getRemoteConnect(Repository const& repository, std::string& accessToken,
                      std::string& refreshToken) {
    OptionMap const& options = repository.getOptions();
    accessToken = options.optSecret(Repository::SZK_REMOTE_ACCESS_TOKEN, "");
    return options.optGet(Repository::SZK_REMOTE_REFRESH_TOKEN, refreshToken, true);
}

bool TransferAgentGoogleDrive::isValid() const try {
    if (getContainer().empty()) {
        setError(ERR_BAD_ARGUMENT);
        return false;
    }
    std::string accessToken, refreshToken;
    if (!getRemoteConnect(getRepository(), accessToken, refreshToken)) {
        setError(ERR_BAD_ARGUMENT);
        GD_LOG(LOG_ERR, "getRemoteConnect failed");
        return false;
    }
    return true;
}
GD_CATCH_AT_EDGE("isValid")

bool TransferAgentGoogleDrive::setTransferOption(Task const& task) try {
    _target_id = task.getTargetId();
    return true;
}
GD_CATCH_AT_EDGE("setTransferOption")

bool TransferAgentGoogleDrive::setCancelHook(CancelHook hook) try {
    if (!TransferAgent::setCancelHook(hook)) {
        setError(ERR_GENERAL);
        return false;
    }
    return _client.setCancelHook(hook);
}
GD_CATCH_AT_EDGE("setCancelHook")

bool TransferAgentGoogleDrive::checkAndCreateClient() {
    if (_client.isConnected()) return true;
    // Tokens are read anew for every start, so a token the engine renewed
    // while this agent lives is used at the next reconnection.
    std::string accessToken, refreshToken;
    if (!getRemoteConnect(getRepository(), accessToken, refreshToken)) {
        setError(ERR_BAD_ARGUMENT);
        GD_LOG(LOG_ERR, "getRemoteConnect failed");
        return false;
    }
    if (!_client.connect(accessToken, refreshToken, true)) {
        GD_LOG(LOG_ERR, "connect failed");
        int const core = TLIBCErrGet();
        setError(core == kCoreErrInvalidToken ? ERR_CREDENTIALS
                 : core == kCoreErrCanceled   ? ERR_CANCELED
                                              : ERR_GENERAL);
        return false;
    }
    return true;
}

std::string TransferAgentGoogleDrive::getContainer() const {
    return getRepository().getOptions().optString(Repository::SZK_REMOTE_BUCKET, "");
}

std::string TransferAgentGoogleDrive::getRemotePath(std::string const& path,
                                                    bool trimTrailingSlash) const {
    std::string remote = Path::join(kRootPath, getContainer(), getTargetId(), path, "", "", "");
    if (trimTrailingSlash && remote != "/") {
        size_t last = remote.find_last_not_of('/');
        remote.erase(last == std::string::npos ? 0 : last + 1);
    }
    return remote;
}

}  // namespace Backup
}  // namespace TAVO

extern "C" TAVO::Backup::TransferAgent* getTransferAgent(
    TAVO::Backup::Repository const& repository) {
    try {
        return new TAVO::Backup::TransferAgentGoogleDrive(repository);
    } catch (...) {
        TAVO::Backup::failAtEdge("transfer_googledrive", __LINE__, "getTransferAgent");
        return nullptr;
    }
}

extern "C" void* getTargetManager() { return nullptr; }

extern "C" void* getVersionManager() { return nullptr; }
