// The fake's shared state and helpers, between its metadata routes
// (fake_drive.cc) and its content routes (fake_transfers.cc).
#pragma once

#include <httplib.h>
#include <json/value.h>
#include <openssl/evp.h>

#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "blobs.h"
#include "fake_drive.h"
#include "store.h"

namespace DriveFake {

struct UploadSession {
    std::string id;        // update: the file; create: the id to give the new file
    std::string name;      // create only
    std::string parentId;  // create only
    bool update = false;
    std::int64_t size = 0;
    std::int64_t received = 0;
    std::unique_ptr<DriveEmulator::PendingBlob> blob;
    std::shared_ptr<EVP_MD_CTX> md5;     // of the bytes received so far
    std::shared_ptr<EVP_MD_CTX> sha256;  // the same
    Json::Value finished;                // the file resource once complete
    std::string fields;                  // the fields mask the session began with
    std::optional<std::int64_t> mtime;   // the metadata's modifiedTime, when given
};

// An authorization code handed out by the consent route, until exchanged.
struct AuthCode {
    std::string challenge;     // S256 of the verifier that must come with it
    std::string redirectUri;   // the exchange must name the same one
    bool refreshToken = true;  // its exchange hands out a refresh token
};

struct FakeDrive::State {
    State(std::string const& folder, std::string const& cert, std::string const& key)
        : store(folder),
          server(cert.empty() ? std::make_unique<httplib::Server>()
                              : std::make_unique<httplib::SSLServer>(cert.c_str(), key.c_str())),
          tls(!cert.empty()) {}

    std::mutex lock;  // guards everything below and the store
    DriveEmulator::Store store;
    std::unique_ptr<httplib::Server> server;
    bool tls;
    std::thread thread;
    int port = 0;

    std::string refreshToken = "1//0gRefreshToken";
    int tokenLife = 3600;
    bool revoked = false;
    std::map<std::string, std::chrono::steady_clock::time_point> tokens;  // token -> expiry
    std::map<std::string, AuthCode> codes;
    std::vector<FailRule> failures;
    int expireSessions = 0;
    bool corruptNext = false;
    std::int64_t mediaLimit = 0;
    int ignoreRanges = 0;       // media requests still to answer whole
    bool corruptMedia = false;  // the next media answer has a byte changed
    // SHA-256 of the contents uploaded through the fake, by their MD5 (stored
    // otherwise, a file has only its MD5, as Drive's oldest files).
    std::map<std::string, std::string> sha256ByMd5;
    int lagNext = 0;  // listings the next created object misses
    // OAuth clients the token endpoint knows, id -> secret: the plug-in's.
    std::map<std::string, std::string> clients{
        {"418305926774-k2v9q8m4x7c1p0r6t3w5z8b2n4j7h1fd.apps.googleusercontent.com",
         "Qm7vT2xK_pL9R-04Hd3WaNce"}};
    std::set<std::string> consented;  // clients the account granted access before
    std::set<std::string> abusive;    // ids flagged as malware or spam
    std::string lastUserAgent;        // of the last API request
    int redirectMedia = 0;            // media requests still to redirect
    std::int64_t padNext = 0;         // blanks after the next JSON answer
    // Google-native objects (Docs, shortcuts, ...) by id: their MIME type.
    std::map<std::string, std::string> nativeTypes;
    int latencyMs = 0;
    // The write throttle: tokens left, refilled at `writeRate` a second up
    // to `writeBurst` (no throttle while the rate is 0).
    double writeRate = 0;
    double writeBurst = 0;
    double writeTokens = 0;
    std::chrono::steady_clock::time_point refilled;
    std::map<std::string, int> requestCounts;  // by API method
    bool stopping = false;
    std::condition_variable stopped;  // wakes delayed requests when the fake goes
    std::map<std::string, UploadSession> sessions;
    Counters counters;
    // The folder that plays a shared drive's root (empty: none), how many
    // items may be created in it and how many were.
    std::string sharedDrive;
    int sharedDriveLimit = 0;
    int sharedDriveItems = 0;
};

// Drive's error body for `status`, with `reason` and `message` (and the
// error's `domain`, "global" for most).
void sendError(httplib::Response& res, int status, std::string const& reason,
               std::string const& message, std::string const& domain = "global");
// The model's refusal as Drive words it.
void sendModelError(httplib::Response& res, DriveEmulator::Error const& error);
// Drive's file resource of `object`; `nativeType` makes it a Google-native
// object of that MIME type (no checksum; a shortcut has no size either).
Json::Value fileResource(DriveEmulator::Object const& object, std::string const& sha256 = "",
                         std::string const& nativeType = "");
// The metadata's "modifiedTime" (RFC 3339) in seconds, left unset when
// absent; false when it is there but no RFC 3339 time, which Drive refuses.
bool modifiedTimeOf(Json::Value const& meta, std::optional<std::int64_t>& seconds);
// The MIME type of a Google-native object, empty for others.
std::string nativeTypeOf(FakeDrive::State& state, std::string const& id);
void sendJson(httplib::Response& res, Json::Value const& value, int status = 200);

// Shared drive rules (fake_shared_drive.cc), with the state's lock held.
// Whether `id` lies in the shared drive (is its root or below it).
bool inSharedDrive(FakeDrive::State& state, std::string id);
// Answers `req` with Drive's refusal when it touches the shared drive without
// saying it supports shared drives, lists with contradictory parameters, or
// creates an item past the drive's limit; false when it may be served.
bool sharedDriveRefuses(FakeDrive::State& state, httplib::Request const& req,
                        httplib::Response& res);
// Drive's refusal of a create once its body is read: a JSON body that is not
// UTF-8, or sharedDriveRefuses; takes the lock.
bool createRefused(FakeDrive::State& state, httplib::Request const& req, httplib::Response& res);
// Whether the listing `req` shows the object `id`.
bool listedFor(FakeDrive::State& state, httplib::Request const& req, std::string const& id);

// Content routes: resumable uploads.
void addTransferRoutes(FakeDrive::State& state);
// GET files/ID?alt=media, with Range.
void serveMedia(FakeDrive::State& state, httplib::Request const& req, httplib::Response& res);

}  // namespace DriveFake
