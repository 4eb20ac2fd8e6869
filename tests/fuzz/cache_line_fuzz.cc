// One line of the node cache file. A line that parses must make a record that
// the store keeps and that reads back the same from its own line.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "file_meta_store.h"
#include "file_meta_store_format.h"

using namespace TAVO::Backup;

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    std::string const line(reinterpret_cast<char const*>(data), size);
    GoogleDrive::FileMeta meta;
    if (!GoogleDriveTA::_str_to_meta(line, meta)) return 0;
    GoogleDriveTA::FileMetaStore store;
    store.insert(meta);
    GoogleDrive::FileMeta found;
    if (!store.find(meta.id, found) || found.name != meta.name || found.isDir != meta.isDir)
        abort();

    GoogleDriveTA::FileMetaRecord record(meta.parents, meta.name, meta.isDir);
    GoogleDrive::FileMeta again;
    if (!GoogleDriveTA::_str_to_meta(GoogleDriveTA::_meta_to_str(meta.id, record), again) ||
        again.id != meta.id || again.name != meta.name || again.parents != meta.parents ||
        again.isDir != meta.isDir)
        abort();
    return 0;
}
