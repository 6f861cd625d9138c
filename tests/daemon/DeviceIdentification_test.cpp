// The answer to Read Device Identification, byte by byte: stream and
// individual access, conformity level, "more follows", and the exceptions.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "DeviceIdentification.h"

namespace tarsel::daemon {
namespace {

using Bytes = std::vector<std::uint8_t>;

IdentificationAnswer ask(Bytes const& pdu, IdentificationTexts const& texts) {
    return answerDeviceIdentification(pdu.data(), pdu.size(), texts);
}

IdentificationTexts const kBasic = {{0x00, "Ta"}, {0x01, "P1"}, {0x02, "1.0"}};
IdentificationTexts const kRegular = {
    {0x00, "Ta"}, {0x01, "P1"}, {0x02, "1.0"}, {0x04, "GW"}, {0x05, "RT"}};

TEST(DeviceIdentificationTest, BasicStreamAnswersTheThreeBasicObjectsByteForByte) {
    IdentificationAnswer const answer = ask({0x2B, 0x0E, 0x01, 0x00}, kRegular);
    ASSERT_EQ(answer.exception, 0);
    EXPECT_EQ(answer.body, (Bytes{0x0E, 0x01, 0x82, 0x00, 0x00, 0x03,  //
                                  0x00, 2, 'T', 'a',                   //
                                  0x01, 2, 'P', '1',                   //
                                  0x02, 3, '1', '.', '0'}));
}

TEST(DeviceIdentificationTest, RegularStreamAddsTheRegularObjectsThereAre) {
    IdentificationAnswer const answer = ask({0x2B, 0x0E, 0x02, 0x00}, kRegular);
    ASSERT_EQ(answer.exception, 0);
    EXPECT_EQ(answer.body, (Bytes{0x0E, 0x02, 0x82, 0x00, 0x00, 0x05,  //
                                  0x00, 2,    'T',  'a',               //
                                  0x01, 2,    'P',  '1',               //
                                  0x02, 3,    '1',  '.',  '0',         //
                                  0x04, 2,    'G',  'W',               //
                                  0x05, 2,    'R',  'T'}));
}

TEST(DeviceIdentificationTest, IndividualAccessAnswersOneObject) {
    IdentificationAnswer const answer = ask({0x2B, 0x0E, 0x04, 0x05}, kRegular);
    ASSERT_EQ(answer.exception, 0);
    EXPECT_EQ(answer.body, (Bytes{0x0E, 0x04, 0x82, 0x00, 0x00, 0x01, 0x05, 2, 'R', 'T'}));
}

TEST(DeviceIdentificationTest, ConformityLevelIsBasicWithoutRegularObjects) {
    EXPECT_EQ(conformityLevel(kBasic), 0x81);
    EXPECT_EQ(conformityLevel(kRegular), 0x82);
    EXPECT_EQ(ask({0x2B, 0x0E, 0x01, 0x00}, kBasic).body.at(2), 0x81);
}

TEST(DeviceIdentificationTest, StreamFromAGivenObjectStartsThere) {
    IdentificationAnswer const answer = ask({0x2B, 0x0E, 0x02, 0x04}, kRegular);
    EXPECT_EQ(answer.body, (Bytes{0x0E, 0x02, 0x82, 0x00, 0x00, 0x02,  //
                                  0x04, 2, 'G', 'W', 0x05, 2, 'R', 'T'}));
}

TEST(DeviceIdentificationTest, StreamFromAnUnknownObjectStartsAtObjectZero) {
    EXPECT_EQ(ask({0x2B, 0x0E, 0x02, 0x03}, kRegular).body,
              ask({0x2B, 0x0E, 0x02, 0x00}, kRegular).body);
    // Object 4 is no basic object.
    EXPECT_EQ(ask({0x2B, 0x0E, 0x01, 0x04}, kRegular).body,
              ask({0x2B, 0x0E, 0x01, 0x00}, kRegular).body);
}

TEST(DeviceIdentificationTest, StreamThatDoesNotFitSaysMoreFollowsAndTheNextObject) {
    IdentificationTexts texts = kRegular;
    texts[0x04] = std::string(200, 'x');
    texts[0x05] = std::string(100, 'y');
    IdentificationAnswer const first = ask({0x2B, 0x0E, 0x02, 0x00}, texts);
    ASSERT_EQ(first.exception, 0);
    // 3 basic objects (4 + 4 + 5 bytes) and object 4 (202 bytes) fit in 246.
    EXPECT_EQ(first.body[3], 0xFF);
    EXPECT_EQ(first.body[4], 0x05);
    EXPECT_EQ(first.body[5], 4);
    EXPECT_EQ(first.body.size() + 1, 7u + 4 + 4 + 5 + 202);
    EXPECT_LE(first.body.size() + 1, 253u);
    IdentificationAnswer const next = ask({0x2B, 0x0E, 0x02, 0x05}, texts);
    EXPECT_EQ(next.body[3], 0x00);
    EXPECT_EQ(next.body[4], 0x00);
    EXPECT_EQ(next.body[5], 1);
    EXPECT_EQ(next.body[6], 0x05);
    EXPECT_EQ(next.body[7], 100);
}

TEST(DeviceIdentificationTest, ATextTooLongForOneAnswerIsCutToFit) {
    IdentificationTexts texts = kBasic;
    texts[0x00] = std::string(300, 'v');
    IdentificationAnswer const answer = ask({0x2B, 0x0E, 0x04, 0x00}, texts);
    ASSERT_EQ(answer.exception, 0);
    EXPECT_EQ(answer.body[7], identification::kMaxText);
    EXPECT_EQ(answer.body.size() + 1, 253u);
}

TEST(DeviceIdentificationTest, IndividualAccessToAnUnknownObjectIsIllegalDataAddress) {
    EXPECT_EQ(ask({0x2B, 0x0E, 0x04, 0x03}, kRegular).exception, 0x02);
    EXPECT_EQ(ask({0x2B, 0x0E, 0x04, 0x80}, kRegular).exception, 0x02);
}

TEST(DeviceIdentificationTest, ReadCodeOtherThanBasicRegularOrIndividualIsIllegalDataValue) {
    for (std::uint8_t const code : {0x00, 0x03, 0x05, 0xFF}) {
        EXPECT_EQ(ask({0x2B, 0x0E, code, 0x00}, kRegular).exception, 0x03) << int(code);
    }
}

TEST(DeviceIdentificationTest, MeiTypeOtherThan14IsIllegalFunction) {
    EXPECT_EQ(ask({0x2B, 0x0D, 0x01, 0x00}, kRegular).exception, 0x01);
    EXPECT_EQ(ask({0x2B, 0x00}, kRegular).exception, 0x01);
}

TEST(DeviceIdentificationTest, PduOfAnotherLengthIsIllegalDataValue) {
    EXPECT_EQ(ask({0x2B}, kRegular).exception, 0x03);
    EXPECT_EQ(ask({0x2B, 0x0E, 0x01}, kRegular).exception, 0x03);
    EXPECT_EQ(ask({0x2B, 0x0E, 0x01, 0x00, 0x00}, kRegular).exception, 0x03);
}

TEST(DeviceIdentificationTest, WithoutObjectsTheFunctionIsIllegal) {
    EXPECT_EQ(ask({0x2B, 0x0E, 0x01, 0x00}, {}).exception, 0x01);
}

}  // namespace
}  // namespace tarsel::daemon
