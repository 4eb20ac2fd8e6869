// How the emulator's answers look on the wire: the object record, the account
// answer, failures and progress messages, and the compact one-line writer.
#pragma once

#include <json/value.h>
#include <json/writer.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "drive_types.h"

namespace DriveEmulator {

// {"id", "name", "parents": [...], "properties": {"isDir", "size",
// "lastModified", "md5Checksum", "isTrash"}}.
Json::Value objectRecord(Object const& object);
// A success answer carrying `object`'s record at top level.
Json::Value objectResponse(Object const& object);
// {"success": true, "account", "userName", "quota" (null when unlimited), "usedSize"}.
Json::Value accountResponse(Account const& account);
// {"success": false, "error_code": code, "error_message": message}.
Json::Value failureResponse(int code, std::string const& message);
// {"success": true, "complete": false, "progress": fraction}.
Json::Value progressMessage(double fraction);

// The answer to a listing: {"nextPageToken" (when not empty), "objects": the
// records of `objects`, "success": true}, as LineWriter renders it, written
// without building a Json::Value (a listing of 100 objects is most of what a
// walk of a large tree costs the emulator). False, `line` then undefined,
// when a string would need an escape: the caller renders the value instead.
bool renderListing(std::vector<Object> const& objects, std::string const& nextPageToken,
                   std::string& line);

// Renders values as single-line JSON text (no line feed), reusing one writer.
class LineWriter {
  public:
    LineWriter();
    std::string render(Json::Value const& value);

  private:
    std::unique_ptr<Json::StreamWriter> _writer;
    std::ostringstream _stream;
};

}  // namespace DriveEmulator
