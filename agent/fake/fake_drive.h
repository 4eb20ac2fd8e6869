// A REST-level fake of the Drive API v3 and Google's OAuth endpoints on
// a loopback port, for the drive agent's tests: files.get/list/create/delete,
// generateIds, about, resumable uploads, alt=media with Range, Drive's error
// bodies, and injected faults. The account lives in an emulator data folder
// (the emulator's model), so the emulator's control library can shape it.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace DriveFake {

// A failure the fake answers instead of serving: the next `times` requests
// (negative: every one) whose "METHOD path" contains `match`, or that call
// the API method `match`, named as Drive names it ("files.get", "files.list",
// "files.create", "files.delete", "files.generateIds", "about.get"; "files.get
// media" for content, "files.create upload" and "files.update upload" for the
// start of a resumable upload, "upload chunk").
struct FailRule {
    std::string match;
    int times = 1;
    int status = 503;
    std::string reason = "backendError";
    std::string message = "Backend Error";
    int retryAfter = 0;  // seconds; 0: no header
    bool html = false;   // a proxy's HTML page instead of Drive's JSON
    int delayMs = 0;     // > 0: no failure; the request is served after this long
    int after = 0;       // matching requests served before the rule fires
    // The request is served and committed, then answered with the failure
    // instead (Drive may apply what it fails); it fires only on a request
    // that succeeded with 200 or 201, so on an upload's last chunk.
    bool afterCommit = false;
};

struct Counters {
    std::atomic<int> tokenGrants{0};
    std::atomic<int> unauthorized{0};         // 401 answers to API requests
    std::atomic<int> sessions{0};             // resumable sessions opened
    std::atomic<std::int64_t> mediaBytes{0};  // content bytes sent by alt=media answers
    std::atomic<int> redirected{0};           // media requests served at the redirect target
    std::atomic<int> leakedTokens{0};         // ... that carried an Authorization header
    std::atomic<int> failuresServed{0};       // answers made by failure rules
    std::atomic<int> uploadStarts{0};         // uploads begun: sessions and one-request uploads
    std::atomic<int> prettyPrinted{0};        // API requests without prettyPrint=false
    std::atomic<int> throttled{0};            // writes refused by the write throttle
    std::atomic<int> idsGenerated{0};         // ids handed out by generateIds
};

class FakeDrive {
  public:
    // Serves the account in `dataFolder` (an emulator data folder with an
    // account) on 127.0.0.1 at an ephemeral port, until destroyed; over TLS
    // when a certificate and its key (PEM files) are given.
    explicit FakeDrive(std::string const& dataFolder, std::string const& certFile = "",
                       std::string const& keyFile = "");
    ~FakeDrive();
    FakeDrive(FakeDrive const&) = delete;
    FakeDrive& operator=(FakeDrive const&) = delete;

    int port() const;
    // "http://127.0.0.1:PORT" (https with TLS)
    std::string url() const;

    // The refresh token the token endpoint accepts (decoded form), and hands
    // out for an authorization code. The consent page (GET /auth) grants every
    // complete request for offline Drive access with an S256 challenge by
    // redirecting to its redirect_uri with a one-time code.
    void setRefreshToken(std::string const& token);
    // Lifetime in seconds of the access tokens handed out from now on.
    void setTokenLife(int seconds);
    // The access tokens handed out so far are refused from now on.
    void expireAccessTokens();
    // Every later token request is refused with invalid_grant.
    void revokeGrant();
    void addFailure(FailRule const& rule);
    // The next `count` chunk uploads find their session expired (404).
    void expireSessions(int count);
    // The next completed upload reports an MD5 other than its bytes'.
    void corruptNextUpload();
    // The next object created misses the next `listings` name-filtered
    // listings, as Drive's listings lag behind its writes.
    void lagNextCreation(int listings);
    // alt=media answers carry at most this many bytes (0: no limit).
    void limitMediaAnswers(std::int64_t bytes);
    // The next `count` alt=media requests are answered whole (200), whatever
    // Range they ask for.
    void ignoreNextRanges(int count);
    // The object `id` is a Google-native one of `mimeType` from now on
    // ("application/vnd.google-apps.document", "...shortcut", ...): its
    // content cannot be downloaded.
    void makeNative(std::string const& id, std::string const& mimeType);
    // The token endpoint accepts the OAuth client `id` with `secret` too (it
    // knows the plug-in's); any other is refused with 401 invalid_client.
    void acceptClient(std::string const& id, std::string const& secret);
    // The file `id` is flagged as malware or spam: its content is served only
    // to requests that acknowledge the risk (acknowledgeAbuse=true).
    void flagAbusive(std::string const& id);
    // The next JSON answer ends with `bytes` blanks (still valid JSON).
    void padNextAnswer(std::int64_t bytes);
    // The next `count` alt=media requests are redirected to another host
    // name of the fake ("localhost"), which serves them without a token.
    void redirectNextMedia(int count);
    // The next alt=media answer carries one byte other than the file's.
    void corruptNextDownload();
    // The folder `id` plays the root of a shared drive from now on: what lies
    // below it is served only to requests with supportsAllDrives=true, listed
    // only with includeItemsFromAllDrives=true and corpora=drive (driveId
    // `id`) or allDrives, and at most `itemLimit` items can be created in it
    // (403 teamDriveFileLimitExceeded past that; Drive's limit is 400,000).
    void makeSharedDrive(std::string const& id, int itemLimit);
    // Every request waits `ms` before it is served, as the real service
    // answers in 50 to 300 ms (0, the default: at once).
    void setLatency(int ms);
    // Writes (every API request but a GET) pass a token bucket that holds
    // `burst` and refills at `perSecond`; a write that finds it empty is
    // refused with Drive's 403 userRateLimitExceeded. 0 (the default): no
    // throttle.
    void throttleWrites(double perSecond, int burst = 10);

    Counters& counters();
    // The User-Agent header of the last API request.
    std::string lastUserAgent();
    // Requests served or refused so far by kind: Drive's API method names
    // (FailRule), "token" for the token endpoint, "other" for the rest.
    std::map<std::string, int> requestCounts();

    // The routes' shared state (fake_state.h).
    struct State;

  private:
    std::unique_ptr<State> _state;
};

}  // namespace DriveFake
