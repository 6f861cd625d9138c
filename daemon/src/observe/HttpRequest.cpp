#include "HttpRequest.h"

#include <algorithm>

namespace tarsel::daemon {

namespace {

HttpParse bad(int code, std::string reason) {
    HttpParse parse;
    parse.status = HttpParse::Status::Bad;
    parse.code = code;
    parse.reason = std::move(reason);
    return parse;
}

/* What a method may be made of: letters, digits and a few marks. */
bool isTokenChar(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
           std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

/* The methods HTTP defines that this endpoint does not serve: 405, with the
 * ones it does in Allow. Methods are case-sensitive: "get" is none of them,
 * and any other token is a method the endpoint does not know at all (501). */
bool isOtherKnownMethod(std::string_view method) {
    for (std::string_view const known :
         {"POST", "PUT", "DELETE", "CONNECT", "OPTIONS", "TRACE", "PATCH"}) {
        if (method == known) {
            return true;
        }
    }
    return false;
}

/* Printable ASCII without spaces: what a request target may hold. */
bool isTargetChar(char c) {
    return c > ' ' && c < 0x7F;
}

/* Where the header ends (just past its empty line), or npos. Lines end
 * with CRLF or a bare LF, mixed too: the empty line is a line feed, maybe
 * after a carriage return, right after the previous line's line feed. */
std::size_t headerEnd(std::string_view bytes) {
    for (std::size_t at = bytes.find('\n'); at != std::string_view::npos;
         at = bytes.find('\n', at + 1)) {
        std::string_view const next = bytes.substr(at + 1);
        if (next.substr(0, 1) == "\n") {
            return at + 2;
        }
        if (next.substr(0, 2) == "\r\n") {
            return at + 3;
        }
    }
    return std::string_view::npos;
}

std::string_view chomp(std::string_view line) {
    if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    return line;
}

bool startsWithNoCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() &&
           std::equal(prefix.begin(), prefix.end(), text.begin(), [](char a, char b) {
               return a == (b >= 'A' && b <= 'Z' ? static_cast<char>(b - 'A' + 'a') : b);
           });
}

/* The path and query of an absolute-form target ("http://host:9502/metrics"),
 * which a client sends through a proxy: the host is the one it reached, so
 * only what follows it counts. Other targets are returned as they are. */
std::string_view originForm(std::string_view target) {
    for (std::string_view const scheme : {"http://", "https://"}) {
        if (startsWithNoCase(target, scheme)) {
            std::string_view const rest = target.substr(scheme.size());
            std::size_t const path = rest.find_first_of("/?");
            if (path == 0) {
                return {};  // no host: not a target at all
            }
            return path == std::string_view::npos || rest[path] == '?' ? "/" : rest.substr(path);
        }
    }
    return target;
}

HttpParse parseRequestLine(std::string_view line) {
    std::size_t const first = line.find(' ');
    std::size_t const second = first == std::string_view::npos ? first : line.find(' ', first + 1);
    if (second == std::string_view::npos || line.find(' ', second + 1) != std::string_view::npos) {
        return bad(400, "the request line is not METHOD TARGET VERSION");
    }
    std::string_view const method = line.substr(0, first);
    std::string_view const target = originForm(line.substr(first + 1, second - first - 1));
    std::string_view const version = line.substr(second + 1);
    if (method.empty() || !std::all_of(method.begin(), method.end(), isTokenChar)) {
        return bad(400, "the method is not a token");
    }
    // "*" is a target of its own, the server as a whole (OPTIONS *): the
    // method decides what becomes of it, below.
    bool const asterisk = target == "*";
    if (!asterisk && (target.empty() || target.front() != '/' ||
                      !std::all_of(target.begin(), target.end(), isTargetChar))) {
        return bad(400, "the target is not an absolute path");
    }
    if (version.substr(0, 5) != "HTTP/") {
        return bad(400, "the version is not HTTP/x.y");
    }
    if (version != "HTTP/1.0" && version != "HTTP/1.1") {
        return bad(505, "only HTTP/1.0 and HTTP/1.1 are served");
    }
    if (isOtherKnownMethod(method)) {
        return bad(405, "only GET and HEAD are served");
    }
    if (method != "GET" && method != "HEAD") {
        return bad(501,
                   "unknown method (methods are case-sensitive); only GET and HEAD are served");
    }
    if (asterisk) {
        return bad(400, "the target is not an absolute path");
    }
    HttpParse parse;
    parse.status = HttpParse::Status::Complete;
    parse.request.method = std::string(method);
    parse.request.path = std::string(target.substr(0, target.find('?')));
    return parse;
}

bool isHeaderLine(std::string_view line) {
    std::size_t const colon = line.find(':');
    if (colon == 0 || colon == std::string_view::npos) {
        return false;
    }
    // No control characters but tabs: nothing that could split a line.
    return std::none_of(line.begin(), line.end(), [](char c) {
        auto const byte = static_cast<unsigned char>(c);
        return (byte < 0x20 && c != '\t') || byte == 0x7F;
    });
}

}  // namespace

HttpParse parseHttpRequest(std::string_view bytes, std::size_t limit) {
    std::size_t const end = headerEnd(bytes.substr(0, std::min(bytes.size(), limit)));
    if (end == std::string_view::npos) {
        if (bytes.size() >= limit) {
            return bad(431,
                       "the request header is larger than " + std::to_string(limit) + " bytes");
        }
        // A request line already known to be bad is refused before the
        // client finishes its header.
        std::size_t const lineEnd = bytes.find('\n');
        if (lineEnd != std::string_view::npos) {
            HttpParse const line = parseRequestLine(chomp(bytes.substr(0, lineEnd)));
            if (line.status == HttpParse::Status::Bad) {
                return line;
            }
        }
        return {};
    }
    std::string_view header = bytes.substr(0, end);
    std::size_t lineEnd = header.find('\n');
    HttpParse parse = parseRequestLine(chomp(header.substr(0, lineEnd)));
    if (parse.status == HttpParse::Status::Bad) {
        return parse;
    }
    for (;;) {
        header.remove_prefix(lineEnd + 1);
        lineEnd = header.find('\n');
        std::string_view const line = chomp(header.substr(0, lineEnd));
        if (line.empty()) {
            return parse;  // the empty line that ends the header
        }
        if (!isHeaderLine(line)) {
            return bad(400, "a header line is not NAME: VALUE");
        }
    }
}

char const* reasonPhrase(int status) {
    switch (status) {
        case 200:
            return "OK";
        case 400:
            return "Bad Request";
        case 404:
            return "Not Found";
        case 405:
            return "Method Not Allowed";
        case 408:
            return "Request Timeout";
        case 431:
            return "Request Header Fields Too Large";
        case 501:
            return "Not Implemented";
        case 503:
            return "Service Unavailable";
        case 505:
            return "HTTP Version Not Supported";
        default:
            return "Unknown";
    }
}

std::string serializeResponse(HttpResponse const& response, bool headOnly) {
    std::string text = "HTTP/1.1 " + std::to_string(response.status) + " " +
                       reasonPhrase(response.status) + "\r\n";
    text += "Content-Type: " + response.contentType + "\r\n";
    text += "Content-Length: " + std::to_string(response.body.size()) + "\r\n";
    if (response.status == 405) {
        text += "Allow: GET, HEAD\r\n";
    }
    text += "Cache-Control: no-store\r\nConnection: close\r\n\r\n";
    if (!headOnly) {
        text += response.body;
    }
    return text;
}

HttpResponse errorResponse(int status, std::string const& reason) {
    HttpResponse response;
    response.status = status;
    response.body = std::string(reasonPhrase(status)) + ": " + reason + "\n";
    return response;
}

}  // namespace tarsel::daemon
