// drive_emulator: stands in for the drive agent. Started by the plug-in as
// "python drive_agent.py" (through a symlink named python; the script
// argument is ignored), it checks its environment, opens the account's data
// folder, says "start", and serves requests on stdin/stdout until the end of
// its input.
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "blobs.h"
#include "faults.h"
#include "server.h"
#include "startup.h"
#include "store.h"

using namespace DriveEmulator;

namespace {

// The first line is plain text, not JSON: "start", or why we cannot start.
void firstLine(std::string line) {
    line += '\n';
    size_t done = 0;
    while (done < line.size()) {
        ssize_t n = ::write(STDOUT_FILENO, line.data() + done, line.size() - done);
        if (n <= 0) return;
        done += static_cast<size_t>(n);
    }
}

}  // namespace

int main(int argc, char** argv) {
    // A reader that goes away must end us through a failed write, not a signal.
    ::signal(SIGPIPE, SIG_IGN);
    // Killed politely (the plug-in's channel on a cancel, Ctrl-C), leave no
    // partial upload behind.
    removePendingBlobOnTermination();
    EnvLookup env = [](char const* name) -> char const* { return std::getenv(name); };

    std::string problem = environmentProblem(env);
    if (!problem.empty()) {
        firstLine(problem);
        return 1;
    }
    std::string folder = findDataFolder(argc > 0 ? argv[0] : "", env);
    if (folder.empty()) {
        firstLine(
            "drive emulator: no data folder (set DRIVE_EMULATOR_DATA or write "
            "drive_emulator.conf beside the program)");
        return 1;
    }
    try {
        Store store(folder);
        {
            WriteTransaction txn(store.db());
            auto refusal = fireHandshakeFaults(store.db());
            txn.commit();
            if (refusal) {
                firstLine(refusal->text);
                return 1;
            }
        }
        firstLine("start");
        return Server(store, STDIN_FILENO, STDOUT_FILENO).run();
    } catch (Error const& e) {
        firstLine(std::string("drive emulator: ") + e.what());
        return 1;
    }
}
