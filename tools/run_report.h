// The account of a tree command (copy, sync, restore, check): what happened
// to each file, the failures listed at the end with their reasons, one
// summary line, and the exit code of the worst failure.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "failure.h"

namespace gdhost {

// What became of one file (or folder) of a tree.
struct FileOutcome {
    enum Kind { kDone, kUnchanged, kSkipped, kFailed } kind = kDone;
    std::string path;  // as the person knows it (relative to the tree's top)
    Failure failure;   // for kFailed
    // For a file sent: the remote file's MD5 and modification time as the
    // store left them (what the stored index records).
    std::string md5;
    int64_t remoteMtime = 0;
};

// The outcome of a failed file: its path and the failure described from the
// engine's code and the reason the plug-in logged (see describeFailure).
FileOutcome failedFile(std::string const& path, int engineCode, Wanted wanted);

// A failure found by the tool itself (an unreadable local folder, ...).
FileOutcome failedLocally(std::string const& path, std::string const& why, int exitCode);

// Collects outcomes; safe to use from several threads.
class RunReport {
  public:
    // `doneWord` names what happened to a file done ("sent", "received").
    explicit RunReport(std::string doneWord);

    // Failures of this many files in a row, each for a passing reason after
    // its retries (exit code 5: 408, 429, a 5xx, drive agent -2/-4), tell of
    // an outage: every further file would spend its retries as well.
    static constexpr int kOutageRun = 5;

    void add(FileOutcome const& outcome);
    // Has `watcher` called with each outcome added from then on, in the
    // thread that adds it.
    void watch(std::function<void(FileOutcome const&)> watcher) { _watcher = std::move(watcher); }
    // True once a failure that every further file would meet was added, or
    // kOutageRun files in a row failed for a passing reason: the run stops.
    bool stopped() const;
    // True when it stopped for such an outage.
    bool outage() const;

    // Counts `files` more files that the run means to send or receive.
    void plan(int64_t files);
    // The files planned that were neither done nor failed: those a stop left.
    int64_t untried() const;

    // Writes each failure as "failed: PATH: WORDS" to stderr.
    void printFailures() const;
    // "3 sent, 2 unchanged, 1 skipped, 1 failed".
    std::string summary() const;
    // 0 when nothing failed, else the exit code of the worst failure (cancelled,
    // then fatal, error, temporary, not found, usage).
    int exitCode() const;

  private:
    mutable std::mutex _mutex;
    std::string _done_word;
    int64_t _counts[4] = {0, 0, 0, 0};
    int64_t _planned = 0, _failedFiles = 0;
    std::vector<FileOutcome> _failures;
    bool _stopped = false;
    std::function<void(FileOutcome const&)> _watcher;
    int _passingInRow = 0;  // files failed for a passing reason since the last one done
    bool _outage = false;
};

// How bad an exit code is, for choosing the worst of several.
int severityOf(int exitCode);

}  // namespace gdhost
