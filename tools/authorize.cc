#include "authorize.h"

#include <json/value.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "agent_config.h"
#include "backup/json_text.h"
#include "drive_control.h"
#include "failure.h"
#include "http.h"
#include "interrupt.h"
#include "loopback_redirect.h"
#include "profile_edit.h"

namespace gdhost {

namespace {

char const kScope[] = "https://www.googleapis.com/auth/drive";

std::string base64(unsigned char const* bytes, size_t length) {
    std::string text(4 * ((length + 2) / 3) + 1, '\0');
    text.resize(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]), bytes, int(length)));
    return text;
}

// base64url without padding, as PKCE and URLs want it.
std::string base64url(unsigned char const* bytes, size_t length) {
    std::string text = base64(bytes, length);
    for (char& c : text) c = c == '+' ? '-' : c == '/' ? '_' : c;
    return text.substr(0, text.find('='));
}

std::string randomText(size_t bytes) {
    std::string raw(bytes, '\0');
    auto* data = reinterpret_cast<unsigned char*>(&raw[0]);
    if (RAND_bytes(data, int(bytes)) != 1) throw std::runtime_error("no random bytes");
    return base64url(data, bytes);
}

std::string s256(std::string const& verifier) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    EVP_Digest(verifier.data(), verifier.size(), digest, &length, EVP_sha256(), nullptr);
    return base64url(digest, length);
}

std::string page(char const* message) {
    return std::string("<!DOCTYPE html><html><head><title>gdrive_host</title></head><body><p>") +
           message + "</p></body></html>\n";
}

int fail(std::string const& reason, int exitCode) {
    return reportProblem("authorize: " + reason + "; nothing stored", exitCode);
}

// What the token endpoint made of an authorization code.
struct Exchange {
    std::string refreshToken;
    std::string problem;  // why there is no token, in words
    int exitCode = kExitOk;
};

// Exchanges `code`, proving with `verifier` that this run asked for it.
Exchange exchangeCode(DriveAgent::Http& http, DriveAgent::AgentConfig const& config,
                      std::string const& code, std::string const& redirectUri,
                      std::string const& verifier) {
    DriveAgent::HttpRequest request;
    request.method = "POST";
    request.url = config.tokenUrl;
    request.headers = {"Content-Type: application/x-www-form-urlencoded"};
    request.body =
        "grant_type=authorization_code&code=" + http.escape(code) +
        "&redirect_uri=" + http.escape(redirectUri) + "&client_id=" + http.escape(config.clientId) +
        "&client_secret=" + http.escape(config.clientSecret) + "&code_verifier=" + verifier;
    DriveAgent::HttpResponse response = http.perform(request);
    if (response.transportFailed())
        return {"", "cannot reach the token endpoint: " + response.error, kExitTemporary};
    // Anything but a JSON object reads as an empty answer.
    Json::Value body;
    if (!TAVO::JsonText::fromString(response.body, body)) body = Json::Value();
    if (response.status != 200) {
        std::string reason = body.isObject() && body["error"].isString()
                                 ? body["error"].asString()
                                 : "status " + std::to_string(response.status);
        if (body.isObject() && body["error_description"].isString())
            reason += " (" + body["error_description"].asString() + ")";
        return {"", "the token endpoint refused the authorization code: " + reason, kExitFatal};
    }
    if (!body.isObject() || !body["refresh_token"].isString() ||
        body["refresh_token"].asString().empty()) {
        return {"", "the token endpoint gave no refresh token", kExitError};
    }
    return {body["refresh_token"].asString(), "", kExitOk};
}

}  // namespace

int runAuthorize(Destination& d, std::string const& profile, int timeoutSeconds) {
    // The agent's own view of its configuration: laid out as the plug-in
    // would start it, read by its own code.
    d.service = "drive";
    std::string error;
    if (!prepareDestination(d, error)) return reportProblem(error, kExitError);
    DriveAgent::AgentConfig config;
    error = DriveAgent::loadConfig(std::string(getenv("TAVO_ROOT")) + DriveEmulator::kAgentProgram,
                                   getenv, config);
    if (!error.empty()) return reportProblem(error, kExitError);
    // Without either the token endpoint refuses the code: the person would
    // sign in for nothing.
    for (auto const& [key, value] : {std::make_pair("client_id", &config.clientId),
                                     std::make_pair("client_secret", &config.clientSecret)}) {
        if (value->empty()) {
            return reportProblem(std::string("authorize: the drive agent's configuration names "
                                             "no ") +
                                     key +
                                     " (see README.md, \"Using a real Google Drive account\")",
                                 kExitUsage);
        }
    }

    DriveAgent::Http http(config.caFile, config.stallSeconds);
    std::string const state = randomText(24);
    std::string const verifier = randomText(48);
    LoopbackRedirect redirect([&state](LoopbackRedirect::Query const& query) {
        auto found = query.find("state");
        if (found == query.end() || found->second != state)
            return page("This answer does not belong to the request gdrive_host made.");
        if (query.count("error")) return page("Access was not granted.");
        // The code is yet to be exchanged, which can still fail.
        return page(
            "gdrive_host received the answer. You may close this page: the terminal says "
            "whether the authorization worked.");
    });
    std::string url =
        config.authUrl + "?response_type=code&client_id=" + http.escape(config.clientId) +
        "&redirect_uri=" + http.escape(redirect.uri()) + "&scope=" + http.escape(kScope) +
        "&access_type=offline&prompt=consent&state=" + state + "&code_challenge=" + s256(verifier) +
        "&code_challenge_method=S256";
    printf(
        "Open this address in a browser on this computer, sign in and allow access:\n\n"
        "    %s\n\nWaiting up to %d s for the browser to come back to %s (Ctrl-C stops).\n",
        url.c_str(), timeoutSeconds, redirect.uri().c_str());
    fflush(stdout);

    installInterruptHandler();
    auto answer = redirect.wait(std::chrono::seconds(timeoutSeconds), interrupted);
    if (!answer) {
        if (interrupted()) return fail("stopped", kExitCanceled);
        return fail("no answer from the browser within " + std::to_string(timeoutSeconds) + " s",
                    kExitError);
    }
    LoopbackRedirect::Query& query = *answer;
    if (query["state"] != state) {
        return fail("the browser's answer does not belong to this request (state mismatch)",
                    kExitError);
    }
    if (query.count("error")) {
        if (query["error"] == "access_denied")
            return fail("access was denied in the browser", kExitFatal);
        return fail("the authorization server answered " + query["error"], kExitFatal);
    }

    Exchange exchange = exchangeCode(http, config, query["code"], redirect.uri(), verifier);
    if (!exchange.problem.empty()) return fail(exchange.problem, exchange.exitCode);
    std::string const& token = exchange.refreshToken;
    std::string encoded =
        base64(reinterpret_cast<unsigned char const*>(token.data()), token.size());
    if (!setProfileKeys(profile, {{"service", "drive"}, {"refresh_token", encoded}}, error))
        return reportProblem(error, kExitError);
    printf("refresh token stored in %s\n", profile.c_str());
    return kExitOk;
}

}  // namespace gdhost
