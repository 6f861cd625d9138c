// The answer frames the daemon sends: MBAP header echoed with the answer's
// length, response PDUs for each function, exceptions with the top bit set.
#include <gtest/gtest.h>

#include <stdexcept>

#include "DaemonTestSupport.h"
#include "ResponseEncoder.h"

namespace tarsel::daemon {
namespace {

using Bytes = std::vector<std::uint8_t>;
using testing::request;

Bytes encode(Bytes const& frame, Answer const& answer) {
    return encodeResponse(frame.data(), frame.size(), answer);
}

Answer answerTo(std::uint8_t function, std::uint16_t address, std::uint16_t quantity) {
    Answer answer;
    answer.function = function;
    answer.address = address;
    answer.quantity = quantity;
    return answer;
}

TEST(ResponseEncoderTest, RegisterReadsCarryAByteCountAndBigEndianWords) {
    Answer answer = answerTo(3, 10, 2);
    answer.registers = {0x4148, 0x0001};
    Bytes const frame = {0x12, 0x34, 0, 0, 0, 6, 7, 3, 0, 10, 0, 2};
    EXPECT_EQ(encode(frame, answer), (Bytes{0x12, 0x34, 0, 0, 0, 7, 7, 3, 4, 0x41, 0x48, 0, 1}));
}

TEST(ResponseEncoderTest, EncodingIntoAKeptBufferReplacesWhatItHeld) {
    Answer longer = answerTo(3, 10, 2);
    longer.registers = {0x4148, 0x0001};
    Bytes const frame = {0x12, 0x34, 0, 0, 0, 6, 7, 3, 0, 10, 0, 2};
    Bytes kept;
    encodeResponse(frame.data(), frame.size(), longer, kept);
    Answer shorter = answerTo(3, 10, 1);
    shorter.exception = 2;
    encodeResponse(frame.data(), frame.size(), shorter, kept);
    EXPECT_EQ(kept, (Bytes{0x12, 0x34, 0, 0, 0, 3, 7, 0x83, 2}));
}

TEST(ResponseEncoderTest, BitReadsPackTheFirstBitIntoTheLowestBit) {
    Answer answer = answerTo(2, 0, 10);
    answer.bits = {1, 0, 1, 1, 0, 0, 0, 0, 0, 1};
    EXPECT_EQ(encode(request(2, 0, 10), answer),
              (Bytes{0, 1, 0, 0, 0, 5, 1, 2, 2, 0b00001101, 0b00000010}));
}

TEST(ResponseEncoderTest, BitReadsIntoAKeptBufferPackOnlyTheirOwnBits) {
    // The buffer held set bytes where the packed bits go: a bit that is off
    // must read as off, not as what the buffer held.
    Answer words = answerTo(3, 0, 3);
    words.registers = {0xFFFF, 0xFFFF, 0xFFFF};
    Bytes kept;
    Bytes const wordsRequest = request(3, 0, 3);
    encodeResponse(wordsRequest.data(), wordsRequest.size(), words, kept);
    Answer bits = answerTo(1, 0, 10);
    bits.bits = {0, 1, 0, 0, 0, 0, 0, 0, 0, 0};
    Bytes const bitsRequest = request(1, 0, 10);
    encodeResponse(bitsRequest.data(), bitsRequest.size(), bits, kept);
    EXPECT_EQ(kept, (Bytes{0, 1, 0, 0, 0, 5, 1, 1, 2, 0b00000010, 0}));
}

TEST(ResponseEncoderTest, SingleWritesEchoTheRequest) {
    Bytes const coil = request(5, 3, 0xFF00);
    EXPECT_EQ(encode(coil, answerTo(5, 3, 1)), coil);
    Bytes const reg = request(6, 9, 0xBEEF);
    EXPECT_EQ(encode(reg, answerTo(6, 9, 1)), reg);
}

TEST(ResponseEncoderTest, MultipleWritesAnswerTheRangeWritten) {
    Bytes const frame = testing::writeRegisters(0x0102, {1, 2, 3});
    EXPECT_EQ(encode(frame, answerTo(16, 0x0102, 3)),
              (Bytes{0, 1, 0, 0, 0, 6, 1, 16, 0x01, 0x02, 0, 3}));
}

TEST(ResponseEncoderTest, ExceptionsSetTheTopBitOfTheFunctionCode) {
    Answer answer = answerTo(0x2B, 0, 0);
    answer.exception = 0x01;
    EXPECT_EQ(encode(request(0x2B, 0, 0, 9), answer), (Bytes{0, 1, 0, 0, 0, 3, 9, 0xAB, 0x01}));
    Answer zero = answerTo(0, 0, 0);
    zero.exception = 0x01;
    EXPECT_EQ(encode(request(0, 0, 0), zero), (Bytes{0, 1, 0, 0, 0, 3, 1, 0x80, 0x01}));
}

TEST(ResponseEncoderTest, DeviceIdentificationCarriesItsBodyWholeAndCountsItInTheLength) {
    Answer answer = answerTo(0x2B, 0, 0);
    answer.body = {0x0E, 0x01, 0x01, 0x00, 0x00, 0x01, 0x00, 0x03, 'T', 'S', 'L'};
    Bytes const frame = request(0x2B, 0x0E01, 0, 9);
    Bytes expected = {0, 1, 0, 0, 0, 13, 9, 0x2B};
    expected.insert(expected.end(), answer.body.begin(), answer.body.end());
    EXPECT_EQ(encode(frame, answer), expected);
}

TEST(ResponseEncoderTest, AnswersOfEveryLengthFollowEachOtherInOneKeptBuffer) {
    // Longer than the buffer's first reserve, then shorter, then longer again:
    // each frame is whole, with nothing left of the one before.
    Answer input = answerTo(4, 0, 127);
    for (std::uint16_t i = 0; i < 127; ++i) {
        input.registers.push_back(static_cast<std::uint16_t>(0x0100 + i));
    }
    Bytes const inputRequest = request(4, 0, 127);
    Bytes kept;
    encodeResponse(inputRequest.data(), inputRequest.size(), input, kept);
    ASSERT_EQ(kept.size(), 7u + 2u + 254u);
    EXPECT_EQ(kept[4], 1);
    EXPECT_EQ(kept[5], 1);  // 257: unit id, function, count and 254 bytes
    EXPECT_EQ(kept[8], 254);
    EXPECT_EQ(kept[9 + 2 * 126], 0x01);
    EXPECT_EQ(kept[9 + 2 * 126 + 1], 126);
    Bytes const coils = testing::writeCoils(7, std::vector<bool>(9, true));
    encodeResponse(coils.data(), coils.size(), answerTo(15, 7, 9), kept);
    EXPECT_EQ(kept, (Bytes{0, 1, 0, 0, 0, 6, 1, 15, 0, 7, 0, 9}));
    Answer bits = answerTo(1, 0, 17);
    bits.bits.assign(17, 1);
    Bytes const bitsRequest = request(1, 0, 17);
    encodeResponse(bitsRequest.data(), bitsRequest.size(), bits, kept);
    EXPECT_EQ(kept, (Bytes{0, 1, 0, 0, 0, 6, 1, 1, 3, 0xFF, 0xFF, 0x01}));
}

TEST(ResponseEncoderTest, RefusesAFunctionCodeThatHasNoExceptionAnswer) {
    Answer answer = answerTo(0x81, 0, 0);
    answer.exception = 0x01;
    EXPECT_THROW(encode(request(0x81, 0, 0), answer), std::logic_error);
}

}  // namespace
}  // namespace tarsel::daemon
