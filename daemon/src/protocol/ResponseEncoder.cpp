#include "ResponseEncoder.h"

#include <cstring>
#include <stdexcept>

namespace tarsel::daemon {

namespace {

constexpr std::size_t kHeaderLength = 7;
// The largest frame: the header, the function code and 253 bytes.
constexpr std::size_t kMaxFrame = 260;

void putWord(std::vector<std::uint8_t>& out, std::uint16_t value) {
    out.push_back(static_cast<std::uint8_t>(value >> 8));
    out.push_back(static_cast<std::uint8_t>(value & 0xFF));
}

void putPackedBits(std::vector<std::uint8_t>& out, std::vector<std::uint8_t> const& bits) {
    std::size_t const first = out.size();
    out.resize(first + (bits.size() + 7) / 8, 0);
    // Through a local pointer, as putBody() writes words.
    std::uint8_t* const packed = out.data() + first;
    for (std::size_t i = 0; i < bits.size(); ++i) {
        if (bits[i] != 0) {
            packed[i / 8] = static_cast<std::uint8_t>(packed[i / 8] | (1u << (i % 8)));
        }
    }
}

/* Appends the PDU after the function code. */
void putBody(std::vector<std::uint8_t>& out, std::uint8_t const* requestPdu, Answer const& answer) {
    switch (answer.function) {
        case 1:
        case 2:
            out.push_back(static_cast<std::uint8_t>((answer.bits.size() + 7) / 8));
            putPackedBits(out, answer.bits);
            break;
        case 3:
        case 4: {
            out.push_back(static_cast<std::uint8_t>(answer.registers.size() * 2));
            std::size_t const at = out.size();
            out.resize(at + answer.registers.size() * 2);
            // Through a local pointer: a store through the vector's own
            // would make the compiler reload its data pointer every byte.
            std::uint8_t* byte = out.data() + at;
            for (std::uint16_t const word : answer.registers) {
                *byte++ = static_cast<std::uint8_t>(word >> 8);
                *byte++ = static_cast<std::uint8_t>(word & 0xFF);
            }
            break;
        }
        case 5:
        case 6:
            // The answer to a single write is the request itself.
            out.insert(out.end(), requestPdu + 1, requestPdu + 5);
            break;
        case 0x2B:
            // Read Device Identification: built whole by its own encoder.
            out.insert(out.end(), answer.body.begin(), answer.body.end());
            break;
        default:  // 15, 16: the range written
            putWord(out, answer.address);
            putWord(out, answer.quantity);
            break;
    }
}

}  // namespace

void encodeResponse(std::uint8_t const* request, std::size_t length, Answer const& answer,
                    std::vector<std::uint8_t>& frame) {
    if (length < kHeaderLength || answer.function >= 0x80) {
        throw std::logic_error("no Modbus answer can be built for this request");
    }
    frame.clear();
    frame.reserve(kMaxFrame);
    // The header and the function code written in place, not byte by byte.
    frame.resize(kHeaderLength + 1);
    std::uint8_t* const head = frame.data();
    std::memcpy(head, request, 4);  // transaction and protocol id
    head[4] = 0;                    // the length, set below
    head[5] = 0;
    head[6] = request[6];  // unit id
    if (answer.exception != 0) {
        head[7] = static_cast<std::uint8_t>(answer.function | 0x80);
        frame.push_back(answer.exception);
    } else {
        head[7] = answer.function;
        putBody(frame, request + kHeaderLength, answer);
    }
    // Unit id and PDU.
    std::size_t const following = frame.size() - 6;
    frame[4] = static_cast<std::uint8_t>(following >> 8);
    frame[5] = static_cast<std::uint8_t>(following & 0xFF);
}

std::vector<std::uint8_t> encodeResponse(std::uint8_t const* request, std::size_t length,
                                         Answer const& answer) {
    std::vector<std::uint8_t> frame;
    encodeResponse(request, length, answer, frame);
    return frame;
}

}  // namespace tarsel::daemon
