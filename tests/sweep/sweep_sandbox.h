// The emulated account, node cache folder and local folder that the fault
// sweep runs its backups in, reset between pairs of runs.
#pragma once

#include <string>
#include <vector>

#include "emulated_drive.h"

namespace Sweep {

// What one check found wrong: which invariant, and which operation showed it.
struct Finding {
    std::string invariant;
    std::string operation;
};

class Sandbox : public EmulatedAccount {
  public:
    // A file of the sweep's own, beside the sandbox's folders.
    std::string own(std::string const& name) const { return _dir + "/" + name; }

    // The account as text, one line per object below the root: path, kind
    // and content digest, sorted; ids and times left out. Two objects of
    // one name (byte for byte) in a folder add a finding each.
    std::string snapshot(std::vector<Finding>& findings);
    // Temporary files the plug-in left in the local and cache folders, and
    // pending blobs left in the emulator's data folder.
    std::vector<std::string> leftovers() const;
};

}  // namespace Sweep
