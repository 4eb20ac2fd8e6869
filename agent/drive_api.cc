#include "drive_api.h"

#include <json/reader.h>
#include <json/writer.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <memory>
#include <thread>

#include "drive_errors.h"
#include "drive_text.h"

namespace DriveAgent {

char const* const kFileFields = "id,name,mimeType,parents,size,modifiedTime,md5Checksum,trashed";

namespace {

constexpr long kMaxRetryAfter = 120;
char const* const kFolderType = "application/vnd.google-apps.folder";
char const* const kNativePrefix = "application/vnd.google-apps.";

bool isNative(std::string const& mimeType) { return mimeType.rfind(kNativePrefix, 0) == 0; }

}  // namespace

DriveApi::DriveApi(Http& http, TokenSource& tokens, AgentConfig const& config)
    : _http(http), _tokens(tokens), _config(config) {}

HttpResponse DriveApi::exchange(HttpRequest request) {
    size_t const plainHeaders = request.headers.size();
    HttpResponse response;
    for (int attempt = 0; attempt < 2; ++attempt) {
        request.headers.resize(plainHeaders);
        request.headers.push_back("Authorization: Bearer " + _tokens.accessToken());
        response = _http.perform(request);
        if (response.status != 401 || response.transportFailed()) break;
        _tokens.expire();
    }
    return response;
}

void DriveApi::fail(HttpResponse const& response) {
    if (response.transportFailed()) throw transportFailure(response);
    long wait = std::min(retryAfterSeconds(response), kMaxRetryAfter);
    if (wait > 0) std::this_thread::sleep_for(std::chrono::seconds(wait));
    throw driveFailure(response.status, response.body);
}

Json::Value DriveApi::call(HttpRequest const& request) {
    HttpResponse response = exchange(request);
    if (response.transportFailed() || response.status < 200 || response.status >= 300) {
        fail(response);
    }
    return response.body.empty() ? Json::Value() : parseJson(response.body);
}

std::string DriveApi::resolveRoot(std::string const& id) const {
    return id == "root" && !_config.sharedDrive.empty() ? _config.sharedDrive : id;
}

std::string DriveApi::listScope() const {
    if (_config.sharedDrive.empty()) return "";
    // A shared drive's items are left out of every listing unless all three
    // say so; corpora=drive keeps the search to that one drive.
    return "&supportsAllDrives=true&includeItemsFromAllDrives=true&corpora=drive&driveId=" +
           _http.escape(_config.sharedDrive);
}

Json::Value parseJson(std::string const& text) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string errors;
    if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) {
        throw AgentFailure(kTransportFailure, "the service's answer is not JSON");
    }
    return value;
}

HttpRequest DriveApi::api(std::string const& method, std::string const& path,
                          std::string const& query) const {
    HttpRequest request;
    request.method = method;
    // Drive indents its JSON unless told not to: a third more bytes per page.
    request.url = _config.apiUrl + "/drive/v3/" + path + "?" + (query.empty() ? "" : query + "&") +
                  "prettyPrint=false";
    return request;
}

HttpRequest DriveApi::apiJson(std::string const& method, std::string const& path,
                              std::string const& query, Json::Value const& body) const {
    HttpRequest request = api(method, path, query);
    request.headers.push_back("Content-Type: application/json; charset=UTF-8");
    request.body = toLine(body);
    return request;
}

long long parseRfc3339(std::string const& text) {
    std::tm tm{};
    if (!strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &tm)) return 0;
    return static_cast<long long>(timegm(&tm));
}

Json::Value objectRecord(Json::Value const& file) {
    Json::Value record(Json::objectValue);
    record["id"] = file.get("id", "").asString();
    Json::Value const& parents = file["parents"];
    if (parents.isArray() && !parents.empty())
        record["name"] = fromDriveText(file.get("name", "").asString());
    Json::Value& list = record["parents"] = Json::Value(Json::arrayValue);
    if (parents.isArray()) {
        for (auto const& parent : parents) list.append(parent.asString());
    }
    std::string const mimeType = file.get("mimeType", "").asString();
    bool isDir = mimeType == kFolderType;
    // Folders and Google-native objects hold no bytes of their own, whatever
    // size Drive reports for an editor file.
    bool noBytes = isNative(mimeType);
    Json::Value& properties = record["properties"];
    properties["isDir"] = isDir;
    // Drive sends sizes as decimal strings.
    properties["size"] = Json::UInt64(
        noBytes ? 0 : std::strtoull(file.get("size", "0").asString().c_str(), nullptr, 10));
    properties["lastModified"] =
        Json::Int64(std::max(0LL, parseRfc3339(file.get("modifiedTime", "").asString())));
    properties["md5Checksum"] = noBytes ? "" : file.get("md5Checksum", "").asString();
    properties["isTrash"] = file.get("trashed", false).asBool();
    return record;
}

std::string notDownloadable(std::string const& mimeType) {
    if (!isNative(mimeType) || mimeType == kFolderType) return "";
    static char const* const kNames[][2] = {
        {"document", "a Google Docs file"},
        {"spreadsheet", "a Google Sheets file"},
        {"presentation", "a Google Slides file"},
        {"form", "a Google Forms file"},
        {"drawing", "a Google Drawings file"},
        {"site", "a Google Sites page"},
        {"jam", "a Jamboard file"},
        {"map", "a Google My Maps map"},
        {"script", "an Apps Script project"},
    };
    std::string kind = mimeType.substr(std::char_traits<char>::length(kNativePrefix));
    if (kind == "shortcut") return "a shortcut (never followed): no stored bytes to download";
    for (auto const& name : kNames) {
        if (kind == name[0]) return std::string(name[1]) + ": no stored bytes to download";
    }
    return "a Google-native object (" + mimeType + "): no stored bytes to download";
}

std::string toLine(Json::Value const& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    // Strings go out as their bytes: a name that is not UTF-8 reaches the
    // plug-in unchanged (JsonCpp's escaping would garble it), and what goes
    // to Drive is valid UTF-8 already (toDriveText).
    builder["emitUTF8"] = true;
    return Json::writeString(builder, value);
}

}  // namespace DriveAgent
