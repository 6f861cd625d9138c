// Just enough HTTP/1.0 and 1.1 for a monitoring endpoint: one GET (or HEAD)
// per connection, no body, answered and closed. What a client sends is
// untrusted: the parser bounds what it looks at and refuses anything odd.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tarsel::daemon {

struct HttpRequest {
    std::string method;  // "GET" or "HEAD"
    std::string path;    // the target without its query string
};

struct HttpParse {
    enum class Status { Incomplete, Complete, Bad };
    Status status = Status::Incomplete;
    int code = 0;        // Bad: the status to answer with
    std::string reason;  // Bad: why, for the body and the log
    HttpRequest request;
};

/* Parses the bytes received so far. Incomplete until the empty line that
 * ends the header; Bad (431) when `limit` bytes hold no whole header. */
HttpParse parseHttpRequest(std::string_view bytes, std::size_t limit);

struct HttpResponse {
    int status = 200;
    std::string contentType = "text/plain; charset=utf-8";
    std::string body;
};

char const* reasonPhrase(int status);
/* Status line, headers (Content-Length, Connection: close) and, unless
 * `headOnly`, the body. */
std::string serializeResponse(HttpResponse const& response, bool headOnly);
/* A plain-text answer to a Bad parse. */
HttpResponse errorResponse(int status, std::string const& reason);

}  // namespace tarsel::daemon
