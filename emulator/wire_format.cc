#include "wire_format.h"

namespace DriveEmulator {

Json::Value objectRecord(Object const& object) {
    Json::Value record(Json::objectValue);
    record["id"] = object.id;
    // The drive agent reports the root folder without a name: the plug-in's
    // node cache then files it under (no parent, no name), the very key a walk
    // from "/" looks up, so warm walks need no request for the root.
    if (!object.parents.empty()) record["name"] = object.name;
    Json::Value& parents = record["parents"] = Json::Value(Json::arrayValue);
    for (auto const& parent : object.parents) parents.append(parent);
    Json::Value& properties = record["properties"];
    properties["isDir"] = object.isDir;
    properties["size"] = Json::UInt64(object.size);
    properties["lastModified"] = Json::UInt64(object.mtime < 0 ? 0 : object.mtime);
    properties["md5Checksum"] = object.md5;
    properties["isTrash"] = object.trashed;
    return record;
}

Json::Value objectResponse(Object const& object) {
    Json::Value response = objectRecord(object);
    response["success"] = true;
    return response;
}

Json::Value accountResponse(Account const& account) {
    Json::Value response(Json::objectValue);
    response["success"] = true;
    response["account"] = account.email;
    response["userName"] = account.userName;
    response["quota"] = account.quota ? Json::Value(Json::Int64(*account.quota)) : Json::Value();
    response["usedSize"] = Json::Int64(account.usedSize);
    return response;
}

Json::Value failureResponse(int code, std::string const& message) {
    Json::Value response(Json::objectValue);
    response["success"] = false;
    response["error_code"] = code;
    response["error_message"] = message;
    return response;
}

Json::Value progressMessage(double fraction) {
    Json::Value message(Json::objectValue);
    message["success"] = true;
    message["complete"] = false;
    message["progress"] = fraction;
    return message;
}

namespace {

// Appends `text` quoted; false when a byte of it would need an escape.
bool appendPlain(std::string& line, std::string const& text) {
    for (char c : text) {
        if (static_cast<unsigned char>(c) < 0x20 || c == '"' || c == '\\') return false;
    }
    line += '"';
    line += text;
    line += '"';
    return true;
}

}  // namespace

bool renderListing(std::vector<Object> const& objects, std::string const& nextPageToken,
                   std::string& line) {
    // Members in the order the writer gives them: sorted by name.
    line.clear();
    line.reserve(64 + objects.size() * 256);
    line += '{';
    if (!nextPageToken.empty()) {
        line += "\"nextPageToken\":";
        if (!appendPlain(line, nextPageToken)) return false;
        line += ',';
    }
    line += "\"objects\":[";
    for (size_t i = 0; i < objects.size(); ++i) {
        Object const& o = objects[i];
        if (i > 0) line += ',';
        line += "{\"id\":";
        if (!appendPlain(line, o.id)) return false;
        if (!o.parents.empty()) {
            line += ",\"name\":";
            if (!appendPlain(line, o.name)) return false;
        }
        line += ",\"parents\":[";
        for (size_t p = 0; p < o.parents.size(); ++p) {
            if (p > 0) line += ',';
            if (!appendPlain(line, o.parents[p])) return false;
        }
        line += "],\"properties\":{\"isDir\":";
        line += o.isDir ? "true" : "false";
        line += ",\"isTrash\":";
        line += o.trashed ? "true" : "false";
        line += ",\"lastModified\":";
        line += std::to_string(o.mtime < 0 ? 0 : o.mtime);
        line += ",\"md5Checksum\":";
        if (!appendPlain(line, o.md5)) return false;
        line += ",\"size\":";
        line += std::to_string(o.size);
        line += "}}";
    }
    line += "],\"success\":true}";
    return true;
}

LineWriter::LineWriter() {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    _writer.reset(builder.newStreamWriter());
}

std::string LineWriter::render(Json::Value const& value) {
    _stream.str(std::string());
    _stream.clear();
    _writer->write(value, &_stream);
    return _stream.str();
}

}  // namespace DriveEmulator
