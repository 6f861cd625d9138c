#include <gtest/gtest.h>

#include "sources/nut/NutNames.h"

namespace tarsel::daemon::nut {
namespace {

TEST(NutNames, IntegersBecomeInt32) {
    EXPECT_EQ(storeValue("battery.charge", "100"), kq::CValue(100));
    EXPECT_EQ(storeValue("ambient.temperature", "-5"), kq::CValue(-5));
}

TEST(NutNames, LargeIntegersBecomeInt64) {
    EXPECT_EQ(storeValue("ups.counter", "5000000000"), kq::CValue(5000000000LL));
}

TEST(NutNames, DecimalsBecomeDouble) {
    EXPECT_EQ(storeValue("input.voltage", "230.4"), kq::CValue(230.4));
    EXPECT_EQ(storeValue("battery.voltage", "1e1"), kq::CValue(10.0));
}

TEST(NutNames, OtherTextsStayText) {
    EXPECT_EQ(storeValue("ups.status", "OL CHRG"), kq::CValue("OL CHRG"));
    EXPECT_EQ(storeValue("ups.beeper.status", "enabled"), kq::CValue("enabled"));
    EXPECT_EQ(storeValue("ups.date", "2024/01/31"), kq::CValue("2024/01/31"));
    EXPECT_EQ(storeValue("ups.test.result", "nan"), kq::CValue("nan"));
    EXPECT_EQ(storeValue("driver.parameter.x", ""), kq::CValue(""));
}

TEST(NutNames, IdentityStaysTextEvenWhenItReadsAsANumber) {
    EXPECT_EQ(storeValue("device.serial", "0042"), kq::CValue("0042"));
    EXPECT_EQ(storeValue("ups.firmware", "1.0"), kq::CValue("1.0"));
}

TEST(NutNames, RatingsAreNumbersAndAttributes) {
    EXPECT_EQ(storeValue("ups.power.nominal", "1500"), kq::CValue(1500));
    EXPECT_EQ(identityAttribute("ups.power.nominal"), cdsapi::AttributeNominalPower);
}

TEST(NutNames, IdentityVariablesNameTheirAttributes) {
    EXPECT_EQ(identityAttribute("device.mfr"), cdsapi::AttributeManufacturer);
    EXPECT_EQ(identityAttribute("device.model"), cdsapi::AttributeModel);
    EXPECT_EQ(identityAttribute("device.serial"), cdsapi::AttributeSerialNumber);
    EXPECT_EQ(identityAttribute("ups.firmware"), cdsapi::AttributeFirmwareVersion);
    EXPECT_FALSE(identityAttribute("input.voltage"));
}

TEST(NutNames, OutletNumberOnlyForNumberedOutletVariables) {
    EXPECT_EQ(outletNumber("outlet.1.status"), 1u);
    EXPECT_EQ(outletNumber("outlet.12.load.off.delay"), 12u);
    EXPECT_FALSE(outletNumber("outlet.desc"));
    EXPECT_FALSE(outletNumber("outlet.0.desc")) << "the unit as a whole, no outlet";
    EXPECT_FALSE(outletNumber("outlet.count"));
    EXPECT_FALSE(outletNumber("outlet.1"));
    EXPECT_FALSE(outletNumber("outlet..x"));
    EXPECT_FALSE(outletNumber("outlet.1a.x"));
    EXPECT_FALSE(outletNumber("input.voltage"));
}

TEST(NutNames, StatusChannelsAreNamedAfterTheirTokens) {
    EXPECT_EQ(statusTokens().size(), 14u);
    EXPECT_EQ(statusChannelName("OB"), "ups.status.OB");
}

TEST(NutNames, DerivedNamesAreTheTokenChannelsAndTheOperatingStatusOnly) {
    EXPECT_TRUE(isDerivedName("ups.status.OL"));
    EXPECT_TRUE(isDerivedName("ups.status.FSD"));
    EXPECT_TRUE(isDerivedName(kOperatingStatusChannel));
    EXPECT_FALSE(isDerivedName("ups.status"));
    EXPECT_FALSE(isDerivedName("ups.status.ol"));
    EXPECT_FALSE(isDerivedName("ups.status.ALARM"));
    EXPECT_FALSE(isDerivedName("battery.charge"));
}

}  // namespace
}  // namespace tarsel::daemon::nut
