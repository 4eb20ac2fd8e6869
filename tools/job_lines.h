// Jobs and results between the tool and its worker processes travel as one
// JSON object per line over a pair of sockets.
#pragma once

#include <json/value.h>

#include <string>

namespace gdhost {

// Writes all of `text` to the socket `fd`; false when the peer is gone (a
// failed write, never SIGPIPE).
bool sendAll(int fd, std::string const& text);

// `value` as one compact line, ending in a line feed.
std::string lineOf(Json::Value const& value);

// Parses one line into `value`; false unless it holds a JSON object.
bool parseLine(std::string const& line, Json::Value& value);

// Reads lines from a file descriptor, however the bytes arrive.
class LineReader {
  public:
    explicit LineReader(int fd) : _fd(fd) {}
    // The next line, without its line feed; false at the end of the input
    // or on a read error (a partial last line is dropped).
    bool next(std::string& line);

  private:
    int _fd;
    std::string _pending;
};

}  // namespace gdhost
