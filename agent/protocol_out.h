// The drive agent's side of the pipe: answer lines and the progress lines of
// a transfer, written whole to the protocol's descriptor.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

namespace DriveAgent {

// Writes `line` and a line feed to `fd`; a reader that went away ends the
// process (status 0), as nobody is left to answer.
void writeLine(int fd, std::string const& line);

// Progress lines of one transfer: one each time another `step` bytes are
// done and one at the end, never going back when a resume re-sends bytes.
class ProgressLines {
  public:
    ProgressLines(int fd, std::int64_t total, std::int64_t step = 8 << 20)
        : _fd(fd), _total(total), _step(step), _next(step) {}
    // `done` bytes of the total are now through.
    void reached(std::int64_t done);
    // The transfer is through: the final 1.0 unless it was sent already.
    void finish();

  private:
    void send(double fraction);

    int _fd;
    std::int64_t _total;
    std::int64_t _step;
    std::int64_t _next;
    bool _ended = false;
};

}  // namespace DriveAgent
