// The node cache's compact tables. A large backup target holds a million
// objects, and an agent on a small NAS cannot spend hundreds of bytes on each:
// the store keeps every string once in one buffer, names parent folders by a
// small number, and keeps records and index entries as small fixed-size rows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace TAVO {
namespace Backup {
namespace GoogleDriveTA {
namespace internal {

// Where a string lies in a TextArena.
using TextRef = uint32_t;
// An index entry whose object was erased; the row waits for the next merge.
constexpr TextRef kNoText = UINT32_MAX;

// Immutable strings appended to one buffer and named by their offset, which,
// unlike a pointer, survives the buffer's growth. Nothing is freed before
// clear(). A string is one length byte (255: a 4-byte length follows), then
// its bytes.
class TextArena {
  public:
    // Appends a copy of `text`. Throws std::length_error when the buffer
    // would pass 4 GiB, std::bad_alloc when memory runs out.
    TextRef add(std::string_view text);

    // The string at `ref`. Valid until the next add() or clear().
    std::string_view view(TextRef ref) const {
        char const* at = _bytes.data() + ref;
        unsigned char size = static_cast<unsigned char>(*at);
        if (size != kLongSize) return std::string_view(at + 1, size);
        uint32_t longSize;
        memcpy(&longSize, at + 1, sizeof longSize);
        return std::string_view(at + 1 + sizeof longSize, longSize);
    }

    // Room for `bytes` bytes of strings without moving the buffer, backed by
    // huge pages where the kernel offers them.
    void reserve(size_t bytes);
    // Forgets every string and gives back the memory.
    void clear() { std::vector<char>().swap(_bytes); }

  private:
    static constexpr unsigned char kLongSize = 255;
    std::vector<char> _bytes;
};

// Asks the kernel to back the whole pages of [data, data + bytes) with huge
// pages. A load fills its large buffers in one pass, and each first touch of
// a 4 KiB page costs a fault (dear on a virtual machine); a no-op where
// transparent huge pages are off.
void adviseHugePages(void const* data, size_t bytes);

// Parent folder ids, each interned once and named by a number given in order
// of arrival. Numbers stay valid until clear().
class ParentTable {
  public:
    // The number of `parentId`, interned (its text in `text`) when new.
    uint32_t intern(std::string_view parentId, TextArena& text);
    // False when `parentId` was never interned; otherwise its number.
    bool find(std::string_view parentId, TextArena const& text, uint32_t& number) const;
    // The text of a number.
    TextRef textOf(uint32_t number) const { return _texts[number]; }
    size_t size() const { return _texts.size(); }
    void clear();

  private:
    size_t slotOf(std::string_view parentId, TextArena const& text) const;
    void grow(TextArena const& text);

    std::vector<TextRef> _texts;   // by number
    std::vector<uint32_t> _slots;  // open addressing: number + 1, 0 when free
};

// The first 8 bytes of `text` as a big-endian number, zero-padded: numbers
// that differ order their strings as byte-wise comparison does, so most
// comparisons of ids or names need not read their text.
inline uint64_t orderPrefix(std::string_view text) {
    unsigned char bytes[8] = {};
    memcpy(bytes, text.data(), text.size() < sizeof bytes ? text.size() : sizeof bytes);
    uint64_t prefix = 0;
    for (unsigned char byte : bytes) prefix = prefix << 8 | byte;
    return prefix;
}

// One object. Its parents are, by count: none; one, whose number is
// `parents`; or several, whose numbers sit in the store's parent lists from
// position `parents` on, in the byte order of their ids.
struct Record {
    uint64_t idPrefix;  // orderPrefix of the id's text
    TextRef id;
    TextRef name;
    uint32_t parents;
    uint32_t parentCount : 30;
    uint32_t isDir : 1;
    uint32_t dead : 1;  // erased; the row waits for the next merge
};

// Records added since the last merge, in order of arrival, found by the text
// of their ids through an open-addressing table: an insert costs a hash and
// an append, not a walk down a tree. An erased record stays, marked dead,
// until the store merges and clears them.
class AddedRecords {
  public:
    // The record of `id`, dead or alive, or null. Valid until the next add()
    // or clear().
    Record* find(std::string_view id, TextArena const& text);
    // Appends `record`, whose id `id` must not be here yet.
    void add(Record const& record, std::string_view id, TextArena const& text);
    // The live records, ordered by id as the sorted rows are.
    std::vector<Record const*> sortedLive(TextArena const& text) const;
    size_t size() const { return _records.size(); }
    void clear();

  private:
    static uint32_t hashOf(std::string_view id);
    // The slot holding `id`, or the free slot where it would go.
    size_t slotOf(std::string_view id, uint32_t hash, TextArena const& text) const;
    void grow();

    std::vector<Record> _records;
    // Per slot: the id's hash in the high half, its position + 1 in the low
    // half; 0 when free.
    std::vector<uint64_t> _slots;
};

// The index entry (parent number, name) -> object id.
struct IndexEntry {
    uint32_t parent;
    TextRef name;
    TextRef id;  // kNoText when erased
};

// Key and lookup form of an index entry in the ordered overlay.
struct IndexKey {
    uint32_t parent;
    TextRef name;
};
struct IndexProbe {
    uint32_t parent;
    std::string_view name;
};

// Orders index entries by parent number, then name byte-wise.
struct IndexOrder {
    using is_transparent = void;
    TextArena const* text;
    static bool less(uint32_t p1, std::string_view n1, uint32_t p2, std::string_view n2) {
        return p1 != p2 ? p1 < p2 : n1 < n2;
    }
    bool operator()(IndexKey a, IndexKey b) const {
        return less(a.parent, text->view(a.name), b.parent, text->view(b.name));
    }
    bool operator()(IndexKey a, IndexProbe b) const {
        return less(a.parent, text->view(a.name), b.parent, b.name);
    }
    bool operator()(IndexProbe a, IndexKey b) const {
        return less(a.parent, a.name, b.parent, text->view(b.name));
    }
};

}  // namespace internal
}  // namespace GoogleDriveTA
}  // namespace Backup
}  // namespace TAVO
