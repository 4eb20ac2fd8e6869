// What the emulator checks before it says "start": the environment the
// plug-in hands the drive agent, and where the account's data folder is.
#pragma once

#include <functional>
#include <string>

namespace DriveEmulator {

using EnvLookup = std::function<char const*(char const* name)>;

// True for text in the standard or URL-safe base64 alphabet with correct
// padding (at most two '=' at the end, completing a group of four) and a
// length that some byte string encodes to. The empty text is not accepted: a
// refresh token cannot be empty.
bool isValidBase64(std::string const& text);

// Empty when the environment is acceptable; otherwise the one-line reason the
// emulator writes instead of "start". A refresh token that is not base64
// gives "GOOGLEDRIVE_REFRESH_TOKEN is not a valid base64 string". The values
// of the tokens never appear in the reason.
std::string environmentProblem(EnvLookup const& env);

// The data folder: $DRIVE_EMULATOR_DATA; else the first line of
// "drive_emulator.conf" in the folder of `argv0` (the path the program was
// started as); else that file in "$TAVO_ROOT/usr/bin/". A relative path in the
// file is taken relative to the file's folder. Empty when none is found.
std::string findDataFolder(std::string const& argv0, EnvLookup const& env);

}  // namespace DriveEmulator
