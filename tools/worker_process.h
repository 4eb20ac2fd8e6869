// A worker process of a parallel command is this tool itself, started anew
// in worker mode: exec'd, never merely forked. The parent has other threads
// (the stderr filter's forwarder, and whatever a library starts), and a child
// forked from a threaded process inherits every lock another thread held at
// that instant, held for ever: its first malloc, log line or stdio call can
// block it for good. An exec'd worker starts with none of that.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include "destination.h"

namespace gdhost {

// The first argument that starts the tool as a worker (given by the parent
// only; a person who types it is told there is no such command).
extern char const kWorkerMode[];

// Starts a worker: this program again in worker mode, reading jobs from the
// socket `jobs` and writing results to the socket `results` (it gets them as
// file descriptors 3 and 4; the caller keeps its own). SIGINT, SIGTERM and
// SIGUSR1 stay blocked in it until it has installed its handlers, so that an
// early stop is not lost and cannot kill it. Safe while other threads run: the
// child does nothing but exec (posix_spawn). The child's pid, or -1 with
// errno set.
pid_t spawnWorkerProcess(int jobs, int results);

// The set-up a worker reads as its first line: the destination it works on
// (with a node cache folder of its own) and whether the plug-in's log and
// trace are shown.
Json::Value workerSetup(Destination const& destination, bool verbose);

// The worker's main, when the tool was started with kWorkerMode: reads the
// set-up, makes its transfer agent, runs jobs until the parent closes the job
// socket, then flushes its node cache. Returns the process's exit code.
int runWorkerProcess();

}  // namespace gdhost
