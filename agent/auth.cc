#include "auth.h"

#include <json/reader.h>

#include <memory>

#include "drive_errors.h"

namespace DriveAgent {

TokenSource::TokenSource(Http& http, AgentConfig const& config)
    : _http(http), _config(config), _token(config.accessToken) {
    // A token handed over at start has an unknown age: use it until refused.
    _renew_at = std::chrono::steady_clock::time_point::max();
}

std::string const& TokenSource::accessToken() {
    if (_token.empty() || std::chrono::steady_clock::now() >= _renew_at) refresh();
    return _token;
}

void TokenSource::refresh() {
    _token.clear();
    HttpRequest request;
    request.method = "POST";
    request.url = _config.tokenUrl;
    request.headers = {"Content-Type: application/x-www-form-urlencoded"};
    request.body = "grant_type=refresh_token&refresh_token=" + _http.escape(_config.refreshToken) +
                   "&client_id=" + _http.escape(_config.clientId) +
                   "&client_secret=" + _http.escape(_config.clientSecret);
    HttpResponse response = _http.perform(request);
    if (response.transportFailed()) throw transportFailure(response);
    if (response.status != 200) throw tokenFailure(response.status, response.body);

    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value answer;
    std::string errors;
    std::string const& body = response.body;
    if (!reader->parse(body.data(), body.data() + body.size(), &answer, &errors) ||
        !answer.isObject() || !answer["access_token"].isString()) {
        throw AgentFailure(kTransportFailure, "token endpoint gave no access token");
    }
    _token = answer["access_token"].asString();
    // Renew once most of the life is spent: a minute early for the usual
    // hour, proportionally earlier for short lives.
    long long lifeMs = answer.get("expires_in", 3600).asInt64() * 1000;
    long long marginMs = std::min(60000LL, lifeMs / 4);
    _renew_at = std::chrono::steady_clock::now() + std::chrono::milliseconds(lifeMs - marginMs);
}

}  // namespace DriveAgent
