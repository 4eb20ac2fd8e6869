// The emulator's search expression parser: any text is either refused with
// the service's own error or turned into an SQL condition.
#include <cstdint>
#include <string>
#include <vector>

#include "drive_types.h"
#include "query.h"

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    std::string const text(reinterpret_cast<char const*>(data), size);
    try {
        DriveEmulator::ParsedQuery query = DriveEmulator::parseQuery(text);
        std::vector<std::string> params;
        DriveEmulator::queryToSql(*query.root, params, "root-id");
    } catch (DriveEmulator::Error const&) {
    }
    return 0;
}
