// The endpoint's HTTP parser and answers: what a client sends is untrusted.
#include <gtest/gtest.h>

#include "HttpRequest.h"

namespace tarsel::daemon {
namespace {

constexpr std::size_t kLimit = 4096;

HttpParse parse(std::string const& text) {
    return parseHttpRequest(text, kLimit);
}

TEST(HttpRequestTest, AGetWithHeadersIsCompleteAtTheEmptyLine) {
    HttpParse const result = parse("GET /metrics HTTP/1.1\r\nHost: x\r\nAccept: */*\r\n\r\n");
    ASSERT_EQ(result.status, HttpParse::Status::Complete);
    EXPECT_EQ(result.request.method, "GET");
    EXPECT_EQ(result.request.path, "/metrics");
}

TEST(HttpRequestTest, BareLineFeedsAndHttp10AreAccepted) {
    HttpParse const result = parse("HEAD /healthz HTTP/1.0\n\n");
    ASSERT_EQ(result.status, HttpParse::Status::Complete);
    EXPECT_EQ(result.request.method, "HEAD");
}

TEST(HttpRequestTest, AHeaderLineEndedByABareLineFeedThenAnEmptyCrLfLineEndsTheHeader) {
    HttpParse const result = parse("GET /metrics HTTP/1.1\nHost: x\n\r\n");
    ASSERT_EQ(result.status, HttpParse::Status::Complete);
    EXPECT_EQ(result.request.path, "/metrics");
    EXPECT_EQ(parse("GET /metrics HTTP/1.1\n\r\n").status, HttpParse::Status::Complete);
}

TEST(HttpRequestTest, AnAbsoluteFormTargetIsServedByItsPath) {
    EXPECT_EQ(parse("GET http://127.0.0.1:9502/metrics HTTP/1.1\r\n\r\n").request.path, "/metrics");
    EXPECT_EQ(parse("HEAD HTTP://localhost/healthz?x=1 HTTP/1.1\r\n\r\n").request.path, "/healthz");
    EXPECT_EQ(parse("GET http://127.0.0.1:9502 HTTP/1.1\r\n\r\n").request.path, "/");
    EXPECT_EQ(parse("GET http:///metrics HTTP/1.1\r\n\r\n").code, 400);
    EXPECT_EQ(parse("GET ftp://127.0.0.1/metrics HTTP/1.1\r\n\r\n").code, 400);
}

TEST(HttpRequestTest, TheQueryStringIsNotPartOfThePath) {
    EXPECT_EQ(parse("GET /metrics?x=1 HTTP/1.1\r\n\r\n").request.path, "/metrics");
}

TEST(HttpRequestTest, UntilTheEmptyLineTheRequestIsIncomplete) {
    EXPECT_EQ(parse("").status, HttpParse::Status::Incomplete);
    EXPECT_EQ(parse("GET /metr").status, HttpParse::Status::Incomplete);
    EXPECT_EQ(parse("GET /metrics HTTP/1.1\r\nHost: x\r\n").status, HttpParse::Status::Incomplete);
}

TEST(HttpRequestTest, OtherMethodsAreRefusedWith405) {
    for (char const* method : {"POST", "PUT", "DELETE", "CONNECT", "OPTIONS", "TRACE", "PATCH"}) {
        HttpParse const result = parse(std::string(method) + " /metrics HTTP/1.1\r\n\r\n");
        EXPECT_EQ(result.status, HttpParse::Status::Bad) << method;
        EXPECT_EQ(result.code, 405) << method;
    }
}

TEST(HttpRequestTest, MethodsNoneKnowsAreRefusedWith501ForMethodsAreCaseSensitive) {
    for (char const* line : {"get /metrics HTTP/1.1\r\n\r\n", "Head / HTTP/1.0\r\n\r\n",
                             "BREW /pot HTTP/1.1\r\n\r\n", "M-SEARCH / HTTP/1.1\r\n\r\n"}) {
        HttpParse const result = parse(line);
        EXPECT_EQ(result.status, HttpParse::Status::Bad) << line;
        EXPECT_EQ(result.code, 501) << line;
    }
    EXPECT_EQ(parse("brew /pot HTTP/1.1\r\nAccept").code, 501);  // before the header ends
}

TEST(HttpRequestTest, TheAsteriskTargetIsRefusedByMethodWith405AndWithGetWith400) {
    EXPECT_EQ(parse("OPTIONS * HTTP/1.1\r\n\r\n").code, 405);
    EXPECT_EQ(parse("GET * HTTP/1.1\r\n\r\n").code, 400);
    EXPECT_EQ(parse("HEAD * HTTP/1.0\r\n\r\n").code, 400);
}

TEST(HttpRequestTest, OtherVersionsAreRefusedWith505) {
    EXPECT_EQ(parse("GET / HTTP/2.0\r\n\r\n").code, 505);
    EXPECT_EQ(parse("GET / HTTP/1.1x\r\n\r\n").code, 505);
}

TEST(HttpRequestTest, MalformedRequestLinesAreRefusedWith400) {
    for (char const* line :
         {"GET\r\n\r\n", "GET /\r\n\r\n", "GET  / HTTP/1.1\r\n\r\n", "GET / HTTP/1.1 extra\r\n\r\n",
          "G@T / HTTP/1.1\r\n\r\n", "GET metrics HTTP/1.1\r\n\r\n", "GET /\x01 HTTP/1.1\r\n\r\n",
          "GET / FTP/1.1\r\n\r\n", "\r\n\r\n"}) {
        HttpParse const result = parse(line);
        EXPECT_EQ(result.status, HttpParse::Status::Bad) << line;
        EXPECT_EQ(result.code, 400) << line;
    }
}

TEST(HttpRequestTest, ABadRequestLineIsRefusedBeforeTheHeaderEnds) {
    EXPECT_EQ(parse("BREW /pot HTCPCP/1.0\r\nAccept").code, 400);
}

TEST(HttpRequestTest, HeaderLinesWithoutAColonOrWithControlBytesAreRefused) {
    EXPECT_EQ(parse("GET / HTTP/1.1\r\nno colon\r\n\r\n").code, 400);
    EXPECT_EQ(parse("GET / HTTP/1.1\r\n: empty name\r\n\r\n").code, 400);
    EXPECT_EQ(parse("GET / HTTP/1.1\r\nX: a\x1b[31m\r\n\r\n").code, 400);
}

TEST(HttpRequestTest, AHeaderLargerThanTheLimitIsRefusedWith431) {
    std::string const big = "GET / HTTP/1.1\r\nX: " + std::string(kLimit, 'a');
    HttpParse const result = parse(big);
    EXPECT_EQ(result.status, HttpParse::Status::Bad);
    EXPECT_EQ(result.code, 431);
    // The empty line past the limit does not make it acceptable.
    EXPECT_EQ(parse(big + "\r\n\r\n").code, 431);
}

TEST(HttpRequestTest, ResponsesCarryTheirLengthAndCloseTheConnection) {
    HttpResponse response;
    response.status = 503;
    response.contentType = "application/json";
    response.body = "{}\n";
    EXPECT_EQ(serializeResponse(response, false),
              "HTTP/1.1 503 Service Unavailable\r\nContent-Type: application/json\r\n"
              "Content-Length: 3\r\nCache-Control: no-store\r\nConnection: close\r\n\r\n{}\n");
}

TEST(HttpRequestTest, HeadAnswersHaveTheLengthOfTheBodyButNoBody) {
    HttpResponse response;
    response.body = "12345";
    std::string const text = serializeResponse(response, true);
    EXPECT_NE(text.find("Content-Length: 5\r\n"), std::string::npos);
    EXPECT_EQ(text.substr(text.size() - 4), "\r\n\r\n");
}

TEST(HttpRequestTest, A405AnswerSaysWhichMethodsAreAllowed) {
    std::string const text = serializeResponse(errorResponse(405, "only GET"), false);
    EXPECT_NE(text.find("Allow: GET, HEAD\r\n"), std::string::npos);
    EXPECT_NE(text.find("Method Not Allowed: only GET\n"), std::string::npos);
}

TEST(HttpRequestTest, A501AnswerSaysNotImplemented) {
    std::string const text = serializeResponse(errorResponse(501, "unknown method"), false);
    EXPECT_EQ(text.rfind("HTTP/1.1 501 Not Implemented\r\n", 0), 0u) << text;
    EXPECT_EQ(text.find("Allow:"), std::string::npos);
}

}  // namespace
}  // namespace tarsel::daemon
