#include "drive_types.h"

namespace DriveEmulator {

namespace Messages {
char const* const kQuotaExceeded = "The user's Drive storage quota has been exceeded.";
char const* const kInvalidValue = "Invalid Value";
char const* const kRateLimit = "User Rate Limit Exceeded";
}  // namespace Messages

namespace {
struct KindName {
    FaultKind kind;
    char const* name;
};
KindName const kKindNames[] = {
    {FaultKind::Fail, "fail"},
    {FaultKind::Delay, "delay"},
    {FaultKind::Exit, "exit"},
    {FaultKind::ExitAfterApply, "exit_after_apply"},
    {FaultKind::ExitAfterProgress, "exit_after_progress"},
    {FaultKind::Garbage, "garbage"},
    {FaultKind::ShortDownload, "short_download"},
    {FaultKind::LongDownload, "long_download"},
    {FaultKind::Progress, "progress"},
    {FaultKind::RefuseHandshake, "refuse_handshake"},
    {FaultKind::ListingLag, "listing_lag"},
    {FaultKind::CutAnswer, "cut_answer"},
    {FaultKind::RepeatListing, "repeat_listing"},
    {FaultKind::FailAfterApply, "fail_after_apply"},
    {FaultKind::FormerParent, "former_parent"},
};

Fault make(FaultKind kind, std::string fn) {
    Fault fault;
    fault.kind = kind;
    fault.fn = std::move(fn);
    return fault;
}
}  // namespace

std::string faultKindName(FaultKind kind) {
    for (auto const& entry : kKindNames) {
        if (entry.kind == kind) return entry.name;
    }
    return "unknown";
}

FaultKind faultKindFromName(std::string const& name) {
    for (auto const& entry : kKindNames) {
        if (name == entry.name) return entry.kind;
    }
    throw Error(400, "unknown fault kind: " + name);
}

std::string defaultFailureMessage(int code) {
    switch (code) {
        case 400:
            return "Bad Request";
        case 401:
            return "Invalid Credentials";
        case 403:
            return Messages::kRateLimit;
        case 404:
            return "File not found.";
        case 408:
            return "Request Timeout";
        case 429:
            return "Too Many Requests";
        case 500:
            return "Internal Error";
        case 502:
            return "Bad Gateway";
        case 503:
            return "Service Unavailable";
        case -2:
            return "connection to the service failed";
        case -3:
            return "user canceled";
        case -4:
            return "the service did not answer in time";
        default:
            return "injected failure";
    }
}

Fault Fault::fail(std::string fn, int code, std::string message) {
    Fault fault = make(FaultKind::Fail, std::move(fn));
    fault.code = code;
    fault.text = std::move(message);
    return fault;
}

Fault Fault::delay(std::string fn, std::int64_t milliseconds) {
    Fault fault = make(FaultKind::Delay, std::move(fn));
    fault.number = milliseconds;
    return fault;
}

Fault Fault::exitBeforeAnswer(std::string fn) { return make(FaultKind::Exit, std::move(fn)); }

Fault Fault::exitAfterApply(std::string fn) {
    return make(FaultKind::ExitAfterApply, std::move(fn));
}

Fault Fault::exitAfterProgress(std::string fn, std::int64_t messages) {
    Fault fault = make(FaultKind::ExitAfterProgress, std::move(fn));
    fault.number = messages;
    return fault;
}

Fault Fault::garbage(std::string fn, std::string line) {
    Fault fault = make(FaultKind::Garbage, std::move(fn));
    fault.text = std::move(line);
    return fault;
}

Fault Fault::shortDownload() { return make(FaultKind::ShortDownload, "downloadFile"); }

Fault Fault::longDownload() { return make(FaultKind::LongDownload, "downloadFile"); }

Fault Fault::progress(std::string fn, std::vector<double> fractions) {
    Fault fault = make(FaultKind::Progress, std::move(fn));
    fault.fractions = std::move(fractions);
    return fault;
}

Fault Fault::refuseHandshake(std::string line) {
    Fault fault = make(FaultKind::RefuseHandshake, "*");
    fault.text = std::move(line);
    return fault;
}

Fault Fault::listingLag(std::int64_t listings, std::string fn) {
    Fault fault = make(FaultKind::ListingLag, std::move(fn));
    fault.number = listings;
    return fault;
}

Fault Fault::cutAnswer(std::string fn) { return make(FaultKind::CutAnswer, std::move(fn)); }

Fault Fault::failAfterApply(std::string fn, int code, std::string message) {
    Fault fault = make(FaultKind::FailAfterApply, std::move(fn));
    fault.code = code;
    fault.text = std::move(message);
    return fault;
}

Fault Fault::listedUnderFormerParent(std::string const& id, std::string const& formerParentId) {
    Fault fault = make(FaultKind::FormerParent, "listObjects");
    fault.text = id + " " + formerParentId;
    return fault;
}

Fault Fault::repeatListing() { return make(FaultKind::RepeatListing, "listObjects"); }

Fault& Fault::onNth(int n) {
    nth = n;
    return *this;
}

Fault& Fault::forNext(int n) {
    times = n;
    return *this;
}

Fault& Fault::always() {
    times = -1;
    return *this;
}

}  // namespace DriveEmulator
