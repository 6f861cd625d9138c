// The words a served entry keeps of its last push: read as the vector they
// were given, held in place while they are few.
#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <utility>
#include <vector>

#include "ImageWords.h"
#include "ServedMap.h"

namespace {

using tarsel::daemon::ImageWords;
using Words = std::vector<std::uint16_t>;

TEST(ImageWordsTest, TakesTwoPointersWorthOfRoom) {
    // A served entry holds one and stays within its allocator class.
    EXPECT_LE(sizeof(ImageWords), 2 * sizeof(void*));
}

TEST(ImageWordsTest, EmptyUntilWordsAreGiven) {
    ImageWords words;
    EXPECT_TRUE(words.empty());
    EXPECT_EQ(words.size(), 0u);
    EXPECT_EQ(words.begin(), words.end());
    EXPECT_EQ(words, Words{});
    EXPECT_TRUE(tarsel::daemon::PushImage{}.words.empty());
}

TEST(ImageWordsTest, ReadsAsTheWordsItWasGivenFewOrMany) {
    for (Words const& given :
         {Words{7}, Words{1, 2}, Words{1, 2, 3}, Words{1, 2, 3, 4}, Words(40, 0xABCD)}) {
        ImageWords words;
        words = given;
        EXPECT_FALSE(words.empty());
        EXPECT_EQ(words.size(), given.size());
        EXPECT_EQ(words, given);
        EXPECT_EQ(given, words);
        EXPECT_EQ(words.vector(), given);
        EXPECT_EQ(words[given.size() - 1], given.back());
    }
}

TEST(ImageWordsTest, ComparesWordByWordAndByLength) {
    ImageWords const words(Words{1, 2});
    EXPECT_NE(words, (Words{1, 3}));
    EXPECT_NE(words, (Words{1, 2, 0}));
    EXPECT_NE(words, (Words{1}));
    EXPECT_NE((Words{2, 1}), words);
    EXPECT_EQ(words, ImageWords(Words{1, 2}));
    EXPECT_NE(words, ImageWords(Words{1, 2, 3, 4, 5, 6}));
}

TEST(ImageWordsTest, ShorterWordsReplaceLongerOnesAndBack) {
    ImageWords words(Words(6, 9));
    words = Words{5};
    EXPECT_EQ(words, Words{5});
    words = Words{1, 2, 3, 4, 5, 6, 7};
    EXPECT_EQ(words, (Words{1, 2, 3, 4, 5, 6, 7}));
    words.clear();
    EXPECT_TRUE(words.empty());
}

TEST(ImageWordsTest, ACopyKeepsItsWordsWhenTheOriginalChanges) {
    for (Words const& given : {Words{1, 2}, Words(10, 3)}) {
        ImageWords original(given);
        ImageWords const copy = original;
        ImageWords assigned;
        assigned = original;
        original = Words{4};
        EXPECT_EQ(copy, given);
        EXPECT_EQ(assigned, given);
    }
}

TEST(ImageWordsTest, MovingTakesTheWordsAndLeavesTheSourceEmpty) {
    for (Words const& given : {Words{1, 2}, Words(10, 3)}) {
        ImageWords original(given);
        ImageWords moved(std::move(original));
        EXPECT_EQ(moved, given);
        EXPECT_TRUE(original.empty());  // NOLINT(bugprone-use-after-move): pinned on purpose
        ImageWords target(Words{8});
        target = std::move(moved);
        EXPECT_EQ(target, given);
        EXPECT_TRUE(moved.empty());  // NOLINT(bugprone-use-after-move)
    }
}

TEST(ImageWordsTest, PrintsItsWordsInOrder) {
    std::ostringstream out;
    out << ImageWords(Words{1, 65535});
    EXPECT_EQ(out.str(), "{1, 65535}");
}

}  // namespace
