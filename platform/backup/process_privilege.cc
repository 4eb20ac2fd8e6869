#include "backup/process_privilege.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace TAVO {
namespace Backup {
namespace {
std::atomic<bool> g_force_failure{false};
}

ProcessPrivilege::ProcessPrivilege() : _saved_euid(geteuid()), _saved_egid(getegid()) {}

ProcessPrivilege::~ProcessPrivilege() {
    if (!_changed) return;
    // Group first: once the effective uid is dropped we may no longer change it.
    if (setegid(_saved_egid) != 0 || seteuid(_saved_euid) != 0) {
        // Nothing sensible to do in a destructor; the process keeps root.
    }
}

bool ProcessPrivilege::BeRoot() {
    if (g_force_failure) {
        errno = EPERM;
        return false;
    }
    if (geteuid() == 0) return true;
    uid_t ruid, euid, suid;
    if (getresuid(&ruid, &euid, &suid) != 0) return false;
    // Only a process whose real or saved uid is root can become root again.
    if (ruid != 0 && suid != 0) return true;
    if (seteuid(0) != 0) return false;
    if (setegid(0) != 0) {
        int saved = errno;
        if (seteuid(_saved_euid) != 0) {
        }
        errno = saved;
        return false;
    }
    _changed = true;
    return true;
}

void ProcessPrivilege::forceFailureForTesting(bool fail) { g_force_failure = fail; }

}  // namespace Backup
}  // namespace TAVO
