// Who may read and write: networks, the listener's lists, and per-table lists.
#include <gtest/gtest.h>

#include <stdexcept>

#include "AccessRules.h"

namespace tarsel::daemon {
namespace {

constexpr std::uint32_t k127_0_0_1 = 0x7F000001;
constexpr std::uint32_t k127_0_0_2 = 0x7F000002;
constexpr std::uint32_t k10_1_2_3 = 0x0A010203;

TEST(AccessRulesTest, DefaultsLetAnyoneReadAndOnlyThisHostWrite) {
    AccessRules const rules;
    EXPECT_TRUE(rules.mayRead(Table::HoldingRegisters, k10_1_2_3));
    EXPECT_FALSE(rules.mayWrite(Table::HoldingRegisters, k10_1_2_3));
    EXPECT_TRUE(rules.mayWrite(Table::Coils, k127_0_0_2));
    EXPECT_FALSE(rules.mayWrite(Table::InputRegisters, k127_0_0_1));  // read-only table
}

TEST(AccessRulesTest, ATableListOverridesTheListenersListForThatTableOnly) {
    AccessRules rules;
    applyAllowOption(rules, true, "127.0.0.1");
    applyAllowOption(rules, true, "coils=127.0.0.2");
    applyAllowOption(rules, false, "input-registers=none");
    EXPECT_TRUE(rules.mayWrite(Table::HoldingRegisters, k127_0_0_1));
    EXPECT_FALSE(rules.mayWrite(Table::HoldingRegisters, k127_0_0_2));
    EXPECT_TRUE(rules.mayWrite(Table::Coils, k127_0_0_2));
    EXPECT_FALSE(rules.mayWrite(Table::Coils, k127_0_0_1));
    EXPECT_FALSE(rules.mayRead(Table::InputRegisters, k127_0_0_1));
    EXPECT_TRUE(rules.mayRead(Table::DiscreteInputs, k127_0_0_1));
    EXPECT_THROW(applyAllowOption(rules, false, "tables=any"), std::invalid_argument);
}

TEST(AccessRulesTest, AnAddressThatMayNeitherReadNorWriteMayNotConnect) {
    AccessRules rules;
    applyAllowOption(rules, false, "127.0.0.0/8");
    EXPECT_TRUE(rules.mayConnect(k127_0_0_2));
    EXPECT_FALSE(rules.mayConnect(k10_1_2_3));
    applyAllowOption(rules, true, "coils=10.0.0.0/8");
    EXPECT_TRUE(rules.mayConnect(k10_1_2_3));  // it may write the coils
}

}  // namespace
}  // namespace tarsel::daemon
