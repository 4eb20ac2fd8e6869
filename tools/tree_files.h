// The work on one file of a tree command, in functions that take one file and
// return its outcome, so that the tree commands (and any worker that shares
// their load) can call them file by file.
#pragma once

#include <sys/types.h>

#include <string>

#include "backup/transfer_agent.h"
#include "local_files.h"
#include "progress_line.h"
#include "run_report.h"

namespace gdhost {

// The progress hook of a transfer: counts bytes on `line`, stops on Ctrl-C.
TAVO::Backup::TransferAgent::ProgressHook progressHook(ProgressLine& line);

// Sends the local file `local` to the target path `remote`, counted on
// `line`; the outcome names the file `shown`.
FileOutcome sendTreeFile(TAVO::Backup::TransferAgent& agent, std::string const& local,
                         std::string const& remote, std::string const& shown, ProgressLine& line);

// Fetches the target path `remote` (of `size` bytes) into the local file
// `local`, counted on `line`, and gives the new file the mode a new file gets
// under the user's umask; the outcome names the file `shown`.
FileOutcome receiveTreeFile(TAVO::Backup::TransferAgent& agent, std::string const& remote,
                            std::string const& local, int64_t size, std::string const& shown,
                            ProgressLine& line);

// True when the local regular file `local` (of `size` bytes) holds what the
// remote file `remote` holds: same size and MD5.
bool sameContent(std::string const& local, int64_t size, TAVO::Backup::FileInfo const& remote,
                 std::string const* localMd5 = nullptr);

// True for a remote file with no stored bytes (a Google Docs, Sheets or
// Slides file, a shortcut, ...): the drive agent reports those without an
// MD5, which every stored file has. They are neither compared nor fetched.
bool hasNoStoredBytes(TAVO::Backup::FileInfo const& remote);

// Prints "gdrive_host: COMMAND: skipped PATH (...)" for such a file and
// counts it as skipped in `report`.
void skipNoStoredBytes(char const* command, std::string const& path, RunReport& report);

// The permission bits of `mode` that the umask the tool started with lets
// through; newFileMode() is those of 0666, the mode of a new file.
mode_t underUmask(mode_t mode);
mode_t newFileMode();

}  // namespace gdhost
