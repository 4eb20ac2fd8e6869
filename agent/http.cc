#include "http.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>

namespace DriveAgent {

namespace {

struct Exchange {
    HttpRequest const* request;
    HttpResponse* response;
    CURL* curl;
    std::int64_t sent = 0;
};

size_t onHeader(char* data, size_t size, size_t count, void* user) {
    auto* exchange = static_cast<Exchange*>(user);
    std::string line(data, size * count);
    size_t colon = line.find(':');
    if (line.rfind("HTTP/", 0) == 0) {
        exchange->response->headers.clear();  // a new answer (after 100 Continue)
    } else if (colon != std::string::npos) {
        std::string name = line.substr(0, colon);
        std::transform(name.begin(), name.end(), name.begin(),
                       [](unsigned char c) { return std::tolower(c); });
        size_t start = line.find_first_not_of(" \t", colon + 1);
        size_t end = line.find_last_not_of(" \t\r\n");
        exchange->response->headers[name] =
            start == std::string::npos || end < start ? "" : line.substr(start, end - start + 1);
    }
    return size * count;
}

size_t onBody(char* data, size_t size, size_t count, void* user) {
    auto* exchange = static_cast<Exchange*>(user);
    size_t n = size * count;
    HttpResponse& response = *exchange->response;
    curl_easy_getinfo(exchange->curl, CURLINFO_RESPONSE_CODE, &response.status);
    if (exchange->request->sink && response.status >= 200 && response.status < 300) {
        return exchange->request->sink(data, n, response) ? n : 0;
    }
    std::string& body = exchange->response->body;
    if (n > kMaxAnswerBody - body.size()) {
        response.bodyTooLarge = true;
        return 0;  // stops the transfer: a cut body must never pass for the whole one
    }
    body.append(data, n);
    return n;
}

size_t onRead(char* buffer, size_t size, size_t count, void* user) {
    auto* exchange = static_cast<Exchange*>(user);
    HttpRequest const& request = *exchange->request;
    std::int64_t left = request.uploadLength - exchange->sent;
    size_t want = static_cast<size_t>(std::min<std::int64_t>(left, size * count));
    if (want == 0) return 0;
    std::int64_t offset = request.uploadOffset + exchange->sent;
    ssize_t n = ::pread(request.uploadFd, buffer, want, offset);
    if (n <= 0) return CURL_READFUNC_ABORT;  // the file shrank or cannot be read
    if (request.onRead) request.onRead(buffer, static_cast<size_t>(n), offset);
    exchange->sent += n;
    return static_cast<size_t>(n);
}

}  // namespace

std::string HttpResponse::header(std::string const& name) const {
    auto it = headers.find(name);
    return it == headers.end() ? std::string() : it->second;
}

bool isLoopbackUrl(std::string const& url) {
    for (char const* prefix : {"http://127.0.0.1", "https://127.0.0.1", "http://[::1]",
                               "https://[::1]", "http://localhost", "https://localhost"}) {
        size_t n = std::char_traits<char>::length(prefix);
        if (url.compare(0, n, prefix) == 0 && (url.size() == n || url[n] == ':' || url[n] == '/')) {
            return true;
        }
    }
    return false;
}

Http::Http(std::string const& caFile, long stallSeconds, std::string const& userAgent)
    : _curl(curl_easy_init()),
      _ca_file(caFile),
      _stall_seconds(stallSeconds),
      _user_agent(userAgent) {}

bool isTlsRefusal(CURLcode code) {
    switch (code) {
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_ISSUER_ERROR:
        case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
        case CURLE_SSL_INVALIDCERTSTATUS:
            return true;
        default:
            return false;
    }
}

Http::~Http() { curl_easy_cleanup(_curl); }

std::string Http::escape(std::string const& text) {
    char* escaped = curl_easy_escape(_curl, text.data(), static_cast<int>(text.size()));
    std::string result = escaped ? escaped : "";
    curl_free(escaped);
    return result;
}

HttpResponse Http::perform(HttpRequest const& request) {
    HttpResponse response;
    if (!_curl) {
        response.curlCode = CURLE_FAILED_INIT;
        response.error = "libcurl could not be initialised";
        return response;
    }
    Exchange exchange{&request, &response, _curl};
    char errors[CURL_ERROR_SIZE] = "";
    CURL* c = _curl;
    curl_easy_reset(c);
    curl_easy_setopt(c, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, errors);
    curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT, 30L);
    if (!_user_agent.empty()) curl_easy_setopt(c, CURLOPT_USERAGENT, _user_agent.c_str());
    // Large pieces: fewer callbacks (each writes, hashes and counts) per byte.
    curl_easy_setopt(c, CURLOPT_BUFFERSIZE, 512L << 10);
    curl_easy_setopt(c, CURLOPT_UPLOAD_BUFFERSIZE, 512L << 10);
    curl_easy_setopt(c, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(c, CURLOPT_LOW_SPEED_TIME, _stall_seconds);
    // Never a test CA for a host on the network: only the loopback fake uses one.
    if (!_ca_file.empty() && isLoopbackUrl(request.url)) {
        curl_easy_setopt(c, CURLOPT_CAINFO, _ca_file.c_str());
    }
    if (request.sink) {
        // Content may be served from another host. libcurl sends our
        // Authorization header to the first host only (CURLOPT_UNRESTRICTED_AUTH
        // stays off), and never follows to plain http outside loopback.
        curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 1L);
        curl_easy_setopt(c, CURLOPT_MAXREDIRS, 5L);
        curl_easy_setopt(c, CURLOPT_REDIR_PROTOCOLS_STR,
                         isLoopbackUrl(request.url) ? "http,https" : "https");
    }
    curl_easy_setopt(c, CURLOPT_HEADERFUNCTION, onHeader);
    curl_easy_setopt(c, CURLOPT_HEADERDATA, &exchange);
    // Without these libcurl would write every body to our standard output,
    // which belongs to the pipe protocol.
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &exchange);

    curl_slist* headers = nullptr;
    for (auto const& h : request.headers) headers = curl_slist_append(headers, h.c_str());
    bool const hasBody = request.uploadFd >= 0 || request.method == "POST" ||
                         request.method == "PUT" || request.method == "PATCH";
    if (hasBody) {
        // No "Expect: 100-continue" round trip before each chunk.
        headers = curl_slist_append(headers, "Expect:");
        curl_easy_setopt(c, CURLOPT_UPLOAD, 1L);
        if (request.uploadFd >= 0) {
            curl_easy_setopt(c, CURLOPT_READFUNCTION, onRead);
            curl_easy_setopt(c, CURLOPT_READDATA, &exchange);
            curl_easy_setopt(c, CURLOPT_INFILESIZE_LARGE, curl_off_t(request.uploadLength));
        } else {
            curl_easy_setopt(c, CURLOPT_UPLOAD, 0L);
            curl_easy_setopt(c, CURLOPT_POSTFIELDS, request.body.c_str());
            curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(request.body.size()));
        }
    }
    if (request.method != "GET" && request.method != "POST") {
        curl_easy_setopt(c, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    }
    curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers);
    response.curlCode = curl_easy_perform(c);
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &response.status);
    if (response.curlCode != CURLE_OK) {
        response.error = errors[0] ? errors : curl_easy_strerror(response.curlCode);
    }
    curl_easy_setopt(c, CURLOPT_HTTPHEADER, nullptr);
    curl_slist_free_all(headers);
    return response;
}

}  // namespace DriveAgent
