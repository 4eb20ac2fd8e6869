// One changing run per destination: two runs that create the same folders at
// once would each create them, and the Drive would then hold every folder
// twice. A run that changes the destination holds an exclusive lock on a
// file in its node cache's folder until the process ends.
#pragma once

#include <string>

#include "destination.h"

namespace gdhost {

// The lock file of the destination's node cache.
std::string destinationLockFile(Destination const& destination);

// Takes the destination's lock for the rest of the process, named after the
// command line `what`. While another run holds it, says once on stderr which
// (process id, command, since when) and waits; Ctrl-C ends the wait. The
// exit code: kExitOk once held, kExitCanceled, or kExitError (with the reason
// printed) when the lock file cannot be made.
int holdDestination(Destination const& destination, std::string const& what);

}  // namespace gdhost
