#include "progress_line.h"

#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "output_format.h"
#include "stderr_filter.h"

namespace gdhost {

namespace {

// When the command began: a person compares the summary with the wall clock.
std::chrono::steady_clock::time_point const gStarted = std::chrono::steady_clock::now();

// A terminal that understands carriage return and erase-line.
bool smartTerminal() {
    char const* term = getenv("TERM");
    return isatty(fileno(liveOutput())) && term && strcmp(term, "dumb") != 0;
}

}  // namespace

ProgressLine::ProgressLine(std::string verb, int64_t totalBytes, int64_t totalFiles, bool quiet)
    : _verb(std::move(verb)),
      _total_bytes(totalBytes),
      _total_files(totalFiles),
      _live(!quiet && smartTerminal()),
      _quiet(quiet),
      _start(gStarted) {}

void ProgressLine::addBytes(int64_t bytes) {
    _bytes += bytes;
    draw(false);
}

void ProgressLine::fileDone(int64_t bytes) {
    _bytes += bytes;
    ++_files;
    draw(false);
}

double ProgressLine::seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - _start).count();
}

void ProgressLine::setNote(std::string note) {
    if (note == _note) return;
    _note = std::move(note);
    draw(true);
}

void ProgressLine::draw(bool force) {
    if (!_live) return;
    auto now = std::chrono::steady_clock::now();
    if (!force && now - _drawn < std::chrono::milliseconds(200)) return;
    _drawn = now;
    double elapsed = seconds();
    double rate = elapsed > 0 ? _bytes / elapsed : 0;
    // Small files cost their requests more than their bytes: the time left
    // is the longer of what the bytes and what the files left take at the
    // pace so far.
    double left = -1;
    if (rate > 0 && _total_bytes > _bytes) left = (_total_bytes - _bytes) / rate;
    if (_files > 0 && _total_files > _files) {
        left = std::max(left, static_cast<double>(_total_files - _files) * elapsed / _files);
    }
    std::string eta = left < 0 ? "-" : std::to_string(static_cast<int64_t>(left)) + " s";
    fprintf(liveOutput(), "\r\033[K%s %s / %s, %" PRId64 "/%" PRId64 " files, %s/s, ETA %s%s%s",
            _verb.c_str(), humanBytes(_bytes).c_str(), humanBytes(_total_bytes).c_str(), _files,
            _total_files, humanBytes(static_cast<int64_t>(rate)).c_str(), eta.c_str(),
            _note.empty() ? "" : ", ", _note.c_str());
    fflush(liveOutput());
}

StatusLine::StatusLine(bool quiet) : _live(!quiet && smartTerminal()) {}

StatusLine::~StatusLine() {
    if (_shown) fprintf(liveOutput(), "\r\033[K");
}

void StatusLine::show(char const* what, int64_t done, int64_t total) {
    if (!_live) return;
    auto now = std::chrono::steady_clock::now();
    if (now - _drawn < std::chrono::milliseconds(200)) return;
    _drawn = now;
    _shown = true;
    if (total < 0) {
        fprintf(liveOutput(), "\r\033[K%s: %" PRId64, what, done);
    } else {
        fprintf(liveOutput(), "\r\033[K%s: %" PRId64 "/%" PRId64, what, done, total);
    }
    fflush(liveOutput());
}

void ProgressLine::finish(std::string const& extra) {
    if (_live) fprintf(liveOutput(), "\r\033[K");
    if (_quiet) return;
    double elapsed = seconds();
    printf("%s %s in %" PRId64 " file%s%s, %.1f s, %s/s\n", _verb.c_str(),
           humanBytes(_bytes).c_str(), _files, _files == 1 ? "" : "s", extra.c_str(), elapsed,
           humanBytes(static_cast<int64_t>(elapsed > 0 ? _bytes / elapsed : 0)).c_str());
    fflush(stdout);
}

}  // namespace gdhost
