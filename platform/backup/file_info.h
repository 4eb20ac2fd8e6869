// The engine's record of one file as the engine sees it.
#pragma once

#include <cstdint>
#include <string>

namespace TAVO {
namespace Backup {

class FileInfo {
public:
    enum Type { TYPE_UNKNOWN = 0, TYPE_DIR, TYPE_REG };

    FileInfo() = default;
    explicit FileInfo(std::string const& rpath) : _rpath(rpath) {}

    // Resets type, size, mtime and checksum; keeps the relative path, which
    // names the entry rather than describing it.
    void clear();

    void setRpath(std::string const& rpath) { _rpath = rpath; }
    void setDirType() { _type = TYPE_DIR; }
    void setRegType() { _type = TYPE_REG; }
    void setSize(int64_t size) { _size = size; }
    void setMtime(int64_t mtime) { _mtime = mtime; }
    void setChecksum(std::string const& checksum) { _checksum = checksum; }

    std::string const& getRpath() const { return _rpath; }
    Type getType() const { return _type; }
    bool isDirType() const { return _type == TYPE_DIR; }
    bool isRegType() const { return _type == TYPE_REG; }
    int64_t getSize() const { return _size; }
    int64_t getMtime() const { return _mtime; }
    std::string const& getChecksum() const { return _checksum; }

private:
    std::string _rpath;
    Type _type = TYPE_UNKNOWN;
    int64_t _size = 0;
    int64_t _mtime = 0;
    std::string _checksum;
};

}  // namespace Backup
}  // namespace TAVO
