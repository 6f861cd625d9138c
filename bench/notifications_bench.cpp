// Cost of one channel change reaching N encoders that share one data-store
// subscription, and of building and tearing down N accessors on one channel.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "cdshost/store.h"
#include "modbus/CdsChannelAccessor.h"
#include "modbus/CdsFloatAccessor.h"

namespace {

void BM_ChannelChangeFanOut(benchmark::State& state) {
    auto& store = cdshost::Store::instance();
    store.reset();
    cdshost::Id const device = store.addDevice("UPS");
    cdshost::Id const channel = store.addChannel(device, "Channel", kq::CValue(1.0f));

    std::vector<std::unique_ptr<modbus::CdsFloatAccessor>> encoders;
    long long pushes = 0;
    for (long long i = 0; i < state.range(0); ++i) {
        encoders.push_back(std::make_unique<modbus::CdsFloatAccessor>(
            new modbus::CdsChannelAccessor(device, "Channel", modbus::DataType::Value), 1.0f));
        encoders.back()->setCallback([&pushes](std::vector<uint16_t> const&) { ++pushes; });
    }
    float value = 0.0f;
    for (auto _ : state) {
        store.setChannelValue(channel, kq::CValue(value += 1.0f));
    }
    state.counters["pushes_per_change"] =
        benchmark::Counter(static_cast<double>(pushes) / static_cast<double>(state.iterations()));
    state.counters["store_subscriptions"] = static_cast<double>(store.subscriptionCount());
}
BENCHMARK(BM_ChannelChangeFanOut)->Arg(1)->Arg(16)->Arg(256);

void BM_AccessorLifecycle(benchmark::State& state) {
    auto& store = cdshost::Store::instance();
    store.reset();
    cdshost::Id const device = store.addDevice("UPS");
    store.addChannel(device, "Channel", kq::CValue(1.0f));
    for (auto _ : state) {
        std::vector<std::unique_ptr<modbus::CdsChannelAccessor>> accessors;
        for (long long i = 0; i < state.range(0); ++i) {
            accessors.push_back(std::make_unique<modbus::CdsChannelAccessor>(
                device, "Channel", modbus::DataType::Value));
        }
    }
}
BENCHMARK(BM_AccessorLifecycle)->Arg(1)->Arg(64);

}  // namespace
