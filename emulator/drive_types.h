// Value types shared by the emulator and its control library: the account, one
// object of the cloud, the behaviour settings, fault rules and request log
// entries. Plain copyable values; nothing here touches the data folder.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace DriveEmulator {

// A refused operation, with the code the emulator answers with: an HTTP
// status of the service (400, 403, 404, 500 ...) or a negative agent code.
class Error : public std::runtime_error {
  public:
    Error(int code, std::string const& message) : std::runtime_error(message), _code(code) {}
    int code() const { return _code; }

  private:
    int _code;
};

// The answers the model gives to everyday refusals, worded as the service words them.
namespace Messages {
extern char const* const kQuotaExceeded;  // "The user's Drive storage quota has been exceeded."
extern char const* const kInvalidValue;   // "Invalid Value"
extern char const* const kRateLimit;      // "User Rate Limit Exceeded"
}  // namespace Messages

struct AccountOptions {
    std::string email = "tester@example.com";
    std::string userName = "Test User";
    std::optional<std::int64_t> quota;  // bytes; absent means unlimited
};

struct Account {
    std::string email;
    std::string userName;
    std::optional<std::int64_t> quota;  // absent when unlimited
    std::int64_t usedSize = 0;          // sum of all file sizes, trashed files included
    std::string rootId;                 // the real id behind the alias "root"
};

// One file or folder. Folders have size 0 and an empty md5.
struct Object {
    std::string id;
    std::string name;
    std::vector<std::string> parents;  // empty only for the root
    bool isDir = false;
    std::uint64_t size = 0;
    std::int64_t mtime = 0;  // seconds since the epoch
    std::string md5;         // lower-case hex
    bool trashed = false;    // in the trash, itself or through a trashed folder above it
};

// Behaviour of the emulated service, stored in the data folder so that every
// emulator process sharing it behaves alike.
struct Settings {
    int pageSize = 100;                    // objects per "listObjects" page, at least 1
    bool listTrashed = false;              // true: listings include trashed objects, as raw Drive
    std::int64_t progressBytes = 8 << 20;  // bytes between progress messages; 0: none
    bool fsync = false;                    // fsync stored contents before committing them
    std::int64_t logRows = 20000;          // request log rows kept (the newest), at least 1
};

enum class FaultKind {
    Fail,               // answer {"success": false} with `code` and `text`; nothing is done
    Delay,              // sleep `number` milliseconds, then serve the request normally
    Exit,               // exit abruptly before doing anything, without an answer
    ExitAfterApply,     // do the request, then exit without an answer
    ExitAfterProgress,  // transfers: exit after `number` progress messages
    Garbage,            // write the line `text` (not JSON) instead of an answer; nothing is done
    ShortDownload,      // downloads: write one byte less than the file holds
    LongDownload,       // downloads: write one byte more than the file holds
    Progress,           // transfers: send `fractions` as the progress messages
    RefuseHandshake,    // at start: write `text` as the first line instead of "start" and exit
    ListingLag,      // objects this request creates miss the next `number` name-filtered listings
    CutAnswer,       // do the request, write the first half of its answer line, then exit
    RepeatListing,   // listings: the page's last object comes again on a next page, new token
    FailAfterApply,  // do the request, then answer {"success": false} with `code` and `text`
    FormerParent,    // listings of folder P also show object X, which has left P (`text`: "X P")
};

// A fault rule. It watches the requests whose "fn" equals `fn` ("*": every
// request; RefuseHandshake rules watch process starts instead) and fires on
// `times` of them in a row (all with `times` < 0), starting from the `nth`
// after the rule was added (the next one when `nth` is 0).
struct Fault {
    FaultKind kind = FaultKind::Fail;
    std::string fn = "*";
    int nth = 0;
    int times = 1;
    int code = 500;
    std::string
        text;  // Fail: message (empty: the code's usual one); Garbage, RefuseHandshake: the line
    std::int64_t number = 0;        // Delay: ms; ExitAfterProgress: messages; ListingLag: listings
    std::vector<double> fractions;  // Progress
    // Filled when read back from the data folder.
    std::int64_t id = 0;
    std::int64_t seen = 0;   // matching requests since the rule was added
    std::int64_t fired = 0;  // how often it fired

    // Readable constructors for the common rules; chain onNth (where the
    // firing starts) and forNext/always (how long it lasts) to change the
    // trigger (default: the next matching request only).
    static Fault fail(std::string fn, int code, std::string message = "");
    static Fault delay(std::string fn, std::int64_t milliseconds);
    static Fault exitBeforeAnswer(std::string fn);
    static Fault exitAfterApply(std::string fn);
    static Fault exitAfterProgress(std::string fn, std::int64_t messages);
    static Fault garbage(std::string fn, std::string line = "Traceback (most recent call last):");
    static Fault shortDownload();
    static Fault longDownload();
    static Fault progress(std::string fn, std::vector<double> fractions);
    static Fault refuseHandshake(std::string line);
    static Fault listingLag(std::int64_t listings, std::string fn = "*");
    static Fault cutAnswer(std::string fn);
    static Fault failAfterApply(std::string fn, int code, std::string message = "");
    // The next listings of folder `formerParentId` (those whose name filter, if
    // any, is `id`'s name) still show object `id`, as a lagging search does
    // after a move.
    static Fault listedUnderFormerParent(std::string const& id, std::string const& formerParentId);
    static Fault repeatListing();
    Fault& onNth(int n);
    Fault& forNext(int n);
    Fault& always();
};

// Names used in the data folder and by the control tool ("fail", "delay", ...).
std::string faultKindName(FaultKind kind);
// The kind of `name`; throws Error(400) for an unknown name.
FaultKind faultKindFromName(std::string const& name);
// The usual message of a failure code (500 "Internal Error", 403 "User Rate Limit Exceeded" ...).
std::string defaultFailureMessage(int code);

// One request as the emulator received and answered it.
struct LogEntry {
    std::int64_t seq = 0;  // grows with every request, across processes (restarts when cleared)
    std::string fn;        // empty when the line was not a JSON request
    Json::Value args;      // the request's other members (for a bad line: {"line": ...})
    bool success = false;
    int errorCode = 0;  // 0 on success
    std::string message;
    double time = 0;  // seconds since the epoch
    int pid = 0;      // the emulator process that served it
};

}  // namespace DriveEmulator
