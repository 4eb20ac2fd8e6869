#include "protocol_out.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "drive_api.h"

namespace DriveAgent {

void writeLine(int fd, std::string const& line) {
    std::string text = line + "\n";
    for (size_t done = 0; done < text.size();) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) std::_Exit(0);
        done += static_cast<size_t>(n);
    }
}

void ProgressLines::reached(std::int64_t done) {
    if (_step <= 0 || _total <= 0) return;
    if (done < _next) return;
    while (_next <= done) _next += _step;
    if (done >= _total) {
        finish();
    } else {
        send(double(done) / double(_total));
    }
}

void ProgressLines::finish() {
    if (_ended || _total <= 0) return;
    _ended = true;
    send(1.0);
}

void ProgressLines::send(double fraction) {
    Json::Value line(Json::objectValue);
    line["success"] = true;
    line["complete"] = false;
    line["progress"] = std::min(1.0, fraction);
    writeLine(_fd, toLine(line));
}

}  // namespace DriveAgent
