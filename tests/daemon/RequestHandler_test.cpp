// How the daemon answers Modbus requests: data from the encoders, and the
// exception of each refused request.
#include <gtest/gtest.h>

#include <modbus.h>

#include "DaemonTestSupport.h"

namespace tarsel::daemon {
namespace {

using testing::request;
using testing::TestDaemon;

char const* const kMap = R"({"entries": [
  {"name": "v", "table": "holding-registers", "address": 0, "encoder": "float",
   "source": {"device": 2, "channel": "V"}},
  {"name": "t", "table": "holding-registers", "address": 2, "encoder": "int16",
   "source": {"device": 2, "channel": "T"}},
  {"name": "label", "table": "holding-registers", "address": 3, "encoder": "string", "size": 3,
   "source": {"device": 2, "channel": "Label"}},
  {"name": "short", "table": "holding-registers", "address": 6, "encoder": "string", "size": 2,
   "source": {"device": 2, "channel": "Short"}},
  {"name": "u", "table": "holding-registers", "address": 10, "encoder": "uint32",
   "source": {"device": 2, "channel": "U"}},
  {"name": "bad", "table": "holding-registers", "address": 20, "encoder": "numeric-string",
   "source": {"device": 2, "channel": "Bad"}},
  {"name": "missing", "table": "holding-registers", "address": 30, "encoder": "int16",
   "source": {"device": 2, "channel": "Missing"}},
  {"name": "missing-exc", "table": "holding-registers", "address": 31, "encoder": "int16",
   "unavailable": {"mode": "exception", "code": 11},
   "source": {"device": 2, "channel": "Missing"}},
  {"name": "switch", "table": "coils", "address": 0, "encoder": "boolean",
   "source": {"device": 2, "channel": "Switch"}},
  {"name": "inverted", "table": "coils", "address": 1, "encoder": "boolean", "invert": true,
   "source": {"device": 2, "channel": "Inverted"}},
  {"name": "flag", "table": "discrete-inputs", "address": 0, "encoder": "boolean",
   "source": {"device": 2, "channel": "Switch"}},
  {"name": "load", "table": "input-registers", "address": 0, "encoder": "uint16",
   "source": {"device": 2, "channel": "U"}}
]})";

char const* const kRunningUps = R"({"devices": [{"id": 2, "name": "UPS", "channels": {
  "PowerDistribution.Status.OperatingStatus": {"uint32": 16},
  "V": {"float": 12.5}, "T": -3, "Label": "ABCDEFGH", "Short": "A", "U": {"uint32": 70000},
  "Bad": "abc", "Switch": true, "Inverted": true}}]})";

char const* const kStartingUps = R"({"devices": [{"id": 2, "name": "UPS", "channels": {
  "PowerDistribution.Status.OperatingStatus": {"uint32": 2}, "V": {"float": 1.0}}}],
  "events": [{"at": 1, "do": "set-channel", "device": 2,
              "channel": "PowerDistribution.Status.OperatingStatus", "value": {"uint32": 16}}]})";

std::vector<uint16_t> floatWords(float value) {
    uint16_t pair[2];
    modbus_set_float_dcba(value, pair);
    return {pair[0], pair[1]};
}

TEST(RequestHandlerTest, ReadHoldingRegistersServesTheEncodersWords) {
    TestDaemon daemon(kMap, kRunningUps);
    Answer const answer = daemon.ask(request(3, 0, 3));
    ASSERT_EQ(answer.exception, 0);
    auto const v = floatWords(12.5f);
    EXPECT_EQ(answer.registers, (std::vector<uint16_t>{v[0], v[1], 0xFFFD}));
}

TEST(RequestHandlerTest, ReadsOfDiscretesAndInputRegistersComeFromTheirTables) {
    TestDaemon daemon(kMap, kRunningUps);
    EXPECT_EQ(daemon.ask(request(1, 0, 2)).bits, (std::vector<uint8_t>{1, 0}));
    EXPECT_EQ(daemon.ask(request(2, 0, 1)).bits, (std::vector<uint8_t>{1}));
    // 70000 keeps its low 16 bits in one register
    EXPECT_EQ(daemon.ask(request(4, 0, 1)).registers, (std::vector<uint16_t>{70000 & 0xFFFF}));
}

TEST(RequestHandlerTest, WellFormedRequestsForServedDataAreGatewayPathUnavailableUntilTheUpsRuns) {
    TestDaemon daemon(kMap, kStartingUps);
    EXPECT_EQ(daemon.ask(request(3, 0, 2)).exception, 0x0A);
    EXPECT_EQ(daemon.ask(request(4, 0, 1)).exception, 0x0A);
    EXPECT_EQ(daemon.ask(request(1, 0, 2)).exception, 0x0A);
    daemon.core().scenario()->playFirst(1.0);
    Answer const answer = daemon.ask(request(3, 0, 2));
    EXPECT_EQ(answer.exception, 0);
    EXPECT_EQ(answer.registers, floatWords(1.0f));
}

TEST(RequestHandlerTest, IllegalFunctionIsIllegalFunctionEvenWhileTheMapIsNotAvailable) {
    TestDaemon daemon(kMap, kStartingUps);
    ASSERT_FALSE(daemon.core().availability().isAvailable());
    EXPECT_EQ(daemon.ask(request(0x17, 0, 1)).exception, 0x01);
    EXPECT_EQ(daemon.ask(request(0x08, 0, 0)).exception, 0x01);
    EXPECT_EQ(daemon.ask(request(0x00, 0, 1)).exception, 0x01);
    // Read Device Identification with an MEI type other than 0x0E.
    EXPECT_EQ(daemon.ask(testing::frame({0x2B, 0x0D, 0x01, 0x00})).exception, 0x01);
}

TEST(RequestHandlerTest, MalformedRequestIsIllegalDataValueEvenWhileTheMapIsNotAvailable) {
    TestDaemon daemon(kMap, kStartingUps);
    EXPECT_EQ(daemon.ask(request(3, 0, 0)).exception, 0x03);                    // quantity 0
    EXPECT_EQ(daemon.ask(request(3, 0, 126)).exception, 0x03);                  // beyond 125
    EXPECT_EQ(daemon.ask(testing::frame({3, 0, 0})).exception, 0x03);           // truncated
    EXPECT_EQ(daemon.ask(testing::frame({3, 0, 0, 0, 2, 0})).exception, 0x03);  // overlong
    EXPECT_EQ(daemon.ask(request(5, 0, 0x1234)).exception, 0x03);               // coil value
    auto wrongCount = testing::writeRegisters(0, {1, 2});
    wrongCount[12] = 3;  // byte count 3 for two registers
    EXPECT_EQ(daemon.ask(wrongCount).exception, 0x03);
    EXPECT_EQ(TestDaemon::channel(2, "V"), kq::CValue(1.0f));
}

TEST(RequestHandlerTest, UnmappedRangeIsIllegalDataAddressEvenWhileTheMapIsNotAvailable) {
    TestDaemon daemon(kMap, kStartingUps);
    EXPECT_EQ(daemon.ask(request(3, 100, 2)).exception, 0x02);    // touches no entry
    EXPECT_EQ(daemon.ask(request(3, 1, 2)).exception, 0x02);      // starts inside one
    EXPECT_EQ(daemon.ask(request(3, 65535, 2)).exception, 0x02);  // past 65535
    EXPECT_EQ(daemon.ask(testing::writeRegisters(6, {0, 0, 0, 0, 0, 0})).exception, 0x02);
    EXPECT_EQ(daemon.ask(request(6, 2, 7)).exception, 0x0A);  // mapped: not ready
}

TEST(RequestHandlerTest, AClientNotAllowedLearnsNothingOfTheMapWhileItIsNotAvailable) {
    TestDaemon daemon(kMap, kStartingUps);
    AccessRules rules;
    applyAllowOption(rules, false, "127.0.0.1");
    applyAllowOption(rules, true, "127.0.0.1");
    RequestOrigin const outsider{"127.0.0.2:5020", 0x7F000002, &rules, true};
    auto const ask = [&](std::vector<std::uint8_t> const& bytes) {
        return daemon.core().handler().handle(bytes.data(), bytes.size(), outsider).exception;
    };
    EXPECT_EQ(ask(request(3, 100, 2)), 0x01);  // not 0x02: the map stays hidden
    EXPECT_EQ(ask(request(3, 0, 2)), 0x01);
    EXPECT_EQ(ask(request(6, 2, 7)), 0x01);
}

TEST(RequestHandlerTest, RangeThatTouchesNoEntryIsIllegalDataAddress) {
    TestDaemon daemon(kMap, kRunningUps);
    EXPECT_EQ(daemon.ask(request(3, 100, 2)).exception, 2);
    EXPECT_EQ(daemon.ask(request(4, 1, 1)).exception, 2);
}

TEST(RequestHandlerTest, RangeStartingInsideAnEntryIsIllegalDataAddress) {
    TestDaemon daemon(kMap, kRunningUps);
    EXPECT_EQ(daemon.ask(request(3, 1, 2)).exception, 2);
}

TEST(RequestHandlerTest, RangeEndingInsideAnEntryIsIllegalDataAddress) {
    TestDaemon daemon(kMap, kRunningUps);
    EXPECT_EQ(daemon.ask(request(3, 0, 1)).exception, 2);
    EXPECT_EQ(daemon.ask(request(3, 2, 2)).exception, 2);
}

TEST(RequestHandlerTest, HolesBetweenEntriesReadAsZero) {
    TestDaemon daemon(kMap, kRunningUps);
    Answer const answer = daemon.ask(request(3, 6, 6));  // 6-7 short, 8-9 hole, 10-11 u
    ASSERT_EQ(answer.exception, 0);
    EXPECT_EQ(answer.registers, (std::vector<uint16_t>{0x4100, 0, 0, 0, 0x0001, 0x1170}));
}

TEST(RequestHandlerTest, AnswerBuiltInRecycledBuffersHasItsOwnSizeAndZeroHoles) {
    TestDaemon daemon(kMap, kRunningUps);
    RequestHandler& handler = daemon.core().handler();
    // A full answer hands its buffers back; the next, shorter answer with a
    // hole where the full one had words is built in them.
    Answer full = daemon.ask(request(3, 0, 12));
    ASSERT_EQ(full.exception, 0);
    handler.recycle(std::move(full));
    Answer const holes = daemon.ask(request(3, 6, 6));  // 6-7 short, 8-9 hole, 10-11 u
    ASSERT_EQ(holes.exception, 0);
    EXPECT_EQ(holes.registers, (std::vector<uint16_t>{0x4100, 0, 0, 0, 0x0001, 0x1170}));
    Answer bits = daemon.ask(request(1, 0, 2));
    handler.recycle(std::move(bits));
    EXPECT_EQ(daemon.ask(request(1, 0, 1)).bits, (std::vector<uint8_t>{1}));
}

TEST(RequestHandlerTest, RefusedAnswerInRecycledBuffersCarriesNoData) {
    TestDaemon daemon(kMap, kRunningUps);
    Answer full = daemon.ask(request(3, 0, 12));
    daemon.core().handler().recycle(std::move(full));
    Answer const refused = daemon.ask(request(3, 1, 2));
    EXPECT_EQ(refused.exception, 2);
    EXPECT_TRUE(refused.registers.empty());
    EXPECT_TRUE(refused.bits.empty());
}

TEST(RequestHandlerTest, WriteOverAHoleIsIllegalDataAddress) {
    TestDaemon daemon(kMap, kRunningUps);
    EXPECT_EQ(daemon.ask(testing::writeRegisters(6, {0, 0, 0, 0, 0, 0})).exception, 2);
    EXPECT_EQ(TestDaemon::channel(2, "Short"), kq::CValue("A"));
}

TEST(RequestHandlerTest, QuantityBeyondTheProtocolLimitIsIllegalDataValue) {
    TestDaemon daemon(kMap, kRunningUps);
    EXPECT_EQ(daemon.ask(request(3, 0, 0)).exception, 3);
    EXPECT_EQ(daemon.ask(request(3, 0, 126)).exception, 3);
    EXPECT_EQ(daemon.ask(request(1, 0, 2001)).exception, 3);
}

TEST(RequestHandlerTest, RangePastAddress65535IsIllegalDataAddress) {
    TestDaemon daemon(kMap, kRunningUps);
    EXPECT_EQ(daemon.ask(request(3, 65535, 2)).exception, 2);
}

TEST(RequestHandlerTest, UnsupportedFunctionIsIllegalFunction) {
    TestDaemon daemon(kMap, kRunningUps);
    EXPECT_EQ(daemon.ask(request(0x17, 0, 1)).exception, 1);
    EXPECT_EQ(daemon.ask(request(0x08, 0, 0)).exception, 1);
}

TEST(RequestHandlerTest, FunctionCodesFrom0x80UpCloseTheConnectionWhateverElseHolds) {
    TestDaemon starting(kMap, kStartingUps);  // not available: others get 0x0A
    for (int const function : {0x80, 0x81, 0x83, 0xFF}) {
        Answer const answer = starting.ask(request(static_cast<std::uint8_t>(function), 0, 1));
        EXPECT_TRUE(answer.closeConnection) << function;
        EXPECT_EQ(answer.function, function);
    }
    EXPECT_FALSE(starting.ask(request(0x7F, 0, 1)).closeConnection);
    EXPECT_TRUE(starting.ask(request(0x81, 0, 1, 9)).closeConnection);  // other unit too
}

TEST(RequestHandlerTest, OtherUnitIdIsGatewayTargetFailedButZeroAnd255AreServed) {
    TestDaemon daemon(kMap, kRunningUps);
    EXPECT_EQ(daemon.ask(request(3, 0, 2, 7)).exception, 0x0B);
    EXPECT_EQ(daemon.ask(request(3, 0, 2, 0)).exception, 0);
    EXPECT_EQ(daemon.ask(request(3, 0, 2, 255)).exception, 0);
}

TEST(RequestHandlerTest, UnavailableValueReadsAsTheSentinelByDefault) {
    TestDaemon daemon(kMap, kRunningUps);
    Answer const answer = daemon.ask(request(3, 30, 1));
    EXPECT_EQ(answer.exception, 0);
    EXPECT_EQ(answer.registers, (std::vector<uint16_t>{0xFFFF}));
}

TEST(RequestHandlerTest, UnavailableValueWithExceptionPolicyAnswersItsCode) {
    TestDaemon daemon(kMap, kRunningUps);
    EXPECT_EQ(daemon.ask(request(3, 30, 2)).exception, 11);
}

TEST(RequestHandlerTest, WriteToAnUnavailableValueIsRefused) {
    TestDaemon daemon(kMap, kRunningUps);
    EXPECT_EQ(daemon.ask(request(6, 30, 5)).exception, 4);
    EXPECT_EQ(daemon.ask(request(6, 31, 5)).exception, 11);
}

TEST(RequestHandlerTest, TheAuditLineOfAWriteToAnUnavailableEntryShowsNoValueBeforeIt) {
    // Not the zeros an encoder without a value returns: the entry never
    // served them.
    TestDaemon daemon(kMap, kRunningUps);
    EXPECT_EQ(daemon.ask(request(6, 30, 5)).exception, 4);
    EXPECT_NE(daemon.logText().find("write \"missing\" holding-registers 30: (not available) -> "
                                    "[0x0005]: refused (not available)"),
              std::string::npos)
        << daemon.logText();
}

TEST(RequestHandlerTest, AWriteThatAMissingSourceWouldDropIsRefused) {
    // A uint16 with a default reads as available over a missing channel, and
    // status bits as soon as one source is there; the library drops what
    // goes to a missing item, so these writes would be answered as done.
    char const* const map = R"({"entries": [
      {"name": "limit", "table": "holding-registers", "address": 0, "encoder": "uint16",
       "default": 7, "source": {"device": 2, "channel": "Missing"}},
      {"name": "bits", "table": "coils", "address": 0, "encoder": "composite-discretes",
       "function": "status-bits",
       "sources": [{"device": 2, "channel": "A"}, {"device": 2, "channel": "Missing"}]},
      {"name": "exc", "table": "holding-registers", "address": 1, "encoder": "uint16",
       "default": 7, "unavailable": {"mode": "exception", "code": 11},
       "source": {"device": 2, "channel": "Missing"}}]})";
    char const* const ups = R"({"devices": [{"id": 2, "name": "UPS", "channels": {
      "PowerDistribution.Status.OperatingStatus": {"uint32": 16}, "A": true}}]})";
    TestDaemon daemon(map, ups, false);
    ASSERT_EQ(daemon.ask(request(3, 0, 1)).exception, 0) << "reads as available";
    EXPECT_EQ(daemon.ask(request(6, 0, 5)).exception, 4);
    EXPECT_EQ(daemon.ask(request(6, 1, 5)).exception, 11);
    EXPECT_EQ(daemon.ask(testing::writeCoils(0, {false, true})).exception, 4);
    EXPECT_EQ(TestDaemon::channel(2, "A"), kq::CValue(true)) << "nothing of it written";
    EXPECT_NE(daemon.logText().find("write \"bits\" coils 0: 10 -> 01: refused (not available)"),
              std::string::npos)
        << daemon.logText();
    // Once the item is there, the same write is carried out whole.
    cdshost::Store::instance().addChannel(2, "Missing", kq::CValue(false));
    EXPECT_EQ(daemon.ask(testing::writeCoils(0, {false, true})).exception, 0);
    EXPECT_EQ(TestDaemon::channel(2, "A"), kq::CValue(false));
    EXPECT_EQ(TestDaemon::channel(2, "Missing"), kq::CValue(true));
}

TEST(RequestHandlerTest, EncoderThatThrowsGivesServerDeviceFailureAndALogLine) {
    TestDaemon daemon(kMap, kRunningUps);
    EXPECT_EQ(daemon.ask(request(3, 20, 1)).exception, 4);
    EXPECT_NE(daemon.logText().find("error: entries[5] \"bad\": read failed: stoul; answered "
                                    "Server Device Failure; client=local unit=1 function=3 "
                                    "address=20\n"),
              std::string::npos)
        << daemon.logText();
}

TEST(RequestHandlerTest, EntriesOverAChannelThatHeldATextServeItAgainOnceItHoldsANumber) {
    char const* const map = R"({"entries": [
      {"name": "f32", "table": "holding-registers", "address": 0, "encoder": "float32",
       "source": {"device": 2, "channel": "F"}},
      {"name": "lib", "table": "holding-registers", "address": 2, "encoder": "float",
       "source": {"device": 2, "channel": "F"}},
      {"name": "i16", "table": "holding-registers", "address": 4, "encoder": "int16",
       "source": {"device": 2, "channel": "F"}},
      {"name": "u16", "table": "holding-registers", "address": 5, "encoder": "uint16",
       "multiplier": 10, "source": {"device": 2, "channel": "F"}},
      {"name": "txt", "table": "holding-registers", "address": 6, "encoder": "string", "size": 2,
       "source": {"device": 2, "channel": "F"}},
      {"name": "on", "table": "coils", "address": 0, "encoder": "boolean",
       "source": {"device": 2, "channel": "F"}}]})";
    char const* const ups = R"({"devices": [{"id": 2, "name": "UPS", "channels": {
      "PowerDistribution.Status.OperatingStatus": {"uint32": 16}, "F": {"float": 1.5}}}]})";
    TestDaemon daemon(map, ups, false);
    // A text where the entries expect a number (a UPS that reports "unknown"
    // for a while): none of them can convert it, so a read of one is Server
    // Device Failure, and the text entry serves it.
    // Whoever writes it (a scenario step, the NUT mirror, a client through
    // the text entry) is not failed by the entries' listeners.
    EXPECT_NO_THROW(TestDaemon::setChannel(2, "F", kq::CValue("unknown")));
    EXPECT_EQ(daemon.ask(request(3, 0, 2)).exception, 4);
    EXPECT_EQ(daemon.ask(request(3, 6, 2)).registers, (std::vector<std::uint16_t>{0x756E, 0x6B6E}));
    EXPECT_NO_THROW(TestDaemon::setChannel(2, "F", kq::CValue(2.5f)));
    // Once it holds a number again, every entry over it serves that number.
    Answer const numbers = daemon.ask(request(3, 0, 6));
    ASSERT_EQ(numbers.exception, 0);
    EXPECT_EQ(numbers.registers[0], 0x4020);  // 2.5 in ABCD
    EXPECT_EQ(numbers.registers[1], 0x0000);
    EXPECT_EQ((std::vector<std::uint16_t>{numbers.registers[2], numbers.registers[3]}),
              floatWords(2.5f));
    EXPECT_EQ(numbers.registers[4], 2);   // int16 truncates
    EXPECT_EQ(numbers.registers[5], 20);  // the unsigned value 2, x10
    EXPECT_EQ(daemon.ask(request(3, 6, 2)).registers,
              (std::vector<std::uint16_t>{0x322E, 0x3500}));  // "2.5"
    EXPECT_EQ(daemon.ask(request(1, 0, 1)).bits, (std::vector<std::uint8_t>{1}));
}

TEST(RequestHandlerTest, RepeatedEncoderFailuresAreRateLimited) {
    TestDaemon daemon(kMap, kRunningUps);
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(daemon.ask(request(3, 20, 1)).exception, 4);
    }
    std::string const log = daemon.logText();
    std::size_t lines = 0;
    for (auto at = log.find(": read failed"); at != std::string::npos;
         at = log.find(": read failed", at + 1)) {
        ++lines;
    }
    EXPECT_EQ(lines, Log::kBurstPerMinute) << log;
}

TEST(RequestHandlerTest, ExceptionsAreLoggedInVerboseModeWithTheRequestsFields) {
    TestDaemon daemon(kMap, kRunningUps);
    Answer const answer = daemon.core().handler().handle(request(3, 40, 1, 0).data(), 12,
                                                         RequestOrigin{"127.0.0.2:5020"});
    EXPECT_EQ(answer.exception, 2);
    EXPECT_NE(daemon.logText().find(
                  "debug: exception 2; client=127.0.0.2:5020 unit=0 function=3 address=40\n"),
              std::string::npos)
        << daemon.logText();
}

TEST(RequestHandlerTest, WriteSingleRegisterReachesTheStore) {
    TestDaemon daemon(kMap, kRunningUps);
    Answer const answer = daemon.ask(request(6, 2, 7));
    EXPECT_EQ(answer.exception, 0);
    EXPECT_EQ(TestDaemon::channel(2, "T"), kq::CValue(7));
}

TEST(RequestHandlerTest, WrittenFloatIsDecodedByTheLibmodbusGetter) {
    TestDaemon daemon(kMap, kRunningUps);
    uint16_t pair[2] = {0x0000, 0x4841};
    ASSERT_EQ(daemon.ask(testing::writeRegisters(0, {pair[0], pair[1]})).exception, 0);
    EXPECT_EQ(TestDaemon::channel(2, "V"), kq::CValue(modbus_get_float_dcba(pair)));
}

TEST(RequestHandlerTest, WriteSpanningTwoEntriesWritesBoth) {
    TestDaemon daemon(kMap, kRunningUps);
    ASSERT_EQ(daemon.ask(testing::writeRegisters(2, {9, 0x4142, 0x4300, 0})).exception, 0);
    EXPECT_EQ(TestDaemon::channel(2, "T"), kq::CValue(9));
    EXPECT_EQ(TestDaemon::channel(2, "Label"), kq::CValue("ABC"));
}

TEST(RequestHandlerTest, WriteSingleCoilTakesOnlyOnAndOff) {
    TestDaemon daemon(kMap, kRunningUps);
    EXPECT_EQ(daemon.ask(request(5, 0, 0x1234)).exception, 3);
    EXPECT_EQ(daemon.ask(request(5, 0, 0x0000)).exception, 0);
    EXPECT_EQ(TestDaemon::channel(2, "Switch"), kq::CValue(false));
}

TEST(RequestHandlerTest, WriteCoilsHonoursInversion) {
    TestDaemon daemon(kMap, kRunningUps);
    ASSERT_EQ(daemon.ask(testing::writeCoils(0, {true, true})).exception, 0);
    EXPECT_EQ(TestDaemon::channel(2, "Switch"), kq::CValue(true));
    EXPECT_EQ(TestDaemon::channel(2, "Inverted"), kq::CValue(false));
}

TEST(RequestHandlerTest, WriteWithAByteCountThatDoesNotMatchIsIllegalDataValue) {
    TestDaemon daemon(kMap, kRunningUps);
    auto bytes = testing::writeRegisters(2, {1});
    bytes[12] = 4;  // the byte count claims two registers
    EXPECT_EQ(daemon.ask(bytes).exception, 3);
}

TEST(RequestHandlerTest, WritesToReadOnlyTablesAreNotPossible) {
    TestDaemon daemon(kMap, kRunningUps);
    // Writes address coils and holding registers only; input register 0 is
    // not a holding register, so the range touches no entry.
    EXPECT_EQ(daemon.ask(request(6, 40, 1)).exception, 2);
}

TEST(RequestHandlerTest, StringIsCutAndPaddedToItsReservedSize) {
    TestDaemon daemon(kMap, kRunningUps);
    EXPECT_EQ(daemon.ask(request(3, 3, 3)).registers,
              (std::vector<uint16_t>{0x4142, 0x4344, 0x4546}));
    EXPECT_EQ(daemon.ask(request(3, 6, 2)).registers, (std::vector<uint16_t>{0x4100, 0x0000}));
}

TEST(RequestHandlerTest, TruncatedFrameIsIllegalDataValue) {
    TestDaemon daemon(kMap, kRunningUps);
    auto const bytes = testing::frame({3, 0, 0});
    EXPECT_EQ(daemon.ask(bytes).exception, 3);
}

Answer askFrom(TestDaemon& daemon, std::vector<std::uint8_t> const& bytes,
               RequestOrigin const& origin) {
    return daemon.core().handler().handle(bytes.data(), bytes.size(), origin);
}

RequestOrigin stranger(AccessRules const& rules) {
    return {"127.0.0.2:5020", 0x7F000002, &rules, true};
}

TEST(RequestHandlerTest, AWriteFromAnAddressNotAllowedIsIllegalFunctionAndWritesNothing) {
    TestDaemon daemon(kMap, kRunningUps);
    AccessRules rules;
    applyAllowOption(rules, true, "127.0.0.1");
    EXPECT_EQ(askFrom(daemon, request(6, 2, 42), stranger(rules)).exception, 0x01);
    EXPECT_EQ(TestDaemon::channel(2, "T"), kq::CValue(-3));
    EXPECT_NE(daemon.logText().find("warning: write to holding-registers 2: refused (not allowed "
                                    "for this client); client=127.0.0.2:5020 unit=1 function=6 "
                                    "address=2\n"),
              std::string::npos)
        << daemon.logText();
    RequestOrigin const local{"127.0.0.1:5021", 0x7F000001, &rules, true};
    EXPECT_EQ(askFrom(daemon, request(6, 2, 42), local).exception, 0);
    EXPECT_EQ(TestDaemon::channel(2, "T"), kq::CValue(42));
}

TEST(RequestHandlerTest, AStrangersRefusedWritesDoNotHideTheFirstWriteRefusedForAnotherReason) {
    TestDaemon daemon(kMap, kRunningUps);
    AccessRules rules;
    applyAllowOption(rules, true, "127.0.0.1");
    for (std::size_t i = 0; i <= Log::kBurstPerMinute; ++i) {
        EXPECT_EQ(askFrom(daemon, request(6, 2, 42), stranger(rules)).exception, 0x01);
    }
    RequestOrigin const local{"127.0.0.1:5021", 0x7F000001, &rules, true};
    EXPECT_EQ(askFrom(daemon, request(6, 30, 5), local).exception, 4);
    EXPECT_NE(daemon.logText().find("write \"missing\" holding-registers 30: (not available) -> "
                                    "[0x0005]: refused (not available); client=127.0.0.1:5021"),
              std::string::npos)
        << daemon.logText();
}

TEST(RequestHandlerTest, AReadFromAnAddressNotAllowedIsIllegalFunction) {
    TestDaemon daemon(kMap, kRunningUps);
    AccessRules rules;
    applyAllowOption(rules, false, "input-registers=127.0.0.1");
    EXPECT_EQ(askFrom(daemon, request(4, 0, 1), stranger(rules)).exception, 0x01);
    EXPECT_EQ(askFrom(daemon, request(3, 0, 2), stranger(rules)).exception, 0);
}

TEST(RequestHandlerTest, ARequestRoutedToAnotherUnitIsJudgedByTheSameClientsRules) {
    TestDaemon daemon(kMap, kRunningUps);
    RequestHandler second(daemon.core().map(), daemon.core().availability(), daemon.log(), 2);
    daemon.core().handler().routeUnit(2, second);
    AccessRules rules;
    applyAllowOption(rules, false, "input-registers=127.0.0.1");
    EXPECT_EQ(askFrom(daemon, request(4, 0, 1, 2), stranger(rules)).exception, 0x01);
    RequestOrigin const readOnly{"127.0.0.1:5021", 0x7F000001, &rules, false};
    EXPECT_EQ(askFrom(daemon, request(6, 2, 42, 2), readOnly).exception, 0x01);
    EXPECT_EQ(TestDaemon::channel(2, "T"), kq::CValue(-3));
    EXPECT_NE(daemon.logText().find("client=127.0.0.2:5020 unit=2 function=4"), std::string::npos)
        << daemon.logText();
    RequestOrigin const local{"127.0.0.1:5021", 0x7F000001, &rules, true};
    EXPECT_EQ(askFrom(daemon, request(4, 0, 1, 2), local).exception, 0);
}

TEST(RequestHandlerTest, AReadOnlyRoleCannotWriteButReads) {
    TestDaemon daemon(kMap, kRunningUps);
    AccessRules rules;
    RequestOrigin const readOnly{"127.0.0.1:5021", 0x7F000001, &rules, false};
    EXPECT_EQ(askFrom(daemon, request(5, 0, 0x0000), readOnly).exception, 0x01);
    EXPECT_EQ(TestDaemon::channel(2, "Switch"), kq::CValue(true));
    EXPECT_EQ(askFrom(daemon, request(1, 0, 1), readOnly).bits, (std::vector<uint8_t>{1}));
    EXPECT_NE(daemon.logText().find("refused (the client's role is read-only)"), std::string::npos);
}

TEST(RequestHandlerTest, RequestLinesOfATlsClientNameItsCertificateAfterItsAddress) {
    TestDaemon daemon(kMap, kRunningUps);
    AccessRules rules;
    RequestOrigin origin{"127.0.0.1:5021", 0x7F000001, &rules, true};
    origin.certificate = "certificate=\"/CN=scada\" role=\"operator\"";
    EXPECT_EQ(askFrom(daemon, request(6, 2, 42), origin).exception, 0);
    EXPECT_NE(daemon.logText().find(": written; client=127.0.0.1:5021 certificate=\"/CN=scada\" "
                                    "role=\"operator\" unit=1 function=6 address=2\n"),
              std::string::npos)
        << daemon.logText();
}

TEST(RequestHandlerTest, EntryAllowListsNarrowTheListenersRules) {
    std::string map = kMap;
    std::string const entry = R"("name": "t", "table")";
    map.replace(map.find(entry), entry.size(),
                R"("name": "t", "allowWrite": ["127.0.0.1"], "allowRead": ["127.0.0.1"], "table")");
    TestDaemon daemon(map, kRunningUps);
    AccessRules rules;
    applyAllowOption(rules, true, "127.0.0.0/8");
    EXPECT_EQ(askFrom(daemon, request(6, 2, 42), stranger(rules)).exception, 0x01);
    EXPECT_EQ(askFrom(daemon, request(3, 0, 3), stranger(rules)).exception, 0x01);  // v and t
    EXPECT_EQ(askFrom(daemon, request(3, 0, 2), stranger(rules)).exception, 0);     // v alone
    EXPECT_EQ(TestDaemon::channel(2, "T"), kq::CValue(-3));
    EXPECT_NE(
        daemon.logText().find("warning: write \"t\" holding-registers 2: [0xFFFD] -> [0x002A]: "
                              "refused (entry not allowed for this client); "
                              "client=127.0.0.2:5020"),
        std::string::npos)
        << daemon.logText();
}

TEST(RequestHandlerTest, EntryAllowListsRefuseAClientWhileTheMapIsNotAvailable) {
    std::string map = kMap;
    std::string const entry = R"("name": "t", "table")";
    map.replace(map.find(entry), entry.size(),
                R"("name": "t", "allowWrite": ["127.0.0.1"], "allowRead": ["127.0.0.1"], "table")");
    TestDaemon daemon(map, kStartingUps);
    ASSERT_FALSE(daemon.core().availability().isAvailable());
    AccessRules rules;
    applyAllowOption(rules, true, "127.0.0.0/8");
    EXPECT_EQ(askFrom(daemon, request(3, 0, 3), stranger(rules)).exception, 0x01);  // v and t
    EXPECT_EQ(askFrom(daemon, request(6, 2, 42), stranger(rules)).exception, 0x01);
    EXPECT_EQ(askFrom(daemon, request(3, 0, 2), stranger(rules)).exception, 0x0A);  // v alone
    RequestOrigin const local{"127.0.0.1:5021", 0x7F000001, &rules, true};
    EXPECT_EQ(askFrom(daemon, request(3, 0, 3), local).exception, 0x0A);
    EXPECT_EQ(askFrom(daemon, request(3, 100, 2), stranger(rules)).exception, 0x02);
}

TEST(RequestHandlerTest, EveryWriteIsAuditedWithOldAndNewValueAndOutcome) {
    TestDaemon daemon(kMap, kRunningUps, false);
    RequestOrigin const origin{"127.0.0.1:5021", 0x7F000001, nullptr, true};
    EXPECT_EQ(askFrom(daemon, testing::writeRegisters(3, {0x5859, 0x5A00, 0}), origin).exception,
              0);
    EXPECT_EQ(askFrom(daemon, request(5, 0, 0x0000), origin).exception, 0);
    std::string const log = daemon.logText();
    EXPECT_NE(log.find("tarsel-modbusd: write \"label\" holding-registers 3: \"ABCDEF\" -> "
                       "\"XYZ\": written; client=127.0.0.1:5021 unit=1 function=16 address=3\n"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("tarsel-modbusd: write \"switch\" coils 0: 1 -> 0: written; "
                       "client=127.0.0.1:5021 unit=1 function=5 address=0\n"),
              std::string::npos)
        << log;
}

TEST(RequestHandlerTest, WritesRejectedBeforeAnyEntryIsAskedAreAuditedWithTheirException) {
    TestDaemon daemon(kMap, kRunningUps, false);
    EXPECT_EQ(daemon.ask(request(6, 9000, 1)).exception, 0x02);
    EXPECT_EQ(daemon.ask(request(5, 0, 0x1234)).exception, 0x03);
    EXPECT_EQ(daemon.ask(testing::writeRegisters(4, {1, 2})).exception, 0x02);  // inside "label"
    std::string const log = daemon.logText();
    for (char const* const line :
         {"write to holding-registers 9000: rejected (no whole entries at those addresses): "
          "answered 0x02; client=local unit=1 function=6 address=9000\n",
          "write to coils 0: rejected (malformed request): answered 0x03; client=local unit=1 "
          "function=5 address=0\n",
          "write to holding-registers 4: rejected (no whole entries at those addresses): "
          "answered 0x02; client=local unit=1 function=16 address=4\n"}) {
        EXPECT_NE(log.find(line), std::string::npos) << line << "\n" << log;
    }
}

TEST(RequestHandlerTest, AWriteToAUnitThatIsNotServedIsAudited) {
    TestDaemon daemon(kMap, kRunningUps, false);
    EXPECT_EQ(daemon.ask(request(6, 30, 1, 7)).exception, 0x0B);
    EXPECT_EQ(daemon.ask(request(3, 30, 1, 7)).exception, 0x0B);
    std::string const log = daemon.logText();
    EXPECT_NE(log.find("write to holding-registers 30: rejected (no such unit): answered 0x0B; "
                       "client=local unit=7 function=6 address=30\n"),
              std::string::npos)
        << log;
    EXPECT_EQ(log.find("function=3"), std::string::npos) << log;  // reads are not writes
}

TEST(RequestHandlerTest, AWriteWhileTheMapIsNotAvailableIsAudited) {
    TestDaemon daemon(kMap, kStartingUps, false);
    EXPECT_EQ(daemon.ask(request(6, 30, 1)).exception, 0x0A);
    EXPECT_NE(daemon.logText().find("write to holding-registers 30: rejected (the map is not "
                                    "available yet): answered 0x0A; client=local"),
              std::string::npos)
        << daemon.logText();
}

TEST(RequestHandlerTest, AWriteRefusedWholesaleIsAudited) {
    TestDaemon daemon(kMap, kRunningUps, false);
    daemon.core().handler().refuseWrites();
    EXPECT_EQ(daemon.ask(request(6, 30, 1)).exception, 0x01);
    EXPECT_NE(daemon.logText().find("write to holding-registers 30: rejected (writes are "
                                    "refused): answered 0x01; client=local"),
              std::string::npos)
        << daemon.logText();
}

TEST(RequestHandlerTest, AWriteThatFailsPartWaySaysWhichEntriesTookTheirPart) {
    char const* const map = R"({"entries": [
      {"name": "a", "table": "holding-registers", "address": 0, "encoder": "uint16",
       "source": {"device": 2, "channel": "A"}},
      {"name": "b", "table": "holding-registers", "address": 1, "encoder": "uint16",
       "source": {"device": 2, "channel": "B"}},
      {"name": "c", "table": "holding-registers", "address": 2, "encoder": "uint16",
       "source": {"device": 2, "channel": "C"}}]})";
    char const* const ups = R"({"devices": [{"id": 2, "name": "UPS", "channels": {
      "PowerDistribution.Status.OperatingStatus": {"uint32": 16},
      "A": {"uint32": 0}, "B": {"uint32": 0}, "C": {"uint32": 0}}}]})";
    TestDaemon daemon(map, ups, false);
    auto& store = cdshost::Store::instance();
    // The store refuses the second entry's value (on the card: a setting
    // the device does not take).
    store.failAlways("setChannelCValue", store.channelId(2, "B"));
    EXPECT_EQ(daemon.ask(testing::writeRegisters(0, {1, 2, 3})).exception, 4);
    store.clearFaults();
    // What landed stays: nothing takes a data-store write back.
    EXPECT_EQ(TestDaemon::channel(2, "A"), kq::CValue(1u));
    EXPECT_EQ(TestDaemon::channel(2, "B"), kq::CValue(0u));
    EXPECT_EQ(TestDaemon::channel(2, "C"), kq::CValue(0u));
    std::string const log = daemon.logText();
    EXPECT_NE(log.find("warning: write to holding-registers 0..2 carried out in part: written "
                       "entries[0] \"a\"; failed entries[1] \"b\"; not written entries[2] "
                       "\"c\"; client=local unit=1 function=16 address=0\n"),
              std::string::npos)
        << log;
    // A write that fails at its first entry wrote nothing: no such line.
    store.failAlways("setChannelCValue", store.channelId(2, "A"));
    EXPECT_EQ(daemon.ask(testing::writeRegisters(0, {5, 6})).exception, 4);
    store.clearFaults();
    EXPECT_EQ(TestDaemon::channel(2, "B"), kq::CValue(0u));
    EXPECT_EQ(daemon.logText().find("carried out in part", log.size()), std::string::npos)
        << daemon.logText();
}

TEST(RequestHandlerTest, RepeatedWritesOfOneClientToOneEntryAreAuditedUpToTheBurst) {
    TestDaemon daemon(kMap, kRunningUps, false);
    RequestOrigin const first{"127.0.0.1:5021", 0x7F000001, nullptr, true};
    RequestOrigin const other{"127.0.0.2:5022", 0x7F000002, nullptr, true};
    for (int i = 0; i < 30; ++i) {
        EXPECT_EQ(askFrom(daemon, request(6, 2, static_cast<std::uint16_t>(i)), first).exception,
                  0);
    }
    EXPECT_EQ(askFrom(daemon, request(6, 2, 99), other).exception, 0);
    std::string const log = daemon.logText();
    std::size_t lines = 0;
    for (auto at = log.find("write \"t\""); at != std::string::npos;
         at = log.find("write \"t\"", at + 1)) {
        ++lines;
    }
    EXPECT_EQ(lines, Log::kBurstPerMinute + 1) << log;  // the other client has its own count
    EXPECT_NE(log.find("-> [0x0063]: written; client=127.0.0.2:5022"), std::string::npos) << log;
}

}  // namespace
}  // namespace tarsel::daemon
