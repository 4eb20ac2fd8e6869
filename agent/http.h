// One libcurl easy handle, reused for every request so that connections and
// TLS sessions survive between them. Bodies never reach the process's
// standard output: they go to a caller's sink or into the response.
#pragma once

#include <curl/curl.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace DriveAgent {

// The largest answer body kept in memory. A page of 1,000 objects with long
// names stays far below it; anything past it is no answer Drive gives.
constexpr size_t kMaxAnswerBody = size_t{64} << 20;

struct HttpRequest {
    std::string method = "GET";
    std::string url;
    std::vector<std::string> headers;  // "Name: value"
    std::string body;                  // sent when `uploadFd` is negative
    // A body read from a file range instead of `body`; `onRead` sees each
    // piece read, with its offset in the file.
    int uploadFd = -1;
    std::int64_t uploadOffset = 0;
    std::int64_t uploadLength = 0;
    std::function<void(char const*, size_t, std::int64_t)> onRead;
    // The body of a 2xx answer goes here instead of into the response (whose
    // status and headers are complete by then); returning false aborts.
    std::function<bool(char const*, size_t, struct HttpResponse const&)> sink;
};

struct HttpResponse {
    long status = 0;                             // 0 when no answer came
    std::map<std::string, std::string> headers;  // names in lower case
    std::string body;                            // the body unless a sink took it
    // The body passed kMaxAnswerBody: the exchange was stopped there (the
    // transfer fails) rather than keep a cut body that parses as nothing.
    bool bodyTooLarge = false;
    CURLcode curlCode = CURLE_OK;
    std::string error;  // libcurl's reason when curlCode is not CURLE_OK

    bool transportFailed() const { return curlCode != CURLE_OK; }
    std::string header(std::string const& name) const;
};

class Http {
  public:
    // `caFile`: extra trust anchors for loopback hosts only (tests); empty for
    // the system's. `stallSeconds`: a connection that moves nothing for that
    // long is given up.
    // `userAgent`: the User-Agent header of every request (none when empty).
    Http(std::string const& caFile, long stallSeconds, std::string const& userAgent = "");
    ~Http();
    Http(Http const&) = delete;
    Http& operator=(Http const&) = delete;

    // Performs one exchange. Never throws for a failed transfer: the
    // response's curlCode says so.
    HttpResponse perform(HttpRequest const& request);
    // `text` escaped for a URL query or a form body.
    std::string escape(std::string const& text);

  private:
    CURL* _curl;
    std::string _ca_file;
    long _stall_seconds;
    std::string _user_agent;
};

// True when `code` says the peer's TLS certificate or our trust store was
// refused: an intercepting proxy or a wrong clock, which no retry mends.
bool isTlsRefusal(CURLcode code);

// True for URLs whose host is 127.0.0.1, [::1] or localhost.
bool isLoopbackUrl(std::string const& url);

}  // namespace DriveAgent
