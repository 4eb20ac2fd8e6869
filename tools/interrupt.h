// Ctrl-C handling: the first SIGINT asks the running operation to stop
// through the agent's cancel hook; a second one ends the process at once.
#pragma once

namespace gdhost {

// Installs the SIGINT and SIGTERM handlers and ignores SIGXFSZ. Call once,
// before any transfer.
void installInterruptHandler();

// True once an interrupt asked the tool to stop; the agent's cancel hook.
bool interrupted();

}  // namespace gdhost
