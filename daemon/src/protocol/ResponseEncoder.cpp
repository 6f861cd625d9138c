#include "ResponseEncoder.h"

#include <stdexcept>

namespace tarsel::daemon {

namespace {

constexpr std::size_t kHeaderLength = 7;

void putWord(std::vector<std::uint8_t>& out, std::uint16_t value) {
    out.push_back(static_cast<std::uint8_t>(value >> 8));
    out.push_back(static_cast<std::uint8_t>(value & 0xFF));
}

std::vector<std::uint8_t> packedBits(std::vector<std::uint8_t> const& bits) {
    std::vector<std::uint8_t> bytes((bits.size() + 7) / 8, 0);
    for (std::size_t i = 0; i < bits.size(); ++i) {
        if (bits[i] != 0) {
            bytes[i / 8] = static_cast<std::uint8_t>(bytes[i / 8] | (1u << (i % 8)));
        }
    }
    return bytes;
}

/* The PDU after the function code. */
std::vector<std::uint8_t> responseBody(std::uint8_t const* requestPdu, Answer const& answer) {
    std::vector<std::uint8_t> body;
    switch (answer.function) {
        case 1:
        case 2: {
            auto const bytes = packedBits(answer.bits);
            body.push_back(static_cast<std::uint8_t>(bytes.size()));
            body.insert(body.end(), bytes.begin(), bytes.end());
            break;
        }
        case 3:
        case 4:
            body.push_back(static_cast<std::uint8_t>(answer.registers.size() * 2));
            for (std::uint16_t const word : answer.registers) {
                putWord(body, word);
            }
            break;
        case 5:
        case 6:
            // The answer to a single write is the request itself.
            body.assign(requestPdu + 1, requestPdu + 5);
            break;
        case 0x2B:
            // Read Device Identification: built whole by its own encoder.
            body = answer.body;
            break;
        default:  // 15, 16: the range written
            putWord(body, answer.address);
            putWord(body, answer.quantity);
            break;
    }
    return body;
}

}  // namespace

std::vector<std::uint8_t> encodeResponse(std::uint8_t const* request, std::size_t length,
                                         Answer const& answer) {
    if (length < kHeaderLength || answer.function >= 0x80) {
        throw std::logic_error("no Modbus answer can be built for this request");
    }
    std::vector<std::uint8_t> pdu;
    if (answer.exception != 0) {
        pdu = {static_cast<std::uint8_t>(answer.function | 0x80), answer.exception};
    } else {
        pdu.push_back(answer.function);
        auto const body = responseBody(request + kHeaderLength, answer);
        pdu.insert(pdu.end(), body.begin(), body.end());
    }
    std::vector<std::uint8_t> frame(request, request + 4);  // transaction and protocol id
    putWord(frame, static_cast<std::uint16_t>(pdu.size() + 1));
    frame.push_back(request[6]);  // unit id
    frame.insert(frame.end(), pdu.begin(), pdu.end());
    return frame;
}

}  // namespace tarsel::daemon
