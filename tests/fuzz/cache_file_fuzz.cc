// The node cache loader on whole files. Whatever the file holds, load() must
// return without raising, and what it loaded must survive a save and a reload.
#include <stdlib.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

#include "file_meta_store.h"

using TAVO::Backup::GoogleDriveTA::FileMetaStore;

namespace {
// The run's scratch folder, removed when the run ends: one per run would
// otherwise pile up in shared memory.
std::string scratch;
void removeScratch() {
    std::error_code ignored;
    std::filesystem::remove_all(scratch, ignored);
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    // In shared memory: the saves sync, which a disk would make slow.
    static std::string const dir = [] {
        char name[] = "/dev/shm/cache_file_fuzz.XXXXXX";
        scratch = mkdtemp(name);
        atexit(removeScratch);
        return scratch;
    }();
    std::string const input = dir + "/input.node";
    std::string const copy = dir + "/copy.node";
    FILE* file = fopen(input.c_str(), "wb");
    fwrite(data, 1, size, file);
    fclose(file);

    FileMetaStore loaded;
    loaded.load(input);
    // A loaded store is clean and saves nothing; the rewrite happens only after a change.
    remove(copy.c_str());
    FileMetaStore rewritten;
    rewritten.load(copy);
    for (char const* id : {"fuzz-a", "fuzz-b"}) {
        TAVO::Backup::GoogleDrive::FileMeta meta;
        meta.id = id;
        meta.name = id;
        meta.parents.insert("root");
        loaded.insert(meta);
    }
    if (!loaded.save(copy) || !rewritten.load(copy) || rewritten.size() != loaded.size()) abort();
    return 0;
}
