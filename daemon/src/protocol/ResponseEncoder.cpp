#include "ResponseEncoder.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace tarsel::daemon {

namespace {

constexpr std::size_t kHeaderLength = 7;
// The largest frame: the header, the function code and 253 bytes.
constexpr std::size_t kMaxFrame = 260;

std::uint8_t* putWord(std::uint8_t* out, std::uint16_t value) {
    *out++ = static_cast<std::uint8_t>(value >> 8);
    *out++ = static_cast<std::uint8_t>(value & 0xFF);
    return out;
}

/* The bytes of the PDU after the function code, so that the frame is sized
 * once and written through a pointer. */
std::size_t bodyLength(Answer const& answer) {
    if (answer.exception != 0) {
        return 1;
    }
    switch (answer.function) {
        case 1:
        case 2:
            return 1 + (answer.bits.size() + 7) / 8;
        case 3:
        case 4:
            return 1 + answer.registers.size() * 2;
        case 0x2B:
            return answer.body.size();
        default:  // 5, 6: address and value; 15, 16: the range written
            return 4;
    }
}

/* Writes the PDU after the function code into `out`, which the caller sized
 * with bodyLength() and filled with zeros. */
void putBody(std::uint8_t* out, std::uint8_t const* requestPdu, Answer const& answer) {
    switch (answer.function) {
        case 1:
        case 2: {
            *out++ = static_cast<std::uint8_t>((answer.bits.size() + 7) / 8);
            for (std::size_t i = 0; i < answer.bits.size(); ++i) {
                if (answer.bits[i] != 0) {
                    out[i / 8] = static_cast<std::uint8_t>(out[i / 8] | (1u << (i % 8)));
                }
            }
            break;
        }
        case 3:
        case 4:
            *out++ = static_cast<std::uint8_t>(answer.registers.size() * 2);
            for (std::uint16_t const word : answer.registers) {
                out = putWord(out, word);
            }
            break;
        case 5:
        case 6:
            // The answer to a single write is the request itself.
            std::memcpy(out, requestPdu + 1, 4);
            break;
        case 0x2B:
            // Read Device Identification: built whole by its own encoder.
            std::copy(answer.body.begin(), answer.body.end(), out);
            break;
        default:  // 15, 16: the range written
            putWord(putWord(out, answer.address), answer.quantity);
            break;
    }
}

}  // namespace

void encodeResponse(std::uint8_t const* request, std::size_t length, Answer const& answer,
                    std::vector<std::uint8_t>& frame) {
    if (length < kHeaderLength || answer.function >= 0x80) {
        throw std::logic_error("no Modbus answer can be built for this request");
    }
    std::size_t const body = bodyLength(answer);
    frame.clear();
    frame.reserve(kMaxFrame);
    // One resize, zeros throughout (the packed bits are set into them).
    frame.resize(kHeaderLength + 1 + body);
    std::uint8_t* const head = frame.data();
    std::memcpy(head, request, 4);  // transaction and protocol id
    // Unit id and PDU.
    std::size_t const following = frame.size() - 6;
    head[4] = static_cast<std::uint8_t>(following >> 8);
    head[5] = static_cast<std::uint8_t>(following & 0xFF);
    head[6] = request[6];  // unit id
    if (answer.exception != 0) {
        head[7] = static_cast<std::uint8_t>(answer.function | 0x80);
        head[8] = answer.exception;
    } else {
        head[7] = answer.function;
        putBody(head + kHeaderLength + 1, request + kHeaderLength, answer);
    }
}

std::vector<std::uint8_t> encodeResponse(std::uint8_t const* request, std::size_t length,
                                         Answer const& answer) {
    std::vector<std::uint8_t> frame;
    encodeResponse(request, length, answer, frame);
    return frame;
}

}  // namespace tarsel::daemon
