// How the tool writes what it found: human units, readable times, listing
// lines and JSON documents.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

#include "backup/file_info.h"

namespace gdhost {

// "0 B", "512 B", "1.5 KiB", "3.2 GiB": one decimal above 1 KiB.
std::string humanBytes(int64_t bytes);

// "1 file", "2 files", "0 files": `count` and the noun, plural unless one.
std::string counted(int64_t count, std::string const& noun);

// `text` with control characters written as C escapes ("\n", "\t", "\033"),
// backslashes doubled, as `ls -b` shows names.
std::string escapeControls(std::string const& text);

// `text` with every byte that is not part of valid UTF-8 replaced by U+FFFD,
// so that a strict decoder reads a JSON document holding it.
std::string validUtf8(std::string const& text);

// Local time as "YYYY-MM-DD HH:MM:SS".
std::string readableTime(int64_t epochSeconds);

// One JSON object for an entry: name, type ("file"/"folder"), size, mtime
// (epoch seconds), modified (readable), md5 (files only).
Json::Value entryJson(TAVO::Backup::FileInfo const& info, std::string const& name);

// The header of `ls -l`, then one line per entry: type, size, time, md5, name
// (the name last, whole, spaces included).
void printLongHeader();
void printLongLine(TAVO::Backup::FileInfo const& info, std::string const& name);

// Writes `document` to stdout, indented, followed by a line feed; bytes of
// its strings that are not UTF-8 are written as U+FFFD.
void printJson(Json::Value const& document);

}  // namespace gdhost
