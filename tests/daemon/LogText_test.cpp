// What clients can put into the log: never a line break, a terminal escape
// or a quote that ends a value early.
#include <gtest/gtest.h>

#include "LogText.h"

namespace tarsel::daemon {
namespace {

TEST(LogTextTest, EscapeControlsTurnsLineBreaksAndEscapesIntoVisibleText) {
    EXPECT_EQ(escapeControls("a\nb\rc\td"), "a\\nb\\rc\\td");
    EXPECT_EQ(escapeControls("\x1b[31mred\x1b[0m"), "\\x1B[31mred\\x1B[0m");
    EXPECT_EQ(escapeControls(std::string("nul\0del\x7f", 8)), "nul\\x00del\\x7F");
}

TEST(LogTextTest, EscapeControlsKeepsPrintableTextAndUtf8) {
    EXPECT_EQ(escapeControls("Rack 9 \"A\" \\ 25\xC2\xB0"
                             "C"),
              "Rack 9 \"A\" \\ 25\xC2\xB0"
              "C");
}

TEST(LogTextTest, EscapeControlsEscapesTheC1ControlsAndTheUnicodeLineBreaksOfUtf8) {
    // U+009B (a terminal's escape sequence), U+0085 (next line), U+2028, U+2029.
    EXPECT_EQ(escapeControls("a\xC2\x9B"
                             "31mb\xC2\x85"
                             "c\xE2\x80\xA8"
                             "d\xE2\x80\xA9"
                             "e"),
              "a\\xC2\\x9B31mb\\xC2\\x85c\\xE2\\x80\\xA8d\\xE2\\x80\\xA9e");
    // Their neighbours are text.
    EXPECT_EQ(escapeControls("\xC2\xA0\xE2\x80\xA7\xE2\x80\xAA"),
              "\xC2\xA0\xE2\x80\xA7\xE2\x80\xAA");
}

TEST(LogTextTest, EscapeControlsEscapesEveryByteThatIsNotWellFormedUtf8) {
    EXPECT_EQ(escapeControls("a\x9B"
                             "31m"),
              "a\\x9B31m");                               // a C1 control of 8-bit terminals
    EXPECT_EQ(escapeControls("\xC3"), "\\xC3");           // cut short at the end
    EXPECT_EQ(escapeControls("\xC3z"), "\\xC3z");         // cut short before ASCII
    EXPECT_EQ(escapeControls("\xC0\xAF"), "\\xC0\\xAF");  // overlong "/"
    EXPECT_EQ(escapeControls("\xED\xA0\x80"), "\\xED\\xA0\\x80");           // a surrogate
    EXPECT_EQ(escapeControls("\xF4\x90\x80\x80"), "\\xF4\\x90\\x80\\x80");  // beyond U+10FFFF
    EXPECT_EQ(escapeControls("\xF0\x9F\x94\x8B \xE2\x82\xAC"), "\xF0\x9F\x94\x8B \xE2\x82\xAC");
}

TEST(LogTextTest, EscapeControlsEscapesLatin1TextAndKeepsTheEdgesOfUtf8) {
    // A Latin-1 "caf\xE9" quoted in a parse error of a scenario file.
    EXPECT_EQ(escapeControls("last read: '\"caf\xE9\"'"), "last read: '\"caf\\xE9\"'");
    EXPECT_EQ(escapeControls("\x80 \xC0\xAF \xE0\x80\xAF \xED\xA0\x80 \xF4\x90\x80\x80 \xF5"),
              "\\x80 \\xC0\\xAF \\xE0\\x80\\xAF \\xED\\xA0\\x80 \\xF4\\x90\\x80\\x80 \\xF5");
    EXPECT_EQ(escapeControls("cut \xE2\x82"), "cut \\xE2\\x82");
    EXPECT_EQ(escapeControls("\xE2\x82\xAC \xF0\x9F\x94\x8C \xF4\x8F\xBF\xBF \xED\x9F\xBF"),
              "\xE2\x82\xAC \xF0\x9F\x94\x8C \xF4\x8F\xBF\xBF \xED\x9F\xBF");
}

TEST(LogTextTest, QuotedValueEscapesQuotesBackslashesAndEveryNonAsciiByte) {
    EXPECT_EQ(quotedValue("Rack 1"), "\"Rack 1\"");
    EXPECT_EQ(quotedValue("a\"b\\c"), "\"a\\\"b\\\\c\"");
    EXPECT_EQ(quotedValue("x\ntarsel-modbusd: error: FORGED\x1b[2K"),
              "\"x\\ntarsel-modbusd: error: FORGED\\x1B[2K\"");
    EXPECT_EQ(quotedValue("\xC2\x9B"), "\"\\xC2\\x9B\"");  // a C1 control in UTF-8
}

TEST(LogTextTest, GroupedThousandsPutsACommaEveryThreeDigits) {
    EXPECT_EQ(groupedThousands(0), "0");
    EXPECT_EQ(groupedThousands(999), "999");
    EXPECT_EQ(groupedThousands(1200), "1,200");
    EXPECT_EQ(groupedThousands(1234567), "1,234,567");
}

TEST(LogTextTest, SecondsTextShowsMillisecondsWithoutTrailingZeros) {
    using std::chrono::milliseconds;
    EXPECT_EQ(secondsText(milliseconds(0)), "0");
    EXPECT_EQ(secondsText(milliseconds(3000)), "3");
    EXPECT_EQ(secondsText(milliseconds(500)), "0.5");
    EXPECT_EQ(secondsText(milliseconds(10'250)), "10.25");
    EXPECT_EQ(secondsText(milliseconds(1)), "0.001");
    EXPECT_EQ(secondsText(milliseconds(600'000)), "600");
}

}  // namespace
}  // namespace tarsel::daemon
