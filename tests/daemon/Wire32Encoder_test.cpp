// The daemon's 32-bit encoders with an explicit wire layout, served through
// the request handler: reads give the golden words, the same words written
// back store the same value, in every layout.
#include <gtest/gtest.h>

#include <string>

#include "DaemonTestSupport.h"
#include "Wire32Encoder.h"
#include "golden/wire_layout_vectors.h"

namespace tarsel::daemon {
namespace {

using testing::request;
using testing::TestDaemon;
using testing::writeRegisters;

char const* const kLayouts[] = {"ABCD", "CDAB", "BADC", "DCBA"};

/* One float32, int32 and uint32 entry per layout: floats at 0, 2, 4, 6,
 * signed at 10.., unsigned at 20.., all over channels F, I and U. */
std::string mapOfEveryLayout() {
    std::string entries;
    for (int i = 0; i < 4; ++i) {
        std::string const layout = kLayouts[i];
        std::string const at = std::to_string(2 * i);
        entries += std::string(entries.empty() ? "" : ",") + R"({"name": "f-)" + layout +
                   R"(", "table": "holding-registers", "address": )" + at +
                   R"(, "encoder": "float32", "layout": ")" + layout +
                   R"(", "source": {"device": 2, "channel": "F"}},)" + R"({"name": "i-)" + layout +
                   R"(", "table": "holding-registers", "address": 1)" + at +
                   R"(, "encoder": "int32", "layout": ")" + layout +
                   R"(", "source": {"device": 2, "channel": "I"}},)" + R"({"name": "u-)" + layout +
                   R"(", "table": "holding-registers", "address": 2)" + at +
                   R"(, "encoder": "uint32", "layout": ")" + layout +
                   R"(", "source": {"device": 2, "channel": "U"}})";
    }
    return R"({"entries": [)" + entries + "]}";
}

std::string scenarioWith(std::string const& channels) {
    return R"({"devices": [{"id": 2, "name": "UPS", "channels": {
      "PowerDistribution.Status.OperatingStatus": {"uint32": 16}, )" +
           channels + "}}]}";
}

template <typename T>
std::vector<std::uint16_t> wordsIn(golden::Wire32Vector<T> const& vector, int layout) {
    golden::WirePair const pairs[] = {vector.abcd, vector.cdab, vector.badc, vector.dcba};
    return {pairs[layout][0], pairs[layout][1]};
}

std::vector<std::uint16_t> read(TestDaemon& daemon, std::uint16_t address) {
    Answer const answer = daemon.ask(request(3, address, 2));
    EXPECT_EQ(answer.exception, 0);
    return answer.registers;
}

TEST(Wire32EncoderTest, FloatReadsAsTheGoldenWordsOfItsLayout) {
    auto const& v = golden::kFloat32Vectors[2];  // 230.1
    TestDaemon daemon(mapOfEveryLayout(),
                      scenarioWith(R"("F": {"float": 230.1}, "I": 0, "U": {"uint32": 0})"));
    for (int layout = 0; layout < 4; ++layout) {
        EXPECT_EQ(read(daemon, static_cast<std::uint16_t>(2 * layout)), wordsIn(v, layout))
            << kLayouts[layout];
    }
}

TEST(Wire32EncoderTest, FloatWrittenWithTheWordsJustReadStoresTheSameValue) {
    TestDaemon daemon(mapOfEveryLayout(),
                      scenarioWith(R"("F": {"float": 1.0}, "I": 0, "U": {"uint32": 0})"));
    for (auto const& v : golden::kFloat32Vectors) {
        if (v.value != v.value) {
            continue;  // NaN: compared below by its bits
        }
        for (int layout = 0; layout < 4; ++layout) {
            auto const address = static_cast<std::uint16_t>(2 * layout);
            ASSERT_EQ(daemon.ask(writeRegisters(address, wordsIn(v, layout))).exception, 0);
            EXPECT_EQ(TestDaemon::channel(2, "F"), kq::CValue(v.value))
                << v.name << " " << kLayouts[layout];
            EXPECT_EQ(read(daemon, address), wordsIn(v, layout)) << v.name;
        }
    }
}

TEST(Wire32EncoderTest, SignedIntegerReadsAndWritesTheGoldenWordsInEveryLayout) {
    TestDaemon daemon(mapOfEveryLayout(),
                      scenarioWith(R"("F": {"float": 1.0}, "I": 0, "U": {"uint32": 0})"));
    for (auto const& v : golden::kInt32Vectors) {
        for (int layout = 0; layout < 4; ++layout) {
            auto const address = static_cast<std::uint16_t>(10 + 2 * layout);
            ASSERT_EQ(daemon.ask(writeRegisters(address, wordsIn(v, layout))).exception, 0);
            EXPECT_EQ(TestDaemon::channel(2, "I"), kq::CValue(static_cast<int>(v.value)))
                << v.name << " " << kLayouts[layout];
            // Every layout's entry serves the value just stored.
            for (int other = 0; other < 4; ++other) {
                EXPECT_EQ(read(daemon, static_cast<std::uint16_t>(10 + 2 * other)),
                          wordsIn(v, other))
                    << v.name << " " << kLayouts[other];
            }
        }
    }
}

TEST(Wire32EncoderTest, UnsignedIntegerReadsAndWritesTheGoldenWordsInEveryLayout) {
    TestDaemon daemon(mapOfEveryLayout(),
                      scenarioWith(R"("F": {"float": 1.0}, "I": 0, "U": {"uint32": 0})"));
    for (auto const& v : golden::kUint32Vectors) {
        for (int layout = 0; layout < 4; ++layout) {
            auto const address = static_cast<std::uint16_t>(20 + 2 * layout);
            ASSERT_EQ(daemon.ask(writeRegisters(address, wordsIn(v, layout))).exception, 0);
            EXPECT_EQ(TestDaemon::channel(2, "U"), kq::CValue(static_cast<unsigned>(v.value)))
                << v.name << " " << kLayouts[layout];
            for (int other = 0; other < 4; ++other) {
                EXPECT_EQ(read(daemon, static_cast<std::uint16_t>(20 + 2 * other)),
                          wordsIn(v, other))
                    << v.name << " " << kLayouts[other];
            }
        }
    }
}

TEST(Wire32EncoderTest, PushesCarryTheWordsOfTheLayout) {
    TestDaemon daemon(mapOfEveryLayout(),
                      scenarioWith(R"("F": {"float": 1.0}, "I": 0, "U": {"uint32": 0})"));
    TestDaemon::setChannel(2, "U", kq::CValue(86400u));
    auto const& entry = *daemon.core().map().entries().at(11);
    ASSERT_EQ(entry.definition.name, "u-DCBA");
    EXPECT_EQ(entry.image.words, wordsIn(golden::kUint32Vectors[0], 3));
    EXPECT_EQ(entry.image.pushes, 1u);
}

TEST(Wire32EncoderTest, FloatMultiplierScalesReadsAndWritesOnce) {
    auto const registers =
        wire32Registers(Wire32Type::Float32, WireLayout::ABCD, 10.0f, kq::CValue(1.25f));
    EXPECT_EQ(registers, (std::vector<std::uint16_t>{0x4148, 0x0000}));  // 12.5
    EXPECT_EQ(wire32Value(Wire32Type::Float32, WireLayout::ABCD, 10.0f, {0x4148, 0x0000}),
              kq::CValue(1.25f));
    EXPECT_EQ(wire32Text(Wire32Type::Float32, 10.0f, kq::CValue(1.25f)), "12.5");
}

TEST(Wire32EncoderTest, AShortWriteCountsTheMissingRegisterAsZero) {
    EXPECT_EQ(wire32Value(Wire32Type::Uint32, WireLayout::ABCD, 1.0f, {0x0001}),
              kq::CValue(65536u));
    EXPECT_EQ(wire32Value(Wire32Type::Int32, WireLayout::CDAB, 1.0f, {}), kq::CValue(0));
}

TEST(Wire32EncoderTest, LabelNamesTheTypeAndTheLayout) {
    TestDaemon daemon(mapOfEveryLayout(),
                      scenarioWith(R"("F": {"float": 1.0}, "I": 0, "U": {"uint32": 0})"));
    std::vector<std::string> labels;
    for (auto const& entry : daemon.core().map().entries()) {
        labels.push_back(entry->encoder.registers->getDataRepresentation());
    }
    EXPECT_EQ(labels[0], "Float32 (ABCD)");
    EXPECT_EQ(labels[1], "Int32 (ABCD)");
    EXPECT_EQ(labels[2], "UInt32 (ABCD)");
    EXPECT_EQ(labels[11], "UInt32 (DCBA)");
}

TEST(Wire32EncoderTest, WhileTheChannelIsMissingNothingIsReadOrWritten) {
    TestDaemon daemon(mapOfEveryLayout(), scenarioWith(R"("I": 0, "U": {"uint32": 0})"));
    auto const& entry = *daemon.core().map().entries().at(0);
    ASSERT_EQ(entry.definition.name, "f-ABCD");
    EXPECT_FALSE(entry.encoder.registers->isDataAvailable());
    EXPECT_TRUE(entry.encoder.registers->getData().empty());
    EXPECT_EQ(entry.encoder.registers->getStrValue(), "");
}

TEST(Wire32EncoderTest, TearingDownClosesEverySubscription) {
    TestDaemon daemon(mapOfEveryLayout(),
                      scenarioWith(R"("F": {"float": 1.0}, "I": 0, "U": {"uint32": 0})"));
    ASSERT_GT(cdshost::Store::instance().subscriptionCount(), 0u);
    daemon.stop();
    EXPECT_EQ(cdshost::Store::instance().subscriptionCount(), 0u);
}

}  // namespace
}  // namespace tarsel::daemon
