#include "NutSource.h"

namespace tarsel::daemon::nut {

namespace {

// Ids of outlets and channels start here, above any UPS device id.
constexpr cdshost::Id kFirstPooledId = 1'000'000;
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
    : Source(config, store, log, [timeout = config.timeout](Endpoint const& endpoint) {
          return makeNutFetcher(endpoint, timeout);
      }) {}

Source::Source(SourceConfig config, cdshost::Store& store, Log& log, FetcherFactory fetchers)
    : m_config(std::move(config)),
      m_store(store),
      m_log(log),
      m_fetchers(std::move(fetchers)),
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
        ups.poller = std::make_unique<Poller>(m_fetchers(ups.endpoint), m_config.interval,
                                              [this] { m_wake.wake(); });
    }
}

bool Source::update(Clock::time_point) {
    m_wake.drain();
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
            changed = ups.mirror->apply(reading.variables) > 0;
        } else {
            ups.mirror->remove();
        }
        logListenerFailures(ups);
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
            ups.mirror->apply(reading.variables);
        }
        logListenerFailures(ups);
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

void Source::logState(Ups& ups, Reading const& reading) {
    if (ups.state == reading.state) {
        return;
    }
    ups.state = reading.state;
    std::string const text = "NUT: " + ups.endpoint.text() + " " + stateName(reading.state);
    if (reading.state == Reading::State::Fresh) {
        m_log.info(text + " (" + std::to_string(reading.variables.size()) + " variables)");
    } else {
        m_log.warning(text + (reading.detail.empty() ? "" : ": " + reading.detail) +
                      "; its entries read as unavailable until it is back");
    }
}

}  // namespace tarsel::daemon::nut
