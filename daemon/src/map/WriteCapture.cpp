#include "WriteCapture.h"

#include <stdexcept>

#include "EncoderFactory.h"

namespace tarsel::daemon {

namespace {

// Named so that no map finds it by name: no device name holds a newline.
constexpr char const* kScratchName = "tarsel-modbusd\nwrite capture";

/* Removes the scratch device silently on every way out. */
class ScratchDevice {
  public:
    ScratchDevice(cdshost::Store& store, cdshost::Id id) : m_store(store), m_id(id) {
        m_store.addDevice(kScratchName, m_id, 0, false);
    }
    ~ScratchDevice() { m_store.removeDevice(m_id, false); }
    ScratchDevice(ScratchDevice const&) = delete;
    ScratchDevice& operator=(ScratchDevice const&) = delete;

  private:
    cdshost::Store& m_store;
    cdshost::Id m_id;
};

}  // namespace

kq::CValue captureWrite(EntryDefinition const& entry, kq::CValue const& current,
                        std::vector<std::uint16_t> const& words, cdshost::Store& store,
                        ScratchIds ids) {
    if (entry.sources.size() != 1 || entry.sources.front().kind == SourceKind::Alarm) {
        throw std::invalid_argument("only an entry of one channel or attribute is written back");
    }
    EntryDefinition copy = entry;
    SourceDefinition& source = copy.sources.front();
    source.device = DeviceRef{ids.device, {}, {}};
    ScratchDevice const scratch(store, ids.device);
    if (source.kind == SourceKind::Channel) {
        store.addChannel(ids.device, source.channel, current, ids.channel, false);
    } else {
        store.setDeviceAttribute(ids.device, source.attribute, current.as_string(), false);
    }
    {
        // Gone, with its subscriptions, before the scratch device is.
        BuiltEncoder const encoder = makeEncoder(copy);
        if (encoder.registers) {
            encoder.registers->setData(words);
        } else {
            encoder.discretes->setData(std::vector<std::uint8_t>(words.begin(), words.end()));
        }
    }
    if (source.kind == SourceKind::Channel) {
        return store.channelValue(ids.channel);
    }
    return kq::CValue(store.deviceAttribute(ids.device, source.attribute).value_or(""));
}

}  // namespace tarsel::daemon
