#include "destination.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "drive_control.h"
#include "profile_edit.h"

namespace gdhost {

using TAVO::Backup::Repository;

namespace {

std::string defaultProfile() {
    char const* xdg = getenv("XDG_CONFIG_HOME");
    if (xdg && *xdg) return std::string(xdg) + "/gdrive_host/profile";
    char const* home = getenv("HOME");
    return std::string(home && *home ? home : ".") + "/.config/gdrive_host/profile";
}

// Profile keys may be written with underscores (refresh_token), as the
// unknown-key warning accepts them; CLI11 itself matches names exactly.
class ProfileFormat : public CLI::ConfigBase {
  public:
    std::vector<CLI::ConfigItem> from_config(std::istream& input) const override {
        std::stringstream text;
        text << input.rdbuf();
        refuseMalformed(text.str());
        std::vector<CLI::ConfigItem> items = CLI::ConfigBase::from_config(text);
        for (auto& item : items) std::replace(item.name.begin(), item.name.end(), '_', '-');
        return items;
    }

  private:
    // A line that is no "key = value" would be taken as a flag, and a quote
    // left open would become part of a folder's name: both are refused, by
    // line number.
    static void refuseMalformed(std::string const& text) {
        std::istringstream lines(text);
        int number = 0;
        for (std::string line; std::getline(lines, line);) {
            ++number;
            size_t first = line.find_first_not_of(" \t\r");
            if (first == std::string::npos || line[first] == '#' || line[first] == ';' ||
                line[first] == '[') {
                continue;
            }
            std::string why;
            size_t equals = line.find('=');
            if (equals == std::string::npos) {
                why = "no \"=\" between a key and its value";
            } else {
                std::string value = line.substr(equals + 1);
                value.erase(0, value.find_first_not_of(" \t"));
                value.erase(value.find_last_not_of(" \t\r") + 1);
                bool quoted = !value.empty() && (value[0] == '"' || value[0] == '\'');
                if (quoted && (value.size() < 2 || value.back() != value[0]))
                    why = "the quote that opens the value is not closed";
            }
            if (!why.empty()) {
                throw CLI::ConversionError(
                    "profile line " + std::to_string(number) + ": " + why + ": " + line,
                    CLI::ExitCodes::ConversionError);
            }
        }
    }
};

}  // namespace

void addDestinationOptions(CLI::App& app, Destination& d) {
    app.config_formatter(std::make_shared<ProfileFormat>());
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
    app.add_option("--service", d.service,
                   "who plays the Drive: the embedded emulator, or drive for the real Drive "
                   "through drive_agent")
        ->envname("GDRIVE_SERVICE")
        ->check(CLI::IsMember({"emulator", "drive"}))
        ->capture_default_str();
    app.add_option("--plugin", d.plugin, "plug-in module to load")
        ->envname("GDRIVE_PLUGIN")
        ->capture_default_str();
}

void warnUnknownProfileKeys(std::string const& profile) {
    static std::set<std::string> const kKeys = {"container", "target",   "refresh-token", "service",
                                                "cache-dir", "data-dir", "plugin"};
    std::ifstream in(profile);
    int number = 0;
    for (std::string line; std::getline(in, line);) {
        ++number;
        std::string key = profileKey(line);
        if (!key.empty() && !kKeys.count(key)) {
            key = line.substr(line.find_first_not_of(" \t"));
            key = key.substr(0, key.find_last_not_of(" \t", key.find('=') - 1) + 1);
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

namespace {

// The engine's layout of the drive agent under `root`, with drive_agent as
// its program; its OAuth client settings come from drive_agent.conf in the
// tool's configuration folder when there is one.
void layOutDriveAgent(std::string const& root) {
    namespace fs = std::filesystem;
    std::string program = root + DriveEmulator::kAgentProgram;
    std::string script = root + DriveEmulator::kAgentScript;
    fs::create_directories(fs::path(program).parent_path());
    fs::create_directories(fs::path(script).parent_path());
    std::string agent = besideTool("drive_agent");
    std::error_code ignored;
    fs::remove(program, ignored);
    fs::create_symlink(agent.empty() ? BUILT_DRIVE_AGENT : agent, program);
    if (!fs::exists(script))
        std::ofstream(script) << "# Placeholder: the drive agent is drive_agent.\n";
    std::string conf = fs::path(defaultProfile()).parent_path() / "drive_agent.conf";
    if (!getenv("DRIVE_AGENT_CONF") && fs::exists(conf))
        setenv("DRIVE_AGENT_CONF", conf.c_str(), 1);
}

}  // namespace

bool prepareDestination(Destination& d, std::string& error) {
    if (d.dataDir.empty()) d.dataDir = defaultDataDir();
    if (d.cacheDir.empty()) d.cacheDir = d.dataDir + "/cache";
    if (getenv("TAVO_ROOT")) return true;
    if (d.service == "drive") {
        std::string root = d.dataDir + "/drive-agent-root";
        try {
            layOutDriveAgent(root);
        } catch (std::exception const& e) {
            error = "cannot lay out the drive agent in " + d.dataDir + ": " + e.what();
            return false;
        }
        setenv("TAVO_ROOT", root.c_str(), 1);
        return true;
    }
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
