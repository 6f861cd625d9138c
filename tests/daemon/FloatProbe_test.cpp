// The float layout report against the linked libmodbus itself.
#include <gtest/gtest.h>

#include <modbus.h>

#include "FloatProbe.h"

namespace tarsel::daemon {
namespace {

TEST(FloatProbeTest, ReportsWhatTheLinkedSettersProduceForBothOrders) {
    FloatLayoutReport const report = probeFloatLayout();
    ASSERT_EQ(report.layouts.size(), 2u);
    uint16_t dcba[2];
    uint16_t badc[2];
    modbus_set_float_dcba(12.5f, dcba);
    modbus_set_float_badc(12.5f, badc);
    EXPECT_EQ(report.layouts[0].pair, (std::array<uint16_t, 2>{dcba[0], dcba[1]}));
    EXPECT_EQ(report.layouts[1].pair, (std::array<uint16_t, 2>{badc[0], badc[1]}));
    EXPECT_EQ(report.layouts[0].decoded, modbus_get_float_dcba(dcba));
    EXPECT_EQ(report.layouts[0].roundTrips(), modbus_get_float_dcba(dcba) == 12.5f);
}

TEST(FloatProbeTest, NamesTheReadLayoutAsAByteOrderOf0x41480000) {
    FloatLayoutReport const report = probeFloatLayout();
    for (auto const& layout : report.layouts) {
        std::string const& name = layout.readLayout;
        ASSERT_EQ(name.size(), 4u) << name;
        // Rebuild the pair from the layout name: A=0x41 B=0x48 C=0x00 D=0x00.
        auto byte = [](char c) -> uint16_t { return c == 'A' ? 0x41 : c == 'B' ? 0x48 : 0x00; };
        EXPECT_EQ(layout.pair[0], (byte(name[0]) << 8) | byte(name[1])) << name;
        EXPECT_EQ(layout.pair[1], (byte(name[2]) << 8) | byte(name[3])) << name;
    }
}

TEST(FloatProbeTest, WriteLayoutDecodesToTheProbeValue) {
    FloatLayoutReport const report = probeFloatLayout();
    auto byte = [](char c) -> uint16_t { return c == 'A' ? 0x41 : c == 'B' ? 0x48 : 0x00; };
    for (auto const& layout : report.layouts) {
        std::string const& name = layout.writeLayout;
        ASSERT_EQ(name.size(), 4u) << name;
        uint16_t pair[2] = {static_cast<uint16_t>((byte(name[0]) << 8) | byte(name[1])),
                            static_cast<uint16_t>((byte(name[2]) << 8) | byte(name[3]))};
        float const decoded =
            layout.byteOrder == 0 ? modbus_get_float_dcba(pair) : modbus_get_float_badc(pair);
        EXPECT_EQ(decoded, 12.5f);
    }
}

TEST(FloatProbeTest, DescriptionNamesPairAndLayouts) {
    FloatLayout layout;
    layout.byteOrder = 0;
    layout.pair = {0x0000, 0x4148};
    layout.decoded = 197632.0f;
    layout.readLayout = "CDAB";
    layout.writeLayout = "DCBA";
    EXPECT_EQ(describeLayout(layout),
              "byte order 0 (dcba helpers): 12.5 is served as [0x0000 0x4148] (layout CDAB), "
              "which the getter decodes as 197632; writes must use layout DCBA");
}

}  // namespace
}  // namespace tarsel::daemon
