// Checks of register map files: what a valid map gives, and one test per
// kind of error, each pinning the message that names the entry.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <limits>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include "EmbeddedDefaults.h"
#include "JsonNesting.h"
#include "MapLoader.h"

namespace tarsel::daemon {
namespace {

std::string mapWith(std::string const& entries) {
    return R"({"entries": [)" + entries + "]}";
}

std::string const kFloat =
    R"({"name": "v", "table": "holding-registers", "address": 10, "encoder": "float",
        "source": {"device": 2, "channel": "V"}})";

/* The errors of a map that must be refused. */
std::vector<std::string> errorsOf(std::string const& text) {
    try {
        parseRegisterMap(text);
    } catch (MapError const& error) {
        return error.errors();
    }
    ADD_FAILURE() << "the map was accepted";
    return {};
}

bool contains(std::vector<std::string> const& errors, std::string const& text) {
    for (auto const& error : errors) {
        if (error.find(text) != std::string::npos) {
            return true;
        }
    }
    return false;
}

TEST(RegisterMapTest, ShippedMapIsValidAndUsesEveryEncoderButTheLibraryFloat) {
    RegisterMapDefinition const map = parseRegisterMap(embeddedMap());
    std::set<EncoderKind> kinds;
    for (auto const& entry : map.entries) {
        kinds.insert(entry.encoder);
    }
    // The library's float encoder lays its words out as the linked libmodbus
    // does; the shipped maps keep to float32 in one layout instead.
    EXPECT_EQ(kinds.count(EncoderKind::Float), 0u);
    EXPECT_EQ(kinds.size(), encoderNames().size() - 1);
}

TEST(RegisterMapTest, ShippedMapsServeEveryFloatAnd32BitValueInABCDAndNotImplementedValues) {
    for (std::string const file : {"ups-map.json", "nut-ups-map.json"}) {
        RegisterMapDefinition const map =
            parseRegisterMap(readTextFile(std::string(TARSEL_DAEMON_MAPS_DIR) + "/" + file));
        EXPECT_EQ(map.unavailable.mode, UnavailablePolicy::Mode::NotImplemented) << file;
        std::size_t thirtyTwoBit = 0;
        for (auto const& entry : map.entries) {
            EXPECT_EQ(entry.unavailable.mode, UnavailablePolicy::Mode::NotImplemented)
                << file << " " << entry.name;
            if (entry.encoder == EncoderKind::Float32 || entry.encoder == EncoderKind::Int32 ||
                entry.encoder == EncoderKind::Uint32) {
                ++thirtyTwoBit;
                EXPECT_EQ(entry.layout, WireLayout::ABCD) << file << " " << entry.name;
            }
        }
        EXPECT_GE(thirtyTwoBit, 5u) << file;
    }
}

TEST(RegisterMapTest, Float32IsABCDUnlessALayoutIsNamed) {
    auto const map = parseRegisterMap(mapWith(
        R"({"name": "a", "table": "holding-registers", "address": 0, "encoder": "float32",
            "unit": "V", "source": {"device": 2, "channel": "V"}},
           {"name": "b", "table": "holding-registers", "address": 2, "encoder": "float32",
            "layout": "DCBA", "multiplier": 10, "source": {"device": 2, "channel": "V"}})"));
    EXPECT_EQ(map.entries.at(0).layout, WireLayout::ABCD);
    EXPECT_EQ(map.entries.at(0).size, 2);
    EXPECT_EQ(map.entries.at(0).unit, "V");
    EXPECT_EQ(map.entries.at(1).layout, WireLayout::DCBA);
    EXPECT_EQ(map.entries.at(1).multiplier, 10.0f);
}

TEST(RegisterMapTest, IntegersTakeTheDaemonsEncoderOnlyWithALayout) {
    auto const map = parseRegisterMap(mapWith(
        R"({"table": "holding-registers", "address": 0, "encoder": "int32", "byteOrder": 1,
            "source": {"device": 2, "channel": "I"}},
           {"table": "holding-registers", "address": 2, "encoder": "uint32", "layout": "BADC",
            "source": {"device": 2, "channel": "U"}})"));
    EXPECT_FALSE(map.entries.at(0).layout);
    EXPECT_EQ(map.entries.at(0).byteOrder, 1);
    EXPECT_EQ(map.entries.at(1).layout, WireLayout::BADC);
}

TEST(RegisterMapTest, LayoutAndByteOrderTogetherOrAnUnknownLayoutAreRefused) {
    auto const errors = errorsOf(mapWith(
        R"({"table": "holding-registers", "address": 0, "encoder": "int32", "byteOrder": 1,
            "layout": "ABCD", "source": {"device": 2, "channel": "I"}},
           {"table": "holding-registers", "address": 2, "encoder": "float32", "layout": "abcd",
            "source": {"device": 2, "channel": "V"}},
           {"table": "holding-registers", "address": 4, "encoder": "int16", "layout": "ABCD",
            "source": {"device": 2, "channel": "V"}})"));
    EXPECT_TRUE(contains(errors, "entries[0].byteOrder: cannot be combined with layout"));
    EXPECT_TRUE(contains(errors,
                         "entries[1].layout: unknown layout \"abcd\"; expected ABCD, "
                         "CDAB, BADC or DCBA"));
    EXPECT_TRUE(contains(errors, "entries[2].layout: unknown field for encoder \"int16\""));
}

TEST(RegisterMapTest, NotImplementedPolicyIsParsedForTheMapAndPerEntry) {
    auto const map =
        parseRegisterMap(R"({"unavailable": {"mode": "not-implemented"}, "entries": [)" + kFloat +
                         R"(, {"table": "holding-registers", "address": 0, "encoder": "int16",
              "unavailable": {"mode": "exception"}, "source": {"device": 2, "channel": "T"}},
             {"table": "holding-registers", "address": 1, "encoder": "int16",
              "unavailable": {"mode": "not-implemented"},
              "source": {"device": 2, "channel": "T"}}]})");
    EXPECT_EQ(map.entries.at(0).unavailable.mode, UnavailablePolicy::Mode::NotImplemented);
    EXPECT_EQ(map.entries.at(1).unavailable.mode, UnavailablePolicy::Mode::Exception);
    EXPECT_EQ(map.entries.at(2).unavailable.mode, UnavailablePolicy::Mode::NotImplemented);
}

TEST(RegisterMapTest, FloatEntryTakesItsOptions) {
    auto const map = parseRegisterMap(mapWith(
        R"({"name": "v", "table": "input-registers", "address": 7, "encoder": "float",
            "multiplier": 2.5, "byteOrder": "word-swapped",
            "source": {"device": 2, "path": [1, 0], "channel": "V", "data": "alarm-hysteresis"}})"));
    ASSERT_EQ(map.entries.size(), 1u);
    EntryDefinition const& entry = map.entries[0];
    EXPECT_EQ(entry.table, Table::InputRegisters);
    EXPECT_EQ(entry.address, 7);
    EXPECT_EQ(entry.size, 2);
    EXPECT_EQ(entry.multiplier, 2.5f);
    EXPECT_EQ(entry.byteOrder, 1);
    ASSERT_EQ(entry.sources.size(), 1u);
    EXPECT_EQ(entry.sources[0].kind, SourceKind::Channel);
    EXPECT_EQ(*entry.sources[0].device.id, 2u);
    EXPECT_EQ(entry.sources[0].device.path, (std::vector<unsigned int>{1, 0}));
    EXPECT_EQ(entry.sources[0].dataType, modbus::DataType::AlarmHysteresis);
}

TEST(RegisterMapTest, Uint16WithMaskUsesTheBitmaskConstructor) {
    auto const map = parseRegisterMap(mapWith(
        R"({"table": "holding-registers", "address": 1, "encoder": "uint16", "bitmask": "xor",
            "mask": 3, "default": 9, "source": {"device": "UPS", "channel": "F"}})"));
    EntryDefinition const& entry = map.entries.at(0);
    EXPECT_TRUE(entry.useBitmask);
    EXPECT_EQ(entry.bitmaskOp, modbus::BitmaskOp::Xor);
    EXPECT_EQ(entry.mask, 3u);
    EXPECT_EQ(entry.defaultValue, 9u);
    EXPECT_EQ(entry.sources[0].device.name, "UPS");
    EXPECT_EQ(entry.name, "holding-registers:1");  // a default name
}

TEST(RegisterMapTest, SourcesNameAttributesByNumberOrNameAndAlarmsByType) {
    auto const map = parseRegisterMap(mapWith(
        R"({"table": "input-registers", "address": 0, "encoder": "string", "size": 4,
            "source": {"device": 2, "attribute": 17}},
           {"table": "input-registers", "address": 4, "encoder": "numeric-string",
            "source": {"device": 2, "attribute": "nominal-power"}},
           {"table": "discrete-inputs", "address": 0, "encoder": "boolean", "invert": true,
            "source": {"device": 2, "channel": "C", "alarm": "flag-set-level7"}})"));
    ASSERT_EQ(map.entries.size(), 3u);
    EXPECT_EQ(map.entries[0].sources[0].attribute, static_cast<cdsapi::DeviceAttribute>(17));
    EXPECT_EQ(map.entries[0].size, 4);
    EXPECT_EQ(map.entries[1].sources[0].attribute, cdsapi::AttributeNominalPower);
    EXPECT_EQ(map.entries[2].sources[0].kind, SourceKind::Alarm);
    EXPECT_EQ(map.entries[2].sources[0].alarmType, modbus::AlarmTypeFlagSetLevel7);
    EXPECT_TRUE(map.entries[2].invert);
}

TEST(RegisterMapTest, CompositeTakesItsFunctionsSize) {
    auto const map = parseRegisterMap(mapWith(
        R"({"table": "holding-registers", "address": 0, "encoder": "composite-registers",
            "function": "kilo-counter32", "description": "Energy",
            "sources": [{"device": 2, "channel": "K"}, {"device": 2, "channel": "W"}]},
           {"table": "coils", "address": 0, "encoder": "composite-discretes",
            "function": "status-bits",
            "sources": [{"device": 2, "channel": "A"}, {"device": 2, "channel": "B"},
                        {"device": 2, "channel": "C"}]})"));
    EXPECT_EQ(map.entries.at(0).size, 2);
    EXPECT_EQ(map.entries.at(0).description, "Energy");
    EXPECT_EQ(map.entries.at(1).size, 3);
}

TEST(RegisterMapTest, UnavailablePolicyOfTheMapIsOverriddenPerEntry) {
    auto const map = parseRegisterMap(
        R"({"unavailable": {"mode": "exception", "code": 11}, "entries": [)" + kFloat +
        R"(, {"table": "holding-registers", "address": 0, "encoder": "int16",
              "unavailable": {"mode": "sentinel", "word": 32768},
              "source": {"device": 2, "channel": "T"}}]})");
    EXPECT_EQ(map.entries.at(0).unavailable.mode, UnavailablePolicy::Mode::Exception);
    EXPECT_EQ(map.entries.at(0).unavailable.code, 11);
    EXPECT_EQ(map.entries.at(1).unavailable.mode, UnavailablePolicy::Mode::Sentinel);
    EXPECT_EQ(map.entries.at(1).unavailable.word, 0x8000);
}

TEST(RegisterMapTest, DefaultUnavailablePolicyIsSentinelFFFF) {
    auto const map = parseRegisterMap(mapWith(kFloat));
    EXPECT_EQ(map.entries.at(0).unavailable.mode, UnavailablePolicy::Mode::Sentinel);
    EXPECT_EQ(map.entries.at(0).unavailable.word, 0xFFFF);
}

TEST(RegisterMapTest, UnknownEncoderIsNamedWithItsEntry) {
    auto const errors = errorsOf(mapWith(
        R"({"table": "holding-registers", "address": 0, "encoder": "double",
            "source": {"device": 2, "channel": "V"}})"));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].rfind("entries[0].encoder: unknown encoder \"double\"; expected float", 0),
              0u)
        << errors[0];
}

TEST(RegisterMapTest, UnknownFieldIsNamedWithItsPath) {
    auto const errors = errorsOf(mapWith(
        R"({"table": "holding-registers", "address": 0, "encoder": "int32", "multiplier": 2,
            "source": {"device": 2, "channel": "V", "colour": "red"}})"));
    EXPECT_TRUE(contains(errors, "entries[0].multiplier: unknown field for encoder \"int32\""));
    EXPECT_TRUE(contains(errors, "entries[0].source.colour: unknown field of a source"));
}

TEST(RegisterMapTest, MissingFieldIsNamed) {
    auto const errors = errorsOf(mapWith(
        R"({"table": "holding-registers", "encoder": "float", "source": {"channel": "V"}})"));
    EXPECT_TRUE(contains(errors, "entries[0]: missing field \"address\""));
    EXPECT_TRUE(contains(errors, "entries[0].source: missing field \"device\""));
}

TEST(RegisterMapTest, WrongTypeIsNamedWithWhatWasExpected) {
    auto const errors = errorsOf(mapWith(
        R"({"table": "holding-registers", "address": "ten", "encoder": "boolean",
            "invert": "yes", "source": {"device": 2, "channel": "V"}})"));
    EXPECT_TRUE(
        contains(errors, "entries[0].address: expected an integer from 0 to 65535, got \"ten\""));
}

TEST(RegisterMapTest, WrongTypeOfAnOptionIsNamed) {
    auto const errors = errorsOf(mapWith(
        R"({"table": "coils", "address": 1, "encoder": "boolean", "invert": "yes",
            "source": {"device": 2, "channel": "V"}})"));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0], "entries[0].invert: expected true or false, got \"yes\"");
}

TEST(RegisterMapTest, OverlappingAddressesNameBothEntries) {
    auto const errors =
        errorsOf(mapWith(kFloat + R"(, {"name": "w", "table": "holding-registers", "address": 11,
                       "encoder": "int16", "source": {"device": 2, "channel": "W"}})"));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0],
              "entries[1]: \"w\" at holding-registers 11..11 overlaps entries[0] \"v\" at 10..11");
}

TEST(RegisterMapTest, EachEntryKnowsWhereItStandsInTheFile) {
    auto const map = parseRegisterMap(mapWith(
        kFloat + R"(, {"name": "w", "table": "input-registers", "address": 1, "encoder": "int16",
                       "source": {"device": 2, "channel": "W"}},
                      {"name": "x", "table": "input-registers", "address": 2, "encoder": "int16",
                       "source": {"device": 2, "channel": "X"}})"));
    ASSERT_EQ(map.entries.size(), 3u);
    EXPECT_EQ(map.entries[0].path(), "entries[0]");
    EXPECT_EQ(map.entries[1].path(), "entries[1]");
    EXPECT_EQ(map.entries[2].path(), "entries[2]");
    EXPECT_EQ(map.entries[2].name, "x");
}

TEST(RegisterMapTest, SameAddressInAnotherTableDoesNotOverlap) {
    auto const map = parseRegisterMap(
        mapWith(kFloat + R"(, {"table": "input-registers", "address": 10, "encoder": "int16",
                       "source": {"device": 2, "channel": "W"}})"));
    EXPECT_EQ(map.entries.size(), 2u);
}

TEST(RegisterMapTest, EntryRunningPastTheTableIsRefused) {
    auto const errors = errorsOf(mapWith(
        R"({"table": "input-registers", "address": 65535, "encoder": "uint32",
            "source": {"device": 2, "channel": "V"}})"));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0],
              "entries[0]: input-registers 65535..65536 run past the end of the table (last "
              "address 65535)");
}

TEST(RegisterMapTest, SizeBeyondOneRequestIsRefused) {
    auto const errors = errorsOf(mapWith(
        R"({"table": "holding-registers", "address": 0, "encoder": "string", "size": 124,
            "source": {"device": 2, "attribute": "name"}})"));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0],
              "entries[0].size: 124 registers do not fit in one request to holding-registers "
              "(at most 123)");
}

TEST(RegisterMapTest, EncoderThatDoesNotFitTheTableIsRefused) {
    auto const errors = errorsOf(mapWith(
        R"({"table": "coils", "address": 0, "encoder": "float",
            "source": {"device": 2, "channel": "V"}})"));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0],
              "entries[0]: encoder \"float\" cannot be served from coils; it needs "
              "holding-registers or input-registers");
}

TEST(RegisterMapTest, ReadOnlyFunctionInAWritableTableIsRefused) {
    auto const errors = errorsOf(mapWith(
        R"({"table": "coils", "address": 0, "encoder": "composite-discretes",
            "function": "any-true", "sources": [{"device": 2, "channel": "A"}]})"));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0],
              "entries[0].function: function \"any-true\" is read-only; serve it from "
              "discrete-inputs");
}

TEST(RegisterMapTest, FunctionOfTheOtherKindIsUnknown) {
    auto const errors = errorsOf(mapWith(
        R"({"table": "holding-registers", "address": 0, "encoder": "composite-registers",
            "function": "status-bits", "sources": [{"device": 2, "channel": "A"}]})"));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0],
              "entries[0].function: unknown function \"status-bits\" for encoder "
              "\"composite-registers\"; expected status-word or kilo-counter32");
}

TEST(RegisterMapTest, WrongNumberOfSourcesForAFunctionIsRefused) {
    auto const errors = errorsOf(mapWith(
        R"({"table": "holding-registers", "address": 0, "encoder": "composite-registers",
            "function": "kilo-counter32", "sources": [{"device": 2, "channel": "A"}]})"));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0], "entries[0].sources: function \"kilo-counter32\" takes 2 sources, got 1");
}

TEST(RegisterMapTest, PathWithADeviceNameIsRefused) {
    auto const errors = errorsOf(mapWith(
        R"({"table": "holding-registers", "address": 0, "encoder": "int16",
            "source": {"device": "UPS", "path": [0], "channel": "A"}})"));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0],
              "entries[0].source.path: a sub-device path needs a device id, not a device name");
}

TEST(RegisterMapTest, MultiplierCannotBeCombinedWithAMask) {
    auto const errors = errorsOf(mapWith(
        R"({"table": "holding-registers", "address": 0, "encoder": "uint16", "mask": 1,
            "multiplier": 10, "source": {"device": 2, "channel": "A"}})"));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].rfind("entries[0].multiplier: cannot be combined with bitmask", 0), 0u);
}

TEST(RegisterMapTest, MultiplierOrOffsetThatAFloatCannotHoldIsRefused) {
    // Read as doubles, these would become 0, an infinity or a subnormal whose
    // reciprocal is infinite in the encoders' single precision.
    auto const errors = errorsOf(mapWith(
        R"({"table": "holding-registers", "address": 0, "encoder": "int16", "multiplier": 1e-50,
            "source": {"device": 2, "channel": "A"}},
           {"table": "holding-registers", "address": 1, "encoder": "uint16", "multiplier": -1e39,
            "source": {"device": 2, "channel": "A"}},
           {"table": "holding-registers", "address": 2, "encoder": "float32", "multiplier": 1e-40,
            "source": {"device": 2, "channel": "A"}},
           {"table": "holding-registers", "address": 4, "encoder": "float16", "offset": 1e300,
            "source": {"device": 2, "channel": "A"}})"));
    ASSERT_EQ(errors.size(), 4u);
    EXPECT_EQ(errors[0],
              "entries[0].multiplier: must be a number other than 0 from about 1.2e-38 to "
              "3.4e+38 in magnitude (a float scales by it), got 1e-50");
    EXPECT_EQ(errors[1].rfind("entries[1].multiplier: must be a number other than 0", 0), 0u);
    EXPECT_EQ(errors[2].rfind("entries[2].multiplier: must be a number other than 0", 0), 0u);
    EXPECT_EQ(errors[3].rfind("entries[3].offset: must be a number a float holds", 0), 0u);
}

TEST(RegisterMapTest, LibraryFloatMultiplierWhoseSquareAFloatCannotHoldIsRefused) {
    // The library's float encoder multiplies by it twice: 1e20 squared is
    // beyond a float, and every read would be an infinity.
    auto const errors = errorsOf(mapWith(
        R"({"table": "holding-registers", "address": 0, "encoder": "float", "multiplier": 1e20,
            "source": {"device": 2, "channel": "A"}})"));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_NE(errors[0].find("entries[0].multiplier: must be a number other than 0"),
              std::string::npos);
    EXPECT_NE(errors[0].find("(a float scales by it twice)"), std::string::npos);
}

TEST(RegisterMapTest, MultipliersAndOffsetsAtTheEdgesOfAFloatAreKept) {
    auto const map = parseRegisterMap(mapWith(
        R"({"table": "holding-registers", "address": 0, "encoder": "int16",
            "multiplier": 1.17549435e-38, "source": {"device": 2, "channel": "A"}},
           {"table": "holding-registers", "address": 1, "encoder": "float16",
            "multiplier": -3.4e38, "offset": -3.4e38, "source": {"device": 2, "channel": "A"}},
           {"table": "holding-registers", "address": 2, "encoder": "float", "multiplier": 1e19,
            "source": {"device": 2, "channel": "A"}})"));
    ASSERT_EQ(map.entries.size(), 3u);
    EXPECT_EQ(map.entries[0].multiplier, std::numeric_limits<float>::min());
    EXPECT_EQ(map.entries[1].multiplier, -3.4e38f);
    EXPECT_EQ(map.entries[1].offset, -3.4e38f);
    EXPECT_EQ(map.entries[2].multiplier, 1e19f);
}

TEST(RegisterMapTest, CompositeSizeSmallerThanWhatItsFunctionProducesIsRefused) {
    // A kilo-counter32 in one register would serve its high word alone, and
    // status bits of three sources in two discretes would never show the third.
    auto const errors = errorsOf(mapWith(
        R"({"table": "holding-registers", "address": 0, "encoder": "composite-registers",
            "function": "kilo-counter32", "size": 1,
            "sources": [{"device": 2, "channel": "K"}, {"device": 2, "channel": "W"}]},
           {"table": "coils", "address": 0, "encoder": "composite-discretes",
            "function": "status-bits", "size": 2,
            "sources": [{"device": 2, "channel": "A"}, {"device": 2, "channel": "B"},
                        {"device": 2, "channel": "C"}]})"));
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_EQ(errors[0],
              "entries[0].size: 1 registers cannot hold what function \"kilo-counter32\" "
              "produces for 2 sources (2)");
    EXPECT_EQ(errors[1],
              "entries[1].size: 2 discretes cannot hold what function \"status-bits\" produces "
              "for 3 sources (3)");
}

TEST(RegisterMapTest, CompositeSizeLargerThanItsFunctionsReservesTheRestWhereNobodyWrites) {
    auto const map = parseRegisterMap(mapWith(
        R"({"table": "input-registers", "address": 0, "encoder": "composite-registers",
            "function": "status-word", "size": 3, "sources": [{"device": 2, "channel": "A"}]},
           {"table": "coils", "address": 0, "encoder": "composite-discretes",
            "function": "status-bits", "size": 4, "allowWrite": [],
            "sources": [{"device": 2, "channel": "A"}]})"));
    EXPECT_EQ(map.entries.at(0).size, 3);
    EXPECT_EQ(map.entries.at(1).size, 4);
}

TEST(RegisterMapTest, CompositeSizeLargerThanItsFunctionsIsRefusedWhereItWouldBeWritten) {
    // The function takes nothing from the reserved part: a write there would
    // be answered as done and change nothing.
    auto const errors = errorsOf(mapWith(
        R"({"table": "holding-registers", "address": 0, "encoder": "composite-registers",
            "function": "status-word", "size": 3, "sources": [{"device": 2, "channel": "A"}]},
           {"table": "coils", "address": 0, "encoder": "composite-discretes",
            "function": "status-bits", "size": 4, "sources": [{"device": 2, "channel": "A"}]})"));
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_EQ(errors[0],
              "entries[0].size: 3 registers in a writable table: writes beyond what function "
              "\"status-word\" produces for 1 source (1) would change nothing; reserve them "
              "only where nobody writes (a read-only table, or \"allowWrite\": [])");
    EXPECT_EQ(errors[1].rfind("entries[1].size: 4 discretes in a writable table", 0), 0u);
}

/* `levels` arrays, one inside the other. */
std::string nested(std::size_t levels) {
    return std::string(levels, '[') + std::string(levels, ']');
}

TEST(RegisterMapTest, ArraysNestedWithoutEndAreRefusedNotACrash) {
    // Quoting the refused element in its error walked it one call per level
    // and overflowed the stack.
    EXPECT_EQ(errorsOf(R"({"entries": [)" + nested(200000) + "]}"),
              (std::vector<std::string>{
                  "map: not read: arrays and objects nested more than 1024 levels deep"}));
}

TEST(RegisterMapTest, NestingUpToTheLimitIsReadAlikeByBothReadings) {
    // The root object is one level: a comment nesting 1023 more reaches 1024.
    std::string const deepest =
        R"({"comment": )" + nested(kMaxJsonNesting - 1) + R"(, "entries": [)" + kFloat + "]}";
    EXPECT_TRUE(parseRegisterMapQuickly(deepest).has_value());
    EXPECT_EQ(parseRegisterMapWithNlohmann(deepest).entries.size(), 1u);
    std::string const deeper =
        R"({"comment": )" + nested(kMaxJsonNesting) + R"(, "entries": [)" + kFloat + "]}";
    EXPECT_FALSE(parseRegisterMapQuickly(deeper).has_value());
    EXPECT_EQ(errorsOf(deeper).size(), 1u);
}

TEST(RegisterMapTest, BracketsInsideTextsDoNotCountAsNesting) {
    std::string const brackets(3000, '[');
    auto const map = parseRegisterMapWithNlohmann(R"({"description": ")" + brackets +
                                                  R"(\"[", "entries": [)" + kFloat + "]}");
    EXPECT_EQ(map.description, brackets + "\"[");
}

TEST(RegisterMapTest, SourceThatTakesNoWritesInAWritableTableIsRefused) {
    // The library drops a write to an alarm or to the sub-device count: the
    // client would be told it was done and nothing would change.
    auto const errors = errorsOf(mapWith(
        R"({"table": "coils", "address": 0, "encoder": "boolean",
            "source": {"device": 2, "channel": "B", "alarm": "trigger"}},
           {"table": "holding-registers", "address": 0, "encoder": "uint16",
            "source": {"device": 2, "attribute": "sub-device-count"}},
           {"table": "coils", "address": 1, "encoder": "composite-discretes",
            "function": "status-bits",
            "sources": [{"device": 2, "channel": "A"},
                        {"device": 2, "channel": "B", "alarm": "flag-set"}]})"));
    ASSERT_EQ(errors.size(), 3u);
    EXPECT_EQ(errors[0],
              "entries[0].source: an alarm cannot be written (the data store decides it); serve "
              "the entry from discrete-inputs, or refuse its writes with \"allowWrite\": []");
    EXPECT_EQ(errors[1],
              "entries[1].source: the sub-device count cannot be written (the data store counts "
              "the sub-devices); serve the entry from input-registers, or refuse its writes with "
              "\"allowWrite\": []");
    EXPECT_EQ(errors[2].rfind("entries[2].sources[1]: an alarm cannot be written", 0), 0u);
}

TEST(RegisterMapTest, SourceThatTakesNoWritesIsKeptWhereNobodyWritesIt) {
    auto const map = parseRegisterMap(mapWith(
        R"({"table": "coils", "address": 0, "encoder": "boolean", "allowWrite": [],
            "source": {"device": 2, "channel": "B", "alarm": "trigger"}},
           {"table": "discrete-inputs", "address": 0, "encoder": "boolean",
            "source": {"device": 2, "channel": "B", "alarm": "trigger"}},
           {"table": "input-registers", "address": 0, "encoder": "uint16",
            "source": {"device": 2, "attribute": "sub-device-count"}})"));
    EXPECT_EQ(map.entries.size(), 3u);
}

TEST(RegisterMapTest, EveryErrorIsListedAtOnce) {
    auto const errors = errorsOf(mapWith(
        R"({"table": "holding-registers", "address": 0, "encoder": "double"},
           {"table": "tables", "address": 1, "encoder": "int16",
            "source": {"device": 2, "channel": "A"}},
           {"table": "coils", "address": 70000, "encoder": "boolean",
            "source": {"device": 2, "channel": "A", "alarm": "loud"}})"));
    EXPECT_TRUE(contains(errors, "entries[0].encoder: unknown encoder"));
    EXPECT_TRUE(contains(errors, "entries[1].table: unknown table \"tables\""));
    EXPECT_TRUE(contains(errors, "entries[2].address: expected an integer"));
    EXPECT_TRUE(contains(errors, "entries[2].source.alarm: unknown alarm type \"loud\""));
    EXPECT_EQ(errors.size(), 4u);
}

TEST(RegisterMapTest, TextThatIsNotJsonIsRefused) {
    auto const errors = errorsOf("{\"entries\": [");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].rfind("map: not valid JSON: ", 0), 0u);
}

TEST(RegisterMapTest, MapWithoutEntriesIsRefused) {
    auto const errors = errorsOf(R"({"entry": []})");
    EXPECT_TRUE(contains(errors, "entry: unknown field of the map"));
    EXPECT_TRUE(contains(errors, "map: missing field \"entries\""));
}

TEST(RegisterMapTest, UnknownUnavailableModeIsRefused) {
    auto const errors = errorsOf(R"({"unavailable": {"mode": "zero"}, "entries": []})");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0],
              "unavailable.mode: expected \"sentinel\", \"not-implemented\" or \"exception\", "
              "got \"zero\"");
}

TEST(RegisterMapTest, EntryAllowListsAreParsedAsNetworks) {
    RegisterMapDefinition const map = parseRegisterMap(
        mapWith(R"({"name": "v", "table": "holding-registers", "address": 10, "encoder": "float",
                    "allowRead": ["10.0.0.0/8", "192.168.1.7"], "allowWrite": [],
                    "source": {"device": 2, "channel": "V"}})"));
    EntryDefinition const& entry = map.entries.at(0);
    ASSERT_TRUE(entry.allowRead);
    ASSERT_EQ(entry.allowRead->size(), 2u);
    EXPECT_TRUE(listContains(*entry.allowRead, 0x0A010203));
    EXPECT_TRUE(listContains(*entry.allowRead, 0xC0A80107));
    EXPECT_FALSE(listContains(*entry.allowRead, 0xC0A80108));
    ASSERT_TRUE(entry.allowWrite);
    EXPECT_TRUE(entry.allowWrite->empty());
    EXPECT_FALSE(parseRegisterMap(mapWith(kFloat)).entries.at(0).allowRead);
}

TEST(RegisterMapTest, BadAllowListsAreErrorsWithTheirPath) {
    auto const errors = errorsOf(mapWith(
        R"({"name": "v", "table": "input-registers", "address": 10, "encoder": "uint16",
            "allowRead": ["10.0.0.1/8", 7], "allowWrite": ["127.0.0.1"],
            "source": {"device": 2, "channel": "V"}})"));
    EXPECT_TRUE(contains(errors, "entries[0].allowRead[0]: expected an IPv4 address or network"));
    EXPECT_TRUE(contains(errors, "entries[0].allowRead[1]: expected an IPv4 address or network"));
    EXPECT_TRUE(contains(errors,
                         "entries[0].allowWrite: entries of \"input-registers\" cannot be "
                         "written by anyone"));
    EXPECT_TRUE(contains(errorsOf(mapWith(R"({"name": "v", "table": "coils", "address": 1,
        "encoder": "boolean", "allowWrite": "any", "source": {"device": 2, "channel": "S"}})")),
                         "entries[0].allowWrite: expected an array"));
}

TEST(RegisterMapTest, ANumberTooLargeForADoubleIsAnErrorNotACrash) {
    auto const errors = errorsOf(R"({"entries": [], "comment": 4.44e3333})");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_TRUE(contains(errors,
                         "map: not valid JSON: [json.exception.out_of_range.406] number "
                         "overflow parsing '4.44e3333'"));
}

/* Everything a definition holds, as text, to compare two readings. */
std::string render(SourceDefinition const& source) {
    std::ostringstream out;
    out << static_cast<int>(source.kind) << ' ' << describeSource(source) << ' '
        << describeDevice(source.device) << ' ' << source.device.id.value_or(0) << ' '
        << source.device.name << ' ' << source.device.path.size() << ' ' << source.channel << ' '
        << static_cast<int>(source.dataType) << ' ' << static_cast<int>(source.attribute) << ' '
        << static_cast<int>(source.alarmType);
    return out.str();
}

std::string render(UnavailablePolicy const& policy) {
    return std::to_string(static_cast<int>(policy.mode)) + "/" + std::to_string(policy.word) + "/" +
           std::to_string(policy.code);
}

std::string render(RareOptional<CidrList> const& list) {
    if (!list) {
        return "-";
    }
    std::string text;
    for (auto const& cidr : *list) {
        text += std::to_string(cidr.network) + "/" + std::to_string(cidr.mask) + ",";
    }
    return text;
}

std::string render(RegisterMapDefinition const& map) {
    std::ostringstream out;
    out << map.description << '|' << render(map.unavailable) << '\n';
    for (auto const& entry : map.entries) {
        out << entry.name << '|' << entry.path() << '|' << static_cast<int>(entry.table) << '|'
            << entry.address << '|' << entry.size << '|' << static_cast<int>(entry.encoder) << '|'
            << entry.multiplier << '|' << entry.offset << '|' << static_cast<int>(entry.byteOrder)
            << '|' << (entry.layout ? static_cast<int>(*entry.layout) : -1) << '|' << entry.unit
            << '|' << entry.useBitmask << '|' << static_cast<int>(entry.bitmaskOp) << '|'
            << entry.mask << '|' << entry.defaultValue.value_or(0xDEAD) << '|' << entry.invert
            << '|' << entry.function << '|' << entry.description << '|' << render(entry.unavailable)
            << '|' << render(entry.allowRead) << '|' << render(entry.allowWrite);
        for (auto const& source : entry.sources) {
            out << '|' << render(source);
        }
        out << '\n';
    }
    for (auto const& object : map.identification) {
        out << int{object.id} << '|' << object.text << '|'
            << (object.source ? render(*object.source) : "-") << '\n';
    }
    return out.str();
}

// A map that is read quickly must give what nlohmann's reading gives.
void expectBothReadingsAlike(std::string const& text, std::string const& name) {
    auto const quick = parseRegisterMapQuickly(text);
    ASSERT_TRUE(quick) << name << " was not read quickly";
    EXPECT_EQ(render(*quick), render(parseRegisterMapWithNlohmann(text))) << name;
}

TEST(RegisterMapTest, ShippedMapsReadQuicklyGiveWhatNlohmannsReadingGives) {
    expectBothReadingsAlike(embeddedMap(), "the built-in map");
    for (std::string const file : {"ups-map.json", "nut-ups-map.json"}) {
        expectBothReadingsAlike(readTextFile(std::string(TARSEL_DAEMON_MAPS_DIR) + "/" + file),
                                file);
    }
}

TEST(RegisterMapTest, EveryOptionReadQuicklyGivesWhatNlohmannsReadingGives) {
    std::string const map = R"({"description": "options", "comment": "c",
        "unavailable": {"mode": "exception", "code": 6},
        "identification": {"VendorName": {"text": "T"}, "ProductCode": {"text": "P"},
                           "MajorMinorRevision": {"source": {"device": "UPS",
                                                  "attribute": "model"}}},
        "entries": [
        {"name": "f", "table": "holding-registers", "address": 0, "encoder": "float",
         "multiplier": 0.5, "byteOrder": 1.0, "unit": "V", "comment": "x",
         "allowRead": ["10.0.0.0/8", "127.0.0.1"], "allowWrite": [],
         "source": {"device": 2, "path": [0, 3], "channel": "A", "data": "alarm-threshold-0"}},
        {"table": "input-registers", "address": 2, "encoder": "float32", "layout": "CDAB",
         "unavailable": {"mode": "sentinel", "word": 0},
         "source": {"device": "UPS", "channel": "B"}},
        {"name": "u", "table": "input-registers", "address": 4, "encoder": "uint16",
         "bitmask": "xor", "mask": 4294967295, "default": 7,
         "source": {"device": 2, "channel": "C", "alarm": "trigger"}},
        {"name": "s", "table": "input-registers", "address": 5, "encoder": "string", "size": 4,
         "source": {"device": 2, "attribute": 3}},
        {"name": "b", "table": "coils", "address": 1, "encoder": "boolean", "invert": true,
         "source": {"device": 2, "channel": "D"}},
        {"name": "h", "table": "holding-registers", "address": 9, "encoder": "float16",
         "offset": -40, "multiplier": 10, "source": {"device": 2, "channel": "E"}}
    ]})";
    expectBothReadingsAlike(map, "the map of every option");
}

TEST(RegisterMapTest, MapWithAnErrorIsNotReadQuickly) {
    EXPECT_FALSE(parseRegisterMapQuickly(mapWith(
        R"({"name": "v", "table": "holding-registers", "address": 10, "encoder": "float",
            "source": {"device": 2, "channel": "V"}, "colour": "red"})")));
    EXPECT_FALSE(parseRegisterMapQuickly("{\"entries\": ["));
}

// nlohmann keeps the last of two fields of one name; the map keeps reading so.
TEST(RegisterMapTest, RepeatedFieldTakesItsLastValue) {
    auto const map = parseRegisterMap(mapWith(
        R"({"name": "v", "table": "holding-registers", "address": 10, "encoder": "float",
            "address": 20, "source": {"device": 2, "channel": "V"}})"));
    EXPECT_EQ(map.entries.at(0).address, 20);
}

// -0 is no sub-device index to nlohmann (not an unsigned number).
TEST(RegisterMapTest, NegativeZeroInASubDevicePathIsRefused) {
    auto const errors = errorsOf(mapWith(
        R"({"name": "v", "table": "holding-registers", "address": 10, "encoder": "float",
            "source": {"device": 2, "path": [-0], "channel": "V"}})"));
    EXPECT_TRUE(
        contains(errors, "entries[0].source.path: expected an array of sub-device indexes"));
}

/* Text of every byte value, longer than one read block. */
std::string largeText() {
    std::string text;
    for (int i = 0; i < 200000; ++i) {
        text.push_back(static_cast<char>(i * 7 % 256));
    }
    return text;
}

std::string tempPath(char const* name) {
    return ::testing::TempDir() + "/" + name + "-" + std::to_string(::getpid());
}

TEST(RegisterMapTest, ReadTextFileReadsAFileWhole) {
    std::string const path = tempPath("whole");
    std::string const text = largeText();
    std::ofstream(path, std::ios::binary) << text;
    EXPECT_EQ(readTextFile(path), text);
    std::ofstream(path, std::ios::binary | std::ios::trunc).flush();
    EXPECT_EQ(readTextFile(path), "");
    std::remove(path.c_str());
}

// A pipe has no size to read at once: it is read block by block.
TEST(RegisterMapTest, ReadTextFileReadsAPipeToItsEnd) {
    std::string const path = tempPath("fifo");
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    std::string const text = largeText();
    std::thread writer([&] { std::ofstream(path, std::ios::binary) << text; });
    std::string const read = readTextFile(path);
    writer.join();
    EXPECT_EQ(read, text);
    std::remove(path.c_str());
}

TEST(RegisterMapTest, ReadTextFileNamesAFileItCannotRead) {
    std::string const path = tempPath("missing");
    try {
        readTextFile(path);
        ADD_FAILURE() << "a missing file was read";
    } catch (std::runtime_error const& error) {
        EXPECT_EQ(std::string(error.what()), "cannot read " + path);
    }
}

// A directory opens like a file but has no text; its size on ext4 is no
// length (2^63 - 1), which once made the read ask for that much memory.
TEST(RegisterMapTest, ReadTextFileNamesADirectoryItCannotRead) {
    std::string const path = tempPath("directory");
    ASSERT_EQ(::mkdir(path.c_str(), 0700), 0);
    try {
        readTextFile(path);
        ADD_FAILURE() << "a directory was read";
    } catch (std::runtime_error const& error) {
        EXPECT_EQ(std::string(error.what()), "cannot read " + path);
    } catch (std::exception const& error) {
        ADD_FAILURE() << "a directory gave " << error.what();
    }
    ::rmdir(path.c_str());
}

// One named by mistake (a log, a disk image) is refused from its size alone:
// the file here is sparse, and is not read.
TEST(RegisterMapTest, ReadTextFileRefusesAFileLargerThanAnyMapUnread) {
    std::string const path = tempPath("huge");
    std::ofstream(path, std::ios::binary).flush();
    ASSERT_EQ(::truncate(path.c_str(), static_cast<off_t>(kMaxTextFileBytes + 1)), 0);
    try {
        readTextFile(path);
        ADD_FAILURE() << "a file larger than the bound was read";
    } catch (TextFileTooLarge const& error) {
        EXPECT_EQ(std::string(error.what()),
                  "\"" + path +
                      "\" is larger than 64 MiB, more than any map, scenario or "
                      "settings file");
    }
    std::remove(path.c_str());
}

// A device has no size: what it gives is read up to the bound, then refused.
TEST(RegisterMapTest, ReadTextFileStopsReadingADeviceThatNeverEnds) {
    EXPECT_THROW(readTextFile("/dev/zero"), TextFileTooLarge);
}

TEST(RegisterMapTest, ReadTextFileReadsAFileOfTheBoundWhole) {
    std::string const path = tempPath("bound");
    std::string const text(kMaxTextFileBytes, ' ');
    std::ofstream(path, std::ios::binary) << text;
    EXPECT_EQ(readTextFile(path).size(), kMaxTextFileBytes);
    std::remove(path.c_str());
}

}  // namespace
}  // namespace tarsel::daemon
