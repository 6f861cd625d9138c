// Read Device Identification (function 0x2B, MEI type 0x0E): the answer to
// one request, built from the texts of the identification objects. Pure
// byte building; where the texts come from is the map's business.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tarsel::daemon {

/* The objects' texts by object id: 0x00 VendorName, 0x01 ProductCode,
 * 0x02 MajorMinorRevision (basic), 0x03 VendorUrl, 0x04 ProductName,
 * 0x05 ModelName, 0x06 UserApplicationName (regular). */
using IdentificationTexts = std::map<std::uint8_t, std::string>;

/* The answer: an exception, or the PDU after the function code. */
struct IdentificationAnswer {
    std::uint8_t exception = 0;
    std::vector<std::uint8_t> body;
};

namespace identification {
constexpr std::uint8_t kMeiType = 0x0E;
constexpr std::uint8_t kBasicStream = 0x01;
constexpr std::uint8_t kRegularStream = 0x02;
constexpr std::uint8_t kIndividual = 0x04;
constexpr std::uint8_t kLastBasicObject = 0x02;
constexpr std::uint8_t kLastRegularObject = 0x06;
// A response PDU is at most 253 bytes: function code, MEI type, read code,
// conformity level, more follows, next object id and object count, then
// each object as id, length and text.
constexpr std::size_t kMaxPdu = 253;
constexpr std::size_t kAnswerHeader = 7;
constexpr std::size_t kMaxText = kMaxPdu - kAnswerHeader - 2;
}  // namespace identification

/* The conformity level the objects allow: 0x82 (regular identification,
 * stream and individual access) when a regular object is there, else 0x81
 * (basic). */
std::uint8_t conformityLevel(IdentificationTexts const& texts);

/* Answers the PDU of a request (function code first, `length` bytes).
 * Exceptions: MEI type other than 0x0E, or no objects at all: 0x01; a PDU
 * that is not 4 bytes or a read code other than 1, 2 or 4: 0x03; an object
 * the individual access does not know: 0x02. A stream that does not fit in
 * one PDU says "more follows" and the id to ask for next; a stream asked
 * from an object it does not know starts at object 0. Texts longer than
 * kMaxText bytes are cut. */
IdentificationAnswer answerDeviceIdentification(std::uint8_t const* pdu, std::size_t length,
                                                IdentificationTexts const& texts);

}  // namespace tarsel::daemon
