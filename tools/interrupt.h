// Ctrl-C handling: the first SIGINT asks the running operation to stop
// through the agent's cancel hook; a second one ends the process at once.
#pragma once

namespace gdhost {

// Installs the SIGINT and SIGTERM handlers and ignores SIGXFSZ. Call once,
// before any transfer.
void installInterruptHandler();

// Makes SIGUSR1 a stop request like the first interrupt, never the second:
// how the parent of worker processes passes on a stop that reached only it.
void acceptStopSignal();

// True once an interrupt asked the tool to stop; the agent's cancel hook.
bool interrupted();

}  // namespace gdhost
