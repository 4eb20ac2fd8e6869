// Where the drive agent finds the service and whose OAuth client it speaks
// for: the handshake environment the plug-in sets, overridden by the agent's
// configuration file when one is present.
#pragma once

#include <functional>
#include <string>

namespace DriveAgent {

struct AgentConfig {
    std::string apiUrl =
        "https://www.googleapis.com";  // files at /drive/v3, uploads at /upload/drive/v3
    std::string tokenUrl = "https://oauth2.googleapis.com/token";
    // where a person grants the client access (gdrive_host authorize)
    std::string authUrl = "https://accounts.google.com/o/oauth2/v2/auth";
    std::string caFile;  // trust anchors for loopback hosts only (tests)
    std::string clientId;
    std::string clientSecret;
    std::string refreshToken;  // decoded
    std::string accessToken;   // may be empty
    std::string userAgent;     // TAVO_USER_AGENT of the handshake, sent with every request
    long stallSeconds = 60;    // a connection that moves nothing this long is given up
    // The id of a shared drive whose root stands for the account's root; empty:
    // My Drive.
    std::string sharedDrive;
    // The file access tokens are shared through; "off": none; empty: one
    // named after the grant in configFolder.
    std::string tokenCache;
    std::string configFolder;  // of the configuration file, else of the program
};

using EnvLookup = std::function<char const*(char const* name)>;

// Reads the configuration: the environment of the handshake, then the first
// file found of $DRIVE_AGENT_CONF, "drive_agent.conf" beside `argv0`,
// "$TAVO_ROOT/usr/bin/drive_agent.conf" (lines "key = value": api_url,
// token_url, auth_url, ca_file, client_id, client_secret, stall_seconds,
// shared_drive, token_cache). Returns the
// reason the agent cannot start, or empty. Plain http:// is accepted only for
// loopback hosts.
std::string loadConfig(std::string const& argv0, EnvLookup const& env, AgentConfig& config);

// Decodes standard or URL-safe base64 (padding optional); the caller checked
// the text with isValidBase64.
std::string decodeBase64(std::string const& text);

}  // namespace DriveAgent
