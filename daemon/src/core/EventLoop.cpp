#include "EventLoop.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <optional>
#include <vector>

#include "LogText.h"

namespace tarsel::daemon {

namespace {

using Clock = std::chrono::steady_clock;

// Bounds every wait, so a clock step or a lost wake-up costs at most this.
constexpr std::chrono::milliseconds kMaxWait{500};
// How often entries whose device is not there yet are tried again.
constexpr std::chrono::seconds kPendingRetryPeriod{1};

int waitMilliseconds(Clock::time_point now, std::optional<Clock::time_point> next) {
    auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(kMaxWait);
    if (next) {
        auto const until = std::chrono::ceil<std::chrono::milliseconds>(*next - now);
        wait = std::clamp(until, std::chrono::milliseconds(0), wait);
    }
    return static_cast<int>(wait.count());
}

std::optional<Clock::time_point> earlier(std::optional<Clock::time_point> a,
                                         std::optional<Clock::time_point> b) {
    if (!a) {
        return b;
    }
    if (!b) {
        return a;
    }
    return std::min(*a, *b);
}

/* True when the loop is to stop. */
bool handleSignals(SignalPipe& signals, DaemonCore& core, Log& log, LoopExtras const& extras) {
    bool stop = false;
    while (auto const signal = signals.take()) {
        if (*signal == SIGHUP) {
            if (extras.reload) {
                extras.reload();
            } else {
                log.info("received SIGHUP; nothing to reload");
            }
        } else if (*signal == SIGUSR1) {
            log.lines(Log::Level::Info,
                      "register map:\n" + core.describe(DescribeFormat::Markdown));
        } else {
            log.info(std::string("received ") + strsignal(*signal) + "; stopping");
            stop = true;
        }
    }
    return stop;
}

/* Builds the map's pending entries on the loop's thread: about once a second,
 * and at once after scenario events, which are what usually adds the device
 * a pending entry waits for. */
class PendingRetry {
  public:
    explicit PendingRetry(Clock::time_point start) : m_next(start + kPendingRetryPeriod) {}

    /* When the loop must wake up for the next attempt; nothing while no
     * entry is pending. */
    std::optional<Clock::time_point> due(DaemonCore const& core) const {
        return core.hasPendingEntries() ? std::optional<Clock::time_point>(m_next) : std::nullopt;
    }

    void run(DaemonCore& core, Clock::time_point now, bool scenarioPlayed) {
        bool const periodic = now >= m_next;
        if (periodic) {
            m_next = now + kPendingRetryPeriod;
        }
        if ((periodic || scenarioPlayed) && core.hasPendingEntries()) {
            core.buildPendingEntries();
        }
    }

  private:
    Clock::time_point m_next;
};

/* Applies what the data source has due now; true when it changed the store. */
bool updateSource(DataSource* source, Clock::time_point now) {
    return source != nullptr && source->update(now);
}

}  // namespace

int runEventLoop(DaemonCore& core, std::vector<ModbusServer*> const& servers, SignalPipe& signals,
                 Log& log, double runSeconds, LoopExtras const& extras) {
    Clock::time_point const start = Clock::now();
    std::optional<Clock::time_point> deadline;
    if (runSeconds > 0) {
        deadline = start + std::chrono::duration_cast<Clock::duration>(
                               std::chrono::duration<double>(runSeconds));
    }
    DataSource* source = core.source();
    if (source != nullptr) {
        source->start(start);
    }
    int const sourceFd = source != nullptr ? source->wakeDescriptor() : -1;
    PendingRetry retry(start);
    // Refilled every pass, kept for their storage.
    std::vector<pollfd> fds;
    std::vector<std::size_t> sizes;
    for (;;) {
        // A deferred answer's bound is a time to wake up too: its 0x0B goes
        // out when the bound passes, not at the next wake-up after it.
        auto next =
            earlier(earlier(earlier(earlier(deadline, source ? source->nextDue() : std::nullopt),
                                    retry.due(core)),
                            core.attributeRefreshDueAfterLastRun()),
                    core.deferredReplies().nextDeadline());
        // A listener left alone while descriptors ran out is polled again
        // when its pause is over.
        for (ModbusServer const* server : servers) {
            next = earlier(next, server->listenDue());
        }
        if (extras.http != nullptr) {
            next = earlier(next, extras.http->listenDue());
        }
        // The source's descriptor, when it has one, goes last: each server's
        // descriptors stay together, in the order it gave them.
        fds.assign(1, pollfd{signals.fd(), POLLIN, 0});
        sizes.clear();
        for (ModbusServer const* server : servers) {
            sizes.push_back(server->appendPollSet(fds));
        }
        std::size_t const httpFirst = fds.size();
        std::size_t httpCount = 0;
        if (extras.http != nullptr) {
            auto const http = extras.http->pollSet();
            httpCount = http.size();
            fds.insert(fds.end(), http.begin(), http.end());
        }
        if (sourceFd >= 0) {
            fds.push_back({sourceFd, POLLIN, 0});
        }
        bool const backlog = std::any_of(servers.begin(), servers.end(),
                                         [](ModbusServer const* s) { return s->hasBacklog(); });
        int const ready =
            ::poll(fds.data(), fds.size(), backlog ? 0 : waitMilliseconds(Clock::now(), next));
        if (ready < 0 && errno != EINTR) {
            log.error(std::string("poll failed: ") + std::strerror(errno));
            return 1;
        }
        if ((fds[0].revents & POLLIN) != 0 && handleSignals(signals, core, log, extras)) {
            return 0;
        }
        // One reading of the clock serves the whole pass: what runs in it
        // takes microseconds, and every reading costs about as much as
        // answering a register.
        Clock::time_point const now = Clock::now();
        std::size_t first = 1;
        for (std::size_t i = 0; i < servers.size(); ++i) {
            if (ready > 0 || backlog) {
                servers[i]->serve(fds.data() + first, sizes[i], now);
            }
            servers[i]->expire(now);
            first += sizes[i];
        }
        if (extras.http != nullptr) {
            if (ready > 0) {
                extras.http->serve(fds.data() + httpFirst, httpCount, now);
            }
            extras.http->expire(now);
        }
        bool const played = updateSource(source, now);
        retry.run(core, now, played);
        // After the requests and the source: what they changed is served
        // again within this pass when the entry is due.
        core.refreshAttributeEntries(now);
        core.watchAvailability();
        log.summarise();
        if (deadline && now >= *deadline) {
            auto const runTime = std::chrono::round<std::chrono::milliseconds>(
                std::chrono::duration<double>(runSeconds));
            log.info("run time of " + secondsText(runTime) + " s is over; stopping");
            return 0;
        }
    }
}

}  // namespace tarsel::daemon
