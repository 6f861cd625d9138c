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
   "function": "status-word", "sources": [{"device": 2, "channel": "A"}, {"device": 2, "channel": "B"}]},
  {"name": "temperature, \"ambient\"", "table": "input-registers", "address": 1,
   "encoder": "float16", "multiplier": 10, "offset": 400, "unit": "degC",
   "unavailable": {"mode": "not-implemented"}, "source": {"device": 2, "channel": "T"}},
  {"name": "setpoint", "table": "holding-registers", "address": 10, "encoder": "float32",
   "unit": "V", "unavailable": {"mode": "not-implemented"},
   "source": {"device": 2, "channel": "V"}}
]})";

char const* const kScenario = R"({"devices": [{"id": 2, "name": "UPS", "channels": {
  "PowerDistribution.Status.OperatingStatus": {"uint32": 16}, "V": {"float": 12.5},
  "A": false, "B": true, "T": {"float": 25.5}}}]})";

TEST(DescribeTest, JsonListsEveryEntryWithLabelValueSourceAndImage) {
    testing::TestDaemon daemon(kMap, kScenario);
    auto const root = nlohmann::json::parse(daemon.core().describe(DescribeFormat::Json));
    EXPECT_TRUE(root["available"].get<bool>());
    ASSERT_EQ(root["entries"].size(), 4u);
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

TEST(DescribeTest, JsonGivesTheReferenceOfEachEntry) {
    testing::TestDaemon daemon(kMap, kScenario);
    auto const root = nlohmann::json::parse(daemon.core().describe(DescribeFormat::Json));
    auto const& temperature = root["entries"][2];
    EXPECT_EQ(temperature["wire"], "uint16");
    EXPECT_EQ(temperature["unit"], "degC");
    EXPECT_DOUBLE_EQ(temperature["scale"].get<double>(), 0.1);
    EXPECT_DOUBLE_EQ(temperature["offset"].get<double>(), -40.0);
    EXPECT_EQ(temperature["access"], "R");
    EXPECT_EQ(temperature["unavailable"], "0xFFFF");
    auto const& setpoint = root["entries"][3];
    EXPECT_EQ(setpoint["wire"], "float32 ABCD");
    EXPECT_EQ(setpoint["access"], "RW");
    EXPECT_EQ(setpoint["representation"], "Float32 (ABCD)");
    EXPECT_EQ(setpoint["value"], "12.5");
    EXPECT_EQ(setpoint["unavailable"], "0x7FC0 0x0000 (NaN)");
    EXPECT_EQ(setpoint["unavailableWords"], nlohmann::json::array({0x7FC0, 0}));
    EXPECT_EQ(root["entries"][1]["wire"], "bitfield16");
    EXPECT_EQ(root["entries"][1]["unavailable"], "0xFFFF");  // the map's default sentinel
}

TEST(DescribeTest, MarkdownEscapesPipesAndShowsTheFloatLayout) {
    testing::TestDaemon daemon(kMap, kScenario);
    std::string const text = daemon.core().describe(DescribeFormat::Markdown);
    EXPECT_NE(text.find("| holding-registers | 4 | 2 | v\\|1 | float32 libmodbus byte order 0: "),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("| R | 0xFFFF | Int16 | 655 |"), std::string::npos) << text;
    EXPECT_NE(text.find("byte order 0 (dcba helpers)"), std::string::npos);
}

TEST(DescribeTest, CsvHasAHeaderAndOneCrlfRecordPerEntry) {
    testing::TestDaemon daemon(kMap, kScenario);
    std::string const text = daemon.core().describe(DescribeFormat::Csv);
    EXPECT_EQ(text.rfind("table,address,size,name,wire,unit,scale,offset,access,unavailable,"
                         "representation,value,source,image,pushes,note\r\n",
                         0),
              0u);
    std::size_t records = 0;
    for (std::size_t at = text.find("\r\n"); at != std::string::npos;
         at = text.find("\r\n", at + 2)) {
        ++records;
    }
    EXPECT_EQ(records, 5u);  // the header and four entries
    EXPECT_EQ(text.find('\n'), text.find("\r\n") + 1);
}

TEST(DescribeTest, CsvQuotesFieldsWithCommasQuotesAndLineBreaks) {
    testing::TestDaemon daemon(kMap, kScenario);
    std::string const text = daemon.core().describe(DescribeFormat::Csv);
    EXPECT_NE(
        text.find("input-registers,1,1,\"temperature, \"\"ambient\"\"\",uint16,degC,0.1,-40,R,"
                  "0xFFFF,Int16,655,\"device 2 channel \"\"T\"\"\""),
        std::string::npos)
        << text;
    EXPECT_EQ(csvField("plain"), "plain");
    EXPECT_EQ(csvField("a,b"), "\"a,b\"");
    EXPECT_EQ(csvField("say \"hi\""), "\"say \"\"hi\"\"\"");
    EXPECT_EQ(csvField("two\r\nlines"), "\"two\r\nlines\"");
}

TEST(DescribeTest, FormatNamesAreKnown) {
    EXPECT_EQ(describeFormatFromName("json"), DescribeFormat::Json);
    EXPECT_EQ(describeFormatFromName("csv"), DescribeFormat::Csv);
    EXPECT_EQ(describeFormatFromName("markdown"), DescribeFormat::Markdown);
    EXPECT_FALSE(describeFormatFromName("xml"));
}

}  // namespace
}  // namespace tarsel::daemon
