// The counts of one listener's connections: each reason counted apart, and
// the counts of several listeners added up for the page.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "ConnectionCounts.h"

namespace tarsel::daemon {
namespace {

TEST(ConnectionCountsTest, EachKindAndReasonIsCountedApart) {
    ConnectionCounts counts;
    counts.countAccepted(ListenerKind::Tls);
    counts.countAccepted(ListenerKind::Tls);
    counts.countRefused(RefusedReason::Access);
    counts.countClosed(ClosedReason::IdleTimeout);
    counts.countClosed(ClosedReason::IdleTimeout);
    counts.countClosed(ClosedReason::MalformedFrame);
    counts.addReceived(12);
    counts.addSent(11);
    counts.addSent(9);
    EXPECT_EQ(counts.accepted(ListenerKind::Tls), 2u);
    EXPECT_EQ(counts.accepted(ListenerKind::Plain), 0u);
    EXPECT_EQ(counts.refused(RefusedReason::Access), 1u);
    EXPECT_EQ(counts.refused(RefusedReason::ClientLimit), 0u);
    EXPECT_EQ(counts.closed(ClosedReason::IdleTimeout), 2u);
    EXPECT_EQ(counts.closed(ClosedReason::MalformedFrame), 1u);
    EXPECT_EQ(counts.closed(ClosedReason::FrameTimeout), 0u);
    EXPECT_EQ(counts.received(), 12u);
    EXPECT_EQ(counts.sent(), 20u);
}

TEST(ConnectionCountsTest, TheCountsOfTwoListenersAddUpEveryField) {
    ConnectionCounts plain;
    plain.countAccepted(ListenerKind::Plain);
    plain.countRefused(RefusedReason::ClientLimit);
    plain.countClosed(ClosedReason::TlsRole);
    plain.addReceived(1);
    plain.addSent(2);
    ConnectionCounts tls;
    tls.countAccepted(ListenerKind::Tls);
    tls.countRefused(RefusedReason::ClientLimit);
    tls.countClosed(ClosedReason::TlsRole);
    tls.addReceived(10);
    tls.addSent(20);
    ConnectionCounts all;
    all += plain;
    all += tls;
    EXPECT_EQ(all.accepted(ListenerKind::Plain), 1u);
    EXPECT_EQ(all.accepted(ListenerKind::Tls), 1u);
    EXPECT_EQ(all.refused(RefusedReason::ClientLimit), 2u);
    EXPECT_EQ(all.closed(ClosedReason::TlsRole), 2u);
    EXPECT_EQ(all.received(), 11u);
    EXPECT_EQ(all.sent(), 22u);
}

/* Label values: each reason its own, and each a Prometheus-friendly word. */
template <typename Enum>
void expectDistinctLabelValues(std::size_t count, char const* (*nameOf)(Enum)) {
    std::set<std::string> names;
    for (std::size_t i = 0; i < count; ++i) {
        std::string const name = nameOf(static_cast<Enum>(i));
        EXPECT_NE(name, "?") << i;
        EXPECT_EQ(name.find_first_not_of("abcdefghijklmnopqrstuvwxyz_"), std::string::npos) << name;
        names.insert(name);
    }
    EXPECT_EQ(names.size(), count);
}

TEST(ConnectionCountsTest, EveryKindAndReasonHasALabelValueOfItsOwn) {
    expectDistinctLabelValues(kListenerKinds, listenerKindName);
    expectDistinctLabelValues(kRefusedReasons, refusedReasonName);
    expectDistinctLabelValues(kClosedReasons, closedReasonName);
    EXPECT_STREQ(closedReasonName(ClosedReason::PeerClosed), "peer_closed");
    EXPECT_STREQ(refusedReasonName(RefusedReason::ClientLimit), "client_limit");
    EXPECT_STREQ(listenerKindName(ListenerKind::Tls), "tls");
}

}  // namespace
}  // namespace tarsel::daemon
