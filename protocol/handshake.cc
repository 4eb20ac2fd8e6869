#include "handshake.h"

namespace AgentHandshake {

namespace {

bool isBase64Char(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '/' || c == '-' || c == '_';
}

}  // namespace

bool isValidBase64(std::string const& text) {
    size_t data = text.size();
    while (data > 0 && text[data - 1] == '=') --data;
    size_t padding = text.size() - data;
    if (data == 0 || padding > 2) return false;
    for (size_t i = 0; i < data; ++i) {
        if (!isBase64Char(text[i])) return false;
    }
    if (data % 4 == 1) return false;  // no byte string encodes to that length
    return padding == 0 || text.size() % 4 == 0;
}

std::string environmentProblem(EnvLookup const& env) {
    char const* refresh = env("GOOGLEDRIVE_REFRESH_TOKEN");
    if (!refresh) return "missing environment variable GOOGLEDRIVE_REFRESH_TOKEN";
    if (!isValidBase64(refresh)) {
        return "GOOGLEDRIVE_REFRESH_TOKEN is not a valid base64 string";
    }
    for (char const* name :
         {"GOOGLEDRIVE_CLIENT_ID", "GOOGLEDRIVE_CLIENT_SECRET", "TAVO_USER_AGENT"}) {
        char const* value = env(name);
        if (!value || !*value) return std::string("missing environment variable ") + name;
    }
    return std::string();
}

}  // namespace AgentHandshake
