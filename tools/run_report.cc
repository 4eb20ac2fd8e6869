#include "run_report.h"

#include <cinttypes>
#include <cstdio>

namespace gdhost {

FileOutcome failedFile(std::string const& path, int engineCode, Wanted wanted) {
    FileOutcome outcome;
    outcome.kind = FileOutcome::kFailed;
    outcome.path = path;
    outcome.failure = describeFailure(engineCode, wanted);
    return outcome;
}

FileOutcome failedLocally(std::string const& path, std::string const& why, int exitCode) {
    FileOutcome outcome;
    outcome.kind = FileOutcome::kFailed;
    outcome.path = path;
    outcome.failure.words = why;
    outcome.failure.exitCode = exitCode;
    return outcome;
}

int severityOf(int exitCode) {
    switch (exitCode) {
        case kExitOk:
            return 0;
        case kExitUsage:
            return 1;
        case kExitFileNotFound:
            return 2;
        case kExitFolderNotFound:
            return 3;
        case kExitTemporary:
            return 4;
        case kExitError:
            return 5;
        case kExitFatal:
            return 6;
        case kExitCanceled:
            return 7;
        default:
            return 5;
    }
}

RunReport::RunReport(std::string doneWord) : _done_word(std::move(doneWord)) {}

void RunReport::add(FileOutcome const& outcome) {
    if (_watcher) _watcher(outcome);
    std::lock_guard<std::mutex> lock(_mutex);
    ++_counts[outcome.kind];
    if (outcome.kind == FileOutcome::kDone) _passingInRow = 0;
    if (outcome.kind != FileOutcome::kFailed) return;
    if (outcome.failure.exitCode != kExitTemporary) {
        _passingInRow = 0;
    } else if (++_passingInRow >= kOutageRun) {
        _stopped = _outage = true;
    }
    if (outcome.path.empty() || outcome.path.back() != '/') ++_failedFiles;
    _failures.push_back(outcome);
    if (outcome.failure.stopsRun) _stopped = true;
}

void RunReport::plan(int64_t files) {
    std::lock_guard<std::mutex> lock(_mutex);
    _planned += files;
}

int64_t RunReport::untried() const {
    std::lock_guard<std::mutex> lock(_mutex);
    int64_t left = _planned - _counts[FileOutcome::kDone] - _failedFiles;
    return left > 0 ? left : 0;
}

bool RunReport::stopped() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _stopped;
}

bool RunReport::outage() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _outage;
}

void RunReport::printFailures() const {
    std::lock_guard<std::mutex> lock(_mutex);
    for (auto const& f : _failures) {
        fprintf(stderr, "failed: %s: %s\n", f.path.c_str(), f.failure.words.c_str());
    }
}

std::string RunReport::summary() const {
    std::lock_guard<std::mutex> lock(_mutex);
    char text[160];
    snprintf(text, sizeof text,
             "%" PRId64 " %s, %" PRId64 " unchanged, %" PRId64 " skipped, %" PRId64 " failed",
             _counts[FileOutcome::kDone], _done_word.c_str(), _counts[FileOutcome::kUnchanged],
             _counts[FileOutcome::kSkipped], _counts[FileOutcome::kFailed]);
    return text;
}

int RunReport::exitCode() const {
    std::lock_guard<std::mutex> lock(_mutex);
    int worst = kExitOk;
    for (auto const& f : _failures) {
        if (severityOf(f.failure.exitCode) > severityOf(worst)) worst = f.failure.exitCode;
    }
    return worst;
}

}  // namespace gdhost
