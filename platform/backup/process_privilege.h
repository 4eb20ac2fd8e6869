// Temporary root privileges for a scope. Off the NAS the process usually runs
// as an ordinary user who cannot become root; it then carries on as that user.
#pragma once

#include <sys/types.h>

namespace TAVO {
namespace Backup {

class ProcessPrivilege {
public:
    ProcessPrivilege();
    // Restores the effective user and group that were in force at construction.
    ~ProcessPrivilege();
    ProcessPrivilege(ProcessPrivilege const&) = delete;
    ProcessPrivilege& operator=(ProcessPrivilege const&) = delete;

    // Makes the process root for this object's lifetime. Returns true when the
    // process is root afterwards or cannot become root and carries on as the
    // current user; false (errno set) only when switching failed in between,
    // or when a test forced failures.
    bool BeRoot();

    // Test hook: while set, every BeRoot() fails with EPERM.
    static void forceFailureForTesting(bool fail);

private:
    uid_t _saved_euid;
    gid_t _saved_egid;
    bool _changed = false;
};

}  // namespace Backup
}  // namespace TAVO
