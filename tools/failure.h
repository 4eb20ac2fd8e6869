// Turning the engine's error codes into words and into the tool's exit codes.
#pragma once

#include <string>

namespace gdhost {

// The tool's exit codes, documented in --help.
enum ExitCode {
    kExitOk = 0,
    kExitError = 1,
    kExitUsage = 2,
    kExitFolderNotFound = 3,
    kExitFileNotFound = 4,
    kExitTemporary = 5,
    kExitFatal = 7,
    kExitCanceled = 130,
};

// What the object a failed operation wanted was: decides between "folder not
// found" and "file not found" for the engine's not-found code.
enum class Wanted { kFile, kFolder };

// A few words for an engine error code ("not found", "quota exceeded", ...);
// "unknown error" for a code the engine does not define.
char const* meaningOf(int engineCode);

// The exit code that stands for a failure with `engineCode`. A general
// failure whose cause was a 5xx or 429 of the service (`serviceCode`) left
// after the retries is a temporary one.
int exitCodeFor(int engineCode, Wanted wanted, int serviceCode = 0);

// A failed operation described for a person.
struct Failure {
    int engineCode = 0;
    std::string words;  // "error CODE, MEANING" and, when the plug-in logged one, ": REASON"
    int exitCode = 0;
    // True for failures that every further file would meet too (credentials
    // refused, quota exceeded, local disk full, cancelled): a tree stops.
    bool stopsRun = false;
    // True for failures that may pass: the drive agent went away, or the
    // service kept failing for a while; the same request may work once more.
    bool passing = false;
};

// What the drive agent says when Drive's daily upload allowance is spent;
// the run stops on it with kExitFatal.
extern char const* const kDailyUploadLimit;
// The drive agent's words for a shared drive that holds all the items it may.
extern char const* const kSharedDriveFull;

// Describes the failure of the operation begun last on this thread
// (beginOperation()): `engineCode` and the reason the plug-in logged.
Failure describeFailure(int engineCode, Wanted wanted);

// Prints "gdrive_host: OPERATION PATH: error CODE, MEANING[: REASON]" on
// stderr (the path left out when empty) and returns the exit code.
int reportFailure(std::string const& operation, std::string const& path, int engineCode,
                  Wanted wanted);

// Prints "gdrive_host: MESSAGE" on stderr and returns `exitCode`.
int reportProblem(std::string const& message, int exitCode);

}  // namespace gdhost
