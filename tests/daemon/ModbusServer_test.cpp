// The server side of deferred answers, over loopback sockets: a client's
// answers leave in the order of its requests, other clients are served
// meanwhile, and a client that goes away before its answer harms no one.
// And what becomes of connections, as counted for /metrics: taken on or
// refused, and why each one ended.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>

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

    /* Connects without waiting for the server to take the client on. */
    int dial() {
        int const fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(m_server->port()));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        m_clients.push_back(fd);
        return fd;
    }
    int connectClient() {
        std::size_t const before = m_server->clientCount();
        int const fd = dial();
        pumpUntil([&] { return m_server->clientCount() > before; });
        return fd;
    }
    /* Closes the client with a reset rather than an end of stream. */
    void reset(int fd) {
        linger const abort{1, 0};
        ASSERT_EQ(::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort), 0);
        ::close(fd);
        m_clients.erase(std::find(m_clients.begin(), m_clients.end(), fd));
    }

    /* A server on a free port with these limits and rules instead. */
    void listen(ClientLimits const& limits, AccessRules const& access = {}) {
        ListenConfig config;
        config.port = 0;
        config.access = access;
        m_server = std::make_unique<ModbusServer>(config, limits, m_daemon.core().handler(),
                                                  m_daemon.log());
    }
    ConnectionCounts counts() const { return m_server->connectionCounts(); }
    /* Clients closed for any reason. */
    std::uint64_t closedInAll() const {
        std::uint64_t all = 0;
        for (std::size_t i = 0; i < kClosedReasons; ++i) {
            all += counts().closed(static_cast<ClosedReason>(i));
        }
        return all;
    }
    /* Serves until the one client connected is closed; then it has been
     * closed once, for this reason. */
    void expectClosedFor(ClosedReason reason) {
        EXPECT_TRUE(pumpUntil([&] { return m_server->clientCount() == 0; }));
        EXPECT_EQ(counts().closed(reason), 1u) << closedReasonName(reason);
        EXPECT_EQ(closedInAll(), 1u);
    }

    /* Passes of the loop's server side, until the condition holds (a few
     * hundred at most) or, without one, a few. */
    template <typename Condition>
    bool pumpUntil(Condition condition, int passes = 300) {
        for (int i = 0; i < passes && !condition(); ++i) {
            auto fds = m_server->pollSet();
            ::poll(fds.data(), fds.size(), 10);
            m_server->serve(fds.data(), fds.size(), SteadyClock::now() + m_ahead);
            m_server->expire(SteadyClock::now() + m_ahead);
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
    // How far ahead of the clock the server is told it is.
    SteadyClock::duration m_ahead{};
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

TEST_F(ModbusServerTest, AWriteWhoseClientIsGoneIsCountedWithItsOutcomeOnceItComes) {
    Metrics metrics;
    m_daemon.core().setMetrics(&metrics);
    int const client = connectClient();
    send(client, withTransaction(testing::request(6, 2, 42), 1));
    ASSERT_TRUE(pumpUntil([&] { return !m_writes.pending.empty(); }));
    reset(client);
    ASSERT_TRUE(pumpUntil([&] { return m_server->clientCount() == 0; }));
    EXPECT_EQ(metrics.requests(6), 0u) << "counted before its outcome";
    m_writes.pending.front()(RemoteOutcome{0, "done"});
    EXPECT_TRUE(m_server->hasBacklog()) << "the count waits for a socket to wake the loop";
    pump();
    EXPECT_EQ(metrics.requests(6), 1u);
    EXPECT_EQ(metrics.writes(WriteOutcome::Written), 1u);
    EXPECT_EQ(m_replies.size(), 0u);
    EXPECT_FALSE(m_server->hasBacklog());
    // Its outcome was for no one: the log says so.
    EXPECT_NE(m_daemon.logText().find("done (too late for the client's answer)"), std::string::npos)
        << m_daemon.logText();
}

TEST_F(ModbusServerTest,
       AWriteWhoseClientIsGoneIsCountedAsTheClientWouldHaveBeenAnsweredPastTheBound) {
    Metrics metrics;
    m_daemon.core().setMetrics(&metrics);
    int const client = connectClient();
    send(client, withTransaction(testing::request(6, 2, 42), 1));
    ASSERT_TRUE(pumpUntil([&] { return !m_writes.pending.empty(); }));
    reset(client);
    ASSERT_TRUE(pumpUntil([&] { return m_server->clientCount() == 0; }));
    m_ahead = 6s;  // past the bound of 5 s: 0x0B
    pump();
    EXPECT_EQ(metrics.requests(6), 1u);
    EXPECT_EQ(metrics.exceptions(6, 0x0B), 1u);
    EXPECT_EQ(metrics.writes(WriteOutcome::Rejected), 1u);
    // No one was answered 0x0B: the bound's line is not written.
    EXPECT_EQ(m_daemon.logText().find("answered 0x0B"), std::string::npos) << m_daemon.logText();
    m_writes.pending.front()(RemoteOutcome{0, "done"});
    pump();
    EXPECT_EQ(metrics.requests(6), 1u) << "counted twice";
    EXPECT_EQ(m_replies.size(), 0u);
}

TEST_F(ModbusServerTest, AWriteWhosePlaceTheClientHadNoRoomForIsCountedWithItsOutcome) {
    Metrics metrics;
    m_daemon.core().setMetrics(&metrics);
    ClientLimits limits;
    limits.outputQueueBytes = 20;  // room for one answer still to come, not two
    listen(limits);
    Bytes both = withTransaction(testing::request(6, 2, 42), 1);
    Bytes const second = withTransaction(testing::request(6, 2, 43), 2);
    both.insert(both.end(), second.begin(), second.end());
    send(connectClient(), both);
    ASSERT_TRUE(pumpUntil([&] { return m_server->clientCount() == 0; }));
    ASSERT_EQ(m_writes.pending.size(), 2u) << "both writes were handed over";
    m_writes.pending[0](RemoteOutcome{0, "done"});
    m_writes.pending[1](RemoteOutcome{0x04, "failed"});
    pump();
    EXPECT_EQ(metrics.requests(6), 2u);
    EXPECT_EQ(metrics.writes(WriteOutcome::Written), 1u);
    EXPECT_EQ(metrics.writes(WriteOutcome::Failed), 1u);
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

TEST_F(ModbusServerTest, ClientsTakenOnAreCountedByTheKindOfTheirListener) {
    connectClient();
    connectClient();
    EXPECT_EQ(counts().accepted(ListenerKind::Plain), 2u);
    EXPECT_EQ(counts().accepted(ListenerKind::Tls), 0u);
    listenWithTls(std::make_shared<testing::TlsScript>());
    connectClient();
    EXPECT_EQ(counts().accepted(ListenerKind::Tls), 1u);
    EXPECT_EQ(counts().accepted(ListenerKind::Plain), 0u);
}

TEST_F(ModbusServerTest, AConnectionPastTheClientLimitIsCountedAsRefused) {
    ClientLimits limits;
    limits.maxClients = 1;
    listen(limits);
    connectClient();
    dial();  // the first client was heard from just now: it is not closed for this one
    EXPECT_TRUE(pumpUntil([&] { return counts().refused(RefusedReason::ClientLimit) == 1; }));
    EXPECT_EQ(m_server->clientCount(), 1u);
    EXPECT_EQ(counts().accepted(ListenerKind::Plain), 1u);
    EXPECT_EQ(closedInAll(), 0u);
}

TEST_F(ModbusServerTest, AClientClosedToMakeRoomIsCountedAndTheNewOneAccepted) {
    ClientLimits limits;
    limits.maxClients = 1;
    listen(limits);
    connectClient();
    m_ahead = 2s;  // the first client has been quiet long enough to give up its place
    dial();
    EXPECT_TRUE(pumpUntil([&] { return counts().accepted(ListenerKind::Plain) == 2; }));
    EXPECT_EQ(m_server->clientCount(), 1u);
    EXPECT_EQ(counts().closed(ClosedReason::MadeRoom), 1u);
    EXPECT_EQ(closedInAll(), 1u);
    EXPECT_EQ(counts().refused(RefusedReason::ClientLimit), 0u);
}

TEST_F(ModbusServerTest, AConnectionTheAccessRulesKeepOutIsCountedAsRefused) {
    AccessRules access;
    applyAllowOption(access, false, "10.0.0.0/8");
    applyAllowOption(access, true, "10.0.0.0/8");
    listen(ClientLimits{}, access);
    dial();
    EXPECT_TRUE(pumpUntil([&] { return counts().refused(RefusedReason::Access) == 1; }));
    EXPECT_EQ(counts().accepted(ListenerKind::Plain), 0u);
    EXPECT_EQ(counts().refused(RefusedReason::ClientLimit), 0u);
}

TEST_F(ModbusServerTest, AConnectionWithoutATlsSessionIsCountedAsRefused) {
    auto const script = std::make_shared<testing::TlsScript>();
    script->sessionsFail = true;
    listenWithTls(script);
    dial();
    EXPECT_TRUE(pumpUntil([&] { return counts().refused(RefusedReason::TlsSetup) == 1; }));
    EXPECT_EQ(counts().accepted(ListenerKind::Tls), 0u);
    EXPECT_EQ(m_server->clientCount(), 0u);
}

TEST_F(ModbusServerTest, AClientThatEndsItsStreamIsCountedAsClosedByItsPeer) {
    int const client = connectClient();
    ASSERT_EQ(::shutdown(client, SHUT_WR), 0);
    expectClosedFor(ClosedReason::PeerClosed);
}

TEST_F(ModbusServerTest, AClientThatResetsItsConnectionIsCountedAsClosedByItsPeer) {
    reset(connectClient());
    expectClosedFor(ClosedReason::PeerClosed);
}

TEST_F(ModbusServerTest, AnAnswerTheSocketRefusesIsCountedAsASendFailure) {
    int const client = connectClient();
    send(client, withTransaction(testing::request(6, 2, 42), 1));
    ASSERT_EQ(::shutdown(client, SHUT_WR), 0);  // kept for the answer it is owed
    ASSERT_TRUE(pumpUntil([&] { return !m_writes.pending.empty(); }));
    pump();
    ASSERT_EQ(m_server->clientCount(), 1u);
    reset(client);
    m_writes.pending.front()(RemoteOutcome{0, "done"});
    // A pass without any socket reported: the answer is sent before the
    // reset is heard from the socket.
    auto fds = m_server->pollSet();
    m_server->serve(fds.data(), fds.size(), SteadyClock::now());
    EXPECT_EQ(m_server->clientCount(), 0u);
    EXPECT_EQ(counts().closed(ClosedReason::SendFailed), 1u);
    EXPECT_EQ(closedInAll(), 1u);
}

TEST_F(ModbusServerTest, AnIdleClientIsCountedAsClosedForItsIdleness) {
    ClientLimits limits;
    limits.idleTimeout = 1s;
    listen(limits);
    connectClient();
    m_server->expire(SteadyClock::now() + 2s);
    expectClosedFor(ClosedReason::IdleTimeout);
}

TEST_F(ModbusServerTest, AClientStuckInAFrameIsCountedAsClosedForTheFrameTimeout) {
    ClientLimits limits;
    limits.partialFrameTimeout = 1s;
    listen(limits);
    send(connectClient(), {0, 1, 0});
    ASSERT_TRUE(pumpUntil([&] { return counts().received() == 3; }));
    m_server->expire(SteadyClock::now() + 2s);
    expectClosedFor(ClosedReason::FrameTimeout);
}

TEST_F(ModbusServerTest, AClientSendingAMalformedHeaderIsCountedAsClosedForIt) {
    send(connectClient(), {0, 1, 0, 7, 0, 6, 1, 3, 0, 0, 0, 1});  // protocol 7
    expectClosedFor(ClosedReason::MalformedFrame);
}

TEST_F(ModbusServerTest, AClientSendingAFrameLongerThanAnyIsCountedAsClosedForAMalformedOne) {
    send(connectClient(), {0, 1, 0, 0, 0x01, 0x00, 1});  // 262 bytes in all
    expectClosedFor(ClosedReason::MalformedFrame);
}

TEST_F(ModbusServerTest, AClientSendingAFunctionCodeWithoutAnswerIsCountedAsClosedForIt) {
    send(connectClient(), {0, 1, 0, 0, 0, 2, 1, 0x83});
    expectClosedFor(ClosedReason::NoAnswer);
}

TEST_F(ModbusServerTest, AClientWhoseAnswersPileUpIsCountedAsClosedForNotReading) {
    ClientLimits limits;
    limits.outputQueueBytes = 20;  // room for one answer still to come, not two
    listen(limits);
    Bytes both = withTransaction(testing::request(6, 2, 42), 1);
    Bytes const second = withTransaction(testing::request(6, 2, 43), 2);
    both.insert(both.end(), second.begin(), second.end());
    send(connectClient(), both);
    expectClosedFor(ClosedReason::NotReading);
}

TEST_F(ModbusServerTest, AFailedTlsHandshakeIsCountedAsClosedForIt) {
    auto const script = std::make_shared<testing::TlsScript>();
    script->handshakeFails = true;
    listenWithTls(script);
    send(connectClient(), {0});
    expectClosedFor(ClosedReason::TlsHandshake);
}

TEST_F(ModbusServerTest, ACertificateWithoutARoleIsCountedAsClosedForIt) {
    auto const script = std::make_shared<testing::TlsScript>();
    script->withoutRole = true;
    listenWithTls(script);
    send(connectClient(), {0});
    expectClosedFor(ClosedReason::TlsRole);
}

TEST_F(ModbusServerTest, TheModbusBytesOfClientsAreCountedConnectedAndOnceGone) {
    int const client = connectClient();
    send(client, testing::request(3, 2, 1));  // 12 bytes
    ASSERT_TRUE(readable(client));
    std::size_t const answerBytes = 11;  // header, function, count, one register
    EXPECT_EQ(counts().received(), 12u);
    EXPECT_EQ(counts().sent(), answerBytes);
    connectClient();
    ::close(client);
    m_clients.erase(m_clients.begin());
    ASSERT_TRUE(pumpUntil([&] { return m_server->clientCount() == 1; }));
    EXPECT_EQ(counts().received(), 12u);
    EXPECT_EQ(counts().sent(), answerBytes);
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
