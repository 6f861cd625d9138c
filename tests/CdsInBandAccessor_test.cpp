#include "modbus/CdsInBandAccessor.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <thread>
#include <vector>

#include "cdshost/store.h"

namespace {

using modbus::CdsInBandAccessor;

TEST(CdsInBandAccessorTest, GetInstanceTwiceRegistersClientOnce) {
    cdshost::Store& store = cdshost::Store::instance();

    CdsInBandAccessor& first = CdsInBandAccessor::getInstance();
    CdsInBandAccessor& second = CdsInBandAccessor::getInstance();

    EXPECT_EQ(&first, &second);
    EXPECT_EQ(store.connections("modbus"), 1u);
    EXPECT_EQ(store.calls("CdsAccessor"), 1u);
}

TEST(CdsInBandAccessorTest, ConnectionIsRegisteredUnderClientNameModbus) {
    CdsInBandAccessor& connection = CdsInBandAccessor::getInstance();

    EXPECT_EQ(connection.inBand().clientName(), "modbus");
    EXPECT_EQ(&connection.inBand(), &connection.cdsAccessor().getInBandAccessor());
}

TEST(CdsInBandAccessorTest, FailedConstructionPropagatesAndNextCallRetries) {
    cdshost::Store& store = cdshost::Store::instance();
    store.failNext("CdsAccessor");

    EXPECT_THROW(CdsInBandAccessor::getInstance(), cdshost::InjectedFault);
    EXPECT_EQ(store.connections("modbus"), 0u);

    CdsInBandAccessor& connection = CdsInBandAccessor::getInstance();
    EXPECT_EQ(connection.inBand().clientName(), "modbus");
    EXPECT_EQ(store.calls("CdsAccessor"), 2u);
    EXPECT_EQ(store.connections("modbus"), 1u);

    // Built now: a later call does not construct again.
    CdsInBandAccessor::getInstance();
    EXPECT_EQ(store.calls("CdsAccessor"), 2u);
}

TEST(CdsInBandAccessorTest, OperationsReachTheStoreThroughTheSharedConnection) {
    cdshost::Store& store = cdshost::Store::instance();
    cdshost::Id const device = store.addDevice("UPS", 100);
    cdshost::Id const channel = store.addChannel(device, "Output.Voltage", kq::CValue(230.0f), 7);

    EXPECT_EQ(CdsInBandAccessor::getInstance().cdsAccessor().getDeviceByName("UPS"), device);
    EXPECT_EQ(CdsInBandAccessor::getInstance().inBand().getChannelId(device, "Output.Voltage"),
              channel);
    EXPECT_EQ(CdsInBandAccessor::getInstance().inBand().getChannelCValue(channel),
              kq::CValue(230.0f));
    EXPECT_EQ(store.calls("getChannelCValue", channel), 1u);
    EXPECT_EQ(store.connections("modbus"), 1u);
}

TEST(CdsInBandAccessorTest, FirstUseFromSeveralThreadsAtOnceBuildsOneConnection) {
    cdshost::Store& store = cdshost::Store::instance();
    constexpr int kThreads = 4;
    std::atomic<int> ready{0};
    std::array<CdsInBandAccessor*, kThreads> seen{};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            // All ask at about the same moment, none before every one is up.
            ++ready;
            while (ready < kThreads) {
                std::this_thread::yield();
            }
            seen[static_cast<std::size_t>(i)] = &CdsInBandAccessor::getInstance();
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (CdsInBandAccessor* const connection : seen) {
        EXPECT_EQ(connection, &CdsInBandAccessor::getInstance());
    }
    EXPECT_EQ(store.connections("modbus"), 1u);
    EXPECT_EQ(store.calls("CdsAccessor"), 1u);
}

}  // namespace
