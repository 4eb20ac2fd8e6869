// Authorized requests to the Drive REST API v3 and the object record of the
// pipe protocol made from Drive's file resource.
#pragma once

#include <json/value.h>

#include <string>

#include "agent_config.h"
#include "auth.h"
#include "http.h"

namespace DriveAgent {

// The file resource fields every answer asks for.
extern char const* const kFileFields;

class DriveApi {
  public:
    DriveApi(Http& http, TokenSource& tokens, AgentConfig const& config);

    // `request` with the access token; a 401 answer renews the token and
    // sends it once more. Transport failures come back in the response.
    HttpResponse exchange(HttpRequest request);
    // Throws the failure a non-2xx answer or a transport failure stands for,
    // after waiting what the answer's Retry-After asks (capped), so that the
    // plug-in's next attempt comes when the service wants it.
    [[noreturn]] void fail(HttpResponse const& response);
    // exchange(), then fail() unless 2xx; the answer's JSON body.
    Json::Value call(HttpRequest const& request);
    // A request for `method` on "<api>/drive/v3/<path>", `query` already escaped.
    HttpRequest api(std::string const& method, std::string const& path,
                    std::string const& query = "") const;
    // The same with a JSON body.
    HttpRequest apiJson(std::string const& method, std::string const& path,
                        std::string const& query, Json::Value const& body) const;

    Http& http() { return _http; }
    AgentConfig const& config() const { return _config; }
    // `id` with "root" standing for the configured shared drive's root.
    std::string resolveRoot(std::string const& id) const;
    // The parameters a files.list needs to see the configured shared drive's
    // items (and only them); empty for My Drive.
    std::string listScope() const;

  private:
    Http& _http;
    TokenSource& _tokens;
    AgentConfig const& _config;
};

// The protocol's object record ({"id", "name", "parents", "properties": {...}})
// of a Drive file resource. The root (no parents) carries no name. A
// Google-native object other than a folder (a Doc, a shortcut, ...) has no
// stored bytes: it is reported with size 0 and no MD5, which no stored file has.
Json::Value objectRecord(Json::Value const& file);

// Why a file resource of `mimeType` cannot be downloaded, in words ("a
// Google Docs file: no stored bytes to download"); empty for stored files.
std::string notDownloadable(std::string const& mimeType);

// Seconds since the epoch of an RFC 3339 time ("2024-01-02T03:04:05.678Z").
long long parseRfc3339(std::string const& text);

// `text` parsed as JSON; throws AgentFailure(-2) when it is not.
Json::Value parseJson(std::string const& text);

// Compact one-line JSON.
std::string toLine(Json::Value const& value);

}  // namespace DriveAgent
