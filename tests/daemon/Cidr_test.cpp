// IPv4 networks of the access rules.
#include <gtest/gtest.h>

#include <stdexcept>

#include "Cidr.h"

namespace tarsel::daemon {
namespace {

constexpr std::uint32_t k127_0_0_1 = 0x7F000001;
constexpr std::uint32_t k127_0_0_2 = 0x7F000002;
constexpr std::uint32_t k10_1_2_3 = 0x0A010203;

TEST(CidrTest, ParsesNetworksAndBareAddresses) {
    auto const net = Cidr::parse("10.1.0.0/16");
    ASSERT_TRUE(net);
    EXPECT_TRUE(net->contains(k10_1_2_3));
    EXPECT_FALSE(net->contains(0x0A020203));
    auto const host = Cidr::parse("127.0.0.2");
    ASSERT_TRUE(host);
    EXPECT_TRUE(host->contains(k127_0_0_2));
    EXPECT_FALSE(host->contains(k127_0_0_1));
    ASSERT_TRUE(Cidr::parse("0.0.0.0/0"));
    EXPECT_TRUE(Cidr::parse("0.0.0.0/0")->contains(k10_1_2_3));
}

TEST(CidrTest, RefusesWhatIsNoNetworkOrHasHostBitsSet) {
    for (char const* text : {"10.1.2.3/8", "10.0.0.0/33", "10.0.0.0/", "10.0.0/8", "::1", "host",
                             "", "10.0.0.0/-1", "10.0.0.0/8x"}) {
        EXPECT_FALSE(Cidr::parse(text)) << text;
    }
}

TEST(CidrTest, ListsTakeAnyNoneOrNetworksSeparatedByCommas) {
    EXPECT_TRUE(listContains(parseCidrList("any"), k10_1_2_3));
    EXPECT_TRUE(parseCidrList("none").empty());
    CidrList const list = parseCidrList("127.0.0.1,10.0.0.0/8");
    EXPECT_TRUE(listContains(list, k127_0_0_1));
    EXPECT_TRUE(listContains(list, k10_1_2_3));
    EXPECT_FALSE(listContains(list, k127_0_0_2));
    EXPECT_THROW(parseCidrList("127.0.0.1,,10.0.0.0/8"), std::invalid_argument);
}

}  // namespace
}  // namespace tarsel::daemon
