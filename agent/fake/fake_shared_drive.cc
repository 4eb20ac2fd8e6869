// A shared drive in the fake, with the rules Drive applies to the clients of
// one: its items are invisible to any request that does not say it supports
// shared drives, left out of every listing that does not ask for that drive's
// items, and no more than a fixed number of them may be created.
#include "fake_state.h"
#include "utf8.h"

namespace DriveFake {

using DriveEmulator::Error;
using DriveEmulator::ReadTransaction;

namespace {

bool param(httplib::Request const& req, char const* name, char const* value) {
    return req.get_param_value(name) == value;
}

// The id a files.get/update/delete request names in its path, or empty.
std::string idInPath(httplib::Request const& req) {
    for (char const* prefix : {"/drive/v3/files/", "/upload/drive/v3/files/"}) {
        std::string const start = prefix;
        if (req.path.rfind(start, 0) == 0) {
            std::string id = req.path.substr(start.size());
            return id == "generateIds" ? "" : id;
        }
    }
    return "";
}

// The first parent a create asks for: in its JSON body, or in the metadata
// part of a multipart body.
std::string parentInBody(httplib::Request const& req) {
    std::string const& body = req.body;
    size_t at = body.find("\"parents\"");
    if (at != std::string::npos) at = body.find('[', at);
    if (at != std::string::npos) at = body.find('"', at);
    size_t end = at == std::string::npos ? at : body.find('"', at + 1);
    return end == std::string::npos ? "root" : body.substr(at + 1, end - at - 1);
}

bool isCreate(httplib::Request const& req) {
    return req.method == "POST" &&
           (req.path == "/drive/v3/files" || req.path == "/upload/drive/v3/files");
}

// Drive's answer to a listing whose shared-drive parameters contradict each other.
bool listingRefused(httplib::Request const& req, httplib::Response& res) {
    std::string const corpora = req.get_param_value("corpora");
    if ((corpora == "drive") != req.has_param("driveId")) {
        sendError(
            res, 400, "invalid",
            "The driveId parameter must be specified if and only if corpora is set to drive.");
        return true;
    }
    bool const include = param(req, "includeItemsFromAllDrives", "true");
    if ((include || corpora == "drive") && !param(req, "supportsAllDrives", "true")) {
        sendError(res, 403, "teamDriveItemsNotIncluded",
                  "Shared drive items can only be listed by an application that supports all "
                  "drives (supportsAllDrives=true).");
        return true;
    }
    if (corpora == "drive" && !include) {
        sendError(res, 400, "invalid",
                  "includeItemsFromAllDrives must be true when corpora is drive.");
        return true;
    }
    return false;
}

}  // namespace

bool inSharedDrive(FakeDrive::State& state, std::string id) {
    if (state.sharedDrive.empty()) return false;
    ReadTransaction read(state.store.db());
    for (int depth = 0; depth < 256 && !id.empty(); ++depth) {
        if (id == state.sharedDrive) return true;
        try {
            std::vector<std::string> parents = state.store.get(id).object.parents;
            id = parents.empty() ? "" : parents[0];
        } catch (Error const&) {
            return false;
        }
    }
    return false;
}

bool sharedDriveRefuses(FakeDrive::State& state, httplib::Request const& req,
                        httplib::Response& res) {
    if (state.sharedDrive.empty()) return false;
    if (req.method == "GET" && req.path == "/drive/v3/files") return listingRefused(req, res);
    bool const create = isCreate(req);
    // A create names its parent in its body, which is read after the gate.
    if (create && req.body.empty()) return false;
    std::string const id = create ? parentInBody(req) : idInPath(req);
    if (id.empty() || !inSharedDrive(state, id)) return false;
    if (!param(req, "supportsAllDrives", "true")) {
        sendError(res, 404, "notFound", "File not found: " + id + ".");
        return true;
    }
    if (!create) return false;
    if (state.sharedDriveItems >= state.sharedDriveLimit) {
        sendError(res, 403, "teamDriveFileLimitExceeded",
                  "The file limit for this shared drive has been exceeded.");
        return true;
    }
    ++state.sharedDriveItems;
    return false;
}

bool listedFor(FakeDrive::State& state, httplib::Request const& req, std::string const& id) {
    if (!inSharedDrive(state, id)) return req.get_param_value("corpora") != "drive";
    std::string const corpora = req.get_param_value("corpora");
    return param(req, "includeItemsFromAllDrives", "true") &&
           (corpora == "allDrives" ||
            (corpora == "drive" && param(req, "driveId", state.sharedDrive.c_str())));
}

bool createRefused(FakeDrive::State& state, httplib::Request const& req, httplib::Response& res) {
    // Drive's JSON is UTF-8: a name of other bytes is refused, not stored.
    if (req.get_header_value("Content-Type").rfind("application/json", 0) == 0 &&
        !Utf8::isValid(req.body)) {
        sendError(res, 400, "parseError", "Invalid JSON payload received. Invalid UTF-8.");
        return true;
    }
    std::lock_guard<std::mutex> guard(state.lock);
    return sharedDriveRefuses(state, req, res);
}

void FakeDrive::makeSharedDrive(std::string const& id, int itemLimit) {
    std::lock_guard<std::mutex> guard(_state->lock);
    _state->sharedDrive = id;
    _state->sharedDriveLimit = itemLimit;
    _state->sharedDriveItems = 0;
}

}  // namespace DriveFake
