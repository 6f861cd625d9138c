// Polls one UPS of one upsd on a thread of its own: one LIST VAR per poll,
// so a slow, hung or absent upsd never holds up the Modbus loop. What a poll
// finds is kept for the loop to take (only the latest, only when it differs
// from what was handed before) and the loop is woken.
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

    /* Starts polling at once, every `interval`, on a thread that blocks the
     * process's asynchronous signals: they are the loop's to handle. */
    Poller(std::unique_ptr<Fetcher> fetcher, std::chrono::milliseconds interval, Wake wake);
    /* Stops the thread; waits at most for the round trip in progress, which
     * the fetcher's timeout bounds. */
    ~Poller();

    /* Asks the thread to stop after the round trip in progress, without
     * waiting: stopping many pollers costs one timeout, not one each. */
    void requestStop();

    Poller(Poller const&) = delete;
    Poller& operator=(Poller const&) = delete;

    /* The latest reading not taken yet. Any thread. */
    std::optional<Reading> take();
    /* Polls made so far. */
    std::size_t polls() const;
    /* Counts, latencies and the state of the last poll. Any thread. */
    PollerStatus status() const;

    using Job = std::function<void()>;
    /* Runs `job` on the poller's thread before its next poll, after the jobs
     * given before it; the poll follows at once, so what the job changed at
     * upsd is seen without waiting for the interval. False (and nothing
     * queued) when `limit` jobs already wait. Any thread. */
    bool submit(Job job, std::size_t limit);

  private:
    std::thread startThread();
    void run();
    void publish(Reading reading);

    std::unique_ptr<Fetcher> m_fetcher;
    std::chrono::milliseconds const m_interval;
    Wake const m_wake;
    mutable std::mutex m_mutex;
    std::condition_variable m_stopped;
    bool m_stop = false;
    std::optional<Reading> m_latest;  // handed, not taken yet
    std::optional<Reading> m_handed;  // the last reading handed (poller thread only)
    std::size_t m_polls = 0;
    Histogram m_latency{pollLatencyBounds()};
    std::optional<Reading::State> m_lastState;
    std::string m_lastDetail;
    std::chrono::steady_clock::time_point m_lastPoll{};
    std::deque<Job> m_jobs;
    std::thread m_thread;  // last: started when everything else is ready
};

/* Fetches through NUT's client library, reconnecting as needed; a connect is
 * bounded by `timeout`, an answer by the library's own 5 s. */
std::unique_ptr<Fetcher> makeNutFetcher(Endpoint endpoint, std::chrono::seconds timeout);

}  // namespace tarsel::daemon::nut
