// Fault injection across the lifecycle of every accessor and encoder class.
//
// Each case is one subject (the objects of one class, built the ways a map
// builds them) and one lifecycle script. The script is first run without
// faults and the store's accounting gives how many data-store operations of
// each kind it performs; then it is run again once per operation, kind and
// position, with exactly that call failing (a std::exception, then a foreign
// exception). Every run must end without a crash or sanitizer report, let
// nothing but the store's own exceptions out of the steps that may throw and
// nothing at all out of the steps that may not, and leave, once everything is
// destroyed, no accessor in any registry and no data-store subscription open
// but the one whose unsubscribe() failed (kept on purpose, so that an id
// never has two subscriptions). Last, a fresh accessor of every item must hear
// a change: no failure may leave an item deaf.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "cdshost/store.h"
#include "kq/model.h"
#include "kq/value.h"
#include "modbus/CdsAlarmToOneDiscreteAccessor.h"
#include "modbus/CdsBooleanToOneDiscreteAccessor.h"
#include "modbus/CdsChannelAccessor.h"
#include "modbus/CdsDataToDiscretesAccessor.h"
#include "modbus/CdsDataToRegistersAccessor.h"
#include "modbus/CdsDeviceAccessor.h"
#include "modbus/CdsFloatAccessor.h"
#include "modbus/CdsFloatToOneRegisterAccessor.h"
#include "modbus/CdsInBandAccessor.h"
#include "modbus/CdsInt32Accessor.h"
#include "modbus/CdsInt32ToOneRegisterAccessor.h"
#include "modbus/CdsStringAccessor.h"
#include "modbus/CdsStringToOneRegisterAccessor.h"
#include "modbus/CdsUint32Accessor.h"
#include "modbus/CdsUint32ToOneRegisterAccessor.h"

namespace {

using cdshost::Id;
using modbus::CdsAlarmToOneDiscreteAccessor;
using modbus::CdsChannelAccessor;
using modbus::CdsDataAccessor;
using modbus::CdsDeviceAccessor;
using modbus::DataType;

cdshost::Store& store() {
    return cdshost::Store::instance();
}

// ---- The world -----------------------------------------------------------------

constexpr Id kUps = 10;
constexpr Id kModule = 11;
std::string const kUpsName = "UPS";
std::string const kVoltage = "Output.Voltage";    // float
std::string const kOverload = "Output.Overload";  // bool, with an alarm
std::string const kIdent = "Ident.Number";        // text holding a number
std::string const kCell = "Cell.Voltage";         // float, on the module
std::vector<std::string> const kUpsChannels = {kVoltage, kOverload, kIdent};

/* Makes every change, even when the library's handlers let a failure out
 * of one (the store still delivers it to every subscriber), and then lets
 * the first failure out: a step of a script always leaves the world as
 * intended. */
void allOf(std::vector<std::function<void()>> const& changes) {
    std::exception_ptr first;
    for (auto const& change : changes) {
        try {
            change();
        } catch (...) {
            if (!first) {
                first = std::current_exception();
            }
        }
    }
    if (first) {
        std::rethrow_exception(first);
    }
}

/* The UPS with one module and its channels; with notify false it is built
 * silently and announced afterwards, module first, as a device appears. */
void addWorld(bool notify) {
    Id overload = 0;
    allOf({
        [&] { store().addDevice(kUpsName, kUps, 0, notify); },
        [&] { store().addDevice("Module", kModule, kUps, notify); },
        [&] { store().setDeviceAttribute(kUps, cdsapi::AttributeModel, "Model 1500", notify); },
        [&] { store().setDeviceAttribute(kModule, cdsapi::AttributeModel, "Cell pack", notify); },
        [&] { store().addChannel(kUps, kVoltage, kq::CValue(230.5f), 0, notify); },
        [&] { overload = store().addChannel(kUps, kOverload, kq::CValue(false), 0, notify); },
        [&] { store().setAlarmEnabled(overload, true, notify); },
        [&] { store().addChannel(kUps, kIdent, kq::CValue(std::string("42")), 0, notify); },
        [&] { store().addChannel(kModule, kCell, kq::CValue(12.5f), 0, notify); },
        [&] {
            if (!notify) {
                store().notifyDevice(kModule, kq::sub::DeviceCreated);
            }
        },
        [&] {
            if (!notify) {
                store().notifyDevice(kUps, kq::sub::DeviceCreated);
            }
        },
    });
}

Id channel(Id device, std::string const& name) {
    return store().channelId(device, name);
}

/* Changes every channel value and alarm setting that exists. */
void changeValues() {
    Id const voltage = channel(kUps, kVoltage);
    Id const overload = channel(kUps, kOverload);
    Id const ident = channel(kUps, kIdent);
    Id const cell = channel(kModule, kCell);
    std::vector<std::function<void()>> changes;
    if (voltage != 0) {
        changes.emplace_back([=] { store().setChannelValue(voltage, kq::CValue(231.0f)); });
    }
    if (overload != 0) {
        changes.emplace_back([=] { store().setChannelValue(overload, kq::CValue(true)); });
        changes.emplace_back([=] { store().setAlarmLevel(overload, 7); });
        changes.emplace_back(
            [=] { store().setAlarmThreshold(overload, cdsapi::TriggerLowCritical, 1.5f); });
    }
    if (ident != 0) {
        changes.emplace_back(
            [=] { store().setChannelValue(ident, kq::CValue(std::string("43"))); });
    }
    if (cell != 0) {
        changes.emplace_back([=] { store().setChannelValue(cell, kq::CValue(12.0f)); });
        changes.emplace_back(
            [=] { store().setAlarmThreshold(cell, cdsapi::TriggerLowCritical, 11.0f); });
    }
    allOf(changes);
}

// ---- What a subject builds -------------------------------------------------------

/* The objects of one run. Sources are the data accessors the test keeps a
 * share of; encoders may hold further shares or own theirs outright. */
struct Rig {
    std::vector<std::shared_ptr<CdsDataAccessor>> sources;
    std::vector<std::unique_ptr<modbus::RegistersDataAccessor>> registers;
    std::vector<std::unique_ptr<modbus::DiscretesDataAccessor>> discretes;
    std::size_t heard = 0;

    void keep(std::shared_ptr<CdsDataAccessor> source) {
        source->setUpdateCallback([this](kq::CValue const&) { ++heard; });
        sources.push_back(std::move(source));
    }
    template <typename Encoder>
    void keepRegisters(std::unique_ptr<Encoder> encoder) {
        encoder->setCallback([this](std::vector<uint16_t> const&) { ++heard; });
        registers.push_back(std::move(encoder));
    }
    template <typename Encoder>
    void keepDiscretes(std::unique_ptr<Encoder> encoder) {
        encoder->setCallback([this](std::vector<uint8_t> const&) { ++heard; });
        discretes.push_back(std::move(encoder));
    }
};

using Build = std::function<void(Rig&)>;

std::shared_ptr<CdsDataAccessor> voltage() {
    return std::make_shared<CdsChannelAccessor>(kUps, kVoltage, DataType::Value);
}
CdsDataAccessor* rawChannel(std::string const& name) {
    return new CdsChannelAccessor(kUps, name, DataType::Value);
}

/* The raw data accessors a composite takes over, built in order. Until the
 * composite has them they are ours: if one constructor throws, those built
 * before it are deleted. */
std::vector<CdsDataAccessor*> rawSources(
    std::vector<std::function<CdsDataAccessor*()>> const& makers) {
    std::vector<std::unique_ptr<CdsDataAccessor>> built;
    for (auto const& make : makers) {
        std::unique_ptr<CdsDataAccessor> one(make());
        built.push_back(std::move(one));
    }
    std::vector<CdsDataAccessor*> raws;
    for (auto& one : built) {
        raws.push_back(one.release());
    }
    return raws;
}

/* One subject: its name and the constructions of one map, each of which may
 * fail on its own. */
struct Subject {
    std::string name;
    std::vector<Build> constructions;
};

std::vector<Subject> subjects() {
    using namespace modbus;
    return {
        {"ChannelAccessor",
         {[](Rig& r) { r.keep(voltage()); },
          [](Rig& r) {
              r.keep(std::make_shared<CdsChannelAccessor>(kUpsName, kOverload,
                                                          DataType::AlarmEnabled));
          },
          [](Rig& r) {
              r.keep(std::make_shared<CdsChannelAccessor>(kUps, std::vector<unsigned int>{0}, kCell,
                                                          DataType::AlarmThreshold0));
          },
          [](Rig& r) {
              r.keep(std::make_shared<CdsChannelAccessor>(kUps, kOverload, DataType::AlarmLevel));
          }}},
        {"DeviceAccessor",
         {[](Rig& r) { r.keep(std::make_shared<CdsDeviceAccessor>(kUps, cdsapi::AttributeModel)); },
          [](Rig& r) {
              r.keep(std::make_shared<CdsDeviceAccessor>(kUpsName, cdsapi::AttributeModel));
          },
          [](Rig& r) {
              r.keep(std::make_shared<CdsDeviceAccessor>(kUps, std::vector<unsigned int>{0},
                                                         cdsapi::AttributeModel));
          },
          [](Rig& r) {
              r.keep(std::make_shared<CdsDeviceAccessor>(kUps, cdsapi::AttributeSubDeviceCount));
          }}},
        {"AlarmAccessor",
         {[](Rig& r) {
              r.keep(std::make_shared<CdsAlarmToOneDiscreteAccessor>(kUps, kOverload,
                                                                     AlarmTypeFlagSet));
          },
          [](Rig& r) {
              r.keep(std::make_shared<CdsAlarmToOneDiscreteAccessor>(kUpsName, kOverload,
                                                                     AlarmTypeTrigger));
          },
          [](Rig& r) {
              r.keep(std::make_shared<CdsAlarmToOneDiscreteAccessor>(
                  kUps, std::vector<unsigned int>{0}, kCell, AlarmTypeFlagClearLevel7));
          }}},
        {"FloatAccessor",
         {[](Rig& r) { r.keep(voltage()); },
          [](Rig& r) {
              r.keepRegisters(std::make_unique<CdsFloatAccessor>(r.sources.at(0), 1.0f));
          },
          [](Rig& r) {
              r.keepRegisters(std::make_unique<CdsFloatAccessor>(r.sources.at(0), 10.0f));
          },
          [](Rig& r) {
              r.keepRegisters(std::make_unique<CdsFloatAccessor>(rawChannel(kVoltage), 1.0f));
          }}},
        {"Int32Accessor",
         {[](Rig& r) { r.keep(voltage()); },
          [](Rig& r) { r.keepRegisters(std::make_unique<CdsInt32Accessor>(r.sources.at(0))); },
          [](Rig& r) {
              r.keepRegisters(std::make_unique<CdsInt32Accessor>(rawChannel(kVoltage)));
          }}},
        {"Uint32Accessor",
         {[](Rig& r) { r.keep(voltage()); },
          [](Rig& r) { r.keepRegisters(std::make_unique<CdsUint32Accessor>(r.sources.at(0))); },
          [](Rig& r) {
              r.keepRegisters(std::make_unique<CdsUint32Accessor>(rawChannel(kVoltage)));
          }}},
        {"FloatToOneRegisterAccessor",
         {[](Rig& r) { r.keep(voltage()); },
          [](Rig& r) {
              r.keepRegisters(
                  std::make_unique<CdsFloatToOneRegisterAccessor>(r.sources.at(0), 10.0f, -40.0f));
          },
          [](Rig& r) {
              r.keepRegisters(std::make_unique<CdsFloatToOneRegisterAccessor>(rawChannel(kVoltage),
                                                                              1.0f, 0.0f));
          }}},
        {"Int32ToOneRegisterAccessor",
         {[](Rig& r) { r.keep(voltage()); },
          [](Rig& r) {
              r.keepRegisters(
                  std::make_unique<CdsInt32ToOneRegisterAccessor>(r.sources.at(0), 1.0f));
          },
          [](Rig& r) {
              r.keepRegisters(
                  std::make_unique<CdsInt32ToOneRegisterAccessor>(rawChannel(kVoltage), 10.0f));
          }}},
        {"Uint32ToOneRegisterAccessor",
         {[](Rig& r) { r.keep(voltage()); },
          [](Rig& r) {
              r.keepRegisters(
                  std::make_unique<CdsUint32ToOneRegisterAccessor>(r.sources.at(0), 1.0f));
          },
          [](Rig& r) {
              r.keepRegisters(std::make_unique<CdsUint32ToOneRegisterAccessor>(
                  r.sources.at(0), BitmaskOp::Xor, 1u, 0u));
          },
          [](Rig& r) {
              r.keepRegisters(
                  std::make_unique<CdsUint32ToOneRegisterAccessor>(rawChannel(kVoltage), 10.0f));
          }}},
        {"StringToOneRegisterAccessor",
         {[](Rig& r) {
              r.keep(std::make_shared<CdsChannelAccessor>(kUps, kIdent, DataType::Value));
          },
          [](Rig& r) {
              r.keepRegisters(std::make_unique<CdsStringToOneRegisterAccessor>(r.sources.at(0)));
          },
          [](Rig& r) {
              r.keepRegisters(std::make_unique<CdsStringToOneRegisterAccessor>(rawChannel(kIdent)));
          }}},
        {"BooleanToOneDiscreteAccessor",
         {[](Rig& r) {
              r.keep(std::make_shared<CdsAlarmToOneDiscreteAccessor>(kUps, kOverload,
                                                                     AlarmTypeFlagSet));
          },
          [](Rig& r) {
              r.keepDiscretes(std::make_unique<CdsBooleanToOneDiscreteAccessor>(
                  r.sources.at(0), DiscreteModifier::None));
          },
          [](Rig& r) {
              r.keepDiscretes(std::make_unique<CdsBooleanToOneDiscreteAccessor>(
                  rawChannel(kOverload), DiscreteModifier::Invert));
          }}},
        {"StringAccessor", {[](Rig& r) {
             // Only raw pointers, and its owner wires the pushes.
             auto* const source = new CdsDeviceAccessor(kUps, cdsapi::AttributeModel);
             auto encoder = std::make_unique<CdsStringAccessor>(8, source);
             CdsStringAccessor* const target = encoder.get();
             r.keepRegisters(std::move(encoder));
             source->setUpdateCallback(
                 [target](kq::CValue const& value) { target->callbackCdsEvent(value); });
         }}},
        {"DataToRegistersAccessor", {[](Rig& r) {
             r.keepRegisters(std::make_unique<CdsDataToRegistersAccessor>(
                 2,
                 rawSources(
                     {[] { return rawChannel(kVoltage); }, [] { return rawChannel(kIdent); }}),
                 [](std::vector<kq::CValue> const& values) {
                     return std::vector<uint16_t>{static_cast<uint16_t>(values[0].as_uint32()),
                                                  static_cast<uint16_t>(values[1].as_uint32())};
                 },
                 [](std::vector<uint16_t> const& registers) {
                     return std::vector<kq::CValue>{
                         kq::CValue(static_cast<float>(registers.empty() ? 0 : registers[0]))};
                 },
                 nullptr, ""));
         }}},
        {"DataToDiscretesAccessor", {[](Rig& r) {
             r.keepDiscretes(std::make_unique<CdsDataToDiscretesAccessor>(
                 2,
                 rawSources({[]() -> CdsDataAccessor* {
                                 return new CdsAlarmToOneDiscreteAccessor(kUps, kOverload,
                                                                          AlarmTypeFlagSet);
                             },
                             [] { return rawChannel(kOverload); }}),
                 [](std::vector<kq::CValue> const& values) {
                     return std::vector<bool>{values[0].as_bool(), values[1].as_bool()};
                 },
                 [](std::vector<bool> const& bits) {
                     return std::vector<kq::CValue>{kq::CValue(false),
                                                    kq::CValue(!bits.empty() && bits[0])};
                 }));
         }}},
    };
}

// ---- Lifecycle scripts -------------------------------------------------------------

/* What a step is allowed to let out: the store's failures (and what the
 * library's documented paths throw), or nothing at all. */
enum class Escapes { StoreFailures, Nothing };

struct Step {
    std::string name;
    std::function<void(Rig&, Subject const&)> run;
    Escapes escapes;
};

/* Each construction may fail on its own (the store's failures leave the
 * constructor); the others are still made. */
Step const kConstruct{"construct",
                      [](Rig& rig, Subject const& subject) {
                          for (Build const& build : subject.constructions) {
                              try {
                                  build(rig);
                              } catch (std::exception const&) {
                                  // Also without a fault: the by-name device
                                  // accessor throws while its device is missing.
                              } catch (cdshost::ForeignFault const&) {
                              }
                          }
                      },
                      Escapes::Nothing};

Step const kReadAndWrite{"read and write",
                         [](Rig& rig, Subject const&) {
                             for (auto const& source : rig.sources) {
                                 static_cast<void>(source->isExitingInCds());
                                 static_cast<void>(source->getCValue());
                                 source->setCValue(kq::CValue(1.0f));
                             }
                             for (auto const& encoder : rig.registers) {
                                 static_cast<void>(encoder->isDataAvailable());
                                 static_cast<void>(encoder->getData());
                                 static_cast<void>(encoder->getStrValue());
                                 encoder->setData({1, 2});
                             }
                             for (auto const& encoder : rig.discretes) {
                                 static_cast<void>(encoder->getData());
                                 static_cast<void>(encoder->getStrValue());
                                 encoder->setData({1, 0});
                             }
                         },
                         Escapes::StoreFailures};

Step const kChangeValues{"change values", [](Rig&, Subject const&) { changeValues(); },
                         Escapes::StoreFailures};

Step const kDeviceVanishes{"device vanishes",
                           [](Rig&, Subject const&) { store().removeDevice(kUps); },
                           Escapes::StoreFailures};

Step const kDeviceReturns{"device returns", [](Rig&, Subject const&) { addWorld(true); },
                          Escapes::StoreFailures};

Step const kDeviceAppears{"device appears", [](Rig&, Subject const&) { addWorld(false); },
                          Escapes::StoreFailures};

Step const kDeviceChanges{
    "device changes",
    [](Rig&, Subject const&) {
        allOf({
            [] { store().setDeviceAttribute(kUps, cdsapi::AttributeModel, "Model 3000"); },
            [] { store().renameDevice(kUps, "UPS 2"); },
            [] { store().renameDevice(kUps, kUpsName); },
            [] { store().notifyDevice(kModule, kq::sub::DeviceChanged); },
        });
    },
    Escapes::StoreFailures};

Step const kChannelsRemoved{"channels removed",
                            [](Rig&, Subject const&) {
                                Id const cell = channel(kModule, kCell);
                                std::vector<std::function<void()>> removals;
                                for (std::string const& name : kUpsChannels) {
                                    Id const id = channel(kUps, name);
                                    removals.emplace_back([id] { store().removeChannel(id); });
                                }
                                removals.emplace_back([cell] { store().removeChannel(cell); });
                                allOf(removals);
                            },
                            Escapes::StoreFailures};

Step const kChannelsAdded{
    "channels added",
    [](Rig&, Subject const&) {
        Id overload = 0;
        allOf({
            [] { store().addChannel(kUps, kVoltage, kq::CValue(229.0f)); },
            [&] { overload = store().addChannel(kUps, kOverload, kq::CValue(true)); },
            [&] { store().setAlarmEnabled(overload, true); },
            [] { store().addChannel(kUps, kIdent, kq::CValue(std::string("7"))); },
            [] { store().addChannel(kModule, kCell, kq::CValue(11.0f)); },
        });
    },
    Escapes::StoreFailures};

Step const kAlarms{"alarms raised and cleared",
                   [](Rig&, Subject const&) {
                       Id const overload = channel(kUps, kOverload);
                       Id const cell = channel(kModule, kCell);
                       allOf({
                           [&] {
                               store().raiseAlarm(overload, kq::CAlarmRecord{7, true});
                           },
                           [&] {
                               store().raiseAlarm(cell, kq::CAlarmRecord{7, false});
                           },
                           [&] { store().setAlarmEnabled(overload, false); },
                           [&] { store().setAlarmEnabled(overload, true); },
                           [&] { store().clearAlarm(overload); },
                           [&] { store().clearAlarm(cell); },
                       });
                   },
                   Escapes::StoreFailures};

Step const kDestroyEncoders{"destroy the encoders",
                            [](Rig& rig, Subject const&) {
                                rig.registers.clear();
                                rig.discretes.clear();
                            },
                            Escapes::Nothing};

Step const kReleaseSources{"release the test's sources",
                           [](Rig& rig, Subject const&) { rig.sources.clear(); }, Escapes::Nothing};

struct Script {
    std::string name;
    bool worldFirst;  // the world exists before the subject is built
    std::vector<Step> steps;
};

/* Every script ends with everything destroyed: encoders first, or the test's
 * sources first (the encoders then release the last shares). */
std::vector<Script> scripts() {
    return {
        {"ConstructAndDestroy", true, {kConstruct, kDestroyEncoders, kReleaseSources}},
        {"ReadAndWrite", true, {kConstruct, kReadAndWrite, kDestroyEncoders, kReleaseSources}},
        {"ValuesChange", true, {kConstruct, kChangeValues, kDestroyEncoders, kReleaseSources}},
        {"DeviceAppears",
         false,
         {kConstruct, kDeviceAppears, kChangeValues, kReadAndWrite, kDestroyEncoders,
          kReleaseSources}},
        {"DeviceVanishesAndReturns",
         true,
         {kConstruct, kDeviceVanishes, kReadAndWrite, kDeviceReturns, kChangeValues,
          kDestroyEncoders, kReleaseSources}},
        {"DeviceChanges",
         true,
         {kConstruct, kDeviceChanges, kChangeValues, kDestroyEncoders, kReleaseSources}},
        {"ChannelsRemovedAndAdded",
         true,
         {kConstruct, kChannelsRemoved, kChangeValues, kChannelsAdded, kChangeValues,
          kDestroyEncoders, kReleaseSources}},
        {"AlarmsRaised", true, {kConstruct, kAlarms, kDestroyEncoders, kReleaseSources}},
        {"SourcesReleasedBeforeEncoders",
         true,
         {kConstruct, kReleaseSources, kChangeValues, kDestroyEncoders}},
        {"EncodersDestroyedBeforeSources",
         true,
         {kConstruct, kDestroyEncoders, kChangeValues, kDeviceVanishes, kReleaseSources}},
    };
}

// ---- What is left after a run ---------------------------------------------------------

/* Visits every registry pair (accessor sets, subscription ids) of the three
 * data accessor classes. */
template <typename Visit>
void forEachRegistry(Visit visit) {
    using C = CdsChannelAccessor;
    using D = CdsDeviceAccessor;
    using A = CdsAlarmToOneDiscreteAccessor;
    visit(C::m_mapChannelAccessorChannelUpdateSubscriber,
          C::m_mapChannelAccessorChannelUpdateSubscriberId);
    visit(C::m_mapChannelAccessorChannelStateSubscriber,
          C::m_mapChannelAccessorChannelStateSubscriberId);
    visit(C::m_mapChannelAccessorChannelSettingsSubscriber,
          C::m_mapChannelAccessorChannelSettingsSubscriberId);
    visit(C::m_mapChannelAccessorDeviceSettingsSubscriber,
          C::m_mapChannelAccessorDeviceSettingsSubscriberId);
    visit(C::m_mapChannelAccessorDeviceCreationSubscriber,
          C::m_mapChannelAccessorDeviceCreationSubscriberId);
    visit(D::m_mapDeviceAccessorDeviceSubscriber, D::m_mapDeviceAccessorDeviceSubscriberId);
    visit(D::m_mapDeviceAccessorDeviceSettingsSubscriber,
          D::m_mapDeviceAccessorDeviceSettingsSubscriberId);
    visit(D::m_mapDeviceAccessorDeviceCreationSubscriber,
          D::m_mapDeviceAccessorDeviceCreationSubscriberId);
    visit(A::m_mapChannelAccessorChannelAlarmSubscriber,
          A::m_mapChannelAccessorChannelAlarmSubscriberId);
    visit(A::m_mapChannelAccessorDeviceSettingsSubscriber,
          A::m_mapChannelAccessorDeviceSettingsSubscriberId);
    visit(A::m_mapChannelAccessorDeviceCreationSubscriber,
          A::m_mapChannelAccessorDeviceCreationSubscriberId);
}

std::set<Id> openSubscriptionIds() {
    std::set<Id> open;
    for (cdshost::SubscriptionInfo const& info : store().subscriptions()) {
        open.insert(info.subscriptionId);
    }
    return open;
}

/* Everything destroyed: no accessor may be left in a registry, and the only
 * open subscriptions are those the registries keep after a failed
 * unsubscribe(), one per id, each of them actually failed. */
void expectNothingLeft(std::string const& faultedOperation, std::string const& where) {
    std::size_t accessorsLeft = 0;
    std::set<Id> kept;
    forEachRegistry([&](auto const& accessors, auto const& ids) {
        for (auto const& entry : accessors) {
            accessorsLeft += entry.second.size();
        }
        for (auto const& entry : ids) {
            kept.insert(entry.second);
        }
    });
    EXPECT_EQ(accessorsLeft, 0u) << where;
    EXPECT_EQ(openSubscriptionIds(), kept) << where;
    if (faultedOperation != "unsubscribe") {
        EXPECT_TRUE(kept.empty()) << where;
        return;
    }
    // One unsubscribe() failed: at most its subscription is kept, and it was
    // tried exactly once (a second, successful try would have closed it).
    EXPECT_LE(kept.size(), 1u) << where;
    for (Id const id : kept) {
        EXPECT_EQ(store().calls("unsubscribe", id), 1u) << where;
    }
}

/* Counts the valid values an accessor's listener receives. */
struct Ear {
    std::size_t heard = 0;

    void listenTo(CdsDataAccessor& accessor) {
        accessor.setUpdateCallback([this](kq::CValue const& value) {
            if (value.isValid()) {
                ++heard;
            }
        });
        heard = 0;
    }
};

/* Fresh accessors of every item must exist and hear a change of it through
 * the subscription of their kind: a registry entry without a working
 * subscription would show here. */
void expectNothingDeaf(std::string const& where) {
    store().clearFaults();
    if (!store().hasDevice(kUps)) {
        addWorld(true);
    }
    CdsChannelAccessor value(kUps, kVoltage, DataType::Value);
    CdsChannelAccessor setting(kUps, std::vector<unsigned int>{0}, kCell,
                               DataType::AlarmThreshold0);
    CdsDeviceAccessor attribute(kUps, cdsapi::AttributeModel);
    CdsAlarmToOneDiscreteAccessor alarm(kUps, kOverload, modbus::AlarmTypeFlagSet);
    Ear valueEar;
    Ear settingEar;
    Ear attributeEar;
    Ear alarmEar;
    valueEar.listenTo(value);
    settingEar.listenTo(setting);
    attributeEar.listenTo(attribute);
    alarmEar.listenTo(alarm);
    EXPECT_TRUE(value.isExitingInCds() && setting.isExitingInCds() && attribute.isExitingInCds() &&
                alarm.isExitingInCds())
        << where;

    store().setChannelValue(channel(kUps, kVoltage), kq::CValue(1.0f));
    EXPECT_EQ(valueEar.heard, 1u) << where << ": channel value";
    store().setAlarmThreshold(channel(kModule, kCell), cdsapi::TriggerLowCritical, 2.0f);
    EXPECT_EQ(settingEar.heard, 1u) << where << ": alarm setting";
    store().raiseAlarm(channel(kUps, kOverload), kq::CAlarmRecord{1, true});
    EXPECT_EQ(alarmEar.heard, 1u) << where << ": alarm";
    // The device accessor hears the attribute through its update
    // subscription (the settings one only re-detects: an invalid value).
    store().setDeviceAttribute(kUps, cdsapi::AttributeModel, "Model 9");
    EXPECT_EQ(attributeEar.heard, 1u) << where << ": device attribute";
}

/* Clears what a failed unsubscribe() kept, so that the next run starts from
 * an empty store and empty registries. */
void resetEverything() {
    forEachRegistry([](auto& accessors, auto& ids) {
        accessors.clear();
        ids.clear();
    });
    store().reset();
}

// ---- Running a case ---------------------------------------------------------------------

struct Fault {
    std::string operation;
    std::size_t nth = 0;  // 1: the first call of the operation in the script
    cdshost::FaultKind kind = cdshost::FaultKind::Standard;
};

std::string describe(Subject const& subject, Script const& script, Fault const* fault) {
    std::ostringstream text;
    text << subject.name << " / " << script.name;
    if (fault != nullptr) {
        text << " / call " << fault->nth << " of " << fault->operation
             << (fault->kind == cdshost::FaultKind::Standard ? " (std::exception)"
                                                             : " (foreign exception)");
    }
    return text.str();
}

/* Runs one script, with one fault armed or none; returns the data-store calls
 * it made per operation. */
std::map<std::string, std::size_t> runOnce(Subject const& subject, Script const& script,
                                           Fault const* fault) {
    std::string const where = describe(subject, script, fault);
    resetEverything();
    if (script.worldFirst) {
        addWorld(true);
    }
    store().resetCalls();
    if (fault != nullptr) {
        store().failCall(fault->operation, fault->nth, fault->kind);
    }
    {
        Rig rig;
        for (Step const& step : script.steps) {
            try {
                step.run(rig, subject);
            } catch (std::exception const& error) {
                // Also without a fault: the library lets some of its own
                // std::exceptions out by design (stoul of a text without digits).
                EXPECT_EQ(step.escapes, Escapes::StoreFailures)
                    << where << ": " << step.name << " let out " << error.what();
            } catch (cdshost::ForeignFault const& error) {
                EXPECT_TRUE(step.escapes == Escapes::StoreFailures && fault != nullptr)
                    << where << ": " << step.name << " let out a foreign fault of "
                    << error.operation;
            } catch (...) {
                ADD_FAILURE() << where << ": " << step.name << " let out an unknown exception";
            }
        }
    }
    std::map<std::string, std::size_t> const calls = store().callsByOperation();
    store().clearFaults();
    expectNothingLeft(fault != nullptr ? fault->operation : std::string(), where);
    expectNothingDeaf(where);
    resetEverything();
    return calls;
}

struct Case {
    std::size_t subject;
    std::size_t script;
};

// Printed by name, so that the test's listing is the same on every target
// (the bytes of the struct differ between 32 and 64 bits).
void PrintTo(Case const& value, std::ostream* out) {
    *out << subjects().at(value.subject).name << " / " << scripts().at(value.script).name;
}

class FaultMatrix : public ::testing::TestWithParam<Case> {};

TEST_P(FaultMatrix, EveryFailingCallLeavesNothingBehind) {
    Subject const subject = subjects().at(GetParam().subject);
    Script const script = scripts().at(GetParam().script);
    // The connection is built once per process, outside every script.
    static_cast<void>(modbus::CdsInBandAccessor::getInstance());

    std::map<std::string, std::size_t> const calls = runOnce(subject, script, nullptr);
    ASSERT_FALSE(HasFailure()) << "the script fails without any fault";

    std::size_t faultPoints = 0;
    for (auto const& [operation, count] : calls) {
        for (std::size_t nth = 1; nth <= count; ++nth) {
            for (auto const kind :
                 {cdshost::FaultKind::Standard, cdshost::FaultKind::NonStandard}) {
                Fault const fault{operation, nth, kind};
                runOnce(subject, script, &fault);
                ++faultPoints;
                if (HasFailure()) {
                    return;  // the first failing fault point says enough
                }
            }
        }
    }
    RecordProperty("faultPoints", static_cast<int>(faultPoints));
    std::printf("%s: %zu fault points\n", describe(subject, script, nullptr).c_str(), faultPoints);
}

std::vector<Case> allCases() {
    std::vector<Case> cases;
    for (std::size_t subject = 0; subject < subjects().size(); ++subject) {
        for (std::size_t script = 0; script < scripts().size(); ++script) {
            cases.push_back({subject, script});
        }
    }
    return cases;
}

std::string caseName(::testing::TestParamInfo<Case> const& info) {
    return subjects().at(info.param.subject).name + "_" + scripts().at(info.param.script).name;
}

INSTANTIATE_TEST_SUITE_P(Lifecycle, FaultMatrix, ::testing::ValuesIn(allCases()), caseName);

}  // namespace
