// The endpoint's server over real loopback sockets: one answer per client,
// bounded requests, and clients that are slow or do not read are closed.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "DescriptorExhaustion.h"
#include "HttpServer.h"

namespace tarsel::daemon {
namespace {

using Clock = HttpServer::Clock;
using namespace std::chrono_literals;

int connectTo(int port) {
    int const fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return fd;
}

class HttpServerTest : public ::testing::Test {
  protected:
    void start(HttpLimits limits = {}) {
        m_server = std::make_unique<HttpServer>(
            "127.0.0.1", 0, limits,
            [this](HttpRequest const& request) {
                ++m_answered;
                HttpResponse response;
                response.body = m_body.empty() ? "path " + request.path + "\n" : m_body;
                return response;
            },
            m_log);
    }

    /* One pass of the loop's side, waiting at most 20 ms. */
    void pump(Clock::time_point now = Clock::now()) {
        auto fds = m_server->pollSet();
        ::poll(fds.data(), fds.size(), 20);
        m_server->serve(fds.data(), fds.size(), now);
    }

    /* What the client receives until the server closes, pumping between reads. */
    std::string receiveAll(int fd) {
        std::string text;
        for (int i = 0; i < 200; ++i) {
            pump();
            char buffer[4096];
            ssize_t const got = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
            if (got == 0) {
                break;
            }
            if (got > 0) {
                text.append(buffer, static_cast<std::size_t>(got));
            }
        }
        return text;
    }

    std::string exchange(std::string const& request) {
        int const fd = connectTo(m_server->port());
        EXPECT_EQ(::send(fd, request.data(), request.size(), 0),
                  static_cast<ssize_t>(request.size()));
        std::string const answer = receiveAll(fd);
        ::close(fd);
        settle();
        return answer;
    }

    /* Lets the server see the clients that closed. */
    void settle() {
        for (int i = 0; i < 20 && m_server->clientCount() > 0; ++i) {
            pump();
        }
    }

    std::ostringstream m_logText;
    Log m_log{m_logText};
    std::unique_ptr<HttpServer> m_server;
    std::string m_body;
    int m_answered = 0;
};

TEST_F(HttpServerTest, AGetIsAnsweredAndTheConnectionClosed) {
    start();
    std::string const answer = exchange("GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_EQ(answer.substr(0, 17), "HTTP/1.1 200 OK\r\n");
    EXPECT_NE(answer.find("\r\n\r\npath /metrics\n"), std::string::npos);
    EXPECT_EQ(m_server->clientCount(), 0u);
}

TEST_F(HttpServerTest, ARequestSentByteByByteIsAnsweredOnce) {
    start();
    int const fd = connectTo(m_server->port());
    for (char const c : std::string("GET /healthz HTTP/1.0\r\n\r\n")) {
        ASSERT_EQ(::send(fd, &c, 1, 0), 1);
        pump();
    }
    std::string const answer = receiveAll(fd);
    ::close(fd);
    settle();
    EXPECT_EQ(m_server->clientCount(), 0u);
    EXPECT_NE(answer.find("path /healthz"), std::string::npos);
    EXPECT_EQ(m_answered, 1);
}

TEST_F(HttpServerTest, ARequestFollowedByTheClientsEndOfStreamIsStillAnswered) {
    start();
    int const fd = connectTo(m_server->port());
    std::string const request = "GET /metrics HTTP/1.0\r\n\r\n";
    ASSERT_EQ(::send(fd, request.data(), request.size(), 0), static_cast<ssize_t>(request.size()));
    // Done sending, still reading: what a one-shot client piping its
    // request does.
    ASSERT_EQ(::shutdown(fd, SHUT_WR), 0);
    std::string const answer = receiveAll(fd);
    ::close(fd);
    settle();
    EXPECT_EQ(answer.substr(0, 17), "HTTP/1.1 200 OK\r\n");
    EXPECT_NE(answer.find("path /metrics"), std::string::npos);
    EXPECT_EQ(m_answered, 1);
    EXPECT_EQ(m_server->clientCount(), 0u);
}

TEST_F(HttpServerTest, AnOversizedRequestIsRefusedWith431WithoutReachingTheResponder) {
    start();
    // Far more than the limit: the server stops reading at 4 KiB, answers,
    // and drops the rest, so the answer arrives whole rather than reset.
    std::string const answer = exchange("GET / HTTP/1.1\r\nX: " + std::string(60000, 'a'));
    EXPECT_EQ(answer.substr(0, 42), "HTTP/1.1 431 Request Header Fields Too Lar");
    EXPECT_EQ(m_answered, 0);
    EXPECT_NE(m_logText.str().find("HTTP: request refused with 431"), std::string::npos);
}

TEST_F(HttpServerTest, AMalformedRequestIsRefusedWith400) {
    start();
    EXPECT_EQ(exchange("hello\r\n\r\n").substr(0, 24), "HTTP/1.1 400 Bad Request");
    EXPECT_EQ(m_answered, 0);
}

TEST_F(HttpServerTest, AFloodOfOneBadRequestDoesNotHideTheFirstOfAnother) {
    start();
    for (std::size_t i = 0; i <= Log::kBurstPerMinute; ++i) {
        exchange("GET metrics HTTP/1.1\r\n\r\n");
    }
    exchange("GET /metrics HTTP/2.0\r\n\r\n");
    EXPECT_NE(m_logText.str().find("HTTP: request refused with 505: only HTTP/1.0 and HTTP/1.1"),
              std::string::npos)
        << m_logText.str();
}

TEST_F(HttpServerTest, ARefusedHeadRequestGetsItsErrorAnswerWithoutABody) {
    start();
    // The client reads no body after the header of an answer to HEAD: bytes
    // after it would be taken for the start of another answer.
    for (std::string const& request : std::vector<std::string>{
             "HEAD / HTTP/2.0\r\n\r\n", "HEAD / HTTP/1.1\r\nno colon here\r\n\r\n",
             "HEAD /?" + std::string(5000, 'a')}) {
        std::string const answer = exchange(request);
        ASSERT_NE(answer.find("Content-Length: "), std::string::npos) << answer;
        EXPECT_EQ(answer.size(), answer.find("\r\n\r\n") + 4) << answer;
    }
    EXPECT_EQ(m_answered, 0);
}

TEST_F(HttpServerTest, AHeadRequestThatTimesOutGets408WithoutABody) {
    start();
    int const fd = connectTo(m_server->port());
    ASSERT_EQ(::send(fd, "HEAD /", 6, 0), 6);
    for (int i = 0; i < 10 && m_server->clientCount() == 0; ++i) {
        pump();
    }
    ASSERT_EQ(m_server->clientCount(), 1u);
    pump();  // reads what the client sent
    pump();
    m_server->expire(Clock::now() + 6s);
    std::string const answer = receiveAll(fd);
    ::close(fd);
    settle();
    EXPECT_EQ(answer.substr(0, 29), "HTTP/1.1 408 Request Timeout\r");
    EXPECT_EQ(answer.size(), answer.find("\r\n\r\n") + 4) << answer;
}

TEST_F(HttpServerTest, ASlowClientIsClosedWith408AfterTheRequestTimeout) {
    start();
    int const fd = connectTo(m_server->port());
    ASSERT_EQ(::send(fd, "GET /", 5, 0), 5);
    for (int i = 0; i < 10 && m_server->clientCount() == 0; ++i) {
        pump();
    }
    ASSERT_EQ(m_server->clientCount(), 1u);
    m_server->expire(Clock::now() + 1s);
    EXPECT_EQ(m_server->clientCount(), 1u);  // within its 5 s
    m_server->expire(Clock::now() + 6s);
    std::string const answer = receiveAll(fd);
    EXPECT_EQ(answer.substr(0, 29), "HTTP/1.1 408 Request Timeout\r");
    ::close(fd);
    settle();
    EXPECT_EQ(m_server->clientCount(), 0u);
    EXPECT_EQ(m_answered, 0);
}

TEST_F(HttpServerTest, AClientThatDoesNotReadItsAnswerIsClosedAfterTheResponseTimeout) {
    start();
    m_body = std::string(32 * 1024 * 1024, 'x');  // more than the socket buffers take
    int const fd = connectTo(m_server->port());
    std::string const request = "GET / HTTP/1.1\r\n\r\n";
    ASSERT_EQ(::send(fd, request.data(), request.size(), 0), static_cast<ssize_t>(request.size()));
    for (int i = 0; i < 50 && m_answered == 0; ++i) {
        pump();
    }
    ASSERT_EQ(m_answered, 1);
    EXPECT_EQ(m_server->clientCount(), 1u);  // still sending
    m_server->expire(Clock::now() + 6s);
    EXPECT_EQ(m_server->clientCount(), 0u);
    ::close(fd);
}

TEST_F(HttpServerTest, ClientsBeyondTheLimitAreRefused) {
    HttpLimits limits;
    limits.maxClients = 2;
    start(limits);
    std::vector<int> fds;
    for (int i = 0; i < 3; ++i) {
        fds.push_back(connectTo(m_server->port()));
    }
    for (int i = 0; i < 10; ++i) {
        pump();
    }
    EXPECT_EQ(m_server->clientCount(), 2u);
    EXPECT_NE(m_logText.str().find("HTTP: 2 clients connected; connection refused"),
              std::string::npos);
    for (int const fd : fds) {
        ::close(fd);
    }
}

TEST_F(HttpServerTest, AnAnsweredClientThatNeverClosesIsClosedForANewOne) {
    HttpLimits limits;
    limits.maxClients = 2;
    start(limits);
    std::string const request = "GET /metrics HTTP/1.1\r\n\r\n";
    std::vector<int> answered;
    for (int i = 0; i < 2; ++i) {
        answered.push_back(connectTo(m_server->port()));
        ASSERT_EQ(::send(answered.back(), request.data(), request.size(), 0),
                  static_cast<ssize_t>(request.size()));
        EXPECT_NE(receiveAll(answered.back()).find("path /metrics"), std::string::npos);
    }
    ASSERT_EQ(m_server->clientCount(), 2u);  // both answered, neither closed
    std::string const answer = exchange(request);
    EXPECT_NE(answer.find("path /metrics"), std::string::npos) << answer;
    EXPECT_EQ(m_answered, 3);
    for (int const fd : answered) {
        ::close(fd);
    }
}

TEST_F(HttpServerTest, AClientStillSendingItsRequestAfterASecondIsClosedForANewOne) {
    HttpLimits limits;
    limits.maxClients = 2;
    start(limits);
    std::vector<int> slow{connectTo(m_server->port()), connectTo(m_server->port())};
    ASSERT_EQ(::send(slow[0], "GET /", 5, 0), 5);  // and nothing more
    for (int i = 0; i < 10; ++i) {
        pump();
    }
    ASSERT_EQ(m_server->clientCount(), 2u);
    int const fd = connectTo(m_server->port());
    std::string const request = "GET /metrics HTTP/1.1\r\n\r\n";
    ASSERT_EQ(::send(fd, request.data(), request.size(), 0), static_cast<ssize_t>(request.size()));
    pump(Clock::now() + 1500ms);  // the slow clients have been at it for over a second
    EXPECT_NE(receiveAll(fd).find("path /metrics"), std::string::npos);
    EXPECT_EQ(m_answered, 1);
    // The one connected first went.
    char byte = 0;
    EXPECT_EQ(::recv(slow[0], &byte, 1, MSG_DONTWAIT), 0);
    EXPECT_EQ(::recv(slow[1], &byte, 1, MSG_DONTWAIT), -1);
    ::close(fd);
    for (int const client : slow) {
        ::close(client);
    }
}

TEST_F(HttpServerTest, ClientsConnectedWithinTheLastSecondAreNotClosedForANewOne) {
    HttpLimits limits;
    limits.maxClients = 2;
    start(limits);
    std::vector<int> waiting{connectTo(m_server->port()), connectTo(m_server->port())};
    ASSERT_EQ(::send(waiting[0], "GET /", 5, 0), 5);  // its request not ended yet
    for (int i = 0; i < 10; ++i) {
        pump();
    }
    ASSERT_EQ(m_server->clientCount(), 2u);
    std::string const answer = exchange("GET /metrics HTTP/1.1\r\n\r\n");
    EXPECT_EQ(answer, "");  // refused: closed without an answer
    EXPECT_EQ(m_server->clientCount(), 2u);
    EXPECT_EQ(m_answered, 0);
    for (int const fd : waiting) {
        ::close(fd);
    }
}

TEST_F(HttpServerTest, OutOfDescriptorsTheListenerIsLeftAloneUntilOneFrees) {
    start();
    int const fd = ::socket(AF_INET, SOCK_STREAM, 0);  // made while there are some
    // The log writes once while descriptors are left: the undefined-behaviour
    // sanitizer checks a stream's dynamic type the first time it meets it,
    // through a pipe, and with none to be had it reports a false type error.
    m_log.info("running out of descriptors");
    testing::OutOfDescriptors exhausted;
    ASSERT_TRUE(testing::connectToLoopback(fd, m_server->port()));
    int const wakeUps = testing::wakeUpsWithin(*m_server, 600ms);
    EXPECT_LE(wakeUps, 10);
    EXPECT_EQ(m_server->clientCount(), 0u);
    EXPECT_NE(m_logText.str().find("HTTP: accept: Too many open files; not accepting for 200 ms"),
              std::string::npos)
        << m_logText.str();
    exhausted.release();
    std::string const request = "GET /health HTTP/1.1\r\nHost: x\r\n\r\n";
    ASSERT_EQ(::send(fd, request.data(), request.size(), 0), static_cast<ssize_t>(request.size()));
    for (int i = 0; i < 20 && m_answered == 0; ++i) {
        testing::wakeUpsWithin(*m_server, 100ms);
    }
    EXPECT_EQ(m_answered, 1);
    ::close(fd);
}

TEST_F(HttpServerTest, AClientThatNeverClosesAfterItsAnswerIsClosedAfterTheResponseTimeout) {
    start();
    int const fd = connectTo(m_server->port());
    std::string const request = "GET / HTTP/1.1\r\n\r\n";
    ASSERT_EQ(::send(fd, request.data(), request.size(), 0), static_cast<ssize_t>(request.size()));
    std::string const answer = receiveAll(fd);  // ends with the server's end of stream
    EXPECT_NE(answer.find("path /"), std::string::npos);
    EXPECT_EQ(m_server->clientCount(), 1u);  // waiting for the client's close
    m_server->expire(Clock::now() + 6s);
    EXPECT_EQ(m_server->clientCount(), 0u);
    ::close(fd);
}

TEST(HttpServerAddressTest, OnlyAddressesOf127Slash8AreLoopback) {
    EXPECT_TRUE(isLoopbackAddress("127.0.0.1"));
    EXPECT_TRUE(isLoopbackAddress("127.255.1.2"));
    EXPECT_FALSE(isLoopbackAddress("0.0.0.0"));
    EXPECT_FALSE(isLoopbackAddress("10.0.0.1"));
    EXPECT_FALSE(isLoopbackAddress("128.0.0.1"));
    EXPECT_FALSE(isLoopbackAddress("localhost"));
}

}  // namespace
}  // namespace tarsel::daemon
