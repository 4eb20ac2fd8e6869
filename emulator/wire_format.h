// How the emulator's answers look on the wire: the object record, the account
// answer, failures and progress messages, and the compact one-line writer.
#pragma once

#include <json/value.h>
#include <json/writer.h>

#include <memory>
#include <sstream>
#include <string>

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
