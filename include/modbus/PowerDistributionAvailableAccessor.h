// Whether the UPS register map can be served: the UPS reports its operating status.
#pragma once

#include <cstdint>
#include <string>

#include "cdsapi/cds_accessor.h"
#include "conv/seconds_duration.h"
#include "modbus/MapAvailableAccessor.h"
#include "modbus/export.h"

namespace modbus {

/*
 * The map can be served once the operating-status channel of data-store
 * device 2 reports 16 (in its low eight bits); from then on it stays
 * available. Holds its own connection, under the client name "modbusd".
 */
class TARSEL_MODBUS_EXPORT PowerDistributionAvailableAccessor : public MapAvailableAccessor {
  public:
    PowerDistributionAvailableAccessor();
    ~PowerDistributionAvailableAccessor() override;

    PowerDistributionAvailableAccessor(PowerDistributionAvailableAccessor const&) = delete;
    PowerDistributionAvailableAccessor& operator=(PowerDistributionAvailableAccessor const&) =
        delete;

    /* Reads the status once (never sleeps) until it has seen 16. */
    bool isAvailable() override;
    std::string notAvailableMessage() const override;

    /* Reads the status, then polls it once a second for up to `duration`
     * seconds; true as soon as it reads 16. isAvailable() passes 0. */
    bool waitForStatus(conv::SecondsDuration duration);

    /* Reads the operating status and caches the status channel's id. */
    class OperatingStatusReader {
      public:
        static constexpr unsigned long long kDeviceId = 2;
        static constexpr char const* kChannelName = "PowerDistribution.Status.OperatingStatus";
        static constexpr std::uint8_t kAvailableStatus = 16;
        static constexpr std::uint8_t kChannelNotFound = 5;

        explicit OperatingStatusReader(cdsapi::CdsAccessor* connection);

        /* The low eight bits of the status; 5 when the channel is missing, 0
         * when the store fails (and the cached id is then forgotten). */
        std::uint8_t read();
        unsigned long long cachedChannelId() const { return m_channelId; }

      private:
        cdsapi::CdsAccessor* m_connection;
        unsigned long long m_channelId;
    };

    /* How the polling loop sleeps one second; replaceable so tests need not wait. */
    using SleepFunction = void (*)();
    static void setSleepFunction(SleepFunction sleep);

  private:
    cdsapi::CdsAccessor m_cdsAccessor;
    OperatingStatusReader m_statusReader;
    bool m_available;
};

}  // namespace modbus
