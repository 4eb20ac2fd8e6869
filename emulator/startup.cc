#include "startup.h"

#include <fstream>

namespace DriveEmulator {

namespace {

bool isBase64Char(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '/' || c == '-' || c == '_';
}

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

bool isValidBase64(std::string const& text) {
    size_t data = text.size();
    while (data > 0 && text[data - 1] == '=') --data;
    size_t padding = text.size() - data;
    if (data == 0 || padding > 2) return false;
    for (size_t i = 0; i < data; ++i) {
        if (!isBase64Char(text[i])) return false;
    }
    if (data % 4 == 1) return false;  // no byte string encodes to that length
    return padding == 0 || text.size() % 4 == 0;
}

std::string environmentProblem(EnvLookup const& env) {
    char const* refresh = env("GOOGLEDRIVE_REFRESH_TOKEN");
    if (!refresh) return "missing environment variable GOOGLEDRIVE_REFRESH_TOKEN";
    if (!isValidBase64(refresh)) {
        return "GOOGLEDRIVE_REFRESH_TOKEN is not a valid base64 string";
    }
    for (char const* name :
         {"GOOGLEDRIVE_CLIENT_ID", "GOOGLEDRIVE_CLIENT_SECRET", "TAVO_USER_AGENT"}) {
        char const* value = env(name);
        if (!value || !*value) return std::string("missing environment variable ") + name;
    }
    return std::string();
}

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
