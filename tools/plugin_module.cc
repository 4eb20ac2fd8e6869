#include "plugin_module.h"

#include <dlfcn.h>

namespace gdhost {

PluginModule::~PluginModule() {
    if (_handle) dlclose(_handle);
}

bool PluginModule::load(std::string const& path, std::string& error) {
    _handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!_handle) {
        error = dlerror();
        return false;
    }
    _get_agent =
        reinterpret_cast<TAVO::Backup::TransferAgent* (*)(TAVO::Backup::Repository const&)>(
            dlsym(_handle, "getTransferAgent"));
    if (!_get_agent) {
        error = "no getTransferAgent in " + path;
        return false;
    }
    return true;
}

std::unique_ptr<TAVO::Backup::TransferAgent> PluginModule::makeAgent(
    TAVO::Backup::Repository const& repository) const {
    return std::unique_ptr<TAVO::Backup::TransferAgent>(_get_agent(repository));
}

}  // namespace gdhost
