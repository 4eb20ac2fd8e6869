#include "file_meta_store_tables.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <limits>
#include <stdexcept>

namespace TAVO {
namespace Backup {
namespace GoogleDriveTA {
namespace internal {

void adviseHugePages(void const* data, size_t bytes) {
    uintptr_t const huge = uintptr_t(1) << 21;
    uintptr_t begin = (reinterpret_cast<uintptr_t>(data) + huge - 1) & ~(huge - 1);
    uintptr_t end = (reinterpret_cast<uintptr_t>(data) + bytes) & ~(huge - 1);
    if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}

void TextArena::reserve(size_t bytes) {
    _bytes.reserve(bytes);
    adviseHugePages(_bytes.data(), _bytes.capacity());
}

TextRef TextArena::add(std::string_view text) {
    size_t header = text.size() < kLongSize ? 1 : 1 + sizeof(uint32_t);
    size_t at = _bytes.size();
    // kNoText itself is never a valid offset.
    if (text.size() + header >= std::numeric_limits<TextRef>::max() - at)
        throw std::length_error("node cache strings beyond 4 GiB");
    _bytes.resize(at + header + text.size());
    char* out = _bytes.data() + at;
    if (header == 1) {
        *out++ = static_cast<char>(text.size());
    } else {
        uint32_t size = static_cast<uint32_t>(text.size());
        *out++ = static_cast<char>(kLongSize);
        memcpy(out, &size, sizeof size);
        out += sizeof size;
    }
    if (!text.empty()) memcpy(out, text.data(), text.size());
    return static_cast<TextRef>(at);
}

size_t ParentTable::slotOf(std::string_view parentId, TextArena const& text) const {
    size_t mask = _slots.size() - 1;
    size_t slot = std::hash<std::string_view>()(parentId) & mask;
    while (_slots[slot] != 0 && text.view(_texts[_slots[slot] - 1]) != parentId)
        slot = (slot + 1) & mask;
    return slot;
}

bool ParentTable::find(std::string_view parentId, TextArena const& text, uint32_t& number) const {
    if (_slots.empty()) return false;
    uint32_t found = _slots[slotOf(parentId, text)];
    if (found == 0) return false;
    number = found - 1;
    return true;
}

uint32_t ParentTable::intern(std::string_view parentId, TextArena& text) {
    uint32_t number;
    if (find(parentId, text, number)) return number;
    // At most half full, so that probes stay short.
    if (2 * (_texts.size() + 1) > _slots.size()) grow(text);
    number = static_cast<uint32_t>(_texts.size());
    TextRef ref = text.add(parentId);
    _texts.push_back(ref);
    _slots[slotOf(parentId, text)] = number + 1;
    return number;
}

void ParentTable::grow(TextArena const& text) {
    std::vector<uint32_t> old(std::max<size_t>(64, 2 * _slots.size()), 0);
    old.swap(_slots);  // `old` now holds the full table, `_slots` the empty one
    for (uint32_t slot : old)
        if (slot != 0) _slots[slotOf(text.view(_texts[slot - 1]), text)] = slot;
}

uint32_t AddedRecords::hashOf(std::string_view id) {
    return static_cast<uint32_t>(std::hash<std::string_view>()(id));
}

size_t AddedRecords::slotOf(std::string_view id, uint32_t hash, TextArena const& text) const {
    size_t mask = _slots.size() - 1;
    for (size_t slot = hash & mask;; slot = (slot + 1) & mask) {
        uint64_t entry = _slots[slot];
        if (entry == 0) return slot;
        if (entry >> 32 == hash && text.view(_records[(entry & UINT32_MAX) - 1].id) == id)
            return slot;
    }
}

Record* AddedRecords::find(std::string_view id, TextArena const& text) {
    if (_slots.empty()) return nullptr;
    uint64_t entry = _slots[slotOf(id, hashOf(id), text)];
    return entry == 0 ? nullptr : &_records[(entry & UINT32_MAX) - 1];
}

void AddedRecords::add(Record const& record, std::string_view id, TextArena const& text) {
    // At most half full, so that probes stay short.
    if (2 * (_records.size() + 1) > _slots.size()) grow();
    _records.push_back(record);
    uint32_t hash = hashOf(id);
    _slots[slotOf(id, hash, text)] = uint64_t{hash} << 32 | _records.size();
}

void AddedRecords::grow() {
    std::vector<uint64_t> old(std::max<size_t>(64, 2 * _slots.size()), 0);
    old.swap(_slots);
    size_t mask = _slots.size() - 1;
    for (uint64_t entry : old) {
        if (entry == 0) continue;
        size_t slot = (entry >> 32) & mask;
        while (_slots[slot] != 0) slot = (slot + 1) & mask;
        _slots[slot] = entry;
    }
}

std::vector<Record const*> AddedRecords::sortedLive(TextArena const& text) const {
    std::vector<Record const*> live;
    live.reserve(_records.size());
    for (Record const& record : _records)
        if (!record.dead) live.push_back(&record);
    std::sort(live.begin(), live.end(), [&text](Record const* a, Record const* b) {
        return a->idPrefix != b->idPrefix ? a->idPrefix < b->idPrefix
                                          : text.view(a->id) < text.view(b->id);
    });
    return live;
}

void AddedRecords::clear() {
    std::vector<Record>().swap(_records);
    std::vector<uint64_t>().swap(_slots);
}

void ParentTable::clear() {
    std::vector<TextRef>().swap(_texts);
    std::vector<uint32_t>().swap(_slots);
}

}  // namespace internal
}  // namespace GoogleDriveTA
}  // namespace Backup
}  // namespace TAVO
