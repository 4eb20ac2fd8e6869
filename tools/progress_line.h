// Progress of a transfer or a whole tree: on a terminal one live line on
// stderr, rewritten in place (bytes, files, rate, ETA); otherwise silent until
// the summary.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace gdhost {

class ProgressLine {
  public:
    // `verb` names what happens ("sent", "received"); `quiet` silences the
    // live line and the summary.
    ProgressLine(std::string verb, int64_t totalBytes, int64_t totalFiles, bool quiet);

    // Counts `bytes` more moved; redraws at most five times a second.
    void addBytes(int64_t bytes);
    // Counts one more file done (`bytes` of it not yet reported by addBytes).
    void fileDone(int64_t bytes);
    // Clears the live line and prints the summary on stdout, with `extra`
    // appended (e.g. ", 12 unchanged"). Its time and rate are those of the
    // whole command, listings and checksums included.
    void finish(std::string const& extra);

    // Shows `note` at the end of the live line from now on ("paced: ..."),
    // nothing when empty.
    void setNote(std::string note);

    int64_t bytes() const { return _bytes; }
    int64_t files() const { return _files; }

  private:
    void draw(bool force);
    double seconds() const;

    std::string _verb;
    int64_t _total_bytes;
    int64_t _total_files;
    bool _live;
    bool _quiet;
    int64_t _bytes = 0;
    int64_t _files = 0;
    std::string _note;
    std::chrono::steady_clock::time_point _start;
    std::chrono::steady_clock::time_point _drawn{};
};

// The phases before the transfers (listing a tree, making its folders) on
// the same live line: "listing: 120 folders", "making folders: 3/14". Only
// on a terminal and unless quiet; cleared when it goes.
class StatusLine {
  public:
    explicit StatusLine(bool quiet);
    ~StatusLine();
    StatusLine(StatusLine const&) = delete;
    StatusLine& operator=(StatusLine const&) = delete;

    // Shows `what` with `done` (and `total` unless negative); redraws at most
    // five times a second.
    void show(char const* what, int64_t done, int64_t total = -1);

  private:
    bool _live;
    bool _shown = false;
    std::chrono::steady_clock::time_point _drawn{};
};

}  // namespace gdhost
