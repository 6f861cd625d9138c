// The availability check of the UPS map: status reads, the latch, the
// not-available message and the polling loop (with an injected sleep).
#include "modbus/PowerDistributionAvailableAccessor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "cdsapi/cds_accessor.h"
#include "cdshost/store.h"

namespace {

using modbus::PowerDistributionAvailableAccessor;
using Reader = PowerDistributionAvailableAccessor::OperatingStatusReader;

constexpr unsigned long long kAllOnes = ~0ULL;
constexpr char const* kStatusChannel = "PowerDistribution.Status.OperatingStatus";

cdshost::Store& store() {
    return cdshost::Store::instance();
}

/* Device 2 with its operating-status channel holding `status`. */
cdshost::Id addStatusChannel(kq::CValue const& status) {
    store().addDevice("PowerDistribution", 2);
    return store().addChannel(2, kStatusChannel, status);
}

// The polling loop's sleep, replaced so that tests do not wait. It counts its
// calls and may change the status when a given sleep is reached.
int g_sleeps = 0;
int g_sleepThatSetsStatus16 = 0;
cdshost::Id g_statusChannel = 0;

void countingSleep() {
    ++g_sleeps;
    if (g_sleeps == g_sleepThatSetsStatus16) {
        store().setChannelValue(g_statusChannel, kq::CValue(16u));
    }
}

class PowerDistributionAvailableAccessorTest : public ::testing::Test {
  protected:
    void SetUp() override { PowerDistributionAvailableAccessor::setSleepFunction(&countingSleep); }
};

TEST_F(PowerDistributionAvailableAccessorTest,
       ConstructorOpensItsOwnModbusdConnectionAndReadsNothing) {
    addStatusChannel(kq::CValue(16u));
    PowerDistributionAvailableAccessor const accessor;
    EXPECT_EQ(store().connections("modbusd"), 1u);
    EXPECT_EQ(store().connections("modbus"), 0u);
    EXPECT_EQ(store().calls("getCatchedChannelId"), 0u);
    EXPECT_EQ(store().calls("getChannelCValue"), 0u);
}

TEST_F(PowerDistributionAvailableAccessorTest, ConstructorLetsConnectionFailureThrough) {
    store().failNext("CdsAccessor");
    EXPECT_THROW(PowerDistributionAvailableAccessor(), cdshost::InjectedFault);
}

TEST_F(PowerDistributionAvailableAccessorTest, DestructorCallsNoDataStoreOperation) {
    addStatusChannel(kq::CValue(16u));
    {
        PowerDistributionAvailableAccessor accessor;
        EXPECT_TRUE(accessor.isAvailable());
        store().resetCalls();
    }
    EXPECT_EQ(store().calls("getCatchedChannelId"), 0u);
    EXPECT_EQ(store().calls("getChannelCValue"), 0u);
    EXPECT_EQ(store().calls("unsubscribe"), 0u);
}

TEST_F(PowerDistributionAvailableAccessorTest, Status16IsAvailable) {
    addStatusChannel(kq::CValue(16u));
    PowerDistributionAvailableAccessor accessor;
    EXPECT_TRUE(accessor.isAvailable());
    EXPECT_EQ(store().calls("getCatchedChannelId", 2), 1u);
}

TEST_F(PowerDistributionAvailableAccessorTest, Status272IsAvailableBecauseOnlyLowEightBitsCount) {
    addStatusChannel(kq::CValue(272u));
    PowerDistributionAvailableAccessor accessor;
    EXPECT_TRUE(accessor.isAvailable());
}

TEST_F(PowerDistributionAvailableAccessorTest, OtherStatusIsNotAvailable) {
    addStatusChannel(kq::CValue(3u));
    PowerDistributionAvailableAccessor accessor;
    EXPECT_FALSE(accessor.isAvailable());
}

TEST_F(PowerDistributionAvailableAccessorTest, StaysAvailableWithoutReadingAfterStatusChanges) {
    cdshost::Id const channel = addStatusChannel(kq::CValue(16u));
    PowerDistributionAvailableAccessor accessor;
    ASSERT_TRUE(accessor.isAvailable());
    store().setChannelValue(channel, kq::CValue(3u));
    store().resetCalls();
    EXPECT_TRUE(accessor.isAvailable());
    EXPECT_EQ(store().calls("getChannelCValue"), 0u);
    EXPECT_EQ(store().calls("getCatchedChannelId"), 0u);
}

TEST_F(PowerDistributionAvailableAccessorTest, BecomesAvailableOnTheFirstCallThatReads16) {
    cdshost::Id const channel = addStatusChannel(kq::CValue(3u));
    PowerDistributionAvailableAccessor accessor;
    EXPECT_FALSE(accessor.isAvailable());
    store().setChannelValue(channel, kq::CValue(16u));
    EXPECT_TRUE(accessor.isAvailable());
}

TEST_F(PowerDistributionAvailableAccessorTest, CachesChannelIdBetweenReads) {
    addStatusChannel(kq::CValue(3u));
    PowerDistributionAvailableAccessor accessor;
    EXPECT_FALSE(accessor.isAvailable());
    EXPECT_FALSE(accessor.isAvailable());
    EXPECT_EQ(store().calls("getCatchedChannelId"), 1u);
    EXPECT_EQ(store().calls("getChannelCValue"), 2u);
}

TEST_F(PowerDistributionAvailableAccessorTest, MissingChannelIsNotAvailableAndLookedUpOnEveryCall) {
    store().addDevice("PowerDistribution", 2);
    PowerDistributionAvailableAccessor accessor;
    EXPECT_FALSE(accessor.isAvailable());
    EXPECT_FALSE(accessor.isAvailable());
    EXPECT_EQ(store().calls("getCatchedChannelId", 2), 2u);
    EXPECT_EQ(store().calls("getChannelCValue"), 0u);
}

TEST_F(PowerDistributionAvailableAccessorTest, MissingChannelReadsStatus5) {
    store().addDevice("PowerDistribution", 2);
    cdsapi::CdsAccessor connection("modbusd", true);
    Reader reader(&connection);
    EXPECT_EQ(reader.read(), Reader::kChannelNotFound);
    EXPECT_EQ(reader.read(), 5u);
    EXPECT_EQ(reader.cachedChannelId(), kAllOnes);
}

TEST_F(PowerDistributionAvailableAccessorTest, ChannelCreatedLaterIsFoundAtTheNextCall) {
    store().addDevice("PowerDistribution", 2);
    PowerDistributionAvailableAccessor accessor;
    EXPECT_FALSE(accessor.isAvailable());
    store().addChannel(2, kStatusChannel, kq::CValue(16u));
    EXPECT_TRUE(accessor.isAvailable());
}

TEST_F(PowerDistributionAvailableAccessorTest,
       ReaderStartsWithUnknownChannelIdAndCachesTheFoundOne) {
    cdshost::Id const channel = addStatusChannel(kq::CValue(16u));
    cdsapi::CdsAccessor connection("modbusd", true);
    Reader reader(&connection);
    EXPECT_EQ(reader.cachedChannelId(), kAllOnes);
    EXPECT_EQ(reader.read(), 16u);
    EXPECT_EQ(reader.cachedChannelId(), channel);
}

TEST_F(PowerDistributionAvailableAccessorTest, ReaderReturnsLowEightBitsOfStatus) {
    addStatusChannel(kq::CValue(0x1234u));
    cdsapi::CdsAccessor connection("modbusd", true);
    Reader reader(&connection);
    EXPECT_EQ(reader.read(), 0x34u);
}

TEST_F(PowerDistributionAvailableAccessorTest, AsUint32FailureReadsZeroAndClearsCachedId) {
    // A text that is no number makes as_uint32() throw a std::exception.
    cdshost::Id const channel = addStatusChannel(kq::CValue("not a number"));
    cdsapi::CdsAccessor connection("modbusd", true);
    Reader reader(&connection);
    EXPECT_EQ(reader.read(), 0u);
    EXPECT_EQ(reader.cachedChannelId(), kAllOnes);
    store().setChannelValue(channel, kq::CValue(16u));
    EXPECT_EQ(reader.read(), 16u);
    EXPECT_EQ(store().calls("getCatchedChannelId"), 2u);
}

TEST_F(PowerDistributionAvailableAccessorTest, AsUint32FailureIsNotAvailableAndRetried) {
    cdshost::Id const channel = addStatusChannel(kq::CValue("not a number"));
    PowerDistributionAvailableAccessor accessor;
    EXPECT_FALSE(accessor.isAvailable());
    store().setChannelValue(channel, kq::CValue(16u));
    EXPECT_TRUE(accessor.isAvailable());
    EXPECT_EQ(store().calls("getCatchedChannelId"), 2u);
}

TEST_F(PowerDistributionAvailableAccessorTest, ChannelLookupFailureReadsZeroAndKeepsIdUnknown) {
    addStatusChannel(kq::CValue(16u));
    cdsapi::CdsAccessor connection("modbusd", true);
    Reader reader(&connection);
    store().failNext("getCatchedChannelId");
    EXPECT_EQ(reader.read(), 0u);
    EXPECT_EQ(reader.cachedChannelId(), kAllOnes);
    EXPECT_EQ(store().calls("getChannelCValue"), 0u);
    EXPECT_EQ(reader.read(), 16u);
}

TEST_F(PowerDistributionAvailableAccessorTest, ChannelLookupFailureIsNotAvailable) {
    addStatusChannel(kq::CValue(16u));
    PowerDistributionAvailableAccessor accessor;
    store().failNext("getCatchedChannelId");
    EXPECT_FALSE(accessor.isAvailable());
    EXPECT_TRUE(accessor.isAvailable());
}

TEST_F(PowerDistributionAvailableAccessorTest, ValueReadFailureReadsZeroAndClearsCachedId) {
    cdshost::Id const channel = addStatusChannel(kq::CValue(16u));
    cdsapi::CdsAccessor connection("modbusd", true);
    Reader reader(&connection);
    ASSERT_EQ(reader.read(), 16u);
    store().failNext("getChannelCValue", 1, channel);
    EXPECT_EQ(reader.read(), 0u);
    EXPECT_EQ(reader.cachedChannelId(), kAllOnes);
    EXPECT_EQ(reader.read(), 16u);
    EXPECT_EQ(store().calls("getCatchedChannelId"), 2u);
}

TEST_F(PowerDistributionAvailableAccessorTest, ChannelRecreatedUnderNewIdIsFoundAfterAFailedRead) {
    cdshost::Id const channel = addStatusChannel(kq::CValue(3u));
    PowerDistributionAvailableAccessor accessor;
    EXPECT_FALSE(accessor.isAvailable());
    store().removeChannel(channel);
    store().addChannel(2, kStatusChannel, kq::CValue(16u));
    EXPECT_FALSE(accessor.isAvailable());  // the cached id is gone: read fails, cache cleared
    EXPECT_TRUE(accessor.isAvailable());   // looked up again under the new id
}

TEST_F(PowerDistributionAvailableAccessorTest, NonStandardLookupFailureLeavesIsAvailable) {
    addStatusChannel(kq::CValue(16u));
    PowerDistributionAvailableAccessor accessor;
    store().failNext("getCatchedChannelId", 1, std::nullopt, cdshost::FaultKind::NonStandard);
    EXPECT_THROW(accessor.isAvailable(), cdshost::ForeignFault);
    EXPECT_TRUE(accessor.isAvailable());
}

TEST_F(PowerDistributionAvailableAccessorTest, NonStandardValueReadFailureLeavesReadAndKeepsCache) {
    cdshost::Id const channel = addStatusChannel(kq::CValue(16u));
    cdsapi::CdsAccessor connection("modbusd", true);
    Reader reader(&connection);
    ASSERT_EQ(reader.read(), 16u);
    store().failNext("getChannelCValue", 1, channel, cdshost::FaultKind::NonStandard);
    EXPECT_THROW(reader.read(), cdshost::ForeignFault);
    EXPECT_EQ(reader.cachedChannelId(), channel);
}

TEST_F(PowerDistributionAvailableAccessorTest, NonStandardValueReadFailureLeavesIsAvailable) {
    addStatusChannel(kq::CValue(16u));
    PowerDistributionAvailableAccessor accessor;
    store().failNext("getChannelCValue", 1, std::nullopt, cdshost::FaultKind::NonStandard);
    EXPECT_THROW(accessor.isAvailable(), cdshost::ForeignFault);
    EXPECT_TRUE(accessor.isAvailable());
}

TEST_F(PowerDistributionAvailableAccessorTest, NotAvailableMessageIsTheFixedTwoLineText) {
    PowerDistributionAvailableAccessor const accessor;
    std::string const message = accessor.notAvailableMessage();
    EXPECT_EQ(message,
              "UPS map is not yet available on your system!\nPlease make sure that the card is "
              "connected to a supported UPS and/or try later.");
    EXPECT_EQ(message.size(), 125u);
    EXPECT_EQ(std::count(message.begin(), message.end(), '\n'), 1);
}

TEST_F(PowerDistributionAvailableAccessorTest, NotAvailableMessageDoesNotDependOnAvailability) {
    addStatusChannel(kq::CValue(16u));
    PowerDistributionAvailableAccessor accessor;
    std::string const before = accessor.notAvailableMessage();
    ASSERT_TRUE(accessor.isAvailable());
    EXPECT_EQ(accessor.notAvailableMessage(), before);
}

TEST_F(PowerDistributionAvailableAccessorTest, IsAvailableReadsOnceAndNeverSleeps) {
    addStatusChannel(kq::CValue(3u));
    PowerDistributionAvailableAccessor accessor;
    EXPECT_FALSE(accessor.isAvailable());
    EXPECT_EQ(g_sleeps, 0);
    EXPECT_EQ(store().calls("getChannelCValue"), 1u);
}

TEST_F(PowerDistributionAvailableAccessorTest, WaitWithZeroDurationReadsOnceAndNeverSleeps) {
    addStatusChannel(kq::CValue(3u));
    PowerDistributionAvailableAccessor accessor;
    EXPECT_FALSE(accessor.waitForStatus(conv::SecondsDuration(0)));
    EXPECT_EQ(g_sleeps, 0);
    EXPECT_EQ(store().calls("getChannelCValue"), 1u);
}

TEST_F(PowerDistributionAvailableAccessorTest, WaitReturnsAtOnceWhenFirstReadIs16) {
    addStatusChannel(kq::CValue(16u));
    PowerDistributionAvailableAccessor accessor;
    EXPECT_TRUE(accessor.waitForStatus(conv::SecondsDuration(5)));
    EXPECT_EQ(g_sleeps, 0);
    EXPECT_EQ(store().calls("getChannelCValue"), 1u);
}

TEST_F(PowerDistributionAvailableAccessorTest, WaitSleepsOnceASecondUntilTheDurationRunsOut) {
    addStatusChannel(kq::CValue(3u));
    PowerDistributionAvailableAccessor accessor;
    EXPECT_FALSE(accessor.waitForStatus(conv::SecondsDuration(3)));
    EXPECT_EQ(g_sleeps, 3);
    EXPECT_EQ(store().calls("getChannelCValue"), 4u);
}

TEST_F(PowerDistributionAvailableAccessorTest, WaitReturnsTrueAsSoonAsAPollReads16) {
    g_statusChannel = addStatusChannel(kq::CValue(3u));
    g_sleepThatSetsStatus16 = 2;
    PowerDistributionAvailableAccessor accessor;
    EXPECT_TRUE(accessor.waitForStatus(conv::SecondsDuration(10)));
    EXPECT_EQ(g_sleeps, 2);
    EXPECT_EQ(store().calls("getChannelCValue"), 3u);
}

TEST_F(PowerDistributionAvailableAccessorTest, WaitCountsTheLastPollWhenTheDurationEnds) {
    g_statusChannel = addStatusChannel(kq::CValue(3u));
    g_sleepThatSetsStatus16 = 2;
    PowerDistributionAvailableAccessor accessor;
    EXPECT_TRUE(accessor.waitForStatus(conv::SecondsDuration(2)));
    EXPECT_EQ(g_sleeps, 2);
}

TEST_F(PowerDistributionAvailableAccessorTest, WaitDoesNotSetTheLatch) {
    addStatusChannel(kq::CValue(16u));
    PowerDistributionAvailableAccessor accessor;
    ASSERT_TRUE(accessor.waitForStatus(conv::SecondsDuration(1)));
    store().resetCalls();
    EXPECT_TRUE(accessor.isAvailable());
    EXPECT_EQ(store().calls("getChannelCValue"), 1u);
}

TEST_F(PowerDistributionAvailableAccessorTest, WaitReadsZeroOnStoreFailureAndKeepsPolling) {
    g_statusChannel = addStatusChannel(kq::CValue(16u));
    PowerDistributionAvailableAccessor accessor;
    store().failNext("getChannelCValue", 2);
    EXPECT_TRUE(accessor.waitForStatus(conv::SecondsDuration(5)));
    EXPECT_EQ(g_sleeps, 2);
    EXPECT_EQ(store().calls("getCatchedChannelId"), 3u);
}

}  // namespace
