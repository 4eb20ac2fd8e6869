// The request log in the data folder: one row per request any emulator
// process served, so that tests can count what an operation asked for.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "drive_types.h"
#include "sqlite_db.h"

namespace DriveEmulator {

// Appends `entry` (its seq is assigned; time and pid are taken as given) and
// drops the oldest rows beyond the "log_rows" setting. Hold a WriteTransaction.
void appendLog(Db& db, LogEntry const& entry);
std::vector<LogEntry> readLog(Db& db);
// Entries whose fn is `fn`, or all for "*".
std::int64_t countLog(Db& db, std::string const& fn);
void clearLog(Db& db);

}  // namespace DriveEmulator
