#include "job_lines.h"

#include <json/json.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

namespace gdhost {

bool sendAll(int fd, std::string const& text) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// The writer and reader are made once, not for each of the thousands of
// lines of a tree.
std::string lineOf(Json::Value const& value) {
    static Json::StreamWriterBuilder const builder = [] {
        Json::StreamWriterBuilder b;
        b["indentation"] = "";
        // Bytes as they are: a local name need not be UTF-8 (an old share's
        // Latin-1), and escaping would decode it as if it were.
        b["emitUTF8"] = true;
        return b;
    }();
    return Json::writeString(builder, value) + "\n";
}

bool parseLine(std::string const& line, Json::Value& value) {
    static std::unique_ptr<Json::CharReader> const reader(
        Json::CharReaderBuilder().newCharReader());
    return reader->parse(line.data(), line.data() + line.size(), &value, nullptr) &&
           value.isObject();
}

bool LineReader::next(std::string& line) {
    for (;;) {
        size_t end = _pending.find('\n');
        if (end != std::string::npos) {
            line = _pending.substr(0, end);
            _pending.erase(0, end + 1);
            return true;
        }
        char buffer[4096];
        ssize_t n = read(_fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        _pending.append(buffer, static_cast<size_t>(n));
    }
}

}  // namespace gdhost
