#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "EncoderFactory.h"
#include "cdsapi/cds_accessor.h"
#include "sources/nut/UpsMirror.h"

namespace tarsel::daemon::nut {
namespace {

constexpr cdshost::Id kUps = 2;
constexpr cdshost::Id kFirstPoolId = 1000;

Variables onLine() {
    return {{"battery.charge", "100"},         {"input.voltage", "230.4"},
            {"ups.status", "OL CHRG"},         {"device.mfr", "Tarsel test bench"},
            {"device.model", "Dummy 1500 RT"}, {"device.serial", "0042"},
            {"ups.firmware", "02.08.0010"},    {"ups.power.nominal", "1550"},
            {"outlet.1.status", "on"},         {"outlet.1.desc", "Segment 1"},
            {"outlet.2.status", "off"}};
}

class UpsMirrorTest : public ::testing::Test {
  protected:
    void SetUp() override { m_store.reset(); }
    void TearDown() override {
        for (auto const id : m_subscriptions) {
            m_client.getInBandAccessor().unsubscribe(id);
        }
        m_store.reset();
    }

    cdshost::Id channel(std::string const& name, cdshost::Id device = kUps) const {
        return m_store.channelId(device, name);
    }
    kq::CValue value(std::string const& name, cdshost::Id device = kUps) const {
        return m_store.channelValue(channel(name, device));
    }
    std::string attribute(cdshost::Id device, cdsapi::DeviceAttribute attribute) const {
        return m_store.deviceAttribute(device, attribute).value_or("<unset>");
    }
    cdshost::Id outlet(std::size_t index) const { return m_store.subDevices(kUps).at(index); }

    /* Counts the value notifications of a channel from now on. */
    void countWrites(std::string const& name) {
        unsigned long long id = 0;
        m_client.getInBandAccessor().subscribeChannel(
            channel(name), [this, name](unsigned long long, kq::CValue) { ++m_writes[name]; },
            kq::sub::ChannelValue, &id);
        m_subscriptions.push_back(id);
    }
    /* Counts DeviceCreated notifications of any device from now on. */
    void countCreations() {
        unsigned long long id = 0;
        m_client.getInBandAccessor().subscribeDevice(
            cdshost::kAllOnes, [this](unsigned long long device) { m_created.push_back(device); },
            kq::sub::DeviceCreated, false, &id);
        m_subscriptions.push_back(id);
    }

    cdshost::Store& m_store = cdshost::Store::instance();
    cdsapi::CdsAccessor m_client{"mirror-test", true};
    IdPool m_ids{kFirstPoolId};
    UpsMirror m_mirror{m_store, "myups", kUps, m_ids};
    std::map<std::string, int> m_writes;
    std::vector<unsigned long long> m_created;
    std::vector<unsigned long long> m_subscriptions;
};

TEST_F(UpsMirrorTest, TheUpsIsOneDeviceNamedAsNutNamesIt) {
    m_mirror.apply(onLine());
    ASSERT_TRUE(m_store.hasDevice(kUps));
    EXPECT_EQ(attribute(kUps, cdsapi::AttributeName), "myups");
    EXPECT_TRUE(m_mirror.present());
}

TEST_F(UpsMirrorTest, EachVariableIsAChannelOfItsNutNameWithNumbersAsNumbers) {
    m_mirror.apply(onLine());
    EXPECT_EQ(value("battery.charge"), kq::CValue(100));
    EXPECT_EQ(value("input.voltage"), kq::CValue(230.4));
    EXPECT_EQ(value("ups.status"), kq::CValue("OL CHRG"));
    EXPECT_EQ(value("device.serial"), kq::CValue("0042"));
}

TEST_F(UpsMirrorTest, IdentityVariablesAreAlsoDeviceAttributes) {
    m_mirror.apply(onLine());
    EXPECT_EQ(attribute(kUps, cdsapi::AttributeManufacturer), "Tarsel test bench");
    EXPECT_EQ(attribute(kUps, cdsapi::AttributeModel), "Dummy 1500 RT");
    EXPECT_EQ(attribute(kUps, cdsapi::AttributeSerialNumber), "0042");
    EXPECT_EQ(attribute(kUps, cdsapi::AttributeFirmwareVersion), "02.08.0010");
    EXPECT_EQ(attribute(kUps, cdsapi::AttributeNominalPower), "1550");
}

TEST_F(UpsMirrorTest, OutletsAreSubDevicesInNumberOrder) {
    m_mirror.apply(onLine());
    ASSERT_EQ(m_store.subDevices(kUps).size(), 2u);
    EXPECT_EQ(value("outlet.1.status", outlet(0)), kq::CValue("on"));
    EXPECT_EQ(value("outlet.2.status", outlet(1)), kq::CValue("off"));
    EXPECT_EQ(attribute(outlet(0), cdsapi::AttributeName), "Segment 1");
    EXPECT_EQ(channel("outlet.1.status"), 0u) << "outlet variables live on the outlet only";
}

TEST_F(UpsMirrorTest, EachStatusTokenIsABooleanChannel) {
    m_mirror.apply(onLine());
    EXPECT_EQ(value("ups.status.OL"), kq::CValue(true));
    EXPECT_EQ(value("ups.status.CHRG"), kq::CValue(true));
    EXPECT_EQ(value("ups.status.OB"), kq::CValue(false));
    EXPECT_EQ(value("ups.status.FSD"), kq::CValue(false));
    auto onBattery = onLine();
    onBattery["ups.status"] = "OB DISCHRG LB";
    m_mirror.apply(onBattery);
    EXPECT_EQ(value("ups.status.OL"), kq::CValue(false));
    EXPECT_EQ(value("ups.status.OB"), kq::CValue(true));
    EXPECT_EQ(value("ups.status.LB"), kq::CValue(true));
    EXPECT_EQ(value("ups.status.DISCHRG"), kq::CValue(true));
}

TEST_F(UpsMirrorTest, StatusTokensCountWhateverTheirCaseAsNutsOwnMonitorReadsThem) {
    auto lower = onLine();
    lower["ups.status"] = "ob lB OB";
    m_mirror.apply(lower);
    EXPECT_EQ(value("ups.status.OB"), kq::CValue(true));
    EXPECT_EQ(value("ups.status.LB"), kq::CValue(true));
    EXPECT_EQ(value("ups.status.OL"), kq::CValue(false));
}

TEST_F(UpsMirrorTest, UnknownStatusTokensSetNoChannelAndStillReportAState) {
    auto unknown = onLine();
    unknown["ups.status"] = "ALARM OL";
    m_mirror.apply(unknown);
    EXPECT_EQ(value("ups.status.OL"), kq::CValue(true));
    EXPECT_EQ(channel("ups.status.ALARM"), 0u);
    EXPECT_EQ(value(kOperatingStatusChannel), kq::CValue(kOperatingStatusRunning));
}

TEST_F(UpsMirrorTest, AReportedStatusOpensTheMap) {
    m_mirror.apply(onLine());
    EXPECT_EQ(value(kOperatingStatusChannel), kq::CValue(kOperatingStatusRunning));
}

TEST_F(UpsMirrorTest, WithoutStatusTheUpsIsWaitingAndHasNoTokenChannels) {
    auto noStatus = onLine();
    noStatus.erase("ups.status");
    m_mirror.apply(noStatus);
    EXPECT_EQ(value(kOperatingStatusChannel), kq::CValue(kOperatingStatusWaiting));
    EXPECT_EQ(channel("ups.status.OL"), 0u);
}

TEST_F(UpsMirrorTest, AVariableNamedAsAChannelTheMirrorDerivesIsLeftOut) {
    auto named = onLine();
    named["ups.status"] = "OB";
    named["ups.status.OL"] = "yes";
    named[kOperatingStatusChannel] = "3";
    m_mirror.apply(named);
    EXPECT_TRUE(m_mirror.listenerFailures().empty());
    EXPECT_EQ(value("ups.status.OL"), kq::CValue(false)) << "the token's, not upsd's";
    EXPECT_EQ(value(kOperatingStatusChannel), kq::CValue(kOperatingStatusRunning));
    named["ups.status.OL"] = "no";
    named[kOperatingStatusChannel] = "4";
    EXPECT_NO_THROW(m_mirror.apply(named));
    EXPECT_EQ(value("ups.status.OL"), kq::CValue(false));
    EXPECT_EQ(value(kOperatingStatusChannel), kq::CValue(kOperatingStatusRunning));
    EXPECT_EQ(m_mirror.variables().count("ups.status.OL"), 0u);
}

TEST_F(UpsMirrorTest, AVariableNamedAsATokenChannelStaysOutWhenTheStatusComesAndGoes) {
    // Without ups.status the token channels go; a variable of such a name
    // must not go with them and leave the mirror without its channel.
    auto named = onLine();
    named.erase("ups.status");
    named["ups.status.OL"] = "yes";
    EXPECT_NO_THROW(m_mirror.apply(named));
    EXPECT_EQ(channel("ups.status.OL"), 0u);
    named["ups.status.OL"] = "no";
    EXPECT_NO_THROW(m_mirror.apply(named));
    named.erase("ups.status.OL");
    EXPECT_NO_THROW(m_mirror.apply(named));
    named["ups.status"] = "OL";
    EXPECT_NO_THROW(m_mirror.apply(named));
    EXPECT_EQ(value("ups.status.OL"), kq::CValue(true));
    EXPECT_TRUE(m_mirror.listenerFailures().empty());
}

TEST_F(UpsMirrorTest, TheDeviceIsAnnouncedWholeAndOnce) {
    std::vector<std::string> seen;
    unsigned long long id = 0;
    m_client.getInBandAccessor().subscribeDevice(
        cdshost::kAllOnes,
        [&](unsigned long long) {
            seen.push_back(std::to_string(m_store.subDevices(kUps).size()) + " outlets, " +
                           (channel("ups.status.OL") != 0 ? "status" : "no status"));
        },
        kq::sub::DeviceCreated, false, &id);
    m_subscriptions.push_back(id);
    m_mirror.apply(onLine());
    // The UPS and its two outlets, each heard once, each with everything in place.
    EXPECT_EQ(seen, std::vector<std::string>(3, "2 outlets, status"));
}

TEST_F(UpsMirrorTest, OnlyChangedVariablesAreWritten) {
    m_mirror.apply(onLine());
    countWrites("battery.charge");
    countWrites("input.voltage");
    countWrites("ups.status.OL");
    auto next = onLine();
    next["input.voltage"] = "229.9";
    EXPECT_EQ(m_mirror.apply(next), 1u);
    EXPECT_EQ(m_mirror.apply(next), 0u);
    EXPECT_EQ(m_writes["battery.charge"], 0);
    EXPECT_EQ(m_writes["input.voltage"], 1);
    EXPECT_EQ(m_writes["ups.status.OL"], 0);
    EXPECT_EQ(value("input.voltage"), kq::CValue(229.9));
}

TEST_F(UpsMirrorTest, AStatusChangeWritesOnlyTheTokensThatMoved) {
    m_mirror.apply(onLine());
    countWrites("ups.status.OL");
    countWrites("ups.status.CHRG");
    countWrites("ups.status.OB");
    auto next = onLine();
    next["ups.status"] = "OB CHRG";
    m_mirror.apply(next);
    EXPECT_EQ(m_writes["ups.status.OL"], 1);
    EXPECT_EQ(m_writes["ups.status.OB"], 1);
    EXPECT_EQ(m_writes["ups.status.CHRG"], 0);
}

TEST_F(UpsMirrorTest, AVariableThatDisappearsLosesItsChannelAndAttribute) {
    m_mirror.apply(onLine());
    auto next = onLine();
    next.erase("battery.charge");
    next.erase("device.model");
    m_mirror.apply(next);
    EXPECT_EQ(channel("battery.charge"), 0u);
    EXPECT_EQ(channel("device.model"), 0u);
    EXPECT_EQ(attribute(kUps, cdsapi::AttributeModel), "");
    m_mirror.apply(onLine());
    EXPECT_EQ(value("battery.charge"), kq::CValue(100)) << "and gets them back when it returns";
}

TEST_F(UpsMirrorTest, OutletsThatAppearAreAddedAndAnnouncedWholeOnceEach) {
    auto withoutOutlets = onLine();
    withoutOutlets.erase("outlet.1.status");
    withoutOutlets.erase("outlet.1.desc");
    withoutOutlets.erase("outlet.2.status");
    m_mirror.apply(withoutOutlets);
    EXPECT_TRUE(m_store.subDevices(kUps).empty());
    countCreations();
    m_mirror.apply(onLine());
    ASSERT_EQ(m_store.subDevices(kUps).size(), 2u);
    EXPECT_EQ(m_created.size(), 2u) << "each new outlet announced once, whole";
    EXPECT_EQ(value("outlet.2.status", outlet(1)), kq::CValue("off"));
}

TEST_F(UpsMirrorTest, AnOutletThatGoesKeepsItsPlaceEmptiedAndTakesItAgainWhenItComesBack) {
    m_mirror.apply(onLine());
    cdshost::Id const first = outlet(0);
    cdshost::Id const second = outlet(1);
    auto withoutFirst = onLine();
    withoutFirst.erase("outlet.1.status");
    withoutFirst.erase("outlet.1.desc");
    m_mirror.apply(withoutFirst);
    // The second outlet is still the second sub-device: entries over its
    // place go on reading it, and nothing reads it at the first one's.
    ASSERT_EQ(m_store.subDevices(kUps), (std::vector<cdshost::Id>{first, second}));
    EXPECT_EQ(channel("outlet.1.status", first), 0u);
    EXPECT_EQ(attribute(first, cdsapi::AttributeName), "");
    EXPECT_EQ(value("outlet.2.status", second), kq::CValue("off"));
    countCreations();
    m_mirror.apply(onLine());
    ASSERT_EQ(m_store.subDevices(kUps), (std::vector<cdshost::Id>{first, second}));
    EXPECT_EQ(value("outlet.1.status", first), kq::CValue("on"));
    EXPECT_EQ(attribute(first, cdsapi::AttributeName), "Segment 1");
    EXPECT_TRUE(m_created.empty()) << "an outlet back at its place is no new device";
}

Variables without(Variables variables, std::string const& prefix) {
    for (auto it = variables.begin(); it != variables.end();) {
        it = it->first.rfind(prefix, 0) == 0 ? variables.erase(it) : std::next(it);
    }
    return variables;
}

TEST_F(UpsMirrorTest, AnOutletSeenBeforeALowerNumberedOneStillTakesItsOwnPlace) {
    // Outlet 1's variables are missing from the first poll: outlet 2 goes to
    // the second place all the same, and outlet 1 fills the first when it
    // comes, so entries over either place read their own outlet.
    m_mirror.apply(without(onLine(), "outlet.1."));
    ASSERT_EQ(m_store.subDevices(kUps).size(), 2u);
    cdshost::Id const first = outlet(0);
    cdshost::Id const second = outlet(1);
    EXPECT_EQ(value("outlet.2.status", second), kq::CValue("off"));
    EXPECT_EQ(channel("outlet.2.status", first), 0u);
    EXPECT_EQ(attribute(first, cdsapi::AttributeName), "") << "emptied, as a gone outlet is";
    countCreations();
    m_mirror.apply(onLine());
    ASSERT_EQ(m_store.subDevices(kUps), (std::vector<cdshost::Id>{first, second}));
    EXPECT_EQ(value("outlet.1.status", first), kq::CValue("on"));
    EXPECT_EQ(attribute(first, cdsapi::AttributeName), "Segment 1");
    EXPECT_EQ(value("outlet.2.status", second), kq::CValue("off"));
    EXPECT_TRUE(m_created.empty()) << "outlet 1's place was there already";
}

TEST_F(UpsMirrorTest, AnOutletAfterAGapTakesItsPlaceAndTheOutletsOfTheGapFillTheirsLater) {
    m_mirror.apply(without(onLine(), "outlet.2."));
    countCreations();
    std::vector<std::size_t> outletsAtAnnouncement;
    unsigned long long id = 0;
    m_client.getInBandAccessor().subscribeDevice(
        kUps,
        [&](unsigned long long) {
            outletsAtAnnouncement.push_back(m_store.subDevices(kUps).size());
        },
        kq::sub::DeviceCreated, false, &id);
    m_subscriptions.push_back(id);
    auto withFifth = onLine();
    withFifth.erase("outlet.2.status");
    withFifth["outlet.5.desc"] = "Segment 5";
    m_mirror.apply(withFifth);
    ASSERT_EQ(m_store.subDevices(kUps).size(), 5u);
    EXPECT_EQ(value("outlet.1.status", outlet(0)), kq::CValue("on"));
    for (std::size_t place = 1; place < 4; ++place) {
        EXPECT_EQ(channel("outlet.5.desc", outlet(place)), 0u) << place;
        EXPECT_EQ(attribute(outlet(place), cdsapi::AttributeName), "") << place;
    }
    EXPECT_EQ(attribute(outlet(4), cdsapi::AttributeName), "Segment 5");
    EXPECT_EQ(m_created.size(), 4u) << "the gap's places and outlet 5, each announced once";
    EXPECT_EQ(outletsAtAnnouncement, std::vector<std::size_t>{5}) << "the UPS, once, whole";
    auto const places = m_store.subDevices(kUps);
    withFifth["outlet.3.status"] = "on";
    m_mirror.apply(withFifth);
    EXPECT_EQ(m_store.subDevices(kUps), places);
    EXPECT_EQ(value("outlet.3.status", outlet(2)), kq::CValue("on"));
    EXPECT_EQ(m_created.size(), 4u);
}

TEST_F(UpsMirrorTest, AnOutletAfterAGapInTheFirstPollTakesItsPlace) {
    auto withThird = without(onLine(), "outlet.2.");
    withThird["outlet.3.status"] = "on";
    m_mirror.apply(withThird);
    ASSERT_EQ(m_store.subDevices(kUps).size(), 3u);
    EXPECT_EQ(channel("outlet.3.status", outlet(1)), 0u);
    EXPECT_EQ(value("outlet.3.status", outlet(2)), kq::CValue("on"));
}

TEST_F(UpsMirrorTest, OutletZeroIsTheWholeUnitsAndStaysOnTheUpsDevice) {
    auto withZero = onLine();
    withZero["outlet.0.desc"] = "Whole unit";
    withZero["outlet.0.status"] = "on";
    m_mirror.apply(withZero);
    ASSERT_EQ(m_store.subDevices(kUps).size(), 2u) << "outlets 1 and 2 only";
    EXPECT_EQ(value("outlet.1.status", outlet(0)), kq::CValue("on"));
    EXPECT_EQ(value("outlet.0.status"), kq::CValue("on"));
    EXPECT_EQ(value("outlet.0.desc"), kq::CValue("Whole unit"));
    EXPECT_EQ(attribute(kUps, cdsapi::AttributeName), "myups");
    withZero.erase("outlet.0.status");
    m_mirror.apply(withZero);
    EXPECT_EQ(channel("outlet.0.status"), 0u);
    EXPECT_TRUE(m_mirror.listenerFailures().empty());
}

TEST_F(UpsMirrorTest, AnOutletNumberedBeyondTheLastIsLeftOutAndSaidOnce) {
    auto beyond = onLine();
    beyond["outlet." + std::to_string(kMaxOutlet + 1) + ".status"] = "on";
    beyond["outlet.4294967295.status"] = "on";
    m_mirror.apply(beyond);
    EXPECT_EQ(m_store.subDevices(kUps).size(), 2u);
    EXPECT_EQ(m_mirror.outletsNewlyLeftOut(),
              (std::vector<unsigned int>{kMaxOutlet + 1, 4294967295u}));
    EXPECT_EQ(m_mirror.variables().count("outlet.4294967295.status"), 0u);
    m_mirror.apply(beyond);
    EXPECT_TRUE(m_mirror.outletsNewlyLeftOut().empty()) << "said once, not every poll";
    beyond["outlet.300.status"] = "on";
    m_mirror.apply(beyond);
    EXPECT_EQ(m_mirror.outletsNewlyLeftOut(), std::vector<unsigned int>{300});
    EXPECT_EQ(m_store.subDevices(kUps).size(), 2u);
    m_mirror.remove();
    m_mirror.apply(beyond);
    EXPECT_EQ(m_mirror.outletsNewlyLeftOut().size(), 3u) << "said again by a UPS that comes back";
}

TEST_F(UpsMirrorTest, TheLastOutletNumberStillTakesItsPlace) {
    auto last = onLine();
    last["outlet." + std::to_string(kMaxOutlet) + ".desc"] = "Last";
    m_mirror.apply(last);
    ASSERT_EQ(m_store.subDevices(kUps).size(), std::size_t{kMaxOutlet});
    EXPECT_EQ(attribute(outlet(kMaxOutlet - 1), cdsapi::AttributeName), "Last");
    EXPECT_TRUE(m_mirror.outletsNewlyLeftOut().empty());
}

TEST_F(UpsMirrorTest, AnOutletLosingOneVariableKeepsItsDevice) {
    m_mirror.apply(onLine());
    auto next = onLine();
    next.erase("outlet.1.desc");
    m_mirror.apply(next);
    ASSERT_EQ(m_store.subDevices(kUps).size(), 2u);
    EXPECT_EQ(value("outlet.1.status", outlet(0)), kq::CValue("on"));
    EXPECT_EQ(channel("outlet.1.desc", outlet(0)), 0u);
}

TEST_F(UpsMirrorTest, ARemovedUpsTakesItsDeviceAndOutletsAway) {
    m_mirror.apply(onLine());
    auto const outlets = m_store.subDevices(kUps);
    m_mirror.remove();
    EXPECT_FALSE(m_store.hasDevice(kUps));
    for (auto const id : outlets) {
        EXPECT_FALSE(m_store.hasDevice(id));
    }
    EXPECT_FALSE(m_mirror.present());
    m_mirror.remove();  // nothing left to remove: no throw
}

TEST_F(UpsMirrorTest, ARemovedUpsComesBackUnderTheSameDeviceId) {
    m_mirror.apply(onLine());
    m_mirror.remove();
    m_mirror.apply(onLine());
    EXPECT_TRUE(m_store.hasDevice(kUps));
    EXPECT_EQ(value("battery.charge"), kq::CValue(100));
    EXPECT_EQ(m_store.subDevices(kUps).size(), 2u);
}

TEST_F(UpsMirrorTest, ATypeChangeOfAValueIsWritten) {
    m_mirror.apply(onLine());
    auto next = onLine();
    next["battery.charge"] = "99.5";
    m_mirror.apply(next);
    EXPECT_EQ(value("battery.charge"), kq::CValue(99.5));
}

TEST_F(UpsMirrorTest, ResynchronisingRebuildsAStoreChangedBehindItsBack) {
    m_mirror.apply(onLine());
    m_store.removeChannel(channel("battery.charge"));
    m_mirror.resynchronise();
    m_mirror.apply(onLine());
    EXPECT_EQ(value("battery.charge"), kq::CValue(100));
}

TEST_F(UpsMirrorTest, AFailingListenerIsReportedAndTheMirrorGoesOn) {
    m_mirror.apply(onLine());
    unsigned long long id = 0;
    m_client.getInBandAccessor().subscribeChannel(
        channel("input.voltage"),
        [](unsigned long long, kq::CValue) { throw std::runtime_error("listener broke"); },
        kq::sub::ChannelValue, &id);
    m_subscriptions.push_back(id);
    auto next = onLine();
    next["input.voltage"] = "231";
    next["battery.charge"] = "99";
    m_mirror.apply(next);
    EXPECT_EQ(m_mirror.listenerFailures(), std::vector<std::string>{"listener broke"});
    EXPECT_EQ(value("input.voltage"), kq::CValue(231));
    EXPECT_EQ(value("battery.charge"), kq::CValue(99));
}

TEST_F(UpsMirrorTest, ADeviceRemovedBehindItsBackIsOutOfStep) {
    m_mirror.apply(onLine());
    m_store.removeDevice(kUps);
    EXPECT_THROW(m_mirror.apply(onLine()), OutOfStep);
}

TEST_F(UpsMirrorTest, ANewOutletAnnouncesTheUpsAsCreatedAgain) {
    auto withoutOutlets = onLine();
    withoutOutlets.erase("outlet.1.status");
    withoutOutlets.erase("outlet.1.desc");
    withoutOutlets.erase("outlet.2.status");
    m_mirror.apply(withoutOutlets);
    int announced = 0;
    unsigned long long id = 0;
    m_client.getInBandAccessor().subscribeDevice(
        kUps,
        [&](unsigned long long) { announced += m_store.subDevices(kUps).size() == 2 ? 1 : 0; },
        kq::sub::DeviceCreated, false, &id);
    m_subscriptions.push_back(id);
    m_mirror.apply(onLine());
    EXPECT_EQ(announced, 1) << "once, with both outlets in place";
}

/* A numeric-string entry over an attribute of the UPS, as the shipped map
 * serves ups.power.nominal and outlet.count. */
BuiltEncoder numberOfAttribute(cdsapi::DeviceAttribute attribute) {
    EntryDefinition entry;
    entry.name = "rating";
    entry.table = Table::InputRegisters;
    entry.encoder = EncoderKind::NumericString;
    SourceDefinition source;
    source.kind = SourceKind::Attribute;
    source.device.id = kUps;
    source.attribute = attribute;
    entry.sources = {source};
    return makeEncoder(entry);
}

TEST_F(UpsMirrorTest, ARatingNotReportedYetFailsNoListenerWhenOtherAttributesArrive) {
    // upsd hands over the variables of a driver that has just started: the
    // first reading may hold a few of them only.
    m_mirror.apply({{"ups.status", "OL"}});
    BuiltEncoder const count = numberOfAttribute(cdsapi::AttributeOutletCount);
    BuiltEncoder const power = numberOfAttribute(cdsapi::AttributeNominalPower);
    std::vector<std::vector<std::uint16_t>> pushed;
    count.registers->setCallback(
        [&](std::vector<std::uint16_t> const& words) { pushed.push_back(words); });
    power.registers->setCallback([](std::vector<std::uint16_t> const&) {});
    auto whole = onLine();
    whole["outlet.count"] = "2";
    m_mirror.apply(whole);
    EXPECT_EQ(m_mirror.listenerFailures(), std::vector<std::string>{});
    // Once the UPS reports it, the rating is pushed as a number.
    ASSERT_FALSE(pushed.empty());
    EXPECT_EQ(pushed.back(), std::vector<std::uint16_t>{2});
}

TEST_F(UpsMirrorTest, ARatingThatDisappearsFailsNoListener) {
    auto whole = onLine();
    whole["outlet.count"] = "2";
    m_mirror.apply(whole);
    BuiltEncoder const count = numberOfAttribute(cdsapi::AttributeOutletCount);
    count.registers->setCallback([](std::vector<std::uint16_t> const&) {});
    whole.erase("outlet.count");
    whole["device.model"] = "Dummy 1500 RTi";
    m_mirror.apply(whole);
    EXPECT_EQ(m_mirror.listenerFailures(), std::vector<std::string>{});
    EXPECT_EQ(attribute(kUps, cdsapi::AttributeOutletCount), "");
    EXPECT_FALSE(count.registers->isDataAvailable()) << "read as unavailable";
}

}  // namespace
}  // namespace tarsel::daemon::nut
