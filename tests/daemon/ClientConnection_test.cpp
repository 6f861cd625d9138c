// One client's connection over a socket pair: frames cut out of the byte
// stream however it arrives, and a bounded queue of answers for a peer that
// does not read.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include "ClientConnection.h"
#include "ScriptedTls.h"

namespace tarsel::daemon {
namespace {

using Bytes = std::vector<std::uint8_t>;

class ClientConnectionTest : public ::testing::Test {
  protected:
    void SetUp() override {
        int fds[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0);
        m_peer = fds[1];
        m_connection = std::make_unique<ClientConnection>(fds[0], PeerAddress{}, m_now, 1024);
    }
    void TearDown() override { ::close(m_peer); }

    void send(Bytes const& bytes) {
        ASSERT_EQ(::write(m_peer, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        ASSERT_EQ(m_connection->receive(m_now), ClientConnection::ReadStatus::Open);
    }

    SteadyClock::time_point m_now{};
    int m_peer = -1;
    std::unique_ptr<ClientConnection> m_connection;
};

Bytes const kRead = {0, 7, 0, 0, 0, 6, 1, 3, 0, 0, 0, 1};

TEST_F(ClientConnectionTest, AFrameSplitAcrossReadsIsCutOutWhole) {
    Bytes frame;
    send(Bytes(kRead.begin(), kRead.begin() + 5));
    EXPECT_EQ(m_connection->takeFrame(frame), ClientConnection::FrameStatus::Incomplete);
    EXPECT_TRUE(m_connection->partialSince());
    send(Bytes(kRead.begin() + 5, kRead.end()));
    ASSERT_EQ(m_connection->takeFrame(frame), ClientConnection::FrameStatus::Complete);
    EXPECT_EQ(frame, kRead);
    EXPECT_FALSE(m_connection->partialSince());
}

TEST_F(ClientConnectionTest, PipelinedFramesComeOutOneByOne) {
    Bytes two = kRead;
    two.insert(two.end(), kRead.begin(), kRead.end());
    send(two);
    Bytes frame;
    EXPECT_EQ(m_connection->takeFrame(frame), ClientConnection::FrameStatus::Complete);
    EXPECT_EQ(m_connection->takeFrame(frame), ClientConnection::FrameStatus::Complete);
    EXPECT_EQ(m_connection->takeFrame(frame), ClientConnection::FrameStatus::Incomplete);
}

TEST_F(ClientConnectionTest, AHeaderWithAnotherProtocolOrAnImpossibleLengthIsMalformed) {
    send({0, 1, 0, 7, 0, 6, 1, 3});
    Bytes frame;
    EXPECT_EQ(m_connection->takeFrame(frame), ClientConnection::FrameStatus::Malformed);
}

TEST_F(ClientConnectionTest, ALengthBeyondTheLargestFrameIsMalformed) {
    send({0, 1, 0, 0, 0x01, 0x00, 1});  // 256 bytes of unit id and PDU: 262 in all
    Bytes frame;
    EXPECT_EQ(m_connection->takeFrame(frame), ClientConnection::FrameStatus::Malformed);
}

TEST_F(ClientConnectionTest, AnswersQueueUntilTheLimitWhenThePeerDoesNotRead) {
    Bytes const answer(200, 0xAB);
    int queued = 0;
    while (m_connection->queue(answer) == ClientConnection::QueueStatus::Queued) {
        ++queued;
        ASSERT_LT(queued, 100000) << "the queue never filled";
    }
    EXPECT_GT(queued, 5);  // the kernel's buffer first, then 1024 bytes of ours
    EXPECT_EQ(m_connection->queue(answer), ClientConnection::QueueStatus::Full);
    EXPECT_LE(m_connection->pendingOutput(), 1024u);
    EXPECT_GT(m_connection->pendingOutput(), 1024u - answer.size());
}

TEST_F(ClientConnectionTest, QueuedAnswersLeaveInOrderOnceThePeerReads) {
    Bytes const first(100, 1);
    Bytes const second(100, 2);
    ASSERT_EQ(m_connection->queue(first), ClientConnection::QueueStatus::Queued);
    ASSERT_EQ(m_connection->queue(second), ClientConnection::QueueStatus::Queued);
    EXPECT_FALSE(m_connection->hasPendingOutput());  // an idle socket takes them at once
    std::uint8_t buffer[300];
    ASSERT_EQ(::read(m_peer, buffer, sizeof buffer), 200);
    EXPECT_EQ(buffer[0], 1);
    EXPECT_EQ(buffer[199], 2);
}

TEST_F(ClientConnectionTest, WhatTheSocketCannotTakeWaitsAndLeavesAfterItInOrder) {
    // Fill the socket so that an answer goes out only in part or not at all.
    Bytes const filler(200, 0xAB);
    while (!m_connection->hasPendingOutput()) {
        ASSERT_EQ(m_connection->queue(filler), ClientConnection::QueueStatus::Queued);
    }
    Bytes const last(50, 0xCD);
    ASSERT_EQ(m_connection->queue(last), ClientConnection::QueueStatus::Queued);
    // Read everything while flushing: the stream ends with the last answer
    // whole, after every filler byte.
    Bytes received;
    std::uint8_t buffer[4096];
    for (int pass = 0; pass < 100000 && m_connection->hasPendingOutput(); ++pass) {
        ssize_t const got = ::read(m_peer, buffer, sizeof buffer);
        if (got > 0) {
            received.insert(received.end(), buffer, buffer + got);
        }
        ASSERT_TRUE(m_connection->flush());
    }
    for (ssize_t got; (got = ::read(m_peer, buffer, sizeof buffer)) > 0;) {
        received.insert(received.end(), buffer, buffer + got);
    }
    ASSERT_FALSE(m_connection->hasPendingOutput());
    ASSERT_GE(received.size(), last.size() + filler.size());
    EXPECT_EQ((received.size() - last.size()) % filler.size(), 0u);
    EXPECT_EQ(Bytes(received.end() - 50, received.end()), last);
    EXPECT_EQ(received[received.size() - 51], 0xAB);
}

TEST_F(ClientConnectionTest, AnAnswerToAPeerThatWentAwayFails) {
    ::close(m_peer);
    m_peer = ::dup(0);  // for TearDown
    EXPECT_EQ(m_connection->queue(Bytes(10, 1)), ClientConnection::QueueStatus::Failed);
}

TEST_F(ClientConnectionTest, TheEndOfTheStreamClosesIt) {
    ::shutdown(m_peer, SHUT_WR);
    EXPECT_EQ(m_connection->receive(m_now), ClientConnection::ReadStatus::Closed);
}

TEST_F(ClientConnectionTest, BytesAreCountedAsTheyArriveAndAsTheSocketTakesThem) {
    send(kRead);
    send(Bytes(kRead.begin(), kRead.begin() + 5));
    EXPECT_EQ(m_connection->bytesReceived(), kRead.size() + 5);
    Bytes const filler(200, 0xAB);
    std::uint64_t queued = 0;
    while (!m_connection->hasPendingOutput()) {
        ASSERT_EQ(m_connection->queue(filler), ClientConnection::QueueStatus::Queued);
        queued += filler.size();
    }
    // What waits in the queue has not been sent yet.
    EXPECT_EQ(m_connection->bytesSent(), queued - m_connection->pendingOutput());
    std::uint8_t buffer[4096];
    for (int pass = 0; pass < 100000 && m_connection->hasPendingOutput(); ++pass) {
        while (::read(m_peer, buffer, sizeof buffer) > 0) {
        }
        ASSERT_TRUE(m_connection->flush());
    }
    ASSERT_FALSE(m_connection->hasPendingOutput());
    EXPECT_EQ(m_connection->bytesSent(), queued);
}

/* Everything the peer can read now. */
Bytes readAll(int fd) {
    Bytes bytes(4096);
    ssize_t const got = ::recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
    bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return bytes;
}

TEST_F(ClientConnectionTest, AnswersAfterADeferredOneWaitUntilItIsFilledThenGoInRequestOrder) {
    ASSERT_EQ(m_connection->queue({1}), ClientConnection::QueueStatus::Queued);
    ASSERT_EQ(m_connection->queueDeferred(7), ClientConnection::QueueStatus::Queued);
    ASSERT_EQ(m_connection->queue({3}), ClientConnection::QueueStatus::Queued);
    ASSERT_EQ(m_connection->queueDeferred(8), ClientConnection::QueueStatus::Queued);
    ASSERT_EQ(m_connection->queue({5}), ClientConnection::QueueStatus::Queued);
    EXPECT_EQ(readAll(m_peer), Bytes{1});
    EXPECT_EQ(m_connection->deferredTokens(), (std::vector<std::uint64_t>{7, 8}));
    // The later one settles first: it still waits for the earlier.
    ASSERT_EQ(m_connection->fill(8, {4}), ClientConnection::QueueStatus::Queued);
    EXPECT_EQ(readAll(m_peer), Bytes{});
    ASSERT_EQ(m_connection->fill(7, {2}), ClientConnection::QueueStatus::Queued);
    EXPECT_EQ(readAll(m_peer), (Bytes{2, 3, 4, 5}));
    EXPECT_TRUE(m_connection->deferredTokens().empty());
    EXPECT_FALSE(m_connection->hasPendingOutput());
}

TEST_F(ClientConnectionTest, AnAnswerStillToComeDoesNotAskForTheSocketToBeWritable) {
    ASSERT_EQ(m_connection->queueDeferred(1), ClientConnection::QueueStatus::Queued);
    EXPECT_FALSE(m_connection->wantsWrite());
    EXPECT_TRUE(m_connection->hasPendingOutput());
}

TEST_F(ClientConnectionTest, PlacesForAnswersToComeCountAgainstTheOutputLimit) {
    std::uint64_t token = 0;
    while (m_connection->queueDeferred(++token) == ClientConnection::QueueStatus::Queued) {
        ASSERT_LT(token, 1000u) << "places were reserved without bound";
    }
    EXPECT_EQ(token - 1, 1024u / 12u);
}

/* A TLS client over a socket pair whose session holds `frames` requests. */
class TlsClientConnectionTest : public ::testing::Test {
  protected:
    void SetUp() override {
        int fds[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0);
        m_peer = fds[1];
        m_connection = std::make_unique<ClientConnection>(
            fds[0], PeerAddress{}, m_now, 1024,
            std::make_unique<testing::ScriptedTlsSession>(fds[0], m_script));
    }
    void TearDown() override { ::close(m_peer); }

    /* Takes every whole frame received; returns how many there were. */
    std::size_t takeAll() {
        Bytes frame;
        std::size_t count = 0;
        while (m_connection->takeFrame(frame) == ClientConnection::FrameStatus::Complete) {
            ++count;
        }
        return count;
    }

    SteadyClock::time_point m_now{};
    int m_peer = -1;
    std::shared_ptr<testing::TlsScript> m_script = std::make_shared<testing::TlsScript>();
    std::unique_ptr<ClientConnection> m_connection;
};

TEST_F(TlsClientConnectionTest, ATlsClientIsReadNoFurtherAheadOfItsAnswersThanAPlainOne) {
    // A client that sends without pause: 1.2 MB of requests ready to read.
    m_script->input = testing::repeated(kRead, 100'000);
    ASSERT_EQ(m_connection->receive(m_now), ClientConnection::ReadStatus::Open);
    // A plain connection stops below 4 KiB plus one read of 4 KiB.
    EXPECT_LT(m_script->handedOut, 2u * 4096u);
    EXPECT_FALSE(m_connection->wantsRead());
}

TEST_F(TlsClientConnectionTest, WhatTheSessionStillHoldsIsReadOnceTheFramesBeforeItAreTaken) {
    std::size_t const frames = 1000;
    m_script->input = testing::repeated(kRead, frames);
    ASSERT_EQ(m_connection->receive(m_now), ClientConnection::ReadStatus::Open);
    std::size_t taken = takeAll();
    ASSERT_LT(taken, frames);
    // The socket shows nothing of what the session holds: the connection
    // says there is more to read.
    for (int turn = 0; turn < 100 && m_connection->hasUnreadInput(); ++turn) {
        ASSERT_EQ(m_connection->receive(m_now), ClientConnection::ReadStatus::Open);
        taken += takeAll();
    }
    EXPECT_EQ(taken, frames);
    EXPECT_FALSE(m_connection->hasUnreadInput());
    EXPECT_TRUE(m_connection->wantsRead());
}

TEST(PeerAddressTest, NamesTheAddressAndPort) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(40212);
    address.sin_addr.s_addr = htonl(0x7F000002);
    PeerAddress const peer = PeerAddress::from(address);
    EXPECT_EQ(peer.ipv4, 0x7F000002u);
    EXPECT_EQ(peer.port, 40212);
    EXPECT_EQ(peer.text, "127.0.0.2:40212");
}

}  // namespace
}  // namespace tarsel::daemon
