#include "interrupt.h"

#include <signal.h>
#include <unistd.h>

#include "failure.h"

namespace gdhost {

namespace {

volatile sig_atomic_t gInterrupts = 0;
// A stop passed on by the parent of a worker. Kept apart from the person's
// interrupts: a worker gets the terminal's Ctrl-C and its parent's request
// for the same one, in either order, and that is no insisting.
volatile sig_atomic_t gStopRequested = 0;

void onInterrupt(int) {
    if (gInterrupts > 0) _exit(kExitCanceled);  // the person insists
    gInterrupts = 1;
}

void onStopRequest(int) { gStopRequested = 1; }

}  // namespace

void acceptStopSignal() {
    struct sigaction action = {};
    action.sa_handler = onStopRequest;
    sigemptyset(&action.sa_mask);
    sigaction(SIGUSR1, &action, nullptr);
}

void installInterruptHandler() {
    struct sigaction action = {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    // No SA_RESTART: a blocked read returns so that the channel can notice.
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    // Under a file size limit a write fails with EFBIG, reported like any other
    // failure, instead of ending the tool (and the drive agent, which inherits this).
    signal(SIGXFSZ, SIG_IGN);
}

bool interrupted() { return gInterrupts != 0 || gStopRequested != 0; }

}  // namespace gdhost
