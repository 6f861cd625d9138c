#include "DeviceIdentification.h"

#include <algorithm>

#include "ExceptionCodes.h"

namespace tarsel::daemon {

namespace {

using exception_code::kIllegalDataAddress;
using exception_code::kIllegalDataValue;
using exception_code::kIllegalFunction;

namespace id = identification;

constexpr std::size_t kRequestLength = 4;  // function, MEI type, read code, object id
constexpr std::uint8_t kMoreFollows = 0xFF;

IdentificationAnswer exception(std::uint8_t code) {
    IdentificationAnswer answer;
    answer.exception = code;
    return answer;
}

/* Appends one object (id, length, text cut to what one answer can hold). */
void putObject(std::vector<std::uint8_t>& body, std::uint8_t object, std::string const& text) {
    std::size_t const size = std::min(text.size(), id::kMaxText);
    body.push_back(object);
    body.push_back(static_cast<std::uint8_t>(size));
    body.insert(body.end(), text.begin(), text.begin() + static_cast<std::ptrdiff_t>(size));
}

std::size_t objectSize(std::string const& text) {
    return 2 + std::min(text.size(), id::kMaxText);
}

}  // namespace

std::uint8_t conformityLevel(IdentificationTexts const& texts) {
    bool const regular = !texts.empty() && texts.rbegin()->first > id::kLastBasicObject;
    return regular ? 0x82 : 0x81;
}

IdentificationAnswer answerDeviceIdentification(std::uint8_t const* pdu, std::size_t length,
                                                IdentificationTexts const& texts) {
    if (length < 2) {
        return exception(kIllegalDataValue);
    }
    if (pdu[1] != id::kMeiType || texts.empty()) {
        return exception(kIllegalFunction);
    }
    if (length != kRequestLength) {
        return exception(kIllegalDataValue);
    }
    std::uint8_t const code = pdu[2];
    std::uint8_t const first = pdu[3];
    if (code != id::kBasicStream && code != id::kRegularStream && code != id::kIndividual) {
        return exception(kIllegalDataValue);
    }
    IdentificationAnswer answer;
    answer.body = {id::kMeiType, code, conformityLevel(texts), 0x00, 0x00, 0x00};
    std::uint8_t count = 0;
    if (code == id::kIndividual) {
        auto const found = texts.find(first);
        if (found == texts.end()) {
            return exception(kIllegalDataAddress);
        }
        putObject(answer.body, found->first, found->second);
        answer.body[5] = 1;
        return answer;
    }
    std::uint8_t const last =
        code == id::kBasicStream ? id::kLastBasicObject : id::kLastRegularObject;
    auto it = texts.find(first);
    if (it == texts.end() || first > last) {
        it = texts.begin();
    }
    std::size_t room = id::kMaxPdu - id::kAnswerHeader;
    for (; it != texts.end() && it->first <= last; ++it) {
        if (count > 0 && objectSize(it->second) > room) {
            answer.body[3] = kMoreFollows;
            answer.body[4] = it->first;
            break;
        }
        putObject(answer.body, it->first, it->second);
        room -= objectSize(it->second);
        ++count;
    }
    answer.body[5] = count;
    return answer;
}

}  // namespace tarsel::daemon
