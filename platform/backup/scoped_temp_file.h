// A temporary file beside a target path, so that rename() onto the target is
// atomic. Readers of the target see either the old file or the complete new one.
#pragma once

#include <string>

namespace TAVO {
namespace Backup {

class ScopedTempFile {
  public:
    // Creates an empty file, mode 0600, in the target's folder. With `hidden`
    // its name starts with a dot (".<name>.tmp.XXXXXX") so that listings of
    // the folder pass over it; <name> is cut short when the whole would pass
    // NAME_MAX. On failure isValid() is false and errno tells why.
    ScopedTempFile(std::string const& target, bool hidden);
    // Removes the temporary file unless it was renamed onto a target.
    ~ScopedTempFile();
    ScopedTempFile(ScopedTempFile const&) = delete;
    ScopedTempFile& operator=(ScopedTempFile const&) = delete;

    bool isValid() const { return !_path.empty(); }
    std::string const& getPath() const { return _path; }

    // Moves the temporary file onto `target`. On success the object no longer
    // owns a file; on failure (errno set) the file stays owned and is removed
    // by the destructor.
    bool rename(std::string const& target);

  private:
    std::string _path;
};

}  // namespace Backup
}  // namespace TAVO
