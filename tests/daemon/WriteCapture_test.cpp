// What a write through an entry's encoder would store, found on a silent
// copy: the entry's own conversions, and nothing of the store touched.
#include <gtest/gtest.h>

#include "MapLoader.h"
#include "WriteCapture.h"

namespace tarsel::daemon {
namespace {

EntryDefinition entryOf(std::string const& json) {
    return parseRegisterMap(R"({"entries": [)" + json + "]}").entries.front();
}

class WriteCaptureTest : public ::testing::Test {
  protected:
    void SetUp() override { m_store.reset(); }
    void TearDown() override { m_store.reset(); }

    kq::CValue capture(std::string const& json, kq::CValue const& current,
                       std::vector<std::uint16_t> const& words) {
        return captureWrite(entryOf(json), current, words, m_store, {500, 501});
    }

    cdshost::Store& m_store = cdshost::Store::instance();
};

TEST_F(WriteCaptureTest, TheEntrysMultiplierAndTypeApply) {
    EXPECT_EQ(capture(R"({"name": "v", "table": "holding-registers", "address": 0,
        "encoder": "float16", "multiplier": 10, "source": {"device": 2, "channel": "V"}})",
                      kq::CValue(27.3), {281}),
              kq::CValue(28.1f));
    EXPECT_EQ(capture(R"({"name": "d", "table": "holding-registers", "address": 0,
        "encoder": "uint16", "source": {"device": 2, "channel": "D"}})",
                      kq::CValue(20), {30}),
              kq::CValue(30u));
}

TEST_F(WriteCaptureTest, AnInvertedCoilAndAStringConvertAsTheirEncodersDo) {
    EXPECT_EQ(capture(R"({"name": "c", "table": "coils", "address": 0, "encoder": "boolean",
        "invert": true, "source": {"device": 2, "channel": "C"}})",
                      kq::CValue(0), {1}),
              kq::CValue(false));
    EXPECT_EQ(capture(R"({"name": "s", "table": "holding-registers", "address": 0,
        "encoder": "string", "size": 2, "source": {"device": 2, "channel": "S"}})",
                      kq::CValue(std::string("old")), {0x4142, 0x4300}),
              kq::CValue(std::string("ABC")));
}

TEST_F(WriteCaptureTest, AnAttributeIsCapturedAsText) {
    EXPECT_EQ(capture(R"({"name": "l", "table": "holding-registers", "address": 0,
        "encoder": "string", "size": 2, "source": {"device": 2, "attribute": "location"}})",
                      kq::CValue(std::string("x")), {0x5231, 0}),
              kq::CValue(std::string("R1")));
}

TEST_F(WriteCaptureTest, TheStoreIsLeftAsItWasAndHearsNothing) {
    m_store.addDevice("UPS", 2);
    m_store.addChannel(2, "D", kq::CValue(20));
    std::size_t const subscriptions = m_store.subscriptionCount();
    capture(R"({"name": "d", "table": "holding-registers", "address": 0, "encoder": "uint16",
        "source": {"device": 2, "channel": "D"}})",
            kq::CValue(20), {30});
    EXPECT_EQ(m_store.channelValue(m_store.channelId(2, "D")), kq::CValue(20));
    EXPECT_FALSE(m_store.hasDevice(500));
    EXPECT_EQ(m_store.subscriptionCount(), subscriptions);
}

TEST_F(WriteCaptureTest, AnEntryOfSeveralSourcesIsNotCaptured) {
    EXPECT_THROW(capture(R"({"name": "a", "table": "discrete-inputs", "address": 0,
        "encoder": "composite-discretes", "function": "any-true",
        "sources": [{"device": 2, "channel": "A"}, {"device": 2, "channel": "B"}]})",
                         kq::CValue(0), {1}),
                 std::invalid_argument);
}

}  // namespace
}  // namespace tarsel::daemon
