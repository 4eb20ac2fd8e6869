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

// The exit code that stands for a failure with `engineCode`.
int exitCodeFor(int engineCode, Wanted wanted);

// Prints "gdrive_host: OPERATION PATH: error CODE, MEANING" on stderr (the
// path left out when empty) and returns exitCodeFor(code, wanted).
int reportFailure(std::string const& operation, std::string const& path, int engineCode,
                  Wanted wanted);

// Prints "gdrive_host: MESSAGE" on stderr and returns `exitCode`.
int reportProblem(std::string const& message, int exitCode);

}  // namespace gdhost
