// An owned file descriptor, closed when it goes out of scope.
#pragma once

#include <unistd.h>

namespace DriveEmulator {

class Fd {
  public:
    explicit Fd(int fd) : _fd(fd) {}
    ~Fd() {
        if (_fd >= 0) ::close(_fd);
    }
    Fd(Fd const&) = delete;
    Fd& operator=(Fd const&) = delete;
    int get() const { return _fd; }
    // Closes now, reporting a failure (a write the file system refused late).
    bool close() {
        int fd = _fd;
        _fd = -1;
        return ::close(fd) == 0;
    }

  private:
    int _fd;
};

}  // namespace DriveEmulator
