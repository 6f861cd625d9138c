// The fields a map entry usually leaves out: they read as a std::string and a
// std::optional and a std::vector do, and cost one pointer while they are
// empty.
#include <gtest/gtest.h>

#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "MapModel.h"
#include "RareField.h"

namespace {

using tarsel::daemon::EntryDefinition;
using tarsel::daemon::MostlyOne;
using tarsel::daemon::RareList;
using tarsel::daemon::RareOptional;
using tarsel::daemon::RareText;

TEST(RareTextTest, TakesOnePointerInTheObjectThatHoldsIt) {
    EXPECT_EQ(sizeof(RareText), sizeof(void*));
}

TEST(RareTextTest, ReadsAsTheTextItWasGiven) {
    RareText const unit("kWh");
    EXPECT_EQ(unit, "kWh");
    EXPECT_EQ(unit, std::string("kWh"));
    EXPECT_EQ(unit.str(), "kWh");
    EXPECT_EQ(unit.size(), 3u);
    EXPECT_FALSE(unit.empty());
    std::string const& asString = unit;
    EXPECT_EQ(asString, "kWh");
    EXPECT_EQ("in " + unit + "!", "in kWh!");
    std::ostringstream out;
    out << unit;
    EXPECT_EQ(out.str(), "kWh");
}

TEST(RareTextTest, EmptyByDefaultAndAfterClearOrAnEmptyText) {
    RareText text;
    EXPECT_TRUE(text.empty());
    EXPECT_EQ(text, "");
    text = "x";
    EXPECT_NE(text, "");
    text.clear();
    EXPECT_TRUE(text.empty());
    text = std::string();
    EXPECT_TRUE(text.empty());
}

TEST(RareTextTest, ACopyKeepsItsTextWhenTheOriginalChanges) {
    RareText original("Outlet.Current");
    RareText const copy = original;
    original = "other";
    EXPECT_EQ(copy, "Outlet.Current");
    EXPECT_EQ(original, "other");
}

TEST(RareOptionalTest, TakesOnePointerInTheObjectThatHoldsIt) {
    EXPECT_EQ(sizeof(RareOptional<std::vector<int>>), sizeof(void*));
}

TEST(RareOptionalTest, AbsentUntilAValueIsGiven) {
    RareOptional<std::vector<int>> list;
    EXPECT_FALSE(list);
    EXPECT_FALSE(list.has_value());
    EXPECT_EQ(list, std::nullopt);
    EXPECT_THROW(list.value(), std::bad_optional_access);
    list = std::vector<int>{1, 2};
    ASSERT_TRUE(list);
    EXPECT_EQ(list->size(), 2u);
    EXPECT_EQ(*list, (std::vector<int>{1, 2}));
    EXPECT_NE(list, std::nullopt);
    list.reset();
    EXPECT_FALSE(list);
}

TEST(RareOptionalTest, AnEmptyValueIsPresentNotAbsent) {
    // An allow list that names nobody differs from no allow list at all.
    RareOptional<std::vector<int>> const none(std::vector<int>{});
    ASSERT_TRUE(none);
    EXPECT_TRUE(none->empty());
}

TEST(RareOptionalTest, TakesAStdOptionalAsItIs) {
    RareOptional<int> const absent(std::optional<int>{});
    RareOptional<int> const present(std::optional<int>{7});
    EXPECT_FALSE(absent);
    ASSERT_TRUE(present);
    EXPECT_EQ(*present, 7);
}

TEST(RareOptionalTest, ACopyKeepsItsValueWhenTheOriginalChanges) {
    RareOptional<std::vector<int>> original(std::vector<int>{1});
    RareOptional<std::vector<int>> const copy = original;
    original->push_back(2);
    EXPECT_EQ(*copy, (std::vector<int>{1}));
    original = std::nullopt;
    EXPECT_TRUE(copy);
}

TEST(RareListTest, TakesOnePointerInTheObjectThatHoldsIt) {
    EXPECT_EQ(sizeof(RareList<unsigned int>), sizeof(void*));
}

TEST(RareListTest, ReadsAsTheVectorOfItsItemsInOrder) {
    RareList<unsigned int> path;
    EXPECT_TRUE(path.empty());
    EXPECT_EQ(path.size(), 0u);
    EXPECT_EQ(path.begin(), path.end());
    EXPECT_EQ(path, std::vector<unsigned int>{});
    path.push_back(1);
    path.push_back(0);
    EXPECT_FALSE(path.empty());
    ASSERT_EQ(path.size(), 2u);
    EXPECT_EQ(path[0], 1u);
    EXPECT_EQ(path[1], 0u);
    std::vector<unsigned int> const& asVector = path;
    EXPECT_EQ(asVector, (std::vector<unsigned int>{1, 0}));
    EXPECT_EQ(std::vector<unsigned int>(path.begin(), path.end()),
              (std::vector<unsigned int>{1, 0}));
    EXPECT_NE(path, (std::vector<unsigned int>{0, 1}));
    std::ostringstream out;
    out << path;
    EXPECT_EQ(out.str(), "[1, 0]");
}

TEST(RareListTest, ACopyKeepsItsItemsWhenTheOriginalChanges) {
    RareList<unsigned int> original{3};
    RareList<unsigned int> const copy = original;
    original.push_back(4);
    EXPECT_EQ(copy, (std::vector<unsigned int>{3}));
    EXPECT_EQ(original, (std::vector<unsigned int>{3, 4}));
    original = RareList<unsigned int>{};
    EXPECT_TRUE(original.empty());
    EXPECT_EQ(copy.size(), 1u);
}

TEST(RareListTest, AListOfNoItemsIsEmpty) {
    RareList<unsigned int> const none{};
    EXPECT_TRUE(none.empty());
    RareList<unsigned int> const fromNone =
        RareList<unsigned int>(std::initializer_list<unsigned int>{});
    EXPECT_TRUE(fromNone.empty());
    EXPECT_EQ(none, fromNone);
}

TEST(MostlyOneTest, HoldsOneElementInPlaceAndMoreInOrder) {
    int a = 1;
    int b = 2;
    int c = 3;
    MostlyOne<int const*> list;
    EXPECT_TRUE(list.empty());
    list = {&a};
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0], &a);
    std::vector<int*> const three{&a, &b, &c};
    list.assign(three.begin(), three.end());
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(list[0], &a);
    EXPECT_EQ(list[1], &b);
    EXPECT_EQ(list[2], &c);
    list = {};
    EXPECT_TRUE(list.empty());
    MostlyOne<int const*> const copy = MostlyOne<int const*>{&b, &c};
    EXPECT_EQ(copy.size(), 2u);
    EXPECT_EQ(copy[1], &c);
}

TEST(MostlyOneTest, TakesTwoPointersInTheObjectThatHoldsIt) {
    EXPECT_EQ(sizeof(MostlyOne<int const*>), 2 * sizeof(void*));
}

TEST(MostlyOneTest, RefusesANullElementAndKeepsWhatItHeld) {
    int a = 1;
    int b = 2;
    MostlyOne<int const*> list{&a, &b};
    std::vector<int const*> const withNull{&b, nullptr};
    EXPECT_THROW(list.assign(withNull.begin(), withNull.end()), std::invalid_argument);
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0], &a);
    EXPECT_EQ(list[1], &b);
}

TEST(EntryDefinitionTest, TheFieldsMostEntriesLeaveOutCostOnePointerEach) {
    // The texts and allow lists an entry rarely has are kept on the heap only
    // when set: a map of thousands of entries keeps every definition.
    EXPECT_EQ(sizeof(EntryDefinition::unit), sizeof(void*));
    EXPECT_EQ(sizeof(EntryDefinition::function), sizeof(void*));
    EXPECT_EQ(sizeof(EntryDefinition::description), sizeof(void*));
    EXPECT_EQ(sizeof(EntryDefinition::allowRead), sizeof(void*));
    EXPECT_EQ(sizeof(EntryDefinition::allowWrite), sizeof(void*));
    EXPECT_EQ(sizeof(tarsel::daemon::DeviceRef::path), sizeof(void*));
}

}  // namespace
