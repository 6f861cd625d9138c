// Polls one UPS of one upsd on a thread of its own: one LIST VAR per poll,
// so a slow, hung or absent upsd never holds up the Modbus loop. What a poll
// finds is kept for the loop to take (only the latest, only when it differs
// from what was handed before) and the loop is woken.
//
// A poll has a bound of its own: NUT's library bounds each wait for a piece
// of an answer, not the answer, so a upsd that trickles its answer a byte
// at a time (or lists for ever) would otherwise hold the poll, and the UPS's
// old values with it, for as long as it likes. A watchdog thread interrupts
// a poll that outlives its bound, and the reading says upsd is unreachable.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include "Histogram.h"
#include "NutEndpoint.h"
#include "Reading.h"

namespace tarsel::daemon::nut {

/* One round trip to upsd for a UPS's variables. */
class Fetcher {
  public:
    virtual ~Fetcher() = default;
    virtual Reading fetch() = 0;
    /* Makes the round trip in progress end at once, as if upsd had closed
     * the connection. Called from another thread than fetch(); does nothing
     * between round trips. */
    virtual void interrupt() {}
};

/* What the polls of one UPS came to so far. */
struct PollerStatus {
    std::size_t polls = 0;
    HistogramSnapshot latency;  // seconds per round trip
    std::optional<Reading::State> lastState;
    std::string lastDetail;
    std::chrono::steady_clock::time_point lastPoll{};  // when the last one ended
};

class Poller {
  public:
    using Wake = std::function<void()>;

    /* Starts polling at once, every `interval`; a poll that takes longer
     * than `bound` is interrupted and handed as upsd unreachable. Its
     * threads block the process's asynchronous signals: they are the loop's
     * to handle. */
    Poller(std::unique_ptr<Fetcher> fetcher, std::chrono::milliseconds interval, Wake wake,
           std::chrono::milliseconds bound = kDefaultBound);
    /* Stops the threads; the round trip in progress is interrupted (a job
     * given without a way to interrupt it is waited for). */
    ~Poller();

    /* Asks the thread to stop, interrupting the round trip in progress,
     * without waiting for it. */
    void requestStop();

    /* Connecting (2 s) and one wait of NUT's library for an answer (5 s):
     * what a hung upsd costs; a upsd that answers at all answers a poll in
     * a fraction of that. */
    static constexpr std::chrono::milliseconds kDefaultBound{7000};

    Poller(Poller const&) = delete;
    Poller& operator=(Poller const&) = delete;

    /* The latest reading not taken yet. Any thread. */
    std::optional<Reading> take();
    /* Polls made so far. */
    std::size_t polls() const;
    /* Counts, latencies and the state of the last poll. Any thread. */
    PollerStatus status() const;

    using Job = std::function<void()>;
    /* Makes a job end at once; called from another thread than the job's. */
    using Interrupt = std::function<void()>;
    /* Runs `job` on the poller's thread before its next poll, after the jobs
     * given before it; the poll follows at once, so what the job changed at
     * upsd is seen without waiting for the interval. A job that runs longer
     * than `bound` (or is running when the poller stops) is interrupted with
     * `interrupt`, if given: polls never wait behind a job for longer than
     * that. False (and nothing queued) when `limit` jobs already wait. Any
     * thread. */
    bool submit(Job job, std::size_t limit, Interrupt interrupt = nullptr,
                std::chrono::milliseconds bound = kDefaultBound);

  private:
    std::thread startThread(void (Poller::*body)());
    struct Queued {
        Job job;
        Interrupt interrupt;
        std::chrono::milliseconds bound;
    };

    void run();
    void runJob(std::unique_lock<std::mutex>& lock);
    Reading poll();
    void watch();
    void publish(Reading reading);
    /* The round trip in progress (a poll or a job) is bounded from now and
     * interrupted with `interrupt`; m_mutex held. */
    void begin(std::chrono::milliseconds bound, Interrupt interrupt);

    std::unique_ptr<Fetcher> m_fetcher;
    std::chrono::milliseconds const m_interval;
    Wake const m_wake;
    std::chrono::milliseconds const m_bound;
    mutable std::mutex m_mutex;
    std::condition_variable m_stopped;
    std::condition_variable m_watched;  // a round trip began, or the stop
    bool m_stop = false;
    // The round trip in progress: when it must have ended, how to make it
    // end, and whether the watchdog (or the stop) did.
    std::optional<std::chrono::steady_clock::time_point> m_deadline;
    Interrupt m_interrupt;
    bool m_interrupted = false;
    std::optional<Reading> m_latest;  // handed, not taken yet
    std::optional<Reading> m_handed;  // the last reading handed (poller thread only)
    std::size_t m_polls = 0;
    Histogram m_latency{pollLatencyBounds()};
    std::optional<Reading::State> m_lastState;
    std::string m_lastDetail;
    std::chrono::steady_clock::time_point m_lastPoll{};
    std::deque<Queued> m_jobs;
    // Last: started when everything else is ready.
    std::thread m_watchdog;
    std::thread m_thread;
};

/* Fetches through NUT's client library, reconnecting as needed; a connect is
 * bounded by `timeout`, each wait for a piece of an answer by the library's
 * own 5 s, a list by its length (10,000 lines); interrupt() shuts its
 * connection down. */
std::unique_ptr<Fetcher> makeNutFetcher(Endpoint endpoint, std::chrono::seconds timeout);

}  // namespace tarsel::daemon::nut
