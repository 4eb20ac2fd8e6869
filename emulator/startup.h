// What the emulator checks before it says "start": the environment the
// plug-in hands the drive agent (handshake.h, shared with drive_agent), and
// where the account's data folder is.
#pragma once

#include <string>

#include "handshake.h"

namespace DriveEmulator {

using AgentHandshake::environmentProblem;
using AgentHandshake::EnvLookup;
using AgentHandshake::isValidBase64;

// The data folder: $DRIVE_EMULATOR_DATA; else the first line of
// "drive_emulator.conf" in the folder of `argv0` (the path the program was
// started as); else that file in "$TAVO_ROOT/usr/bin/". A relative path in the
// file is taken relative to the file's folder. Empty when none is found.
std::string findDataFolder(std::string const& argv0, EnvLookup const& env);

}  // namespace DriveEmulator
