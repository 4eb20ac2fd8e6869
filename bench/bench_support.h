// What the end-to-end benchmarks share: a scratch folder, a drive agent
// process spoken to line by line (the reference side), the plug-in's agent on
// an emulated account, and the process's resident memory.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "child_pipe.h"
#include "transfer_googledrive.h"

namespace BenchSupport {

// A new folder under $TMPDIR (default /tmp) named after `prefix`; aborts the
// run when none can be made.
std::string makeScratchFolder(std::string const& prefix);

// Removes `folder` and everything below it; a failure is only reported.
void removeTree(std::string const& folder);

// Writes back what is dirty on the file system of `folder`, so that a timed
// step does not pay for the writeback of an earlier one.
void settle(std::string const& folder);

// An emulator process on the account in `dataFolder`, started at once and
// ready (its "start" line read). Requests are written as given; answers are
// read back line by line. Destroying it closes its input and reaps it.
class EmulatorPipe {
  public:
    explicit EmulatorPipe(std::string const& dataFolder);
    ~EmulatorPipe() = default;
    EmulatorPipe(EmulatorPipe const&) = delete;
    EmulatorPipe& operator=(EmulatorPipe const&) = delete;

    // Writes all of `text` (one or more lines, each ending in '\n'); throws
    // std::runtime_error when the emulator is gone.
    void write(std::string const& text);
    // The next answer line without its line feed; throws when the emulator is gone.
    std::string readLine();
    // Writes one request line and reads answers up to the final one (the
    // first that is not a progress line), which it returns.
    std::string exchange(std::string const& requestLine);

  private:
    ChildPipe _child;
};

// The string value of the first `"key":"..."` member in an answer line; empty
// when there is none. Enough for ids and page tokens, which need no escapes.
std::string stringMember(std::string const& line, char const* key);

// Points the plug-in's drive agent at the account in `dataFolder`, through an
// agent root laid out in `rootFolder` (TAVO_ROOT is set for this process).
void useEmulatorFor(std::string const& rootFolder, std::string const& dataFolder);

// An agent of container `container` and target `target`, its node cache files
// under `cacheRoot`; the drive agent starts on its first request.
std::unique_ptr<TAVO::Backup::TransferAgentGoogleDrive> makeAgent(std::string const& container,
                                                                  std::string const& target,
                                                                  std::string const& cacheRoot);

// Resident memory of this process. `start` returns free heap pages to the
// system and resets the kernel's peak mark, then records the current size;
// `growth` is how far the peak has risen above that size since.
class PeakRssProbe {
  public:
    void start();
    std::int64_t growth() const;

  private:
    std::int64_t _base = 0;
};

// CPU seconds (user and system) this process has used.
double processCpuSeconds();

// Runs `args` (the program first) as a child process, as a person runs a
// command: `env` entries "NAME=value" set, plain "NAME" removed, its standard
// output to /dev/null. Returns the seconds it took, or -1 unless it exited 0;
// given `exitCode`, the seconds whatever the exit, and its code there (-1
// when it did not exit).
double runCommand(std::vector<std::string> args, std::vector<std::string> const& env,
                  int* exitCode = nullptr);

}  // namespace BenchSupport
