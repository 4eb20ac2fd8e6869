#include "backup/file_info.h"

namespace TAVO {
namespace Backup {

void FileInfo::clear() {
    _type = TYPE_UNKNOWN;
    _size = 0;
    _mtime = 0;
    _checksum.clear();
}

}  // namespace Backup
}  // namespace TAVO
