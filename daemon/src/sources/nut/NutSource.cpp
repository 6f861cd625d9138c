#include "NutSource.h"

#include "ExceptionCodes.h"
#include "WriteCapture.h"

namespace tarsel::daemon::nut {

namespace {

using exception_code::kGatewayTargetFailed;
using exception_code::kIllegalDataValue;
using exception_code::kIllegalFunction;
using exception_code::kServerDeviceBusy;
using exception_code::kServerDeviceFailure;

// Ids of outlets and channels start here, above any UPS device id.
constexpr cdshost::Id kFirstPooledId = 1'000'000;
// Writes waiting for one UPS at most; more are answered Server Device Busy.
constexpr std::size_t kMaxWaitingWrites = 16;

/* The variables of a reading and a channel for each command it offers. */
Variables withCommands(Reading const& reading) {
    Variables variables = reading.variables;
    for (auto const& command : reading.commands) {
        variables.emplace(commandChannelName(command), "0");
    }
    return variables;
}

// The library waits in whole seconds: a write's exchange may outlast its
// bound by less than this before it is interrupted. Within the deferred
// answer's 5 s, so its client hears the outcome the write found.
constexpr std::chrono::milliseconds kWriteSlack{1000};

// A poll ends within the connect and answer bounds (2 s + 5 s); a last poll
// older than three intervals and this margin means the poller is stuck.
constexpr std::chrono::seconds kPollMargin{10};

/* Adds the counts of `more` to `total`; both use pollLatencyBounds(). */
void addLatencies(HistogramSnapshot& total, HistogramSnapshot const& more) {
    if (total.bounds.empty()) {
        total = more;
        return;
    }
    for (std::size_t i = 0; i < total.counts.size() && i < more.counts.size(); ++i) {
        total.counts[i] += more.counts[i];
    }
    total.count += more.count;
    total.sum += more.sum;
}

}  // namespace

RegisterMapDefinition mapForUps(RegisterMapDefinition map, std::size_t index) {
    auto const move = [index](SourceDefinition& source) {
        if (source.device.id == kFirstUpsDevice) {
            source.device.id = kFirstUpsDevice + index;
        }
    };
    for (auto& entry : map.entries) {
        for (auto& source : entry.sources) {
            move(source);
        }
    }
    // Read Device Identification of that unit names that UPS too.
    for (auto& object : map.identification) {
        if (object.source) {
            move(*object.source);
        }
    }
    return map;
}

Source::Source(SourceConfig config, cdshost::Store& store, Log& log)
    : Source(
          config, store, log,
          [timeout = config.timeout](Endpoint const& endpoint) {
              return makeNutFetcher(endpoint, timeout);
          },
          config.credentials
              ? CommanderFactory([credentials = *config.credentials, timeout = config.timeout,
                                  bound = config.writeBound](Endpoint const& endpoint) {
                    return makeNutCommander(endpoint, credentials, timeout, bound);
                })
              : nullptr) {}

Source::Source(SourceConfig config, cdshost::Store& store, Log& log, FetcherFactory fetchers,
               CommanderFactory commanders)
    : m_config(std::move(config)),
      m_store(store),
      m_log(log),
      m_fetchers(std::move(fetchers)),
      m_commanders(std::move(commanders)),
      m_ids(kFirstPooledId) {
    cdshost::Id device = kFirstUpsDevice;
    for (auto const& endpoint : m_config.upses) {
        Ups ups;
        ups.endpoint = endpoint;
        ups.mirror = std::make_unique<UpsMirror>(m_store, endpoint.ups, device++, m_ids);
        m_upses.push_back(std::move(ups));
    }
}

Source::~Source() {
    // Pollers first: their threads wake this source. All are asked to stop
    // before any is waited for.
    for (auto& ups : m_upses) {
        if (ups.poller) {
            ups.poller->requestStop();
        }
    }
    for (auto& ups : m_upses) {
        ups.poller.reset();
    }
}

void Source::start(Clock::time_point) {
    for (auto& ups : m_upses) {
        m_log.info("NUT: polling " + ups.endpoint.text() + " every " +
                   std::to_string(m_config.interval.count()) + " ms as device " +
                   std::to_string(ups.mirror->deviceId()));
        if (m_commanders) {
            ups.commander = m_commanders(ups.endpoint);
        }
        ups.poller = std::make_unique<Poller>(
            m_fetchers(ups.endpoint), m_config.interval, [this] { m_wake.wake(); },
            m_config.pollBound);
    }
}

bool Source::update(Clock::time_point) {
    m_wake.drain();
    finishWrites();
    bool changed = false;
    for (auto& ups : m_upses) {
        if (!ups.poller) {
            continue;
        }
        if (auto const reading = ups.poller->take()) {
            changed = apply(ups, *reading) || changed;
        }
    }
    return changed;
}

SourceStatus Source::status(Clock::time_point now) const {
    SourceStatus status;
    status.pollLatency = Histogram(pollLatencyBounds()).snapshot();
    for (auto const& ups : m_upses) {
        if (!ups.poller) {
            if (status.fresh) {
                status.fresh = false;
                status.detail = ups.endpoint.text() + ": not polled yet";
            }
            continue;
        }
        PollerStatus const polled = ups.poller->status();
        status.polls += polled.polls;
        addLatencies(status.pollLatency, polled.latency);
        std::string why;
        if (!polled.lastState) {
            why = "no poll has ended yet";
        } else if (*polled.lastState != Reading::State::Fresh) {
            why = std::string(stateName(*polled.lastState)) +
                  (polled.lastDetail.empty() ? "" : ": " + polled.lastDetail);
        } else if (now - polled.lastPoll > 3 * m_config.interval + kPollMargin) {
            why = "no poll has ended for " +
                  std::to_string(
                      std::chrono::duration_cast<std::chrono::seconds>(now - polled.lastPoll)
                          .count()) +
                  " s";
        }
        if (!why.empty() && status.fresh) {
            status.fresh = false;
            status.detail = ups.endpoint.text() + ": " + why;
        }
    }
    return status;
}

bool Source::apply(Ups& ups, Reading const& reading) {
    logState(ups, reading);
    bool const wasPresent = ups.mirror->present();
    try {
        bool changed = wasPresent;
        if (reading.state == Reading::State::Fresh) {
            changed = ups.mirror->apply(withCommands(reading)) > 0;
        } else {
            ups.mirror->remove();
        }
        logListenerFailures(ups);
        logOutletsLeftOut(ups);
        return changed;
    } catch (std::exception const& error) {
        // The store is not as the mirror left it (or a listener failed):
        // the device is built afresh from this same reading.
        m_log.warning("NUT: " + ups.endpoint.text() + ": " + error.what() +
                      "; rebuilding its device");
    }
    try {
        ups.mirror->resynchronise();
        if (reading.state == Reading::State::Fresh) {
            ups.mirror->apply(withCommands(reading));
        }
        logListenerFailures(ups);
        logOutletsLeftOut(ups);
    } catch (std::exception const& error) {
        m_log.warning("NUT: " + ups.endpoint.text() +
                      ": cannot rebuild its device: " + error.what());
    }
    return true;
}

void Source::logListenerFailures(Ups const& ups) {
    for (auto const& failure : ups.mirror->listenerFailures()) {
        m_log.warning("NUT: " + ups.endpoint.text() +
                      ": a listener failed on a change: " + failure);
    }
}

/* Outlets beyond the last number the mirror places (a driver's error, or a
 * upsd that lists nonsense) are said when they first show, the first few by
 * number; a UPS coming and going says them at most as often as its state. */
void Source::logOutletsLeftOut(Ups const& ups) {
    auto const& outlets = ups.mirror->outletsNewlyLeftOut();
    if (outlets.empty()) {
        return;
    }
    constexpr std::size_t kNamed = 5;
    std::string numbers;
    for (std::size_t i = 0; i < outlets.size() && i < kNamed; ++i) {
        numbers += (i == 0 ? "" : ", ") + std::to_string(outlets[i]);
    }
    if (outlets.size() > kNamed) {
        numbers += " and " + std::to_string(outlets.size() - kNamed) + " more";
    }
    m_log.limited(Log::Level::Warning, "outlets left out of " + ups.endpoint.text(),
                  "NUT: " + ups.endpoint.text() + ": outlet" + (outlets.size() > 1 ? "s " : " ") +
                      numbers + " left out: outlets are served from 1 to " +
                      std::to_string(kMaxOutlet));
}

void Source::logState(Ups& ups, Reading const& reading) {
    if (ups.state == reading.state) {
        return;
    }
    ups.state = reading.state;
    std::string const text = "NUT: " + ups.endpoint.text() + " " + stateName(reading.state);
    // Each change is said once; a UPS that comes and goes without pause (a
    // flapping link) says ten a minute, then how many more and the last.
    std::string const kind = "state changes of " + ups.endpoint.text();
    if (reading.state == Reading::State::Fresh) {
        m_log.limited(Log::Level::Info, kind,
                      text + " (" + std::to_string(reading.variables.size()) + " variables)");
    } else {
        m_log.limited(Log::Level::Warning, kind,
                      text + (reading.detail.empty() ? "" : ": " + reading.detail) +
                          "; its entries read as unavailable until it is back");
    }
}

}  // namespace tarsel::daemon::nut

namespace tarsel::daemon::nut {

std::optional<std::size_t> Source::upsOf(DeviceRef const& device) const {
    for (std::size_t i = 0; i < m_upses.size(); ++i) {
        UpsMirror const& mirror = *m_upses[i].mirror;
        bool const byId = device.id && *device.id == mirror.deviceId();
        bool const byName = !device.id && device.name == mirror.upsName();
        if (byId || byName) {
            return i;
        }
    }
    return std::nullopt;
}

/* Outlets are sub-devices of their UPS, but their channels carry the whole
 * variable name ("outlet.1.delay.shutdown"): the UPS is what matters. */
std::optional<Source::Target> Source::targetOf(EntryDefinition const& entry) const {
    if (entry.sources.size() != 1) {
        return std::nullopt;
    }
    SourceDefinition const& source = entry.sources.front();
    auto const ups = upsOf(source.device);
    if (!ups) {
        return std::nullopt;
    }
    Target target;
    target.ups = *ups;
    if (source.kind == SourceKind::Attribute) {
        auto const variable = identityVariable(source.attribute);
        if (!variable) {
            return std::nullopt;
        }
        target.name = *variable;
    } else if (source.kind == SourceKind::Channel && source.dataType == modbus::DataType::Value) {
        if (auto const command = commandOfChannel(source.channel)) {
            target.name = *command;
            target.command = true;
        } else {
            // Channels the mirror derives are no variables of upsd's.
            bool const derived = source.channel.rfind(std::string(kStatusVariable) + ".", 0) == 0 ||
                                 source.channel == kOperatingStatusChannel;
            if (derived) {
                return std::nullopt;
            }
            target.name = source.channel;
        }
    } else {
        return std::nullopt;
    }
    if (!isNutName(target.name)) {
        return std::nullopt;
    }
    return target;
}

bool Source::owns(ServedEntry const& entry) const {
    return writable() && targetOf(entry.definition).has_value();
}

std::optional<Command> Source::commandFor(Target const& target, EntryDefinition const& entry,
                                          std::vector<std::uint16_t> const& words,
                                          RemoteOutcome& refusal) {
    Ups const& ups = m_upses[target.ups];
    Variables const& now = ups.mirror->variables();
    auto const found = now.find(target.name);
    kq::CValue const current = target.command       ? kq::CValue(0)
                               : found != now.end() ? storeValue(target.name, found->second)
                                                    : kq::CValue(std::string());
    kq::CValue written;
    try {
        written = captureWrite(entry, current, words, m_store, {m_ids.next(), m_ids.next()});
    } catch (std::exception const& error) {
        refusal = {kServerDeviceFailure,
                   std::string("the value cannot be converted: ") + error.what()};
        return std::nullopt;
    }
    Command command;
    command.ups = ups.endpoint.ups;
    command.name = target.name;
    if (target.command) {
        if (!written.as_bool()) {
            refusal = {0, "nothing to do (a command coil written OFF)"};
            return std::nullopt;
        }
        command.kind = Command::Kind::InstantCommand;
        return command;
    }
    auto const text = nutText(written);
    if (!text) {
        refusal = {kIllegalDataValue, "the value has no text upsd could take"};
        return std::nullopt;
    }
    command.value = *text;
    return command;
}

std::optional<RemoteOutcome> Source::start(ServedEntry const& entry,
                                           std::vector<std::uint16_t> const& words,
                                           std::string const& client, Done done) {
    auto const target = targetOf(entry.definition);
    if (!writable() || !target) {
        return RemoteOutcome{kIllegalFunction, "not a variable or command of the UPS"};
    }
    Ups& ups = m_upses[target->ups];
    if (!ups.poller || !ups.commander) {
        return RemoteOutcome{kGatewayTargetFailed, "the UPS is not polled"};
    }
    RemoteOutcome refusal;
    std::optional<Command> const command = commandFor(*target, entry.definition, words, refusal);
    if (!command) {
        return refusal;
    }
    m_log.debug("NUT: " + ups.endpoint.text() + ": " +
                (command->kind == Command::Kind::InstantCommand ? "INSTCMD " + command->name
                                                                : "SET VAR " + command->name) +
                " for client " + client);
    Commander* const commander = ups.commander.get();
    bool const queued = ups.poller->submit(
        [this, commander, command = *command, done = std::move(done)] {
            Outcome const outcome = outcomeOf(command, commander->run(command));
            {
                std::lock_guard<std::mutex> lock(m_doneMutex);
                m_done.emplace_back(done, RemoteOutcome{outcome.exception, outcome.text});
            }
            m_wake.wake();
        },
        kMaxWaitingWrites, [commander] { commander->interrupt(); },
        m_config.writeBound + kWriteSlack);
    if (!queued) {
        return RemoteOutcome{kServerDeviceBusy, "too many writes wait for this UPS"};
    }
    return std::nullopt;
}

/* Tells the writers how their writes ended, on the loop's thread. */
void Source::finishWrites() {
    std::vector<std::pair<Done, RemoteOutcome>> done;
    {
        std::lock_guard<std::mutex> lock(m_doneMutex);
        done.swap(m_done);
    }
    for (auto const& [notify, outcome] : done) {
        notify(outcome);
    }
}

}  // namespace tarsel::daemon::nut
