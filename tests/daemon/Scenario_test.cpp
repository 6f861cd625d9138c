// Scenario files: their checks, and how the player changes the store.
#include <gtest/gtest.h>

#include <sstream>

#include "EmbeddedDefaults.h"
#include "JsonChecks.h"
#include "Log.h"
#include "MapModel.h"
#include "Scenario.h"
#include "cdshost/store.h"

namespace tarsel::daemon {
namespace {

std::vector<std::string> errorsOf(std::string const& text) {
    try {
        parseScenario(text);
    } catch (ScenarioError const& error) {
        return error.errors();
    }
    ADD_FAILURE() << "the scenario was accepted";
    return {};
}

struct Player {
    explicit Player(std::string const& text)
        : log(out), player(parseScenario(text), cdshost::Store::instance(), log) {}
    std::ostringstream out;
    Log log;
    ScenarioPlayer player;
};

cdshost::Store& store() {
    return cdshost::Store::instance();
}

TEST(ScenarioTest, ShippedScenarioIsValid) {
    Scenario const scenario = parseScenario(embeddedScenario());
    EXPECT_FALSE(scenario.events.empty());
}

TEST(ScenarioTest, AScenarioThatNeverNamesTheOperatingStatusChannelIsWarnedAbout) {
    auto const warnings = scenarioWarnings(parseScenario(R"({"devices": [{"id": 2, "name": "UPS",
          "channels": {"Battery.Charge": {"uint32": 90}}}],
          "events": [{"at": 1, "do": "set-channel", "device": 2, "channel": "Battery.Charge",
                      "value": {"uint32": 80}}]})"));
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_EQ(warnings[0],
              "no device and no event names the channel "
              "\"PowerDistribution.Status.OperatingStatus\", whose value 16 on device 2 tells "
              "that the UPS is there: the map will never be served");
}

TEST(ScenarioTest, AScenarioNamingTheOperatingStatusAtTheStartOrInAnEventIsNotWarnedAbout) {
    EXPECT_TRUE(scenarioWarnings(parseScenario(embeddedScenario())).empty());
    EXPECT_TRUE(scenarioWarnings(parseScenario(R"({"devices": [{"id": 2, "name": "UPS",
          "channels": {"PowerDistribution.Status.OperatingStatus": {"uint32": 2}}}]})"))
                    .empty());
    EXPECT_TRUE(scenarioWarnings(parseScenario(R"({"events": [{"at": 1, "do": "add-device",
          "device": {"id": 2, "name": "UPS", "channels": {
            "PowerDistribution.Status.OperatingStatus": {"uint32": 16}}}}]})"))
                    .empty());
}

TEST(ScenarioTest, UnknownActionAndMissingFieldsAreListedTogether) {
    auto const errors = errorsOf(R"({"events": [
        {"at": 1, "do": "explode"},
        {"do": "set-channel", "device": 2, "value": 1},
        {"at": 1, "do": "raise-alarm", "device": 2, "channel": "C", "colour": 1}]})");
    ASSERT_EQ(errors.size(), 5u);
    EXPECT_EQ(errors[0].rfind("events[0].do: unknown action \"explode\"", 0), 0u);
    EXPECT_EQ(errors[1], "events[1]: missing field \"at\"");
    EXPECT_EQ(errors[2], "events[1]: missing field \"channel\"");
    EXPECT_EQ(errors[3], "events[2].colour: unknown field for action \"raise-alarm\"");
    EXPECT_EQ(errors[4], "events[2]: missing field \"level\"");
}

TEST(ScenarioTest, ArraysNestedWithoutEndAreRefusedNotACrash) {
    std::string const deep = std::string(200000, '[') + std::string(200000, ']');
    EXPECT_EQ(
        errorsOf(R"({"devices": [], "events": [{"at": 1, "do": "log", "text": )" + deep + "}]}"),
        (std::vector<std::string>{
            "scenario: not read: arrays and objects nested more than 1024 levels deep"}));
}

TEST(ScenarioTest, AnIdGivenTwiceAmongDevicesCreatedTogetherIsRefused) {
    // The store would refuse the second device when the daemon starts, after
    // --check had called the file valid.
    auto const errors = errorsOf(R"({"devices": [{"id": 2, "name": "UPS"},
            {"id": 3, "name": "B", "subDevices": [{"id": 2, "name": "C"}]}],
        "events": [{"at": 1, "do": "add-device", "device": {"id": 7, "name": "D",
                    "subDevices": [{"id": 7, "name": "E"}]}}]})");
    EXPECT_EQ(errors, (std::vector<std::string>{
                          "devices[1].subDevices[0].id: device id 2 is that of devices[0] already",
                          "events[0].device.subDevices[0].id: device id 7 is that of "
                          "events[0].device already"}));
    // A device removed may come back under its id.
    EXPECT_NO_THROW(parseScenario(R"({"devices": [{"id": 2, "name": "UPS"}], "events": [
        {"at": 1, "do": "remove-device", "device": 2},
        {"at": 2, "do": "add-device", "device": {"id": 2, "name": "UPS"}}]})"));
}

TEST(ScenarioTest, APathOrADeviceNameThatCanNeverBeFoundIsRefused) {
    auto const errors = errorsOf(R"({"devices": [{"id": 2, "name": "UPS"}], "events": [
        {"at": 1, "do": "remove-device", "device": 2, "path": "0"},
        {"at": 1, "do": "remove-device", "device": 2, "path": [0, -1]},
        {"at": 1, "do": "add-device", "parent": 2, "parentPath": [1.5], "device": {"name": "O"}},
        {"at": 1, "do": "add-device", "parentPath": [0], "device": {"name": "P"}},
        {"at": 1, "do": "remove-device", "device": "Outlet"},
        {"at": 1, "do": "set-attribute", "device": 2, "attribute": 4294967296, "value": "x"},
        {"at": 2, "do": "remove-device", "device": "O"},
        {"at": 2, "do": "add-device", "parent": "UPS", "device": {"name": "Q"}},
        {"at": 3, "do": "remove-device", "device": 0},
        {"at": 3, "do": "add-device", "parent": 18446744073709551615, "device": {"name": "R"}}]})");
    EXPECT_EQ(
        errors,
        (std::vector<std::string>{
            "events[0].path: expected an array of sub-device indexes (integers from 0), got \"0\"",
            "events[1].path: expected an array of sub-device indexes (integers from 0), got [0,-1]",
            "events[2].parentPath: expected an array of sub-device indexes (integers from 0), got "
            "[1.5]",
            "events[3].parentPath: needs a \"parent\"",
            "events[5].attribute: expected an attribute number or one of " +
                joinChoices(attributeNames()),
            "events[8].device: expected a device id (from 1) or a device name, got 0",
            "events[9].parent: expected a device id (from 1) or a device name, got "
            "18446744073709551615",
            "events[4].device: no device of the scenario is named \"Outlet\""}));
}

TEST(ScenarioTest, AnAttributeThatIsNoTextOrAnAlarmNumberNoFloatHoldsIsRefused) {
    // An attribute number was only found out when the step ran, in the JSON
    // reader's words; an alarm threshold of 1e39 became infinity.
    auto const errors = errorsOf(R"({"devices": [{"id": 2, "name": "UPS", "channels": {"V": 1},
            "alarms": {"V": {"hysteresis": -1e40}}}], "events": [
        {"at": 1, "do": "set-attribute", "device": 2, "attribute": "location", "value": 5},
        {"at": 1, "do": "set-attribute", "device": 2, "attribute": "location",
         "values": ["Rack 1", true]},
        {"at": 1, "do": "alarm-settings", "device": 2, "channel": "V",
         "settings": {"thresholds": [1e39, 0, 0, 0]}}]})");
    EXPECT_EQ(errors,
              (std::vector<std::string>{
                  "devices[0].alarms.V.hysteresis: expected a number a float holds, got -1e+40",
                  "events[0].value: expected a text, got 5",
                  "events[1].values[1]: expected a text, got true",
                  "events[2].settings.thresholds: expected an array of 4 numbers floats hold, got "
                  "[1e+39,0,0,0]"}));
}

TEST(ScenarioTest, BadValueIsRefused) {
    auto const errors = errorsOf(R"({"devices": [{"name": "D", "channels": {"X": {"int8": 1}}}]})");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].rfind("devices[0].channels.X: expected a value", 0), 0u);
}

TEST(ScenarioTest, ForeverNeedsAPeriod) {
    auto const errors =
        errorsOf(R"({"events": [{"at": 1, "times": 0, "do": "log", "text": "x"}]})");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0], "events[0].times: 0 (for ever) needs a positive \"every\"");
}

TEST(ScenarioTest, ValuesFollowTheirTypedForm) {
    EXPECT_EQ(valueFromJson(nlohmann::json::parse(R"({"uint32": 7})")), kq::CValue(7u));
    EXPECT_EQ(valueFromJson(nlohmann::json::parse(R"({"float": 1.5})")), kq::CValue(1.5f));
    EXPECT_EQ(valueFromJson(nlohmann::json::parse("-3")), kq::CValue(-3));
    EXPECT_EQ(valueFromJson(nlohmann::json::parse("2.5")), kq::CValue(2.5f));
    EXPECT_EQ(valueFromJson(nlohmann::json::parse("true")), kq::CValue(true));
    EXPECT_EQ(valueFromJson(nlohmann::json::parse("\"x\"")), kq::CValue("x"));
}

TEST(ScenarioTest, AValueItsTypeCannotHoldIsRefusedNotCutToFit) {
    auto const errors = errorsOf(R"({"devices": [{"name": "D", "channels": {
        "a": {"int32": 3000000000}, "b": {"uint32": 4294967296}, "c": {"float": 1e39},
        "d": {"int64": 9223372036854775808}, "e": 18446744073709551615, "f": -3.5e38}}]})");
    EXPECT_EQ(errors, (std::vector<std::string>{
                          "devices[0].channels.a: 3000000000 is out of the range of \"int32\"",
                          "devices[0].channels.b: 4294967296 is out of the range of \"uint32\"",
                          "devices[0].channels.c: 1e+39 is out of the range of \"float\"",
                          "devices[0].channels.d: 9223372036854775808 is out of the range of "
                          "\"int64\"",
                          "devices[0].channels.e: 18446744073709551615 is out of the range of "
                          "int64 (a plain integer)",
                          "devices[0].channels.f: -3.5e+38 is out of the range of float (a plain "
                          "number)"}));
}

TEST(ScenarioTest, ValuesAtTheEdgesOfTheirTypesAreKept) {
    auto const value = [](char const* text) { return valueFromJson(nlohmann::json::parse(text)); };
    EXPECT_EQ(value(R"({"int32": -2147483648})"), kq::CValue(-2147483647 - 1));
    EXPECT_EQ(value(R"({"uint32": 4294967295})"), kq::CValue(4294967295u));
    EXPECT_EQ(value(R"({"int64": 9223372036854775807})"), kq::CValue(9223372036854775807LL));
    EXPECT_EQ(value(R"({"uint64": 18446744073709551615})"), kq::CValue(18446744073709551615ULL));
    EXPECT_EQ(value("2147483648"), kq::CValue(2147483648LL));
    EXPECT_EQ(value(R"({"double": 1e300})"), kq::CValue(1e300));
}

TEST(ScenarioTest, SeedCreatesDevicesWithAttributesChannelsAlarmsAndSubDevices) {
    Player p(R"({"devices": [{"id": 2, "name": "UPS", "attributes": {"model": "M"},
        "channels": {"V": {"float": 1.5}},
        "alarms": {"V": {"enabled": true, "thresholds": [1, 2, 3, 4], "level": 5}},
        "subDevices": [{"name": "Outlet 1", "channels": {"On": true}}]}]})");
    p.player.seed();
    ASSERT_TRUE(store().hasDevice(2));
    EXPECT_EQ(store().deviceAttribute(2, cdsapi::AttributeModel), "M");
    EXPECT_EQ(store().channelValue(store().channelId(2, "V")), kq::CValue(1.5f));
    auto const settings = store().alarmSettings(store().channelId(2, "V"));
    EXPECT_TRUE(settings.enabled);
    EXPECT_EQ(settings.thresholds[3], 4.0f);
    EXPECT_EQ(settings.level, 5);
    ASSERT_EQ(store().subDevices(2).size(), 1u);
    EXPECT_EQ(store().channelValue(store().channelId(store().subDevices(2)[0], "On")),
              kq::CValue(true));
}

TEST(ScenarioTest, SeedNamesEveryDeviceTheStoreRefusesAndCreatesTheOthers) {
    // Ids taken as a device without an id of its own could have taken them.
    store().addDevice("Other", 7);
    store().addDevice("Another", 8);
    Player p(R"({"devices": [{"id": 7, "name": "A"}, {"id": 2, "name": "UPS",
        "subDevices": [{"name": "Outlet 1"}, {"id": 8, "name": "B"}]}, {"id": 3, "name": "C"}]})");
    try {
        p.player.seed();
        ADD_FAILURE() << "the seed was accepted";
    } catch (ScenarioError const& error) {
        EXPECT_EQ(error.errors(),
                  (std::vector<std::string>{"devices[0]: device id 7 is in use",
                                            "devices[1].subDevices[1]: device id 8 is in use"}));
    }
    EXPECT_TRUE(store().hasDevice(3));
}

TEST(ScenarioTest, SeedRunsOnceAndLetsTheDescriptionOfTheDevicesGo) {
    Player p(R"({"devices": [{"id": 2, "name": "UPS", "channels": {"V": 1}}]})");
    p.player.seed();
    ASSERT_TRUE(store().hasDevice(2));
    store().removeDevice(2);
    p.player.seed();
    EXPECT_FALSE(store().hasDevice(2));
}

TEST(ScenarioTest, EventsRunInTimeOrderAndValuesCycle) {
    Player p(R"({"devices": [{"id": 2, "name": "UPS", "channels": {"V": 0}}],
        "events": [{"at": 2, "every": 1, "do": "set-channel", "device": "UPS", "channel": "V",
                    "values": [10, 20]}]})");
    p.player.seed();
    p.player.playFirst(1.5);
    EXPECT_EQ(p.player.played(), 0u);
    p.player.playFirst(2.0);
    EXPECT_EQ(store().channelValue(store().channelId(2, "V")), kq::CValue(10));
    p.player.playFirst(3.0);
    EXPECT_EQ(store().channelValue(store().channelId(2, "V")), kq::CValue(20));
    p.player.playFirst(4.0);
    EXPECT_EQ(store().channelValue(store().channelId(2, "V")), kq::CValue(10));
    EXPECT_EQ(p.player.played(), 3u);
}

TEST(ScenarioTest, SubDeviceComesAndGoesAndAlarmsAreRaisedAndCleared) {
    Player p(R"({"devices": [{"id": 2, "name": "UPS", "channels": {"C": 1}}], "events": [
        {"at": 1, "do": "add-device", "parent": 2, "device": {"name": "Outlet 3"}},
        {"at": 2, "do": "raise-alarm", "device": 2, "channel": "C", "level": 7, "direction": true},
        {"at": 3, "do": "remove-device", "device": 2, "path": [0]},
        {"at": 4, "do": "clear-alarm", "device": 2, "channel": "C"},
        {"at": 5, "do": "set-attribute", "device": 2, "attribute": "location", "value": "R7"}]})");
    p.player.seed();
    p.player.playFirst(1);
    EXPECT_EQ(store().subDevices(2).size(), 1u);
    p.player.playFirst(2);
    ASSERT_TRUE(store().alarmRecord(store().channelId(2, "C")));
    EXPECT_EQ(store().alarmRecord(store().channelId(2, "C"))->level, 7);
    p.player.playFirst(3);
    EXPECT_TRUE(store().subDevices(2).empty());
    p.player.playFirst(5);
    EXPECT_FALSE(store().alarmRecord(store().channelId(2, "C")));
    EXPECT_EQ(store().deviceAttribute(2, cdsapi::AttributeLocation), "R7");
}

TEST(ScenarioTest, StepThatDoesNotFitTheStoreIsLoggedAndTheScenarioGoesOn) {
    Player p(R"({"events": [
        {"at": 1, "do": "set-channel", "device": 9, "channel": "V", "value": 1},
        {"at": 2, "do": "log", "text": "still here"}]})");
    p.player.playFirst(2);
    EXPECT_NE(p.out.str().find("warning: scenario events[0] (set-channel): no device 9"),
              std::string::npos)
        << p.out.str();
    EXPECT_NE(p.out.str().find("scenario: still here"), std::string::npos);
}

TEST(ScenarioTest, ARenamedDeviceGoesByItsNewNameAndNotItsOldOne) {
    Player p(R"({"devices": [{"id": 2, "name": "UPS", "channels": {"V": 0}}], "events": [
        {"at": 1, "do": "rename-device", "device": "UPS", "name": "Big UPS"},
        {"at": 2, "do": "set-channel", "device": "Big UPS", "channel": "V", "value": 5},
        {"at": 3, "do": "set-channel", "device": "UPS", "channel": "V", "value": 6}]})");
    p.player.seed();
    p.player.playFirst(3);
    EXPECT_EQ(store().channelValue(store().channelId(2, "V")), kq::CValue(5));
    EXPECT_NE(p.out.str().find("warning: scenario events[2] (set-channel): no device named "
                               "\"UPS\""),
              std::string::npos)
        << p.out.str();
}

TEST(ScenarioTest, ARepeatThatFailsEveryRunIsLoggedAFewTimesAMinuteNotEveryRun) {
    Player p(R"({"devices": [{"id": 2, "name": "UPS"}], "events": [
        {"at": 0, "every": 0.01, "do": "set-channel", "device": 2, "channel": "Nope", "value": 1},
        {"at": 0, "every": 0.5, "do": "remove-device", "device": 9}]})");
    p.player.seed();
    p.player.playFirst(1);
    EXPECT_EQ(p.player.played(), 104u);
    auto const count = [&](std::string const& text) {
        std::size_t n = 0;
        for (auto at = p.out.str().find(text); at != std::string::npos;
             at = p.out.str().find(text, at + 1)) {
            ++n;
        }
        return n;
    };
    EXPECT_EQ(count("warning: scenario events[0] (set-channel): device 2 has no channel"),
              Log::kBurstPerMinute);
    // Each event has its own allowance.
    EXPECT_EQ(count("warning: scenario events[1] (remove-device): no device 9"), 3u);
}

TEST(ScenarioTest, NextDueFollowsTheEarliestPendingEvent) {
    Player p(
        R"({"events": [{"at": 3, "do": "log", "text": "a"}, {"at": 1, "do": "log", "text": "b"}]})");
    auto const start = ScenarioPlayer::Clock::now();
    p.player.start(start);
    ASSERT_TRUE(p.player.nextDue());
    EXPECT_EQ(*p.player.nextDue(), start + std::chrono::seconds(1));
    p.player.playDue(start + std::chrono::seconds(5));
    EXPECT_FALSE(p.player.nextDue());
    EXPECT_EQ(p.player.played(), 2u);
}

TEST(ScenarioTest, AnEventPlaysAtItsTimeToTheNanosecondAndNotBefore) {
    Player p(R"({"events": [{"at": 0.5, "do": "log", "text": "a"},
                            {"at": 0.75, "do": "log", "text": "b"}]})");
    auto const start = ScenarioPlayer::Clock::now();
    p.player.start(start);
    p.player.playDue(start + std::chrono::nanoseconds(499'999'999));
    EXPECT_EQ(p.player.played(), 0u);
    p.player.playDue(start + std::chrono::milliseconds(500));
    EXPECT_EQ(p.player.played(), 1u);
    ASSERT_TRUE(p.player.nextDue());
    EXPECT_EQ(*p.player.nextDue(), start + std::chrono::milliseconds(750));
    p.player.playDue(start + std::chrono::milliseconds(749));
    EXPECT_EQ(p.player.played(), 1u);
    p.player.playDue(start + std::chrono::milliseconds(750));
    EXPECT_EQ(p.player.played(), 2u);
}

TEST(ScenarioTest, NextDueCountsFromTheLatestStart) {
    Player p(R"({"events": [{"at": 2, "do": "log", "text": "a"}]})");
    auto const first = ScenarioPlayer::Clock::now();
    p.player.start(first);
    ASSERT_TRUE(p.player.nextDue());
    EXPECT_EQ(*p.player.nextDue(), first + std::chrono::seconds(2));
    auto const later = first + std::chrono::seconds(10);
    p.player.start(later);
    ASSERT_TRUE(p.player.nextDue());
    EXPECT_EQ(*p.player.nextDue(), later + std::chrono::seconds(2));
    p.player.playDue(first + std::chrono::seconds(3));
    EXPECT_EQ(p.player.played(), 0u);
}

TEST(ScenarioTest, AnEventMonthsIntoTheRunPlaysOnceItsSecondsAreReached) {
    // Past 2^23 s a nanosecond less than the event's time in clock ticks can
    // already read as the event's time in seconds: the event is due then.
    Player p(R"({"events": [{"at": 8500000.0000000019, "do": "log", "text": "a"}]})");
    auto const start = ScenarioPlayer::Clock::now();
    p.player.start(start);
    auto const elapsed = std::chrono::nanoseconds(8'500'000'000'000'001);
    ASSERT_GE(std::chrono::duration<double>(elapsed).count(), 8500000.0000000019);
    p.player.playDue(start + elapsed);
    EXPECT_EQ(p.player.played(), 1u);
}

TEST(ScenarioTest, NextDueIsTheFirstTickAtWhichTheEventPlays) {
    // 0.1 three times over is a little more than 0.3: at 300,000,000 ns the
    // event is not due yet, so the loop must not be told to wake then.
    for (char const* at : {"0.30000000000000004", "0.5", "8500000.0000000019", "1e-9"}) {
        Player p(std::string(R"({"events": [{"at": )") + at + R"(, "do": "log", "text": "a"}]})");
        auto const start = ScenarioPlayer::Clock::now();
        p.player.start(start);
        ASSERT_TRUE(p.player.nextDue()) << at;
        auto const due = *p.player.nextDue();
        p.player.playDue(due - std::chrono::nanoseconds(1));
        EXPECT_EQ(p.player.played(), 0u) << at;
        p.player.playDue(due);
        EXPECT_EQ(p.player.played(), 1u) << at;
    }
}

TEST(ScenarioTest, AnEventBeyondWhatTheClockCanReachIsNeverDue) {
    Player p(R"({"events": [{"at": 1e300, "do": "log", "text": "a"}]})");
    auto const start = ScenarioPlayer::Clock::now();
    p.player.start(start);
    ASSERT_TRUE(p.player.nextDue());
    EXPECT_GT(*p.player.nextDue(), start + std::chrono::hours(24 * 365 * 100));
    p.player.playDue(start + std::chrono::hours(24 * 365));
    EXPECT_EQ(p.player.played(), 0u);
}

TEST(ScenarioTest, APeriodTooShortToPlayIsRefused) {
    // 1e-300 added to a time of 1 s leaves it at 1 s: the event would run
    // for ever without the loop ever getting its turn back.
    auto const errors = errorsOf(R"({"events": [
        {"at": 1, "every": 1e-300, "do": "log", "text": "a"},
        {"at": 1, "every": 0.0009, "do": "log", "text": "b"}]})");
    EXPECT_EQ(errors, (std::vector<std::string>{
                          "events[0].every: expected 0 or at least 0.001 seconds, got 1e-300",
                          "events[1].every: expected 0 or at least 0.001 seconds, got 0.0009"}));
    EXPECT_NO_THROW(
        parseScenario(R"({"events": [{"at": 1, "every": 0.001, "do": "log", "text": "a"}]})"));
}

TEST(ScenarioTest, ARepeatPlaysAtItsStartPlusAWholeNumberOfPeriods) {
    // Fifteen periods of 0.1 after 0 is 1.5; 0.1 added up fifteen times is
    // 1.5000000000000002, a run late, and later still the longer it runs.
    Player p(R"({"events": [{"at": 0, "every": 0.1, "do": "log", "text": "a"}]})");
    p.player.playFirst(1.5);
    EXPECT_EQ(p.player.played(), 16u);
    auto const start = ScenarioPlayer::Clock::now();
    Player q(R"({"events": [{"at": 4, "every": 0.1, "times": 0, "do": "log", "text": "a"}]})");
    q.player.start(start);
    for (int second = 5; second <= 2304; ++second) {
        q.player.playDue(start + std::chrono::seconds(second));
    }
    // The next run is 23,001 periods after 4 s: at 2304.1 s. With 0.1 added
    // up run by run it came at 2304.099999999 s.
    EXPECT_EQ(q.player.played(), 23001u);
    ASSERT_TRUE(q.player.nextDue());
    EXPECT_EQ(*q.player.nextDue(), start + std::chrono::milliseconds(2'304'100));
}

TEST(ScenarioTest, RunsDueAtOnceAreHandedToTheLoopInBatches) {
    Player p(R"({"events": [{"at": 1, "times": 2500, "do": "log", "text": "a"},
                            {"at": 1, "do": "log", "text": "last"}]})");
    auto const start = ScenarioPlayer::Clock::now();
    auto const now = start + std::chrono::seconds(1);
    p.player.start(start);
    p.player.playDue(now);
    EXPECT_EQ(p.player.played(), ScenarioPlayer::kRunsPerPass);
    // What is left is still due: the loop does not wait before the next pass.
    ASSERT_TRUE(p.player.nextDue());
    EXPECT_LE(*p.player.nextDue(), now);
    p.player.playDue(now);
    p.player.playDue(now);
    EXPECT_EQ(p.player.played(), 2501u);
    EXPECT_FALSE(p.player.nextDue());
    EXPECT_NE(p.out.str().find("scenario: last"), std::string::npos);
}

TEST(ScenarioTest, PlayingAheadStopsWhereTheClockCannotReach) {
    // --describe-at 1e18: an event the clock never reaches does not play, and
    // a repeat out there, whose time one period no longer moves, does not
    // keep the playing from ending.
    Player p(R"({"events": [{"at": 5e9, "do": "log", "text": "a"},
                            {"at": 1e17, "every": 1, "do": "log", "text": "b"},
                            {"at": 4e9, "do": "log", "text": "c"}]})");
    p.player.playFirst(1e18);
    EXPECT_EQ(p.player.played(), 1u);
    EXPECT_NE(p.out.str().find("scenario: c"), std::string::npos);
}

TEST(ScenarioTest, ANumberTooLargeForADoubleIsAnErrorNotACrash) {
    auto const errors = errorsOf("80E000000000000000000900004");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].rfind("scenario: not valid JSON: [json.exception.out_of_range.406]", 0), 0u)
        << errors[0];
}

// The file is read quickly with simdjson, but as nlohmann reads it: the last
// of two fields of one name stays.
TEST(ScenarioTest, RepeatedChannelTakesItsLastValue) {
    Player p(R"({"devices": [{"id": 2, "name": "UPS", "channels": {"V": 1, "W": 5, "V": 2}}]})");
    p.player.seed();
    EXPECT_EQ(store().channelValue(store().channelId(2, "V")), kq::CValue(2));
    EXPECT_EQ(store().channelValue(store().channelId(2, "W")), kq::CValue(5));
}

TEST(ScenarioTest, TextThatIsNotJsonIsReportedInNlohmannsWords) {
    auto const errors = errorsOf(R"({"devices": [)");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].rfind("scenario: not valid JSON: [json.exception.parse_error.101]", 0), 0u)
        << errors[0];
}

}  // namespace
}  // namespace tarsel::daemon
