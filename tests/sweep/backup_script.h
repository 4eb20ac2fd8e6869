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

// One operation of the run as a hook sees it: its number from 1, its name and
// the absolute path it works on.
struct Step {
    int index;
    std::string operation;
    std::string path;
};
// Called before each operation and when it has returned (`returned`).
using Hook = std::function<void(Step const& step, bool returned)>;

// Runs the backup on `agent`. Every operation that reports success must have
// done what it says, a failed fetch must leave its destination as it was,
// checkCache must not drop the cache, and no operation may lose what the
// account held that it had no business touching; what does not hold is added to `findings`.
// Operations that reported failure are added to `failed`.
void runBackup(Sandbox& box, TAVO::Backup::TransferAgentGoogleDrive& agent,
               std::vector<Finding>& findings, std::vector<Step>& failed, Hook const& hook = {});

}  // namespace Sweep
