// Fault rules kept in the data folder, and deciding which fire for a request.
// Counting and firing happen in the caller's write transaction, so two
// processes never both take the single firing of a rule.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "drive_types.h"
#include "sqlite_db.h"

namespace DriveEmulator {

// What the rules that fired for one request ask for.
struct FiredFaults {
    std::optional<Fault> stop;  // Fail, Exit, ExitAfterApply, CutAnswer, FailAfterApply or
                                // Garbage: the first that fired
    std::int64_t delayMs = 0;   // the sum of the Delay rules that fired
    bool shortDownload = false;
    bool longDownload = false;
    std::optional<std::vector<double>> progress;
    std::optional<std::int64_t> exitAfterProgress;
    std::int64_t listingLag = 0;  // the largest ListingLag that fired
    bool repeatListing = false;
    std::vector<std::string> formerParent;  // "X P" of the FormerParent rules that fired
};

// Stores `fault` (Error(400) for a rule that cannot fire); returns its id.
std::int64_t addFault(Db& db, Fault const& fault);
std::vector<Fault> listFaults(Db& db);
void clearFaults(Db& db);

// Counts one request named `fn` against every request rule watching it and
// returns what fires. Hold a WriteTransaction.
FiredFaults fireRequestFaults(Db& db, std::string const& fn);
// Counts one process start against the RefuseHandshake rules; the first that
// fires, if any. Hold a WriteTransaction.
std::optional<Fault> fireHandshakeFaults(Db& db);

}  // namespace DriveEmulator
