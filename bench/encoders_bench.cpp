// Cost of one Modbus read and one write through an encoder over a channel of
// the simulated store: what the daemon pays per map entry per request.
#include <benchmark/benchmark.h>

#include <memory>

#include "cdshost/store.h"
#include "modbus/CdsChannelAccessor.h"
#include "modbus/CdsFloatAccessor.h"
#include "modbus/CdsFloatToOneRegisterAccessor.h"
#include "modbus/CdsStringAccessor.h"
#include "modbus/CdsUint32Accessor.h"

namespace {

struct World {
    cdshost::Id device;
    cdshost::Id channel;
};

World makeWorld(kq::CValue const& value) {
    auto& store = cdshost::Store::instance();
    store.reset();
    World world{};
    world.device = store.addDevice("UPS");
    world.channel = store.addChannel(world.device, "Channel", value);
    return world;
}

std::shared_ptr<modbus::CdsDataAccessor> channelAccessor(World const& world) {
    return std::make_shared<modbus::CdsChannelAccessor>(world.device, "Channel",
                                                        modbus::DataType::Value);
}

void BM_FloatGetData(benchmark::State& state) {
    World const world = makeWorld(kq::CValue(230.5f));
    modbus::CdsFloatAccessor encoder(channelAccessor(world), 1.0f);
    for (auto _ : state) {
        benchmark::DoNotOptimize(encoder.getData());
    }
}
BENCHMARK(BM_FloatGetData);

void BM_FloatSetData(benchmark::State& state) {
    World const world = makeWorld(kq::CValue(230.5f));
    modbus::CdsFloatAccessor encoder(channelAccessor(world), 1.0f);
    std::vector<uint16_t> const registers{0x0000, 0x4148};
    for (auto _ : state) {
        encoder.setData(registers);
    }
}
BENCHMARK(BM_FloatSetData);

void BM_Uint32GetData(benchmark::State& state) {
    World const world = makeWorld(kq::CValue(123456u));
    modbus::CdsUint32Accessor encoder(channelAccessor(world));
    for (auto _ : state) {
        benchmark::DoNotOptimize(encoder.getData());
    }
}
BENCHMARK(BM_Uint32GetData);

void BM_FloatToOneRegisterGetData(benchmark::State& state) {
    World const world = makeWorld(kq::CValue(49.95f));
    modbus::CdsFloatToOneRegisterAccessor encoder(channelAccessor(world), 10.0f, 0.0f);
    for (auto _ : state) {
        benchmark::DoNotOptimize(encoder.getData());
    }
}
BENCHMARK(BM_FloatToOneRegisterGetData);

void BM_StringGetData(benchmark::State& state) {
    World const world = makeWorld(kq::CValue("UPS 3000 RM 2U"));
    modbus::CdsStringAccessor encoder(
        16, new modbus::CdsChannelAccessor(world.device, "Channel", modbus::DataType::Value));
    for (auto _ : state) {
        benchmark::DoNotOptimize(encoder.getData());
    }
}
BENCHMARK(BM_StringGetData);

}  // namespace
