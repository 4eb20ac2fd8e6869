// The plug-in module loaded as the engine loads it: dlopen, then its
// exported getTransferAgent.
#pragma once

#include <memory>
#include <string>

#include "backup/transfer_agent.h"

namespace gdhost {

class PluginModule {
  public:
    PluginModule() = default;
    // Unloads the module; every agent it made must be gone by then.
    ~PluginModule();
    PluginModule(PluginModule const&) = delete;
    PluginModule& operator=(PluginModule const&) = delete;

    // Loads the module at `path`; false with `error` set (dlerror's text)
    // when it cannot be loaded or lacks getTransferAgent.
    bool load(std::string const& path, std::string& error);

    // A new agent for `repository` (which must outlive it); null when the
    // module declines.
    std::unique_ptr<TAVO::Backup::TransferAgent> makeAgent(
        TAVO::Backup::Repository const& repository) const;

  private:
    void* _handle = nullptr;
    TAVO::Backup::TransferAgent* (*_get_agent)(TAVO::Backup::Repository const&) = nullptr;
};

}  // namespace gdhost
