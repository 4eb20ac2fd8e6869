#include "googledrive_meta_page.h"

#include <cstdint>

#include "googledrive_meta_cursor.h"

namespace TAVO {
namespace Backup {
namespace GoogleDrive {
namespace {

// Calls `member(key)` for each member of the object at the cursor, the
// cursor then at the member's value. False when the object is malformed, a
// key repeats among `keys` (the general parser refuses duplicate keys), or
// `member` refuses.
template <size_t N, class Member>
bool readObject(JsonLineCursor& in, std::string_view const (&keys)[N], Member member) {
    if (!in.token("{")) return false;
    in.skipSpace();
    if (in.literal("}")) return true;
    unsigned seen = 0;
    do {
        std::string_view key;
        in.skipSpace();
        if (!in.string(key) || !in.token(":")) return false;
        size_t k = 0;
        while (k < N && keys[k] != key) ++k;
        if (k == N || (seen & (1u << k))) return false;
        seen |= 1u << k;
        in.skipSpace();
        if (!member(k)) return false;
    } while (in.token(","));
    return in.token("}");
}

// Calls `element()` for each element of the array at the cursor, the cursor
// then at the element.
template <class Element>
bool readArray(JsonLineCursor& in, Element element) {
    if (!in.token("[")) return false;
    in.skipSpace();
    if (in.literal("]")) return true;
    do {
        in.skipSpace();
        if (!element()) return false;
    } while (in.token(","));
    return in.token("]");
}

bool readString(JsonLineCursor& in, std::string& out) {
    std::string_view text;
    if (!in.string(text)) return false;
    out.assign(text.data(), text.size());
    return true;
}

constexpr std::string_view kPageKeys[] = {"success", "nextPageToken", "objects"};
constexpr std::string_view kObjectKeys[] = {"id", "name", "parents", "properties"};
constexpr std::string_view kPropertyKeys[] = {"isDir", "isTrash", "size", "lastModified",
                                              "md5Checksum"};

bool readProperties(JsonLineCursor& in, FileMeta& meta) {
    return readObject(in, kPropertyKeys, [&](size_t key) {
        bool trashed = false;
        uint64_t number = 0;
        switch (key) {
            case 0:
                return in.boolean(meta.isDir);
            case 1:
                // A trashed object in a listing is an error the caller reports.
                if (!in.boolean(trashed) || trashed) return false;
                meta.status = "AVAILABLE";
                return true;
            case 2:
                if (!in.unsignedInteger(number)) return false;
                meta.size = number;
                return true;
            case 3:
                if (!in.unsignedInteger(number) || number > UINT32_MAX) return false;
                meta.lastModified = static_cast<uint32_t>(number);
                return true;
            default:
                return readString(in, meta.md5Checksum);
        }
    });
}

bool readRecord(JsonLineCursor& in, FileMeta& meta) {
    bool ok = readObject(in, kObjectKeys, [&](size_t key) {
        switch (key) {
            case 0:
                return readString(in, meta.id);
            case 1:
                return readString(in, meta.name);
            case 2:
                return readArray(in, [&] {
                    std::string_view parent;
                    if (!in.string(parent)) return false;
                    meta.parents.emplace(parent);
                    return true;
                });
            default:
                return readProperties(in, meta);
        }
    });
    // An object without an id is an error the caller reports.
    return ok && !meta.id.empty();
}

}  // namespace

bool readListingPage(std::string_view line, ListingPage& page) {
    page.objects.clear();
    page.nextPageToken.clear();
    std::string scratch;
    scratch.reserve(line.size());
    JsonLineCursor in(line, scratch);
    bool success = false;
    bool ok = readObject(in, kPageKeys, [&](size_t key) {
        switch (key) {
            case 0:
                return in.boolean(success);
            case 1:
                return readString(in, page.nextPageToken);
            default:
                return readArray(in, [&] {
                    page.objects.emplace_back();
                    return readRecord(in, page.objects.back());
                });
        }
    });
    return ok && success && in.atEnd();
}

}  // namespace GoogleDrive
}  // namespace Backup
}  // namespace TAVO
