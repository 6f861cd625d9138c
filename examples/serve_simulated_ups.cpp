// The smallest complete use of the library: a simulated UPS in the host data
// store, three map entries (a float, an int32 and a boolean), one read of
// each, a write, and a value change pushed to a listener already encoded.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "cdshost/store.h"
#include "modbus/CdsBooleanToOneDiscreteAccessor.h"
#include "modbus/CdsChannelAccessor.h"
#include "modbus/CdsFloatAccessor.h"
#include "modbus/CdsInt32Accessor.h"

namespace {

std::string hex(std::vector<uint16_t> const& registers) {
    std::string text;
    for (uint16_t word : registers) {
        char buffer[8];
        std::snprintf(buffer, sizeof buffer, "%s0x%04X", text.empty() ? "" : " ", word);
        text += buffer;
    }
    return "{" + text + "}";
}

std::string bits(std::vector<uint8_t> const& discretes) {
    std::string text;
    for (uint8_t bit : discretes) {
        text += bit ? '1' : '0';
    }
    return "{" + text + "}";
}

}  // namespace

int main() {
    auto& store = cdshost::Store::instance();
    cdshost::Id const ups = store.addDevice("UPS", 2);
    cdshost::Id const voltage = store.addChannel(ups, "Output.Voltage", kq::CValue(230.5f));
    cdshost::Id const runtime = store.addChannel(ups, "Battery.RuntimeSeconds", kq::CValue(-1));
    cdshost::Id const onBattery = store.addChannel(ups, "Status.OnBattery", kq::CValue(false));
    store.setChannelValue(runtime, kq::CValue(5400));

    // What a daemon does for each entry of its register map: build a data
    // accessor, hand it to an encoder, install a listener.
    modbus::CdsFloatAccessor voltageEntry(
        new modbus::CdsChannelAccessor(ups, "Output.Voltage", modbus::DataType::Value), 1.0f);
    modbus::CdsInt32Accessor runtimeEntry(
        new modbus::CdsChannelAccessor("UPS", "Battery.RuntimeSeconds", modbus::DataType::Value));
    modbus::CdsBooleanToOneDiscreteAccessor onBatteryEntry(
        new modbus::CdsChannelAccessor(ups, "Status.OnBattery", modbus::DataType::Value),
        modbus::DiscreteModifier::None);

    voltageEntry.setCallback([](std::vector<uint16_t> const& registers) {
        std::printf("  push  Output.Voltage       -> %s\n", hex(registers).c_str());
    });
    onBatteryEntry.setCallback([](std::vector<uint8_t> const& discretes) {
        std::printf("  push  Status.OnBattery     -> %s\n", bits(discretes).c_str());
    });

    std::printf("Served from the simulated data store:\n");
    std::printf("  %-26s %-20s %-16s %s\n", "entry", "representation", "text", "registers");
    std::printf("  %-26s %-20s %-16s %s\n", "Output.Voltage",
                voltageEntry.getDataRepresentation().c_str(), voltageEntry.getStrValue().c_str(),
                hex(voltageEntry.getData()).c_str());
    std::printf("  %-26s %-20s %-16s %s\n", "Battery.RuntimeSeconds",
                runtimeEntry.getDataRepresentation().c_str(), runtimeEntry.getStrValue().c_str(),
                hex(runtimeEntry.getData()).c_str());
    std::printf("  %-26s %-20s %-16s %s\n", "Status.OnBattery",
                onBatteryEntry.getDataRepresentation().c_str(),
                onBatteryEntry.getStrValue().c_str(), bits(onBatteryEntry.getData()).c_str());

    std::printf("\nA Modbus write of {0x0000, 0x1C20} (7200) to Battery.RuntimeSeconds:\n");
    runtimeEntry.setData({0x0000, 0x1C20});
    std::printf("  the store now holds %s\n", store.channelValue(runtime).toDebugString().c_str());

    std::printf("\nThe UPS changes; the encoders push the new registers:\n");
    store.setChannelValue(voltage, kq::CValue(229.0f));
    store.setChannelValue(onBattery, kq::CValue(true));

    std::printf("\nThe channel disappears; the entry becomes unavailable:\n");
    store.removeChannel(voltage);
    std::printf("  Output.Voltage available: %s, registers %s\n",
                voltageEntry.isDataAvailable() ? "yes" : "no", hex(voltageEntry.getData()).c_str());
    return 0;
}
