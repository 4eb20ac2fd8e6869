#include "googledrive_meta.h"

namespace TAVO {
namespace Backup {
namespace GoogleDrive {

bool FileMeta::setFileMeta(Json::Value const& object) {
    if (object.isMember("id")) id = object["id"].asString();
    if (object.isMember("name")) name = object["name"].asString();
    if (object.isMember("parents")) {
        // Added to, not replacing, what the record holds: callers that reuse a
        // record reset it themselves.
        Json::Value const& list = object["parents"];
        for (Json::ArrayIndex i = 0; i < list.size(); ++i) parents.insert(list[i].asString());
    }
    if (!object.isMember("properties")) return true;

    Json::Value const& properties = object["properties"];
    if (properties.isMember("isDir")) isDir = properties["isDir"].asBool();
    if (properties.isMember("size")) size = properties["size"].asUInt64();
    if (properties.isMember("lastModified")) lastModified = properties["lastModified"].asUInt();
    if (properties.isMember("md5Checksum")) md5Checksum = properties["md5Checksum"].asString();
    // Absent means the response did not say; the status then stays as it was.
    if (properties.isMember("isTrash"))
        status = properties["isTrash"].asBool() ? "TRASH" : "AVAILABLE";
    return true;
}

bool FileMeta::operator==(FileMeta const& other) const {
    return id == other.id && name == other.name && parents == other.parents &&
           isDir == other.isDir && size == other.size && lastModified == other.lastModified &&
           md5Checksum == other.md5Checksum && status == other.status;
}

}  // namespace GoogleDrive

bool fileMetaToFileInfo(GoogleDrive::FileMeta const& meta, FileInfo& info) {
    // Widened without sign: a time past 2038 stays positive.
    info.setMtime(static_cast<int64_t>(meta.lastModified));
    if (meta.isDir) {
        info.setDirType();
        return true;
    }
    info.setRegType();
    info.setSize(static_cast<int64_t>(meta.size));
    info.setChecksum(meta.md5Checksum);
    return true;
}

}  // namespace Backup
}  // namespace TAVO
