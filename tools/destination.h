// Where the tool stores: the destination's settings and, when no drive agent
// is configured, the embedded emulator that plays it.
#pragma once

#include <string>

#include "backup/repository.h"

namespace CLI {
class App;
}

namespace gdhost {

struct Destination {
    std::string container = "Backups";
    std::string target = "nas1.hbk";
    std::string refreshToken = "ZGVtby1yZWZyZXNoLXRva2Vu";  // what the emulator accepts
    std::string cacheDir;  // the engine's cache root; default DATA/cache
    std::string dataDir;   // default $XDG_DATA_HOME/gdrive_host, else ~/.local/share/gdrive_host
    std::string plugin;    // the plug-in module to load
};

// Adds the destination's options to `app`: each flag also read from an
// environment variable (GDRIVE_CONTAINER, ...) and from the profile file
// given with --profile or GDRIVE_PROFILE (lines "key = value").
void addDestinationOptions(CLI::App& app, Destination& destination);

// Warns on stderr of each key in the profile file `profile` that names no
// destination option (CLI11 passes over them in silence); a missing file is fine.
void warnUnknownProfileKeys(std::string const& profile);

// Fills the defaults that depend on the environment and, unless TAVO_ROOT
// already names a drive agent, lays out the embedded emulator under the data
// folder (account, agent root, first use only) and points TAVO_ROOT at it.
// False with `error` set when the folders cannot be made.
bool prepareDestination(Destination& destination, std::string& error);

// The installed plug-in module beside an installed tool, else the build tree's.
std::string defaultPluginPath();

// The emulator account folder under the data folder.
std::string emulatorAccountFolder(Destination const& destination);

// The repository settings the engine would hand the plug-in.
TAVO::Backup::Repository makeRepository(Destination const& destination);

// The node cache file of the destination's target.
std::string nodeCacheFile(Destination const& destination);

}  // namespace gdhost
