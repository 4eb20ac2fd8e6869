// drive_agent: the drive agent for the real Drive. Started by the plug-in as
// "python drive_agent.py" (through a link named python; the script argument is
// ignored), it checks the handshake environment, says "start", and serves the
// pipe protocol's requests on stdin/stdout with the Drive REST API v3.
#include <curl/curl.h>
#include <fcntl.h>
#include <json/reader.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>

#include "agent_config.h"
#include "agent_failure.h"
#include "auth.h"
#include "download.h"
#include "drive_api.h"
#include "handshake.h"
#include "protocol_out.h"
#include "requests.h"
#include "upload.h"

using namespace DriveAgent;

namespace {

struct Handler {
    char const* fn;
    std::initializer_list<char const*> members;
};

Handler const kHandlers[] = {
    {"getObjectMeta", {"id"}},
    {"listObjects", {"queryFilter"}},
    {"createFolder", {"name", "parentId"}},
    {"deleteObject", {"id"}},
    {"getAccountInfo", {}},
    {"downloadFile", {"id", "outputPath"}},
    {"uploadFile", {"name", "parentId", "inputPath"}},
    {"uploadEmptyFile", {"name", "parentId", "inputPath"}},
    {"updateFile", {"id", "inputPath"}},
    {"updateEmptyFile", {"id", "inputPath"}},
};

Json::Value failure(int code, std::string const& message) {
    Json::Value response(Json::objectValue);
    response["success"] = false;
    response["error_code"] = code;
    response["error_message"] = message;
    return response;
}

class Agent {
  public:
    Agent(AgentConfig const& config, int out)
        : _http(config.caFile, config.stallSeconds, config.userAgent),
          _tokens(_http, config),
          _api(_http, _tokens, config),
          _ids(_api),
          _out(out) {}

    // One request line in, its answer lines out.
    void serve(std::string const& line) {
        Json::Value answer;
        try {
            answer = dispatch(line);
        } catch (AgentFailure const& e) {
            answer = failure(e.code(), e.what());
        } catch (std::exception const& e) {
            answer = failure(kLocalFailure, std::string("drive agent: ") + e.what());
        }
        writeLine(_out, toLine(answer));
    }

  private:
    Json::Value dispatch(std::string const& line) {
        Json::CharReaderBuilder builder;
        std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        Json::Value request;
        std::string errors;
        if (!reader->parse(line.data(), line.data() + line.size(), &request, &errors) ||
            !request.isObject()) {
            return failure(400, "Malformed request: not a JSON object");
        }
        Json::Value const& fn = request["fn"];
        if (!fn.isString()) {
            return failure(400,
                           fn.isNull() ? "Missing member 'fn'" : "Member 'fn' must be a string");
        }
        Handler const* handler = nullptr;
        for (auto const& h : kHandlers) {
            if (fn.asString() == h.fn) handler = &h;
        }
        if (!handler) return failure(400, "Unknown function: " + fn.asString());
        for (char const* member : handler->members) {
            Json::Value const& value = request[member];
            if (!value.isString()) {
                return failure(400, std::string(value.isNull() ? "Missing member '" : "Member '") +
                                        member + (value.isNull() ? "'" : "' must be a string"));
            }
        }
        auto arg = [&](char const* name) {
            std::string value = request.get(name, "").asString();
            if (!strcmp(name, "id") || !strcmp(name, "parentId")) return _api.resolveRoot(value);
            if (!strcmp(name, "queryFilter")) return rootInQuery(value);
            return value;
        };
        std::string const name = fn.asString();
        if (name == "getObjectMeta") return getObjectMeta(_api, arg("id"));
        if (name == "listObjects") return listObjects(_api, arg("queryFilter"), arg("pageToken"));
        if (name == "createFolder") return createFolder(_api, _ids, arg("name"), arg("parentId"));
        if (name == "deleteObject") return deleteObject(_api, arg("id"));
        if (name == "getAccountInfo") return getAccountInfo(_api);
        if (name == "downloadFile")
            return downloadContent(_api, arg("id"), arg("outputPath"), _out);
        bool const empty = name == "uploadEmptyFile" || name == "updateEmptyFile";
        UploadTarget target{arg("id"), arg("name"), arg("parentId")};
        return uploadContent(_api, _ids, target, arg("inputPath"), empty, _out);
    }

    // The plug-in names the account's root "root" in its queries too.
    std::string rootInQuery(std::string query) const {
        std::string const root = "'root' in parents";
        std::string const shared = "'" + _api.resolveRoot("root") + "' in parents";
        for (size_t at = query.find(root); at != std::string::npos;
             at = query.find(root, at + shared.size())) {
            query.replace(at, root.size(), shared);
        }
        return query;
    }

    Http _http;
    TokenSource _tokens;
    DriveApi _api;
    IdPool _ids;
    int _out;
};

}  // namespace

int main(int argc, char** argv) {
    ::signal(SIGPIPE, SIG_IGN);
    // Our standard output is the protocol: keep it for ourselves and send
    // whatever else might write to it (a library's stray print) to stderr.
    int const out = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    if (out < 0) return 1;
    if (::dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
        int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (nowhere < 0 || ::dup2(nowhere, STDOUT_FILENO) < 0) return 1;
    }

    AgentHandshake::EnvLookup env = [](char const* name) -> char const* {
        return std::getenv(name);
    };
    std::string problem = AgentHandshake::environmentProblem(env);
    AgentConfig config;
    if (problem.empty()) problem = loadConfig(argc > 0 ? argv[0] : "", env, config);
    if (!problem.empty()) {
        writeLine(out, problem);
        return 1;
    }
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != 0) {
        writeLine(out, "drive agent: libcurl could not be initialised");
        return 1;
    }
    writeLine(out, "start");
    {
        Agent agent(config, out);
        std::string line;
        while (std::getline(std::cin, line)) {
            if (!line.empty() && line.back() == '\r') line.pop_back();
            agent.serve(line);
        }
    }
    curl_global_cleanup();
    return 0;
}
