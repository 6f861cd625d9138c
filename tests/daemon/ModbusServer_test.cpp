// The server side of deferred answers, over loopback sockets: a client's
// answers leave in the order of its requests, other clients are served
// meanwhile, and a client that goes away before its answer harms no one.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "DaemonTestSupport.h"
#include "DescriptorExhaustion.h"
#include "ModbusServer.h"
#include "ScriptedTls.h"

namespace tarsel::daemon {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;
using testing::HeldWrites;

char const* const kMap = R"({"entries": [
  {"name": "t", "table": "holding-registers", "address": 2, "encoder": "int16",
   "source": {"device": 2, "channel": "T"}},
  {"name": "label", "table": "input-registers", "address": 0, "encoder": "string", "size": 125,
   "source": {"device": 2, "channel": "Label"}}
]})";

char const* const kRunningUps = R"({"devices": [{"id": 2, "name": "UPS", "channels": {
  "PowerDistribution.Status.OperatingStatus": {"uint32": 16}, "T": -3, "Label": "UPS"}}]})";

Bytes withTransaction(Bytes frame, std::uint8_t id) {
    frame[1] = id;
    return frame;
}

class ModbusServerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        m_daemon.core().handler().setRemoteWrites(&m_writes, &m_replies);
        ListenConfig config;
        config.port = 0;  // a free one: tests run side by side
        m_server = std::make_unique<ModbusServer>(config, ClientLimits{}, m_daemon.core().handler(),
                                                  m_daemon.log());
    }
    void TearDown() override {
        for (int const fd : m_clients) {
            ::close(fd);
        }
    }

    int connectClient() {
        int const fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(m_server->port()));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        m_clients.push_back(fd);
        std::size_t const before = m_server->clientCount();
        pumpUntil([&] { return m_server->clientCount() > before; });
        return fd;
    }

    /* Passes of the loop's server side, until the condition holds (a few
     * hundred at most) or, without one, a few. */
    template <typename Condition>
    bool pumpUntil(Condition condition, int passes = 300) {
        for (int i = 0; i < passes && !condition(); ++i) {
            auto fds = m_server->pollSet();
            ::poll(fds.data(), fds.size(), 10);
            m_server->serve(fds.data(), fds.size(), SteadyClock::now());
            m_server->expire(SteadyClock::now());
        }
        return condition();
    }
    void pump() {
        pumpUntil([] { return false; }, 5);
    }

    /* The server listens for TLS clients instead, whose sessions hand out
     * what the script holds. */
    void listenWithTls(std::shared_ptr<testing::TlsScript> const& script) {
        ListenConfig config;
        config.port = 0;
        config.tls = std::make_shared<testing::ScriptedTlsContext>(script);
        m_server = std::make_unique<ModbusServer>(config, ClientLimits{}, m_daemon.core().handler(),
                                                  m_daemon.log());
    }

    /* Waits until the client's socket has something to read. */
    bool readable(int fd) {
        return pumpUntil([fd] {
            pollfd ready{fd, POLLIN, 0};
            return ::poll(&ready, 1, 0) == 1;
        });
    }

    static void send(int fd, Bytes const& bytes) {
        ASSERT_EQ(::send(fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }

    /* The transaction ids of the answers the client can read now. */
    static std::vector<int> answers(int fd) {
        std::vector<int> ids;
        Bytes bytes(4096);
        ssize_t const got = ::recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
        for (std::size_t at = 0; got > 0 && at + 6 <= static_cast<std::size_t>(got);) {
            ids.push_back(bytes[at + 1]);
            at += 6u + static_cast<std::size_t>(bytes[at + 4] << 8 | bytes[at + 5]);
        }
        return ids;
    }

    testing::TestDaemon m_daemon{kMap, kRunningUps};
    HeldWrites m_writes;
    DeferredReplies m_replies{5s};
    std::unique_ptr<ModbusServer> m_server;
    std::vector<int> m_clients;
};

TEST_F(ModbusServerTest, APipelinedReadIsAnsweredAfterTheWriteBeforeIt) {
    int const client = connectClient();
    Bytes both = withTransaction(testing::request(6, 2, 42), 1);
    Bytes const read = withTransaction(testing::request(3, 2, 1), 2);
    both.insert(both.end(), read.begin(), read.end());
    send(client, both);
    ASSERT_TRUE(pumpUntil([&] { return !m_writes.pending.empty(); }));
    pump();
    EXPECT_TRUE(answers(client).empty()) << "the read overtook the write";
    m_writes.pending.front()(RemoteOutcome{0, "done"});
    ASSERT_TRUE(readable(client));
    EXPECT_EQ(answers(client), (std::vector<int>{1, 2}));
}

TEST_F(ModbusServerTest, AWriteRefusedLaterGetsItsExceptionInItsPlace) {
    int const client = connectClient();
    send(client, withTransaction(testing::request(6, 2, 42), 9));
    ASSERT_TRUE(pumpUntil([&] { return !m_writes.pending.empty(); }));
    m_writes.pending.front()(RemoteOutcome{0x02, "refused"});
    ASSERT_TRUE(readable(client));
    Bytes bytes(64);
    ASSERT_EQ(::recv(client, bytes.data(), bytes.size(), MSG_DONTWAIT), 9);
    EXPECT_EQ(bytes[1], 9);
    EXPECT_EQ(bytes[7], 0x86);
    EXPECT_EQ(bytes[8], 0x02);
}

TEST_F(ModbusServerTest, OtherClientsAreServedWhileAWriteWaits) {
    int const writer = connectClient();
    int const reader = connectClient();
    send(writer, withTransaction(testing::request(6, 2, 42), 1));
    ASSERT_TRUE(pumpUntil([&] { return !m_writes.pending.empty(); }));
    send(reader, withTransaction(testing::request(3, 2, 1), 5));
    ASSERT_TRUE(readable(reader));
    EXPECT_EQ(answers(reader), std::vector<int>{5});
    EXPECT_TRUE(answers(writer).empty());
}

TEST_F(ModbusServerTest, AClientGoneBeforeItsAnswerHarmsNoOne) {
    int const client = connectClient();
    send(client, withTransaction(testing::request(6, 2, 42), 1));
    ASSERT_TRUE(pumpUntil([&] { return !m_writes.pending.empty(); }));
    // A reset, not an end of stream: the server cannot tell a client that has
    // closed its socket from one that has only ended its side until it writes.
    linger const abort{1, 0};
    ASSERT_EQ(::setsockopt(client, SOL_SOCKET, SO_LINGER, &abort, sizeof abort), 0);
    ::close(client);
    m_clients.clear();
    ASSERT_TRUE(pumpUntil([&] { return m_server->clientCount() == 0; }));
    m_writes.pending.front()(RemoteOutcome{0, "done"});
    pump();
    EXPECT_EQ(m_replies.size(), 0u);
    EXPECT_NE(m_daemon.logText().find("done (too late for the client's answer)"), std::string::npos)
        << m_daemon.logText();
    int const next = connectClient();
    send(next, withTransaction(testing::request(3, 2, 1), 3));
    ASSERT_TRUE(readable(next));
    EXPECT_EQ(answers(next), std::vector<int>{3});
}

TEST_F(ModbusServerTest, EveryRequestSentBeforeTheClientEndsItsSideIsAnswered) {
    int const client = connectClient();
    std::size_t const requests = 100;  // more than one turn's worth, well below 4 KiB
    Bytes pipelined;
    for (std::size_t i = 0; i < requests; ++i) {
        Bytes const frame =
            withTransaction(testing::request(3, 2, 1), static_cast<std::uint8_t>(i));
        pipelined.insert(pipelined.end(), frame.begin(), frame.end());
    }
    send(client, pipelined);
    ASSERT_EQ(::shutdown(client, SHUT_WR), 0);  // still reads its answers
    ASSERT_TRUE(pumpUntil([&] { return m_server->clientCount() == 0; }));
    std::size_t const answerBytes = 11;  // header, function, count, one register
    Bytes received(requests * answerBytes + 1);
    std::size_t got = 0;
    for (int i = 0; i < 100 && got < received.size(); ++i) {
        ssize_t const n = ::recv(client, received.data() + got, received.size() - got, 0);
        if (n <= 0) {
            break;  // the server's end of stream
        }
        got += static_cast<std::size_t>(n);
    }
    EXPECT_EQ(got / answerBytes, requests);
    EXPECT_EQ(got % answerBytes, 0u);
}

TEST_F(ModbusServerTest, AnswersTheSocketCouldNotTakeYetReachAClientThatHasEndedItsSide) {
    ClientLimits limits;
    limits.outputQueueBytes = 1024 * 1024;  // room for every answer below
    ListenConfig config;
    config.port = 0;
    m_server =
        std::make_unique<ModbusServer>(config, limits, m_daemon.core().handler(), m_daemon.log());
    // Small socket buffers on both sides (an accepted socket takes the
    // listener's), without which the kernel would hold every answer.
    int const window = 4096;
    int const listener = m_server->pollSet().front().fd;
    ASSERT_EQ(::setsockopt(listener, SOL_SOCKET, SO_SNDBUF, &window, sizeof window), 0);
    int const client = ::socket(AF_INET, SOCK_STREAM, 0);
    m_clients.push_back(client);
    ASSERT_EQ(::setsockopt(client, SOL_SOCKET, SO_RCVBUF, &window, sizeof window), 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(m_server->port()));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_TRUE(pumpUntil([&] { return m_server->clientCount() == 1; }));
    // Every request, then the end of the client's side, and nothing read
    // until the server has answered them all: most answers (about 50 KB)
    // wait in its queue when it hears the end of the stream.
    std::size_t const requests = 200;
    send(client, testing::repeated(testing::request(4, 0, 125), requests));
    ASSERT_EQ(::shutdown(client, SHUT_WR), 0);
    pumpUntil([&] { return m_server->clientCount() == 0; }, 60);
    EXPECT_EQ(m_server->clientCount(), 1u) << "closed with answers still queued";
    std::size_t const answerBytes = 9 + 250;  // header, function, count, 125 registers
    std::size_t got = 0;
    bool ended = false;
    Bytes buffer(65536);
    pumpUntil([&] {
        for (;;) {
            ssize_t const n = ::recv(client, buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (n <= 0) {
                ended = n == 0;
                return ended;
            }
            got += static_cast<std::size_t>(n);
        }
    });
    EXPECT_TRUE(ended);
    EXPECT_EQ(got, requests * answerBytes);
    EXPECT_EQ(m_server->clientCount(), 0u);
}

TEST_F(ModbusServerTest, AWriteSentBeforeTheClientEndsItsSideIsAnsweredWhenItsOutcomeComes) {
    int const client = connectClient();
    Bytes both = withTransaction(testing::request(6, 2, 42), 1);
    Bytes const read = withTransaction(testing::request(3, 2, 1), 2);
    both.insert(both.end(), read.begin(), read.end());
    send(client, both);
    ASSERT_EQ(::shutdown(client, SHUT_WR), 0);  // still reads its answers
    ASSERT_TRUE(pumpUntil([&] { return !m_writes.pending.empty(); }));
    pump();
    EXPECT_EQ(m_server->clientCount(), 1u) << "dropped with its answers still to come";
    m_writes.pending.front()(RemoteOutcome{0, "done"});
    ASSERT_TRUE(pumpUntil([&] { return m_server->clientCount() == 0; }));
    EXPECT_EQ(answers(client), (std::vector<int>{1, 2}));
    Bytes rest(16);
    EXPECT_EQ(::recv(client, rest.data(), rest.size(), MSG_DONTWAIT), 0) << "no end of stream";
}

TEST_F(ModbusServerTest, AnEndedClientWaitingForItsAnswerDoesNotWakeTheLoop) {
    int const client = connectClient();
    send(client, withTransaction(testing::request(6, 2, 42), 1));
    ASSERT_EQ(::shutdown(client, SHUT_WR), 0);
    ASSERT_TRUE(pumpUntil([&] { return !m_writes.pending.empty(); }));
    pump();
    ASSERT_EQ(m_server->clientCount(), 1u);
    // Its end of stream has been heard: polling its socket for reading
    // again would report it on every pass until the outcome comes.
    auto fds = m_server->pollSet();
    EXPECT_EQ(::poll(fds.data(), fds.size(), 0), 0);
    m_writes.pending.front()(RemoteOutcome{0x02, "refused"});
    ASSERT_TRUE(pumpUntil([&] { return m_server->clientCount() == 0; }));
    EXPECT_EQ(answers(client), std::vector<int>{1});
}

TEST_F(ModbusServerTest, ATlsClientSendingWithoutPauseIsReadOnlyAFewKilobytesAheadOfItsAnswers) {
    auto const script = std::make_shared<testing::TlsScript>();
    script->input = testing::repeated(testing::request(3, 2, 1), 100'000);  // 1.2 MB
    listenWithTls(script);
    send(connectClient(), {0});  // wakes the server up: the handshake, then reads
    ASSERT_TRUE(pumpUntil([&] { return script->handedOut > 0; }));
    // As on a plain connection: below 4 KiB waiting, plus one read.
    EXPECT_LT(script->handedOut, 2u * 4096u);
}

TEST_F(ModbusServerTest, EveryRequestATlsSessionHoldsIsAnsweredThoughTheSocketShowsNone) {
    auto const script = std::make_shared<testing::TlsScript>();
    std::size_t const requests = 1000;
    script->input = testing::repeated(testing::request(3, 2, 1), requests);
    listenWithTls(script);
    send(connectClient(), {0});
    std::size_t const answerBytes = 11;  // header, function, count, one register
    EXPECT_TRUE(pumpUntil([&] { return script->output.size() >= requests * answerBytes; }, 600))
        << script->output.size() / answerBytes << " answers";
    EXPECT_EQ(script->output.size(), requests * answerBytes);
    EXPECT_EQ(script->handedOut, script->input.size());
}

TEST_F(ModbusServerTest, OutOfDescriptorsTheListenerIsLeftAloneUntilOneFrees) {
    int const fd = ::socket(AF_INET, SOCK_STREAM, 0);  // made while there are some
    m_clients.push_back(fd);
    testing::OutOfDescriptors exhausted;
    ASSERT_TRUE(testing::connectToLoopback(fd, m_server->port()));
    // The queued connection keeps the listener readable: polled all along, it
    // would wake the loop thousands of times in this time.
    int const wakeUps = testing::wakeUpsWithin(*m_server, 600ms);
    EXPECT_LE(wakeUps, 10);
    EXPECT_EQ(m_server->clientCount(), 0u);
    EXPECT_NE(m_daemon.logText().find("accept: Too many open files; not accepting for 200 ms"),
              std::string::npos)
        << m_daemon.logText();
    exhausted.release();
    for (int i = 0; i < 20 && m_server->clientCount() == 0; ++i) {
        testing::wakeUpsWithin(*m_server, 100ms);
    }
    EXPECT_EQ(m_server->clientCount(), 1u);
    send(fd, testing::request(3, 2, 1));
    ASSERT_TRUE(readable(fd));
}

}  // namespace
}  // namespace tarsel::daemon
