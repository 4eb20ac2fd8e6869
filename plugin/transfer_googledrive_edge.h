// The plug-in's edge: every operation the engine calls ends in a handler that
// turns any exception into a failed operation. An exception that reached the
// engine would end its process and the backup with it; inner code keeps
// raising as it does, the guard is only here.
#pragma once

namespace TAVO {
namespace Backup {

// To be called from a catch handler only: logs the exception in flight at
// LOG_ERR with `operation` and where it was caught, sets error 1, returns false.
bool failAtEdge(char const* source, int line, char const* operation);

}  // namespace Backup
}  // namespace TAVO

// Ends a function-try-block of an engine-facing operation.
#define GD_CATCH_AT_EDGE(operation)                         \
    catch (...) {                                           \
        return failAtEdge(kLogSource, __LINE__, operation); \
    }
