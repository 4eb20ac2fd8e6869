// The backup run the fault sweep repeats: the requests an engine makes for
// one backup, each operation checked against the account and the local files
// as soon as it returns.
#pragma once

#include <functional>
#include <vector>

#include "sweep_sandbox.h"

namespace Sweep {

// Writes the run's source files (0 B, 1 B, 1 MiB, 3 MiB, ...) to the local folder.
void writeSources(Sandbox& box);

// Runs the backup on `agent`. Every operation that reports success must have
// done what it says, a failed fetch must leave its destination as it was,
// and checkCache must not drop the cache; what does not hold is added to
// `findings`. Operations that reported
// failure are added to `failed`. `afterEach` is called when an operation has returned.
void runBackup(Sandbox& box, TAVO::Backup::TransferAgentGoogleDrive& agent,
               std::vector<Finding>& findings, std::vector<std::string>& failed,
               std::function<void()> const& afterEach = {});

}  // namespace Sweep
