#include "modbus/PowerDistributionAvailableAccessor.h"

#include <cerrno>
#include <ctime>
#include <exception>

namespace modbus {

namespace {

// The client name under which the availability check opens its own connection.
constexpr char const* kClientName = "modbusd";
constexpr unsigned long long kUnknownChannelId = ~0ULL;

/* Sleeps one second; a signal does not cut the second short, the remaining
 * time is slept again. */
void sleepOneSecond() {
    timespec request{1, 0};
    timespec remaining{0, 0};
    while (nanosleep(&request, &remaining) != 0 && errno == EINTR) {
        request = remaining;
    }
}

PowerDistributionAvailableAccessor::SleepFunction g_sleep = &sleepOneSecond;

}  // namespace

PowerDistributionAvailableAccessor::OperatingStatusReader::OperatingStatusReader(
    cdsapi::CdsAccessor* connection)
    : m_connection(connection), m_channelId(kUnknownChannelId) {}

std::uint8_t PowerDistributionAvailableAccessor::OperatingStatusReader::read() {
    cdsapi::InBandAccessor& inBand = m_connection->getInBandAccessor();
    if (m_channelId == kUnknownChannelId) {
        try {
            m_channelId = inBand.getCatchedChannelId(kDeviceId, kChannelName);
        } catch (std::exception const&) {
            // Only standard failures mean "not yet"; anything else is the
            // caller's to handle, so it is not caught here on purpose.
            m_channelId = kUnknownChannelId;
            return 0;
        }
        if (m_channelId == kUnknownChannelId) {
            return kChannelNotFound;
        }
    }
    try {
        // Only the low eight bits carry the operating status.
        return static_cast<std::uint8_t>(inBand.getChannelCValue(m_channelId).as_uint32() & 0xFFu);
    } catch (std::exception const&) {
        // Forget the id: the channel may have been recreated under another one.
        m_channelId = kUnknownChannelId;
        return 0;
    }
}

PowerDistributionAvailableAccessor::PowerDistributionAvailableAccessor()
    : m_cdsAccessor(kClientName, true), m_statusReader(&m_cdsAccessor), m_available(false) {}

PowerDistributionAvailableAccessor::~PowerDistributionAvailableAccessor() = default;

bool PowerDistributionAvailableAccessor::isAvailable() {
    // Once the map could be served it stays servable: the status is not read again.
    if (m_available) {
        return true;
    }
    m_available = waitForStatus(conv::SecondsDuration(0));
    return m_available;
}

std::string PowerDistributionAvailableAccessor::notAvailableMessage() const {
    return "UPS map is not yet available on your system!\n"
           "Please make sure that the card is connected to a supported UPS and/or try later.";
}

bool PowerDistributionAvailableAccessor::waitForStatus(conv::SecondsDuration duration) {
    constexpr conv::SecondsDuration kOneSecond(1);
    std::uint8_t status = m_statusReader.read();
    if (duration == conv::SecondsDuration(0)) {
        return status == OperatingStatusReader::kAvailableStatus;
    }
    if (status == OperatingStatusReader::kAvailableStatus) {
        return true;
    }
    for (;;) {
        g_sleep();
        status = m_statusReader.read();
        duration -= kOneSecond;
        if (duration == conv::SecondsDuration(0)) {
            break;
        }
        if (status == OperatingStatusReader::kAvailableStatus) {
            return true;
        }
    }
    return status == OperatingStatusReader::kAvailableStatus;
}

void PowerDistributionAvailableAccessor::setSleepFunction(SleepFunction sleep) {
    // A null function puts the real one-second sleep back.
    g_sleep = sleep != nullptr ? sleep : &sleepOneSecond;
}

}  // namespace modbus
