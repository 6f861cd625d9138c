// The simdjson reading of a map: JsonView answers as nlohmann::json does for
// the values maps hold, and JsonDocument refuses what the two read unalike.
#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "JsonView.h"

namespace tarsel::daemon {
namespace {

JsonView rootOf(std::optional<JsonDocument> const& document) {
    return document->root();
}

TEST(JsonViewTest, NumbersHaveTheTypesAndValuesNlohmannGivesThem) {
    for (std::string const text :
         {"0", "7", "-7", "1.0", "2.5", "-0.0", "1e2", "-1E-2", "4294967295", "9223372036854775807",
          "9223372036854775808", "18446744073709551615", "-9223372036854775808"}) {
        auto const document = JsonDocument::parse(text);
        ASSERT_TRUE(document) << text;
        JsonView const view = rootOf(document);
        nlohmann::json const expected = nlohmann::json::parse(text);
        EXPECT_EQ(view.is_number(), expected.is_number()) << text;
        EXPECT_EQ(view.is_number_integer(), expected.is_number_integer()) << text;
        EXPECT_EQ(view.is_number_unsigned(), expected.is_number_unsigned()) << text;
        EXPECT_EQ(view.is_number_float(), expected.is_number_float()) << text;
        EXPECT_EQ(view.get<double>(), expected.get<double>()) << text;
        EXPECT_EQ(view.get<long long>(), expected.get<long long>()) << text;
        EXPECT_EQ(view.get<unsigned long long>(), expected.get<unsigned long long>()) << text;
        EXPECT_EQ(view == 0, expected == 0) << text;
    }
}

TEST(JsonViewTest, ComparesANumberByValueAndAStringByText) {
    auto const document = JsonDocument::parse(R"([1.0, 1, "standard", true])");
    ASSERT_TRUE(document);
    std::vector<JsonView> values;
    for (auto const& value : rootOf(document)) {
        values.push_back(value);
    }
    ASSERT_EQ(values.size(), 4u);
    EXPECT_TRUE(values[0] == 1);
    EXPECT_TRUE(values[1] == 1);
    EXPECT_FALSE(values[1] == 0);
    EXPECT_TRUE(values[2] == "standard");
    EXPECT_FALSE(values[2] == 1);
    EXPECT_FALSE(values[3] == "true");
}

TEST(JsonViewTest, FindsFieldsAndWalksArraysInOrder) {
    auto const document =
        JsonDocument::parse(R"({"name": "v", "list": [3, "x", {"k": false}], "none": null})");
    ASSERT_TRUE(document);
    JsonView const root = rootOf(document);
    ASSERT_TRUE(root.is_object());
    EXPECT_EQ(root.size(), 3u);
    EXPECT_TRUE(root.contains("name"));
    EXPECT_FALSE(root.contains("nam"));
    EXPECT_TRUE(root.find("missing") == root.end());
    EXPECT_EQ(root["name"].get<std::string>(), "v");
    EXPECT_EQ(root["none"].size(), 0u);
    JsonView const list = root["list"];
    ASSERT_TRUE(list.is_array());
    EXPECT_EQ(list.size(), 3u);
    std::string seen;
    for (auto const& element : list) {
        seen += element.dump() + ";";
    }
    EXPECT_EQ(seen, R"(3;"x";{"k":false};)");
    std::optional<JsonView> last;
    for (auto const& element : list) {
        last = element;
    }
    ASSERT_TRUE(last);
    EXPECT_FALSE((*last)["k"].get<bool>());
    std::string names;
    for (auto const& item : root.items()) {
        names.append(item.key()).append(",");
    }
    EXPECT_EQ(names, "name,list,none,");
}

template <class T, class = void>
struct IndexedByPosition : std::false_type {};
template <class T>
struct IndexedByPosition<T, std::void_t<decltype(std::declval<T const&>()[std::size_t{1}])>>
    : std::true_type {};

// Reaching an element by its position walks a simdjson array from its start,
// so a loop over a map's array that way (an allow list of 40,000 networks took
// 2 s to check) is quadratic: JsonView offers iteration only, and the checks
// written for both readings walk arrays element by element.
TEST(JsonViewTest, OffersNoElementByPositionSoLoopsOverArraysStayLinear) {
    EXPECT_FALSE(IndexedByPosition<JsonView>::value);
    EXPECT_TRUE(IndexedByPosition<nlohmann::json>::value);
}

TEST(JsonDocumentTest, TextThatIsNotJsonIsRefused) {
    for (std::string const text : {"", "{", "[1,]", "01", "{\"a\":1} x", "1e400", "\"\\ud800\""}) {
        EXPECT_FALSE(JsonDocument::parse(text)) << text;
    }
}

bool repeats(std::string const& text) {
    auto const document = JsonDocument::parse(text);
    return document && document->hasRepeatedNames();
}

// nlohmann keeps the last of repeated names where simdjson keeps both.
TEST(JsonDocumentTest, RepeatedFieldNamesAreFoundAtAnyDepth) {
    EXPECT_TRUE(repeats(R"({"a": 1, "b": 2, "a": 3})"));
    EXPECT_TRUE(repeats(R"({"entries": [{}, {"x": {"y": 1, "y": 1}}]})"));
    std::string wide = "{";
    for (int i = 0; i < 40; ++i) {
        wide += "\"k" + std::to_string(i) + "\": " + std::to_string(i) + ",";
    }
    EXPECT_FALSE(repeats(wide + "\"last\": 0}"));
    EXPECT_TRUE(repeats(wide + "\"k17\": 0}"));
    EXPECT_FALSE(repeats(R"({"a": {"a": {"a": 1}}, "b": [{"a": 1}, {"a": 2}]})"));
}

/* Whether two values have the same type everywhere and compare equal. */
void expectSameJson(nlohmann::json const& actual, nlohmann::json const& expected,
                    std::string const& where) {
    ASSERT_EQ(actual.type(), expected.type()) << where;
    EXPECT_EQ(actual, expected) << where;
    if (expected.is_object()) {
        ASSERT_EQ(actual.size(), expected.size()) << where;
        for (auto const& item : expected.items()) {
            expectSameJson(actual.at(item.key()), item.value(), where + "." + item.key());
        }
    } else if (expected.is_array()) {
        ASSERT_EQ(actual.size(), expected.size()) << where;
        for (std::size_t i = 0; i < expected.size(); ++i) {
            expectSameJson(actual[i], expected[i], where + "[" + std::to_string(i) + "]");
        }
    }
}

TEST(JsonViewTest, ToJsonGivesWhatNlohmannsParseGivesTypesIncluded) {
    std::string const text =
        R"({"devices": [{"id": 2, "name": "UPS", "channels": {"A": 1.5, "B": -3, "C": 7,
            "D": true, "E": "text", "F": null, "G": 18446744073709551615, "H": 2.0}}],
            "events": [], "list": [[], {}, [0, -0.0, 1e-3]], "twice": 1, "twice": [2]})";
    auto const document = JsonDocument::parse(text);
    ASSERT_TRUE(document);
    expectSameJson(document->root().toJson(), nlohmann::json::parse(text), "root");
}

// To nlohmann -0 is an integer that is not unsigned; simdjson cannot tell it
// from 0.
TEST(JsonDocumentTest, NegativeZeroIsRefusedButNotOtherNegativeNumbers) {
    EXPECT_FALSE(JsonDocument::parse("-0"));
    EXPECT_FALSE(JsonDocument::parse(R"({"path": [1, -0]})"));
    EXPECT_FALSE(JsonDocument::parse(R"([-0 ])"));
    EXPECT_FALSE(JsonDocument::parse("{\"a\":\t-0}"));
    for (std::string const text :
         {"-0.5", "-0e1", "-0E1", "-10", "[-1, -0.0]", "\"x-1\"", "\"threshold-0\""}) {
        EXPECT_TRUE(JsonDocument::parse(text)) << text;
    }
}

}  // namespace
}  // namespace tarsel::daemon
