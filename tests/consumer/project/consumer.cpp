// Uses the library through its public headers only: implements a data
// accessor of its own, hands it to two encoders and reads them, and asks the
// availability check. Exits non-zero when an answer is not the expected one.
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "modbus/CdsBooleanToOneDiscreteAccessor.h"
#include "modbus/CdsDataAccessor.h"
#include "modbus/CdsUint32ToOneRegisterAccessor.h"
#include "modbus/PowerDistributionAvailableAccessor.h"

namespace {

/* A data accessor that always holds one value. */
class FixedValue : public modbus::CdsDataAccessor {
  public:
    explicit FixedValue(kq::CValue value) : m_value(std::move(value)) {}
    void setCValue(kq::CValue const& value) override { m_value = value; }
    kq::CValue getCValue() const override { return m_value; }
    bool isExitingInCds() const override { return true; }
    void setUpdateCallback(std::function<void(kq::CValue const&)> callback) override {
        m_callback = std::move(callback);
    }

  private:
    kq::CValue m_value;
    std::function<void(kq::CValue const&)> m_callback;
};

int passed = 0;
int failed = 0;

void check(bool ok, char const* what) {
    std::printf("%s: %s\n", ok ? "ok" : "FAILED", what);
    (ok ? passed : failed) += 1;
}

}  // namespace

int main() {
    modbus::CdsBooleanToOneDiscreteAccessor inverted(std::make_shared<FixedValue>(kq::CValue(true)),
                                                     modbus::DiscreteModifier::Invert);
    check(inverted.getData() == std::vector<uint8_t>{0}, "an inverted true reads as discrete 0");
    check(inverted.getSizeInRegister() == 1, "a boolean takes one discrete");

    // Takes ownership of the raw pointer.
    modbus::CdsUint32ToOneRegisterAccessor wide(new FixedValue(kq::CValue(70000u)), 1.0f);
    check(wide.getData() == std::vector<uint16_t>{4464}, "70000 reads as its low 16 bits");
    check(wide.getDataRepresentation() == "UInt16", "the one-register label is UInt16");

    modbus::PowerDistributionAvailableAccessor availability;
    check(!availability.isAvailable(), "an empty data store does not serve the UPS map");
    check(availability.notAvailableMessage().size() == 125, "the not-available message is whole");

    std::printf("consumer: %d passed, %d failed\n", passed, failed);
    return failed == 0 ? 0 : 1;
}
