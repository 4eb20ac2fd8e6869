// The node cache file's line format: one JSON object per record,
//   {"d":true,"i":"<id>","n":"<name>","p":["<parent>",...]}
// as the engine's one-line JSON writer prints it. The general converters are
// the reference; the store writes and reads the same bytes directly, because
// going through Json::Value for every line costs most of a save or load.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "file_meta_store.h"
#include "googledrive_meta.h"

namespace TAVO {
namespace Backup {
namespace GoogleDriveTA {

// One record as its line, without the line feed.
std::string _meta_to_str(std::string const& id, FileMetaRecord const& record);

// Parses one line (a trailing line feed allowed) into `meta`: "i" as the id,
// "n" as the name, "d" as the folder flag, each element of "p" added to the
// parents; missing or null members read as empty or false. Returns false,
// `meta` untouched, when the line is not one JSON object or when a member has
// another type (a string for "i" and "n", a boolean for "d", an array of
// strings for "p"). Never throws but std::bad_alloc.
bool _str_to_meta(std::string const& line, GoogleDrive::FileMeta& meta);

namespace internal {

// A record whose strings live elsewhere: in a line, a FileMeta, or `scratch`.
struct RecordView {
    std::string_view id;
    std::string_view name;
    std::vector<std::string_view> parents;
    bool isDir = false;
    std::string scratch;  // unescaped strings of a parsed line
};

// Sorts parents and drops repeats, leaving them as a std::set would hold them.
void normalizeParents(std::vector<std::string_view>& parents);

// Reads a line of exactly the writer's shape (followed by JSON whitespace
// only) into `out`, giving what _str_to_meta gives. Returns false for any
// other line, which then needs _str_to_meta; the parsed text then points into
// `line` and `out.scratch`.
bool parseCanonicalLine(std::string_view line, RecordView& out);

// Bytes that writeQuoted() may write for a string of `size` bytes.
inline size_t quotedCapacity(size_t size) { return 6 * size + 2; }

// Writes `text` at `out` as a JSON string, quoted and escaped as the engine's
// writer does it: '"', '\\', \b \f \n \r \t, other bytes below 0x20 as
// \u00xx. REQUIRES: quotedCapacity(text.size()) bytes of room. Returns the
// end of what it wrote.
char* writeQuoted(char* out, std::string_view text);

}  // namespace internal
}  // namespace GoogleDriveTA
}  // namespace Backup
}  // namespace TAVO
