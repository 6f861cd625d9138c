#include "EncoderFactory.h"

#include <utility>

#include "Conversions.h"
#include "QuietListener.h"
#include "Wire32Encoder.h"
#include "modbus/CdsAlarmToOneDiscreteAccessor.h"
#include "modbus/CdsBooleanToOneDiscreteAccessor.h"
#include "modbus/CdsChannelAccessor.h"
#include "modbus/CdsDataToDiscretesAccessor.h"
#include "modbus/CdsDataToRegistersAccessor.h"
#include "modbus/CdsDeviceAccessor.h"
#include "modbus/CdsFloatAccessor.h"
#include "modbus/CdsFloatToOneRegisterAccessor.h"
#include "modbus/CdsInt32Accessor.h"
#include "modbus/CdsInt32ToOneRegisterAccessor.h"
#include "modbus/CdsStringAccessor.h"
#include "modbus/CdsStringToOneRegisterAccessor.h"
#include "modbus/CdsUint32Accessor.h"
#include "modbus/CdsUint32ToOneRegisterAccessor.h"

namespace tarsel::daemon {

namespace {

using modbus::CdsDataAccessor;
using Registers = std::unique_ptr<modbus::RegistersDataAccessor>;
using Discretes = std::unique_ptr<modbus::DiscretesDataAccessor>;

/* How a data accessor is held: alone (Unique), or shared with its control
 * block in the same heap block (Shared, for the encoders' shared_ptr
 * constructors: one block an entry instead of the accessor's and the control
 * block the raw-pointer constructors allocate). */
struct Unique {
    using Pointer = std::unique_ptr<CdsDataAccessor>;
    template <typename T, typename... Args>
    static Pointer make(Args&&... args) {
        return std::make_unique<T>(std::forward<Args>(args)...);
    }
};
struct Shared {
    using Pointer = std::shared_ptr<CdsDataAccessor>;
    template <typename T, typename... Args>
    static Pointer make(Args&&... args) {
        return std::make_shared<T>(std::forward<Args>(args)...);
    }
};

template <typename Holder>
auto makeChannel(SourceDefinition const& s) {
    using CdsChannelAccessor = QuietListener<modbus::CdsChannelAccessor>;
    DeviceRef const& d = s.device;
    if (!d.id) {
        return Holder::template make<CdsChannelAccessor>(d.name.str(), s.channel, s.dataType);
    }
    if (d.path.empty()) {
        return Holder::template make<CdsChannelAccessor>(*d.id, s.channel, s.dataType);
    }
    return Holder::template make<CdsChannelAccessor>(*d.id, d.path, s.channel, s.dataType);
}

template <typename Holder>
auto makeAttribute(SourceDefinition const& s) {
    using CdsDeviceAccessor = QuietListener<modbus::CdsDeviceAccessor>;
    DeviceRef const& d = s.device;
    if (!d.id) {
        return Holder::template make<CdsDeviceAccessor>(d.name.str(), s.attribute);
    }
    if (d.path.empty()) {
        return Holder::template make<CdsDeviceAccessor>(*d.id, s.attribute);
    }
    return Holder::template make<CdsDeviceAccessor>(*d.id, d.path, s.attribute);
}

template <typename Holder>
auto makeAlarm(SourceDefinition const& s) {
    using CdsAlarmToOneDiscreteAccessor = QuietListener<modbus::CdsAlarmToOneDiscreteAccessor>;
    DeviceRef const& d = s.device;
    if (!d.id) {
        return Holder::template make<CdsAlarmToOneDiscreteAccessor>(d.name.str(), s.channel,
                                                                    s.alarmType);
    }
    if (d.path.empty()) {
        return Holder::template make<CdsAlarmToOneDiscreteAccessor>(*d.id, s.channel, s.alarmType);
    }
    return Holder::template make<CdsAlarmToOneDiscreteAccessor>(*d.id, d.path, s.channel,
                                                                s.alarmType);
}

template <typename Holder>
typename Holder::Pointer makeHeldDataAccessor(SourceDefinition const& source) {
    switch (source.kind) {
        case SourceKind::Channel:
            return makeChannel<Holder>(source);
        case SourceKind::Attribute:
            return makeAttribute<Holder>(source);
        case SourceKind::Alarm:
            return makeAlarm<Holder>(source);
    }
    return nullptr;
}

/* Raw pointers for the composites, which take ownership of each; if building
 * one fails, the ones built so far are released here. */
std::vector<CdsDataAccessor*> makeSourceList(std::vector<SourceDefinition> const& definitions,
                                             std::vector<std::unique_ptr<CdsDataAccessor>>& keep) {
    for (auto const& definition : definitions) {
        keep.push_back(makeDataAccessor(definition));
    }
    std::vector<CdsDataAccessor*> raw;
    for (auto const& accessor : keep) {
        raw.push_back(accessor.get());
    }
    return raw;
}

Registers makeCompositeRegisters(EntryDefinition const& e, BuiltEncoder& built) {
    std::vector<std::unique_ptr<CdsDataAccessor>> keep;
    auto const raw = makeSourceList(e.sources, keep);
    built.sources.assign(raw.begin(), raw.end());
    auto conversions = makeRegisterConversions(e.function, e.sources.size());
    auto encoder = std::make_unique<modbus::CdsDataToRegistersAccessor>(
        e.size, raw, std::move(conversions.dataToRegisters), std::move(conversions.registersToData),
        std::move(conversions.dataToString), e.description);
    for (auto& accessor : keep) {
        accessor.release();  // now owned by the composite
    }
    return encoder;
}

Discretes makeCompositeDiscretes(EntryDefinition const& e, BuiltEncoder& built) {
    std::vector<std::unique_ptr<CdsDataAccessor>> keep;
    auto const raw = makeSourceList(e.sources, keep);
    built.sources.assign(raw.begin(), raw.end());
    auto conversions = makeDiscreteConversions(e.function, e.sources.size());
    auto encoder = std::make_unique<modbus::CdsDataToDiscretesAccessor>(
        e.size, raw, std::move(conversions.dataToDiscretes),
        std::move(conversions.discretesToData));
    for (auto& accessor : keep) {
        accessor.release();
    }
    return encoder;
}

using SharedSource = std::shared_ptr<CdsDataAccessor>;

Registers makeUint16(EntryDefinition const& e, SharedSource source) {
    if (e.useBitmask) {
        return std::make_unique<modbus::CdsUint32ToOneRegisterAccessor>(
            std::move(source), e.bitmaskOp, e.mask, e.defaultValue);
    }
    return std::make_unique<modbus::CdsUint32ToOneRegisterAccessor>(std::move(source),
                                                                    e.multiplier);
}

/* The one-source register encoders but the string ones; they share the
 * source. */
Registers makeSingleRegisters(EntryDefinition const& e, SharedSource source) {
    switch (e.encoder) {
        case EncoderKind::Float:
            return std::make_unique<modbus::CdsFloatAccessor>(std::move(source), e.multiplier);
        case EncoderKind::Int32:
            return std::make_unique<modbus::CdsInt32Accessor>(std::move(source));
        case EncoderKind::Uint32:
            return std::make_unique<modbus::CdsUint32Accessor>(std::move(source));
        case EncoderKind::Float16:
            return std::make_unique<modbus::CdsFloatToOneRegisterAccessor>(std::move(source),
                                                                           e.multiplier, e.offset);
        case EncoderKind::Int16:
            return std::make_unique<modbus::CdsInt32ToOneRegisterAccessor>(std::move(source),
                                                                           e.multiplier);
        case EncoderKind::Uint16:
            return makeUint16(e, std::move(source));
        default:
            return nullptr;
    }
}

/* The string encoders; they take ownership of the source. */
Registers makeStringRegisters(EntryDefinition const& e, CdsDataAccessor* source) {
    if (e.encoder == EncoderKind::String) {
        return std::make_unique<modbus::CdsStringAccessor>(e.size, source);
    }
    return std::make_unique<modbus::CdsStringToOneRegisterAccessor>(source);
}

/* The daemon's encoder of an entry with an explicit layout; null for the
 * library's encoders. */
Registers makeLayoutEncoder(EntryDefinition const& e, BuiltEncoder& built) {
    if (!e.layout) {
        return nullptr;
    }
    Wire32Type type = Wire32Type::Float32;
    if (e.encoder == EncoderKind::Int32) {
        type = Wire32Type::Int32;
    } else if (e.encoder == EncoderKind::Uint32) {
        type = Wire32Type::Uint32;
    }
    auto source = makeDataAccessor(e.sources.at(0));
    built.sources = {source.get()};  // owned by the encoder from here on
    return std::make_unique<Wire32Encoder>(std::move(source), type, *e.layout, e.multiplier);
}

}  // namespace

std::unique_ptr<CdsDataAccessor> makeDataAccessor(SourceDefinition const& source) {
    return makeHeldDataAccessor<Unique>(source);
}

BuiltEncoder makeEncoder(EntryDefinition const& entry) {
    BuiltEncoder built;
    if (entry.encoder == EncoderKind::CompositeRegisters) {
        built.registers = makeCompositeRegisters(entry, built);
    } else if (entry.encoder == EncoderKind::CompositeDiscretes) {
        built.discretes = makeCompositeDiscretes(entry, built);
    } else if (auto layoutEncoder = makeLayoutEncoder(entry, built)) {
        built.registers = std::move(layoutEncoder);
    } else if (entry.encoder == EncoderKind::Boolean) {
        auto modifier =
            entry.invert ? modbus::DiscreteModifier::Invert : modbus::DiscreteModifier::None;
        auto source = makeHeldDataAccessor<Shared>(entry.sources.at(0));
        built.sources = {source.get()};
        built.discretes =
            std::make_unique<modbus::CdsBooleanToOneDiscreteAccessor>(std::move(source), modifier);
    } else if (entry.encoder == EncoderKind::String ||
               entry.encoder == EncoderKind::NumericString) {
        // The raw-pointer constructors take ownership (and delete the accessor
        // themselves if they fail), so it is released straight into them.
        // A text without digits under a numeric string (an empty attribute)
        // throws in the encoder's listener; the source keeps that throw out
        // of the data store, as every source does (see QuietListener).
        auto source = makeDataAccessor(entry.sources.at(0));
        built.sources = {source.get()};
        built.registers = makeStringRegisters(entry, source.release());
        built.registers->setByteOrder(static_cast<modbus::ByteOrder>(entry.byteOrder));
    } else {
        // Shared with the encoder from the start: the same constructor as
        // the raw pointer's, without a control block of its own.
        auto source = makeHeldDataAccessor<Shared>(entry.sources.at(0));
        built.sources = {source.get()};
        built.registers = makeSingleRegisters(entry, std::move(source));
        built.registers->setByteOrder(static_cast<modbus::ByteOrder>(entry.byteOrder));
    }
    return built;
}

}  // namespace tarsel::daemon
