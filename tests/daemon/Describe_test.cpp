// The register-map description in its three formats.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "DaemonTestSupport.h"

namespace tarsel::daemon {
namespace {

char const* const kMap = R"({"entries": [
  {"name": "v|1", "table": "holding-registers", "address": 4, "encoder": "float",
   "source": {"device": 2, "channel": "V"}},
  {"name": "word", "table": "input-registers", "address": 0, "encoder": "composite-registers",
   "function": "status-word", "sources": [{"device": 2, "channel": "A"}, {"device": 2, "channel": "B"}]}
]})";

char const* const kScenario = R"({"devices": [{"id": 2, "name": "UPS", "channels": {
  "PowerDistribution.Status.OperatingStatus": {"uint32": 16}, "V": {"float": 12.5},
  "A": false, "B": true}}]})";

TEST(DescribeTest, JsonListsEveryEntryWithLabelValueSourceAndImage) {
    testing::TestDaemon daemon(kMap, kScenario);
    auto const root = nlohmann::json::parse(daemon.core().describe(DescribeFormat::Json));
    EXPECT_TRUE(root["available"].get<bool>());
    ASSERT_EQ(root["entries"].size(), 2u);
    auto const& v = root["entries"][0];
    EXPECT_EQ(v["table"], "holding-registers");
    EXPECT_EQ(v["address"], 4);
    EXPECT_EQ(v["size"], 2);
    EXPECT_EQ(v["representation"], "Float (Standard)");
    EXPECT_EQ(v["value"], "12.500");
    EXPECT_EQ(v["source"], "device 2 channel \"V\"");
    EXPECT_EQ(root["entries"][1]["value"], "0x0002");
    EXPECT_EQ(root["entries"][1]["image"], nlohmann::json::array({2}));
    EXPECT_EQ(root["floatLayout"]["layouts"].size(), 2u);
}

TEST(DescribeTest, MarkdownEscapesPipesAndShowsTheFloatLayout) {
    testing::TestDaemon daemon(kMap, kScenario);
    std::string const text = daemon.core().describe(DescribeFormat::Markdown);
    EXPECT_NE(text.find("| holding-registers | 4 | 2 | v\\|1 | Float (Standard) | 12.500 |"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("byte order 0 (dcba helpers)"), std::string::npos);
}

TEST(DescribeTest, CsvQuotesCellsWithCommasAndQuotes) {
    testing::TestDaemon daemon(kMap, kScenario);
    std::string const text = daemon.core().describe(DescribeFormat::Csv);
    EXPECT_EQ(
        text.rfind("table,address,size,name,representation,value,source,image,pushes,note\n", 0),
        0u);
    EXPECT_NE(text.find("holding-registers,4,2,v|1,Float (Standard),12.500,\"device 2 channel "
                        "\"\"V\"\"\""),
              std::string::npos)
        << text;
}

TEST(DescribeTest, FormatNamesAreKnown) {
    EXPECT_EQ(describeFormatFromName("json"), DescribeFormat::Json);
    EXPECT_EQ(describeFormatFromName("csv"), DescribeFormat::Csv);
    EXPECT_EQ(describeFormatFromName("markdown"), DescribeFormat::Markdown);
    EXPECT_FALSE(describeFormatFromName("xml"));
}

}  // namespace
}  // namespace tarsel::daemon
