// One page of a "listObjects" answer, read straight from the answer's text:
// a large listing spends most of its time building and reading JSON trees.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "googledrive_meta.h"

namespace TAVO {
namespace Backup {
namespace GoogleDrive {

struct ListingPage {
    std::vector<FileMeta> objects;
    std::string nextPageToken;  // empty on the last page
};

// Reads a successful listing answer of the usual shape into `page`: members
// "success" (true), "nextPageToken" and "objects", each object with a
// non-empty "id", "name", "parents" and "properties" (isDir, isTrash false,
// size, lastModified, md5Checksum), in any order. The result is what the
// general JSON parser and FileMeta::setFileMeta give for the same text.
// Returns false for anything else (other members or types, a failure, a
// trashed object or one without an id, escapes beyond ASCII, duplicate
// members, bad syntax): such a line must be read by the general parser. Never
// throws but std::bad_alloc.
bool readListingPage(std::string_view line, ListingPage& page);

}  // namespace GoogleDrive
}  // namespace Backup
}  // namespace TAVO
