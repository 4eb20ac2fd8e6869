#include "destination.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>

#include "drive_control.h"

namespace gdhost {

using TAVO::Backup::Repository;

namespace {

std::string defaultProfile() {
    char const* xdg = getenv("XDG_CONFIG_HOME");
    if (xdg && *xdg) return std::string(xdg) + "/gdrive_host/profile";
    char const* home = getenv("HOME");
    return std::string(home && *home ? home : ".") + "/.config/gdrive_host/profile";
}

}  // namespace

void addDestinationOptions(CLI::App& app, Destination& d) {
    // CLI11 reads the profile before it looks at environment variables, so
    // GDRIVE_PROFILE has to become the default here.
    char const* profile = getenv("GDRIVE_PROFILE");
    app.set_config("--profile", profile && *profile ? profile : defaultProfile(),
                   "profile file of destination settings, lines \"key = value\" named as these "
                   "options (env GDRIVE_PROFILE; default ~/.config/gdrive_host/profile)");
    app.add_option("--container", d.container, "top-level Drive folder of the backups")
        ->envname("GDRIVE_CONTAINER")
        ->capture_default_str();
    app.add_option("--target", d.target, "target id: the backup's folder in the container")
        ->envname("GDRIVE_TARGET")
        ->capture_default_str();
    app.add_option("--refresh-token", d.refreshToken, "OAuth refresh token of the account")
        ->envname("GDRIVE_REFRESH_TOKEN");
    app.add_option("--cache-dir", d.cacheDir,
                   "engine cache folder (node cache); default DATA/cache")
        ->envname("GDRIVE_CACHE_DIR");
    app.add_option("--data-dir", d.dataDir,
                   "embedded emulator's folder; default $XDG_DATA_HOME/gdrive_host")
        ->envname("GDRIVE_DATA_DIR");
    app.add_option("--plugin", d.plugin, "plug-in module to load")
        ->envname("GDRIVE_PLUGIN")
        ->capture_default_str();
}

void warnUnknownProfileKeys(std::string const& profile) {
    static std::set<std::string> const kKeys = {"container", "target",   "refresh-token",
                                                "cache-dir", "data-dir", "plugin"};
    std::ifstream in(profile);
    int number = 0;
    for (std::string line; std::getline(in, line);) {
        ++number;
        size_t equals = line.find('=');
        size_t first = line.find_first_not_of(" \t");
        if (equals == std::string::npos || first == equals || line[first] == '#' ||
            line[first] == ';') {
            continue;
        }
        std::string key = line.substr(first, line.find_last_not_of(" \t", equals - 1) + 1 - first);
        std::string dashed = key;
        std::replace(dashed.begin(), dashed.end(), '_', '-');
        if (!kKeys.count(dashed)) {
            fprintf(stderr, "gdrive_host: %s:%d: unknown key %s ignored\n", profile.c_str(), number,
                    key.c_str());
        }
    }
}

std::string emulatorAccountFolder(Destination const& d) { return d.dataDir + "/account"; }

namespace {

// `relative` resolved against the folder of the running executable when that
// names an existing file (an installed tool finds its installed companions);
// else empty.
std::string besideTool(std::string const& relative) {
    std::error_code error;
    std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error) return "";
    std::filesystem::path candidate = self.parent_path() / relative;
    return std::filesystem::exists(candidate, error) ? candidate.lexically_normal().string() : "";
}

std::string defaultDataDir() {
    char const* xdg = getenv("XDG_DATA_HOME");
    if (xdg && *xdg) return std::string(xdg) + "/gdrive_host";
    char const* home = getenv("HOME");
    return std::string(home && *home ? home : ".") + "/.local/share/gdrive_host";
}

}  // namespace

std::string defaultPluginPath() {
    std::string installed = besideTool(INSTALLED_PLUGIN_FROM_BINDIR);
    return installed.empty() ? BUILT_PLUGIN_PATH : installed;
}

bool prepareDestination(Destination& d, std::string& error) {
    if (d.dataDir.empty()) d.dataDir = defaultDataDir();
    if (d.cacheDir.empty()) d.cacheDir = d.dataDir + "/cache";
    if (getenv("TAVO_ROOT")) return true;
    std::string root = d.dataDir + "/agent-root";
    try {
        DriveEmulator::makeAgentRoot(root, emulatorAccountFolder(d));
        // The layout names the emulator of the build tree; an installed tool
        // uses the one installed beside it.
        std::string installed = besideTool("drive_emulator");
        if (!installed.empty()) {
            std::string program = root + DriveEmulator::kAgentProgram;
            std::filesystem::remove(program);
            std::filesystem::create_symlink(installed, program);
        }
    } catch (std::exception const& e) {
        error = "cannot lay out the emulator in " + d.dataDir + ": " + e.what();
        return false;
    }
    setenv("TAVO_ROOT", root.c_str(), 1);
    unsetenv("DRIVE_EMULATOR_DATA");
    return true;
}

Repository makeRepository(Destination const& d) {
    Repository repository;
    repository.options().set(Repository::SZK_REMOTE_BUCKET, d.container);
    repository.options().set(Repository::SZK_REMOTE_REFRESH_TOKEN, d.refreshToken);
    repository.setCacheRoot(d.cacheDir);
    return repository;
}

std::string nodeCacheFile(Destination const& d) {
    return d.cacheDir + "/" + d.target + "/ta_cache.node";
}

}  // namespace gdhost
