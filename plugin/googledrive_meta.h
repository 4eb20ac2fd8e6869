// The plug-in's record of one Drive object (file or folder) as the drive agent
// describes it, and its conversion to the engine's FileInfo.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <set>
#include <string>

#include "backup/file_info.h"

namespace TAVO {
namespace Backup {
namespace GoogleDrive {

// A plain value: copies are deep and assignment replaces every field, the
// parent set included. An empty string means "unknown" in id, name,
// md5Checksum and status.
class FileMeta {
  public:
    // Fills the record from one Drive object of a drive agent response. Only
    // the keys present are read; every other field keeps its value, and
    // "parents" are added to those already held. Always returns true; a value
    // of the wrong JSON type raises JsonCpp's own exception.
    bool setFileMeta(Json::Value const& object);

    // Every field equal.
    bool operator==(FileMeta const& other) const;

    std::string id;
    std::string name;
    std::set<std::string> parents;  // ids of the folders holding the object
    bool isDir = false;
    uint64_t size = 0;
    uint32_t lastModified = 0;  // seconds since the Unix epoch
    std::string md5Checksum;    // as the service reports it, never computed here
    std::string status;         // "TRASH", "AVAILABLE", or empty when not reported
};

}  // namespace GoogleDrive

// Writes the engine-visible status of `meta` into `info`: mtime always; for a
// folder the directory type only, for a file the regular type, size and
// checksum. Leaves the relative path of `info` alone. Always returns true.
bool fileMetaToFileInfo(GoogleDrive::FileMeta const& meta, FileInfo& info);

}  // namespace Backup
}  // namespace TAVO
