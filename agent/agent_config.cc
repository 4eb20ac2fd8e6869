#include "agent_config.h"

#include <fstream>

#include "http.h"

namespace DriveAgent {

namespace {

std::string trim(std::string const& text) {
    size_t start = text.find_first_not_of(" \t\r\"");
    size_t end = text.find_last_not_of(" \t\r\"");
    return start == std::string::npos ? std::string() : text.substr(start, end - start + 1);
}

std::string configFile(std::string const& argv0, EnvLookup const& env) {
    char const* named = env("DRIVE_AGENT_CONF");
    if (named && *named) return named;
    size_t slash = argv0.rfind('/');
    std::string beside =
        (slash == std::string::npos ? "." : argv0.substr(0, slash)) + "/drive_agent.conf";
    if (std::ifstream(beside)) return beside;
    char const* root = env("TAVO_ROOT");
    if (root && *root) return std::string(root) + "/usr/bin/drive_agent.conf";
    return std::string();
}

bool acceptableUrl(std::string const& url) {
    return url.rfind("https://", 0) == 0 || (url.rfind("http://", 0) == 0 && isLoopbackUrl(url));
}

}  // namespace

std::string decodeBase64(std::string const& text) {
    std::string out;
    unsigned buffer = 0;
    int bits = 0;
    for (char c : text) {
        int v;
        if (c >= 'A' && c <= 'Z')
            v = c - 'A';
        else if (c >= 'a' && c <= 'z')
            v = c - 'a' + 26;
        else if (c >= '0' && c <= '9')
            v = c - '0' + 52;
        else if (c == '+' || c == '-')
            v = 62;
        else if (c == '/' || c == '_')
            v = 63;
        else
            break;  // padding
        buffer = (buffer << 6) | unsigned(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out += static_cast<char>((buffer >> bits) & 0xff);
        }
    }
    return out;
}

std::string loadConfig(std::string const& argv0, EnvLookup const& env, AgentConfig& config) {
    auto value = [&](char const* name) {
        char const* v = env(name);
        return v ? std::string(v) : std::string();
    };
    config.clientId = value("GOOGLEDRIVE_CLIENT_ID");
    config.userAgent = value("TAVO_USER_AGENT");
    config.clientSecret = value("GOOGLEDRIVE_CLIENT_SECRET");
    config.refreshToken = decodeBase64(value("GOOGLEDRIVE_REFRESH_TOKEN"));
    config.accessToken = value("GOOGLEDRIVE_ACCESS_TOKEN");

    std::string path = configFile(argv0, env);
    std::string const& located = path.empty() ? argv0 : path;
    size_t slash = located.rfind('/');
    config.configFolder = slash == std::string::npos ? "." : located.substr(0, slash);
    if (config.configFolder.empty()) config.configFolder = "/";
    if (!path.empty()) {
        std::ifstream in(path);
        if (!in) return "drive agent: cannot read " + path;
        for (std::string line; std::getline(in, line);) {
            size_t equals = line.find('=');
            if (line.empty() || line[0] == '#' || equals == std::string::npos) continue;
            std::string key = trim(line.substr(0, equals));
            std::string v = trim(line.substr(equals + 1));
            if (key == "api_url")
                config.apiUrl = v;
            else if (key == "token_url")
                config.tokenUrl = v;
            else if (key == "auth_url")
                config.authUrl = v;
            else if (key == "ca_file")
                config.caFile = v;
            else if (key == "client_id")
                config.clientId = v;
            else if (key == "client_secret")
                config.clientSecret = v;
            else if (key == "shared_drive")
                config.sharedDrive = v;
            else if (key == "token_cache")
                config.tokenCache = v;
            else if (key == "stall_seconds")
                config.stallSeconds = std::max(1L, std::atol(v.c_str()));
        }
    }
    while (!config.apiUrl.empty() && config.apiUrl.back() == '/') config.apiUrl.pop_back();
    if (!acceptableUrl(config.apiUrl) || !acceptableUrl(config.tokenUrl) ||
        !acceptableUrl(config.authUrl)) {
        return "drive agent: plain http is refused except on loopback";
    }
    return std::string();
}

}  // namespace DriveAgent
