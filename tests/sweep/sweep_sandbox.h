// One emulated account, node cache folder and local folder that the fault
// sweep runs its backups in, reset between pairs of runs.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "drive_control.h"
#include "transfer_googledrive.h"

namespace Sweep {

// What one check found wrong: which invariant, and which operation showed it.
struct Finding {
    std::string invariant;
    std::string operation;
};

class Sandbox {
  public:
    // Lays out a private folder under /tmp with an agent root pointing at it.
    Sandbox();
    ~Sandbox();

    // A fresh account (no faults, empty log), an empty cache folder and a
    // local folder holding only the backup's source files.
    void reset();
    // A new agent as the engine builds one: container "C", target "T".
    std::unique_ptr<TAVO::Backup::TransferAgentGoogleDrive> newAgent();

    DriveEmulator::Drive& drive() { return *_drive; }
    std::string local(std::string const& name) const { return _dir + "/local/" + name; }
    // A file of the sweep's own, beside the sandbox's folders.
    std::string own(std::string const& name) const { return _dir + "/" + name; }
    std::string cacheFile() const { return _dir + "/cache/T/ta_cache.node"; }

    // The account as text, one line per object below the root: path, kind
    // and content digest, sorted; ids and times left out. Two objects whose
    // names Drive takes as one in a folder add a finding each.
    std::string snapshot(std::vector<Finding>& findings);
    // Temporary files the plug-in left in the local and cache folders, and
    // pending blobs left in the emulator's data folder.
    std::vector<std::string> leftovers() const;

  private:
    std::string _dir;
    std::unique_ptr<DriveEmulator::Drive> _drive;
    TAVO::Backup::Repository _repository;
};

// A file's whole content ("" when missing).
std::string readFile(std::string const& path);
void writeFile(std::string const& path, std::string const& content);

}  // namespace Sweep
