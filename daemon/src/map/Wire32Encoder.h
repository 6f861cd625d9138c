// The daemon's own encoders of 32-bit values (float, signed and unsigned
// integers) in an explicit wire layout, for maps that must mean the same to
// every client on every machine. The library's float encoder lays its words
// out with the linked libmodbus and stays what card-compatible maps use.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "WireLayout.h"
#include "modbus/CdsDataAccessor.h"
#include "modbus/RegistersDataAccessor.h"

namespace tarsel::daemon {

enum class Wire32Type { Float32, Int32, Uint32 };

/* The registers of a value, and the value of registers; pure functions.
 * Float32 is value x multiplier, written values are divided by it once.
 * Integers are not scaled. A write of fewer than two registers counts the
 * missing ones as 0. */
std::vector<std::uint16_t> wire32Registers(Wire32Type type, WireLayout layout, float multiplier,
                                           kq::CValue const& value);
kq::CValue wire32Value(Wire32Type type, WireLayout layout, float multiplier,
                       std::vector<std::uint16_t> const& registers);
/* The value as text: floats in their shortest exact form, integers in
 * decimal. */
std::string wire32Text(Wire32Type type, float multiplier, kq::CValue const& value);

/*
 * Two registers of a data accessor's value. The encoder owns the data
 * accessor and is its update listener from construction to destruction;
 * the listener set with setCallback() receives every change, encoded.
 */
class Wire32Encoder : public modbus::RegistersDataAccessor {
  public:
    Wire32Encoder(std::unique_ptr<modbus::CdsDataAccessor> source, Wire32Type type,
                  WireLayout layout, float multiplier);
    ~Wire32Encoder() override;

    Wire32Encoder(Wire32Encoder const&) = delete;
    Wire32Encoder& operator=(Wire32Encoder const&) = delete;

    void setData(std::vector<uint16_t> const& data) override;
    std::vector<uint16_t> getData() const override;
    /* "Float32 (ABCD)", "Int32 (CDAB)", "UInt32 (DCBA)". */
    std::string getDataRepresentation() const override;
    bool isDataAvailable() const override;
    void setCallback(std::function<void(std::vector<uint16_t> const&)> callback) override;
    std::string getStrValue() const override;
    uint16_t getSizeInRegister() const override { return 2; }
    /* The layout is fixed by the map: the library's byte order is ignored. */
    void setByteOrder(modbus::ByteOrder) override {}

  private:
    void push(kq::CValue const& value);

    std::unique_ptr<modbus::CdsDataAccessor> m_source;
    Wire32Type m_type;
    WireLayout m_layout;
    float m_multiplier;
    std::function<void(std::vector<uint16_t> const&)> m_callback;
};

}  // namespace tarsel::daemon
