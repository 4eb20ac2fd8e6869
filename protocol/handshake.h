// The start-up handshake every drive agent checks before it says "start":
// the environment the plug-in hands it. Shared by the emulator and the agent
// for the real Drive, which must refuse exactly the same environments.
#pragma once

#include <functional>
#include <string>

namespace AgentHandshake {

using EnvLookup = std::function<char const*(char const* name)>;

// True for text in the standard or URL-safe base64 alphabet with correct
// padding (at most two '=' at the end, completing a group of four) and a
// length that some byte string encodes to. The empty text is not accepted: a
// refresh token cannot be empty.
bool isValidBase64(std::string const& text);

// Empty when the environment is acceptable; otherwise the one-line reason the
// agent writes instead of "start". A refresh token that is not base64 gives
// "GOOGLEDRIVE_REFRESH_TOKEN is not a valid base64 string". The values of the
// tokens never appear in the reason.
std::string environmentProblem(EnvLookup const& env);

}  // namespace AgentHandshake
