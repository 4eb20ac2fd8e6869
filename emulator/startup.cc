#include "startup.h"

#include <fstream>

namespace DriveEmulator {

namespace {

std::string folderOf(std::string const& path) {
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) return std::string();
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string readConf(std::string const& folder) {
    if (folder.empty()) return std::string();
    std::ifstream conf(folder + "/drive_emulator.conf");
    std::string line;
    if (!conf || !std::getline(conf, line)) return std::string();
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) {
        line.pop_back();
    }
    if (!line.empty() && line[0] != '/') line = folder + "/" + line;
    return line;
}

}  // namespace

std::string findDataFolder(std::string const& argv0, EnvLookup const& env) {
    char const* data = env("DRIVE_EMULATOR_DATA");
    if (data && *data) return data;
    std::string folder = readConf(folderOf(argv0));
    if (!folder.empty()) return folder;
    char const* root = env("TAVO_ROOT");
    if (root && *root) return readConf(std::string(root) + "/usr/bin");
    return std::string();
}

}  // namespace DriveEmulator
