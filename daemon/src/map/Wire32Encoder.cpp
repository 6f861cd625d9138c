#include "Wire32Encoder.h"

#include <cstdio>
#include <utility>

namespace tarsel::daemon {

namespace {

WordPair firstTwo(std::vector<std::uint16_t> const& registers) {
    return {registers.empty() ? std::uint16_t{0} : registers[0],
            registers.size() < 2 ? std::uint16_t{0} : registers[1]};
}

std::vector<std::uint16_t> asVector(WordPair words) {
    return {words[0], words[1]};
}

char const* typeLabel(Wire32Type type) {
    switch (type) {
        case Wire32Type::Float32:
            return "Float32";
        case Wire32Type::Int32:
            return "Int32";
        case Wire32Type::Uint32:
            return "UInt32";
    }
    return "?";
}

}  // namespace

std::vector<std::uint16_t> wire32Registers(Wire32Type type, WireLayout layout, float multiplier,
                                           kq::CValue const& value) {
    switch (type) {
        case Wire32Type::Float32:
            return asVector(wordsOfFloat(value.as_float() * multiplier, layout));
        case Wire32Type::Int32:
            return asVector(wordsOfInt32(value.as_int32(), layout));
        case Wire32Type::Uint32:
            return asVector(wordsOfUint32(value.as_uint32(), layout));
    }
    return {};
}

kq::CValue wire32Value(Wire32Type type, WireLayout layout, float multiplier,
                       std::vector<std::uint16_t> const& registers) {
    WordPair const words = firstTwo(registers);
    switch (type) {
        case Wire32Type::Float32:
            return kq::CValue(floatOfWords(words, layout) / multiplier);
        case Wire32Type::Int32:
            return kq::CValue(static_cast<int>(int32OfWords(words, layout)));
        case Wire32Type::Uint32:
            return kq::CValue(static_cast<unsigned int>(uint32OfWords(words, layout)));
    }
    return {};
}

std::string wire32Text(Wire32Type type, float multiplier, kq::CValue const& value) {
    switch (type) {
        case Wire32Type::Float32:
            // The value's shortest decimal form, as the data store gives it.
            return kq::CValue(value.as_float() * multiplier).as_string();
        case Wire32Type::Int32:
            return std::to_string(value.as_int32());
        case Wire32Type::Uint32:
            return std::to_string(value.as_uint32());
    }
    return {};
}

Wire32Encoder::Wire32Encoder(std::unique_ptr<modbus::CdsDataAccessor> source, Wire32Type type,
                             WireLayout layout, float multiplier)
    : m_source(std::move(source)), m_type(type), m_layout(layout), m_multiplier(multiplier) {
    // The data accessor calls the listener once at once, with the current
    // value; no listener of ours is set yet, so that is not a push.
    m_source->setUpdateCallback([this](kq::CValue const& value) { push(value); });
}

Wire32Encoder::~Wire32Encoder() {
    try {
        m_source->setUpdateCallback({});
    } catch (...) {
        // Clearing a listener calls nothing; a data accessor that throws
        // here is destroyed next anyway.
    }
}

void Wire32Encoder::push(kq::CValue const& value) {
    if (!m_callback) {
        return;
    }
    // A copy of the listener runs, so one that replaces itself finishes.
    auto const listener = m_callback;
    listener(wire32Registers(m_type, m_layout, m_multiplier, value));
}

bool Wire32Encoder::isDataAvailable() const {
    return m_source->isExitingInCds();
}

std::vector<uint16_t> Wire32Encoder::getData() const {
    if (!isDataAvailable()) {
        return {};
    }
    return wire32Registers(m_type, m_layout, m_multiplier, m_source->getCValue());
}

void Wire32Encoder::setData(std::vector<uint16_t> const& data) {
    if (!isDataAvailable()) {
        return;
    }
    m_source->setCValue(wire32Value(m_type, m_layout, m_multiplier, data));
}

std::string Wire32Encoder::getDataRepresentation() const {
    return std::string(typeLabel(m_type)) + " (" + wireLayoutName(m_layout) + ")";
}

void Wire32Encoder::setCallback(std::function<void(std::vector<uint16_t> const&)> callback) {
    m_callback = std::move(callback);
}

std::string Wire32Encoder::getStrValue() const {
    if (!isDataAvailable()) {
        return {};
    }
    return wire32Text(m_type, m_multiplier, m_source->getCValue());
}

}  // namespace tarsel::daemon
