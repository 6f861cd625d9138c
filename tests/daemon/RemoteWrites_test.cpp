// Writes to entries whose values live elsewhere: handed over instead of
// written to the store, answered when the outcome is known, audited always.
#include <gtest/gtest.h>

#include "DaemonTestSupport.h"

namespace tarsel::daemon {
namespace {

using namespace std::chrono_literals;
using testing::request;
using testing::TestDaemon;

char const* const kMap = R"({"entries": [
  {"name": "v", "table": "holding-registers", "address": 0, "encoder": "float",
   "source": {"device": 2, "channel": "V"}},
  {"name": "t", "table": "holding-registers", "address": 2, "encoder": "int16",
   "source": {"device": 2, "channel": "T"}},
  {"name": "local", "table": "holding-registers", "address": 3, "encoder": "int16",
   "source": {"device": 2, "channel": "L"}}
]})";

char const* const kRunningUps = R"({"devices": [{"id": 2, "name": "UPS", "channels": {
  "PowerDistribution.Status.OperatingStatus": {"uint32": 16},
  "V": {"float": 12.5}, "T": -3, "L": 7}}]})";

/* Owns every entry but "local"; keeps what it was asked to do. */
class FakeRemote : public RemoteWrites {
  public:
    bool owns(ServedEntry const& entry) const override { return entry.definition.name != "local"; }
    std::optional<RemoteOutcome> start(ServedEntry const& entry,
                                       std::vector<std::uint16_t> const& words,
                                       std::string const& client, Done done) override {
        started.push_back(entry.definition.name + " " + client + " " + std::to_string(words[0]));
        if (refuseWith) {
            return RemoteOutcome{*refuseWith, "refused at once"};
        }
        pending.push_back(std::move(done));
        return std::nullopt;
    }

    std::optional<std::uint8_t> refuseWith;
    std::vector<std::string> started;
    std::vector<Done> pending;
};

class RemoteWritesTest : public ::testing::Test {
  protected:
    void SetUp() override { m_daemon.core().handler().setRemoteWrites(&m_remote, &m_replies); }
    bool logged(std::string const& text) const {
        return m_daemon.logText().find(text) != std::string::npos;
    }

    TestDaemon m_daemon{kMap, kRunningUps};
    FakeRemote m_remote;
    DeferredReplies m_replies{5s};
};

TEST_F(RemoteWritesTest, AWriteIsHandedOverAndDeferredAndTheStoreIsNotWritten) {
    Answer const answer = m_daemon.ask(request(6, 2, 42));
    ASSERT_TRUE(answer.deferred);
    EXPECT_EQ(answer.exception, 0);
    EXPECT_EQ(m_remote.started, std::vector<std::string>{"t local 42"});
    EXPECT_EQ(TestDaemon::channel(2, "T"), kq::CValue(-3));
    EXPECT_FALSE(m_replies.settled(*answer.deferred));
}

TEST_F(RemoteWritesTest, TheOutcomeSettlesTheAnswerAndIsAuditedWithTheClient) {
    Answer const answer = m_daemon.ask(request(6, 2, 42));
    ASSERT_EQ(m_remote.pending.size(), 1u);
    m_remote.pending.front()(RemoteOutcome{0x02, "refused by upsd (ERR READONLY)"});
    EXPECT_EQ(m_replies.take(*answer.deferred), 0x02);
    EXPECT_TRUE(
        logged("write \"t\" holding-registers 2: [0xFFFD] -> [0x002A]: refused by upsd "
               "(ERR READONLY); client=local unit=1 function=6 address=2"))
        << m_daemon.logText();
}

TEST_F(RemoteWritesTest, AnOutcomeKnownAtOnceIsAnsweredAtOnce) {
    m_remote.refuseWith = 0x03;
    Answer const answer = m_daemon.ask(request(6, 2, 42));
    EXPECT_FALSE(answer.deferred);
    EXPECT_EQ(answer.exception, 0x03);
    EXPECT_EQ(m_replies.size(), 0u);
    EXPECT_TRUE(logged(": refused at once; client=local")) << m_daemon.logText();
}

TEST_F(RemoteWritesTest, AWriteOverTwoEntriesIsRefusedAndNothingIsHandedOver) {
    Answer const answer = m_daemon.ask(testing::writeRegisters(0, {0, 0, 5}));
    EXPECT_EQ(answer.exception, 0x01);
    EXPECT_TRUE(m_remote.started.empty());
    EXPECT_TRUE(logged("refused (a write to a UPS covers one entry)")) << m_daemon.logText();
}

TEST_F(RemoteWritesTest, AnEntryTheRemoteDoesNotOwnIsNotWrittenToTheStoreEither) {
    Answer const answer = m_daemon.ask(request(6, 3, 9));
    EXPECT_EQ(answer.exception, 0x01);
    EXPECT_EQ(TestDaemon::channel(2, "L"), kq::CValue(7));
    EXPECT_TRUE(m_remote.started.empty());
}

TEST_F(RemoteWritesTest, AnOutcomePastTheBoundIsAnswered0x0BAndAuditedWhenItComes) {
    Answer const answer = m_daemon.ask(request(6, 2, 42));
    m_replies.expire(DeferredReplies::Clock::now() + 6s);
    EXPECT_EQ(m_replies.take(*answer.deferred), 0x0B);
    EXPECT_TRUE(logged("no outcome within 5000 ms: answered 0x0B")) << m_daemon.logText();
    m_remote.pending.front()(RemoteOutcome{0, "done"});
    EXPECT_TRUE(logged(": done (too late for the client's answer); client=local"))
        << m_daemon.logText();
}

}  // namespace
}  // namespace tarsel::daemon
