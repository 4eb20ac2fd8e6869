#include "auth.h"

#include <json/reader.h>

#include <algorithm>
#include <memory>

#include "drive_errors.h"

namespace DriveAgent {

TokenSource::TokenSource(Http& http, AgentConfig const& config)
    : _http(http),
      _config(config),
      _cache(tokenCachePath(config, grantDigest(config)), grantDigest(config)),
      _token(config.accessToken) {
    // A token handed over at start has an unknown age: use it until refused.
    _renew_at = std::chrono::steady_clock::time_point::max();
}

std::string const& TokenSource::accessToken() {
    if (_token.empty() || std::chrono::steady_clock::now() >= _renew_at) {
        _token.clear();
        if (!adoptCached()) refresh();
    }
    return _token;
}

void TokenSource::expire() {
    _cache.drop(_token);
    _refused = _token;
    _token.clear();
}

bool TokenSource::adoptCached() {
    auto cached = _cache.load();
    if (!cached || cached->token == _refused ||
        cached->expiresAt - std::chrono::system_clock::now() < kCachedTokenMargin) {
        return false;
    }
    _token = cached->token;
    renewAt(cached->expiresAt, cached->life);
    return true;
}

// Renew once most of the life is spent: a minute early for the usual hour,
// proportionally earlier for short lives.
void TokenSource::renewAt(std::chrono::system_clock::time_point expiresAt,
                          std::chrono::seconds life) {
    auto margin = std::min<std::chrono::milliseconds>(std::chrono::minutes(1),
                                                      std::chrono::milliseconds(life) / 4);
    _renew_at =
        std::chrono::steady_clock::now() + (expiresAt - std::chrono::system_clock::now()) - margin;
}

void TokenSource::refresh() {
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
    CachedToken fetched;
    fetched.token = answer["access_token"].asString();
    fetched.life = std::chrono::seconds(answer.get("expires_in", 3600).asInt64());
    fetched.expiresAt = std::chrono::system_clock::now() + fetched.life;
    _token = fetched.token;
    renewAt(fetched.expiresAt, fetched.life);
    _cache.store(fetched);
}

}  // namespace DriveAgent
