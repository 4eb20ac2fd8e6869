// gdrive_host authorize: obtains a refresh token for the user's own OAuth
// client through the loopback flow for installed applications and stores it
// in the profile.
#pragma once

#include <string>

#include "destination.h"

namespace gdhost {

// Prints the address where the person grants access, waits up to
// `timeoutSeconds` (or a Ctrl-C) for the browser's redirect to 127.0.0.1,
// exchanges the code at the token endpoint and stores the refresh token
// (base64, as the engine hands it over) with `service = "drive"` in the
// profile file `profile`. The endpoints and the client come from the drive
// agent's configuration, found as the agent finds it. Returns the exit code;
// on failure nothing is stored and the reason is printed in words.
int runAuthorize(Destination& destination, std::string const& profile, int timeoutSeconds);

}  // namespace gdhost
