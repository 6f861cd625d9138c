// What an entry looks like on the wire: the not-implemented value of each
// type, read through the request handler, and the reference columns of the
// description (wire type, scaling, access, unavailable value).
#include <gtest/gtest.h>

#include "DaemonTestSupport.h"
#include "EntryWire.h"
#include "MapWarnings.h"
#include "golden/float_vectors.h"

namespace tarsel::daemon {
namespace {

using testing::request;
using testing::TestDaemon;

// Every channel is missing: each entry reads as its unavailable value.
char const* const kNotImplementedMap = R"({"unavailable": {"mode": "not-implemented"}, "entries": [
  {"name": "i16", "table": "holding-registers", "address": 0, "encoder": "int16",
   "source": {"device": 2, "channel": "X"}},
  {"name": "u16", "table": "holding-registers", "address": 1, "encoder": "uint16",
   "source": {"device": 2, "channel": "X"}},
  {"name": "f16", "table": "holding-registers", "address": 2, "encoder": "float16",
   "multiplier": 10, "offset": 400, "source": {"device": 2, "channel": "X"}},
  {"name": "num", "table": "holding-registers", "address": 3, "encoder": "numeric-string",
   "source": {"device": 2, "channel": "X"}},
  {"name": "i32", "table": "holding-registers", "address": 4, "encoder": "int32",
   "source": {"device": 2, "channel": "X"}},
  {"name": "i32-swapped", "table": "holding-registers", "address": 6, "encoder": "int32",
   "byteOrder": 1, "source": {"device": 2, "channel": "X"}},
  {"name": "i32-dcba", "table": "holding-registers", "address": 8, "encoder": "int32",
   "layout": "DCBA", "source": {"device": 2, "channel": "X"}},
  {"name": "u32", "table": "holding-registers", "address": 10, "encoder": "uint32",
   "layout": "CDAB", "source": {"device": 2, "channel": "X"}},
  {"name": "f32", "table": "holding-registers", "address": 12, "encoder": "float32",
   "source": {"device": 2, "channel": "X"}},
  {"name": "f32-badc", "table": "holding-registers", "address": 14, "encoder": "float32",
   "layout": "BADC", "source": {"device": 2, "channel": "X"}},
  {"name": "lib-float", "table": "holding-registers", "address": 16, "encoder": "float",
   "source": {"device": 2, "channel": "X"}},
  {"name": "lib-float-1", "table": "holding-registers", "address": 18, "encoder": "float",
   "byteOrder": 1, "source": {"device": 2, "channel": "X"}},
  {"name": "text", "table": "holding-registers", "address": 20, "encoder": "string", "size": 3,
   "source": {"device": 2, "channel": "X"}},
  {"name": "word", "table": "holding-registers", "address": 23, "encoder": "composite-registers",
   "function": "status-word", "sources": [{"device": 2, "channel": "X"}]},
  {"name": "energy", "table": "holding-registers", "address": 24,
   "encoder": "composite-registers", "function": "kilo-counter32",
   "sources": [{"device": 2, "channel": "X"}, {"device": 2, "channel": "Y"}]},
  {"name": "sentinel", "table": "holding-registers", "address": 26, "encoder": "int16",
   "unavailable": {"mode": "sentinel", "word": 4660}, "source": {"device": 2, "channel": "X"}},
  {"name": "switch", "table": "coils", "address": 0, "encoder": "boolean",
   "source": {"device": 2, "channel": "X"}},
  {"name": "flags", "table": "discrete-inputs", "address": 0, "encoder": "composite-discretes",
   "function": "any-true", "sources": [{"device": 2, "channel": "X"}]},
  {"name": "exc", "table": "input-registers", "address": 0, "encoder": "int16",
   "unavailable": {"mode": "exception", "code": 11}, "source": {"device": 2, "channel": "X"}}
]})";

char const* const kRunningUps = R"({"devices": [{"id": 2, "name": "UPS", "channels": {
  "PowerDistribution.Status.OperatingStatus": {"uint32": 16}}}]})";

std::vector<std::uint16_t> words(golden::Pair const& pair) {
    return {pair[0], pair[1]};
}

std::vector<std::uint16_t> readHolding(TestDaemon& daemon, std::uint16_t address,
                                       std::uint16_t count) {
    Answer const answer = daemon.ask(request(3, address, count));
    EXPECT_EQ(answer.exception, 0) << address;
    return answer.registers;
}

EntryDefinition const& entryNamed(RegisterMapDefinition const& map, std::string const& name) {
    for (auto const& entry : map.entries) {
        if (entry.name == name) {
            return entry;
        }
    }
    throw std::out_of_range(name);
}

TEST(EntryWireTest, NotImplementedSixteenBitValuesAre0x8000SignedAnd0xFFFFUnsigned) {
    TestDaemon daemon(kNotImplementedMap, kRunningUps);
    // int16, uint16, float16 (a rounded magnitude: uint16), numeric string (uint16)
    EXPECT_EQ(readHolding(daemon, 0, 4),
              (std::vector<std::uint16_t>{0x8000, 0xFFFF, 0xFFFF, 0xFFFF}));
}

TEST(EntryWireTest, NotImplementedInt32Is0x80000000InTheEntrysLayout) {
    TestDaemon daemon(kNotImplementedMap, kRunningUps);
    EXPECT_EQ(readHolding(daemon, 4, 2), (std::vector<std::uint16_t>{0x8000, 0x0000}));
    EXPECT_EQ(readHolding(daemon, 6, 2), (std::vector<std::uint16_t>{0x0000, 0x8000}));
    EXPECT_EQ(readHolding(daemon, 8, 2), (std::vector<std::uint16_t>{0x0000, 0x0080}));
}

TEST(EntryWireTest, NotImplementedUint32IsAllOnes) {
    TestDaemon daemon(kNotImplementedMap, kRunningUps);
    EXPECT_EQ(readHolding(daemon, 10, 2), (std::vector<std::uint16_t>{0xFFFF, 0xFFFF}));
    EXPECT_EQ(readHolding(daemon, 24, 2), (std::vector<std::uint16_t>{0xFFFF, 0xFFFF}));
}

TEST(EntryWireTest, NotImplementedFloat32IsAQuietNaNInTheEntrysLayout) {
    TestDaemon daemon(kNotImplementedMap, kRunningUps);
    EXPECT_EQ(readHolding(daemon, 12, 2), (std::vector<std::uint16_t>{0x7FC0, 0x0000}));
    EXPECT_EQ(readHolding(daemon, 14, 2), (std::vector<std::uint16_t>{0xC07F, 0x0000}));
}

TEST(EntryWireTest, NotImplementedLibraryFloatIsTheNaNTheLinkedLibmodbusServes) {
    TestDaemon daemon(kNotImplementedMap, kRunningUps);
    auto const& nan = golden::floatVector(golden::kQuietNaN);
    EXPECT_EQ(readHolding(daemon, 16, 2), words(nan.setDcba));
    EXPECT_EQ(readHolding(daemon, 18, 2), words(nan.setBadc));
}

TEST(EntryWireTest, NotImplementedStringIsAllZeroAndBitfieldAllOnes) {
    TestDaemon daemon(kNotImplementedMap, kRunningUps);
    EXPECT_EQ(readHolding(daemon, 20, 3), (std::vector<std::uint16_t>{0, 0, 0}));
    EXPECT_EQ(readHolding(daemon, 23, 1), (std::vector<std::uint16_t>{0xFFFF}));
}

TEST(EntryWireTest, NotImplementedDiscretesReadZero) {
    TestDaemon daemon(kNotImplementedMap, kRunningUps);
    EXPECT_EQ(daemon.ask(request(1, 0, 1)).bits, (std::vector<std::uint8_t>{0}));
    EXPECT_EQ(daemon.ask(request(2, 0, 1)).bits, (std::vector<std::uint8_t>{0}));
}

TEST(EntryWireTest, AnEntrysOwnPolicyOverridesTheMapsNotImplemented) {
    TestDaemon daemon(kNotImplementedMap, kRunningUps);
    EXPECT_EQ(readHolding(daemon, 26, 1), (std::vector<std::uint16_t>{0x1234}));
    EXPECT_EQ(daemon.ask(request(4, 0, 1)).exception, 11);
}

TEST(EntryWireTest, WriteToANotImplementedEntryIsServerDeviceFailure) {
    TestDaemon daemon(kNotImplementedMap, kRunningUps);
    EXPECT_EQ(daemon.ask(testing::writeRegisters(0, {5})).exception, 4);
}

TEST(EntryWireTest, WireTextNamesTypeLayoutAndStringLength) {
    auto const map = parseRegisterMap(kNotImplementedMap);
    FloatLayoutReport const report = probeFloatLayout();
    auto wire = [&](char const* name) { return wireText(entryNamed(map, name), report); };
    EXPECT_EQ(wire("i16"), "int16");
    EXPECT_EQ(wire("u16"), "uint16");
    EXPECT_EQ(wire("f16"), "uint16");
    EXPECT_EQ(wire("num"), "uint16");
    EXPECT_EQ(wire("i32"), "int32 ABCD");
    EXPECT_EQ(wire("i32-swapped"), "int32 CDAB");
    EXPECT_EQ(wire("i32-dcba"), "int32 DCBA");
    EXPECT_EQ(wire("f32"), "float32 ABCD");
    EXPECT_EQ(wire("text"), "string 6 chars");
    EXPECT_EQ(wire("word"), "bitfield16");
    EXPECT_EQ(wire("energy"), "uint32 ABCD");
    EXPECT_EQ(wire("switch"), "bits");
    EXPECT_EQ(wire("lib-float"), "float32 libmodbus byte order 0: reads " +
                                     report.layouts[0].readLayout + ", writes " +
                                     report.layouts[0].writeLayout);
}

TEST(EntryWireTest, ScaleAndOffsetTurnTheRawRegisterIntoTheValue) {
    auto const map = parseRegisterMap(kNotImplementedMap);
    EntryWire const f16 = wireOf(entryNamed(map, "f16"));  // raw = value x 10 + 400
    EXPECT_DOUBLE_EQ(f16.scale, 0.1);
    EXPECT_DOUBLE_EQ(f16.offset, -40.0);
    EXPECT_EQ(plainNumber(f16.scale), "0.1");
    EXPECT_EQ(plainNumber(f16.offset), "-40");
    EXPECT_EQ(plainNumber(-0.0), "0");
    EXPECT_EQ(plainNumber(1234567.0), "1234567");  // no thousands separators
}

TEST(EntryWireTest, AccessIsReadWriteOnlyWhereAWriteCanReachTheValue) {
    auto const map = parseRegisterMap(R"({"entries": [
      {"name": "rw", "table": "holding-registers", "address": 0, "encoder": "int16",
       "source": {"device": 2, "channel": "X"}},
      {"name": "in", "table": "input-registers", "address": 0, "encoder": "int16",
       "source": {"device": 2, "channel": "X"}},
      {"name": "nobody", "table": "coils", "address": 0, "encoder": "boolean", "allowWrite": [],
       "source": {"device": 2, "channel": "X"}}]})");
    EXPECT_EQ(accessText(entryNamed(map, "rw"), false), "RW");
    EXPECT_EQ(accessText(entryNamed(map, "rw"), true), "R");  // the daemon refuses writes
    EXPECT_EQ(accessText(entryNamed(map, "in"), false), "R");
    EXPECT_EQ(accessText(entryNamed(map, "nobody"), false), "R");
}

TEST(EntryWireTest, UnavailableTextShowsTheWordsOrTheException) {
    auto const map = parseRegisterMap(kNotImplementedMap);
    EXPECT_EQ(unavailableText(entryNamed(map, "i16")), "0x8000");
    EXPECT_EQ(unavailableText(entryNamed(map, "f32")), "0x7FC0 0x0000 (NaN)");
    EXPECT_EQ(unavailableText(entryNamed(map, "text")), "0x0000 in all 3 registers");
    EXPECT_EQ(unavailableText(entryNamed(map, "switch")), "0");
    EXPECT_EQ(unavailableText(entryNamed(map, "exc")), "exception 0x0B");
}

TEST(MapWarningsTest, LibraryFloatUnderALibmodbusThatDoesNotRoundTripIsNamed) {
    auto const map = parseRegisterMap(kNotImplementedMap);
    FloatLayoutReport report;
    report.libmodbusVersion = "9.9.9";
    FloatLayout broken;
    broken.byteOrder = 0;
    broken.decoded = 197632.0f;
    broken.readLayout = "CDAB";
    broken.writeLayout = "DCBA";
    FloatLayout fine = broken;
    fine.byteOrder = 1;
    fine.decoded = FloatLayout::kProbeValue;
    report.layouts = {broken, fine};
    auto const lines = mapWarnings(map, report);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("encoder \"float\" in byte order 0: libmodbus 9.9.9 serves layout "
                            "CDAB but decodes writes as DCBA"),
              std::string::npos)
        << lines[0];
    EXPECT_NE(lines[0].find("entries[10] \"lib-float\""), std::string::npos) << lines[0];
    EXPECT_EQ(lines[0].find("lib-float-1"), std::string::npos) << lines[0];  // order 1 is fine
}

TEST(MapWarningsTest, NothingIsSaidWhenEveryFloatRoundTripsOrNoneUsesTheLibrary) {
    FloatLayoutReport report;
    FloatLayout fine;
    fine.decoded = FloatLayout::kProbeValue;
    report.layouts = {fine};
    EXPECT_TRUE(mapWarnings(parseRegisterMap(kNotImplementedMap), report).empty());
    report.layouts[0].decoded = 0.0f;
    auto const noLibraryFloat = parseRegisterMap(R"({"entries": [
      {"name": "f", "table": "holding-registers", "address": 0, "encoder": "float32",
       "source": {"device": 2, "channel": "X"}}]})");
    EXPECT_TRUE(mapWarnings(noLibraryFloat, report).empty());
}

TEST(MapWarningsTest, AnXorBitmaskAnyClientMayWriteIsNamed) {
    FloatLayoutReport report;
    auto const map = parseRegisterMap(R"({"entries": [
      {"name": "test", "table": "holding-registers", "address": 0, "encoder": "uint16",
       "bitmask": "xor", "mask": 1, "source": {"device": 2, "channel": "X"}},
      {"name": "flags", "table": "input-registers", "address": 0, "encoder": "uint16",
       "bitmask": "xor", "mask": 3, "source": {"device": 2, "channel": "X"}},
      {"name": "locked", "table": "holding-registers", "address": 1, "encoder": "uint16",
       "bitmask": "xor", "mask": 1, "allowWrite": [], "source": {"device": 2, "channel": "X"}},
      {"name": "plain", "table": "holding-registers", "address": 2, "encoder": "uint16",
       "bitmask": "none", "mask": 1, "source": {"device": 2, "channel": "X"}}]})");
    EXPECT_EQ(mapWarnings(map, report),
              (std::vector<std::string>{
                  "entries[0] \"test\": bitmask \"xor\" in holding-registers: every write "
                  "stores the mask (1) whatever the client writes; serve it from "
                  "input-registers, or refuse its writes with \"allowWrite\": []"}));
}

TEST(MapWarningsTest, StartUpLogsTheSameWarningAsCheck) {
    TestDaemon daemon(kNotImplementedMap, kRunningUps);
    auto const expected =
        mapWarnings(parseRegisterMap(kNotImplementedMap), daemon.core().floatLayout());
    for (auto const& line : expected) {
        EXPECT_NE(daemon.logText().find("warning: map: " + line), std::string::npos) << line;
    }
    bool const anyBroken = !daemon.core().floatLayout().layouts.at(0).roundTrips() ||
                           !daemon.core().floatLayout().layouts.at(1).roundTrips();
    EXPECT_EQ(expected.empty(), !anyBroken);  // the map uses both byte orders
}

}  // namespace
}  // namespace tarsel::daemon
