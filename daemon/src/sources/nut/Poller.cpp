#include "Poller.h"

#include <pthread.h>

#include <algorithm>
#include <csignal>

namespace tarsel::daemon::nut {

namespace {

/* Blocks every asynchronous signal on the calling thread for as long as it
 * lives, so that a thread started meanwhile inherits the mask. The signals a
 * fault raises on the thread itself stay unblocked: blocking them is
 * undefined. */
class AsynchronousSignalsBlocked {
  public:
    AsynchronousSignalsBlocked() {
        sigset_t blocked;
        sigfillset(&blocked);
        for (int const fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) {
            sigdelset(&blocked, fault);
        }
        pthread_sigmask(SIG_BLOCK, &blocked, &m_previous);
    }
    ~AsynchronousSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_previous, nullptr); }

    AsynchronousSignalsBlocked(AsynchronousSignalsBlocked const&) = delete;
    AsynchronousSignalsBlocked& operator=(AsynchronousSignalsBlocked const&) = delete;

  private:
    sigset_t m_previous{};
};

}  // namespace

char const* stateName(Reading::State state) {
    switch (state) {
        case Reading::State::Fresh:
            return "fresh";
        case Reading::State::Stale:
            return "stale";
        case Reading::State::Unknown:
            return "unknown to upsd";
        case Reading::State::Unreachable:
            return "upsd unreachable";
    }
    return "?";
}

Poller::Poller(std::unique_ptr<Fetcher> fetcher, std::chrono::milliseconds interval, Wake wake)
    : m_fetcher(std::move(fetcher)),
      m_interval(interval),
      m_wake(std::move(wake)),
      m_thread(startThread()) {}

/* The kernel hands a signal sent to the process to any thread that does not
 * block it. The daemon's handlers write to the loop's signal pipe, which the
 * loop's thread sets up and tears down (the pipe goes while the pollers still
 * wind down a round trip); run on a poller thread, a handler would race with
 * that, and could write into a descriptor number already given to something
 * else. The poller's thread blocks them all, so they always land on the
 * loop's thread. */
std::thread Poller::startThread() {
    AsynchronousSignalsBlocked const blocked;
    return std::thread([this] { run(); });
}

Poller::~Poller() {
    requestStop();
    m_thread.join();
}

void Poller::requestStop() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_stopped.notify_all();
}

std::optional<Reading> Poller::take() {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::optional<Reading> reading = std::move(m_latest);
    m_latest.reset();
    return reading;
}

std::size_t Poller::polls() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_polls;
}

bool Poller::submit(Job job, std::size_t limit) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_jobs.size() >= limit) {
            return false;
        }
        m_jobs.push_back(std::move(job));
    }
    m_stopped.notify_all();
    return true;
}

PollerStatus Poller::status() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return {m_polls, m_latency.snapshot(), m_lastState, m_lastDetail, m_lastPoll};
}

void Poller::run() {
    auto next = std::chrono::steady_clock::now();
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stop) {
        if (!m_jobs.empty()) {
            Job const job = std::move(m_jobs.front());
            m_jobs.pop_front();
            lock.unlock();
            job();
            lock.lock();
            next = std::chrono::steady_clock::now();
            continue;
        }
        if (std::chrono::steady_clock::now() >= next) {
            lock.unlock();
            auto const asked = std::chrono::steady_clock::now();
            Reading reading = m_fetcher->fetch();
            reading.fetched = std::chrono::steady_clock::now();
            lock.lock();
            // Counted before it is handed: whoever takes the reading finds
            // the poll in status() too.
            ++m_polls;
            m_latency.observe(std::chrono::duration<double>(reading.fetched - asked).count());
            m_lastPoll = reading.fetched;
            m_lastState = reading.state;
            m_lastDetail = reading.detail;
            lock.unlock();
            publish(std::move(reading));
            lock.lock();
            // Polls keep their rhythm; one that took longer than the
            // interval is followed at once by the next.
            next = std::max(next + m_interval, std::chrono::steady_clock::now());
        }
        m_stopped.wait_until(lock, next, [this] { return m_stop || !m_jobs.empty(); });
    }
}

void Poller::publish(Reading reading) {
    if (m_handed && m_handed->sameAs(reading)) {
        return;  // nothing new: the loop is not woken
    }
    m_handed = reading;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_latest = std::move(reading);
    }
    m_wake();
}

}  // namespace tarsel::daemon::nut
