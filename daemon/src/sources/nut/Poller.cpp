#include "Poller.h"

#include <pthread.h>

#include <algorithm>
#include <csignal>

#include "LogText.h"

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

Poller::Poller(std::unique_ptr<Fetcher> fetcher, std::chrono::milliseconds interval, Wake wake,
               std::chrono::milliseconds bound)
    : m_fetcher(std::move(fetcher)),
      m_interval(interval),
      m_wake(std::move(wake)),
      m_bound(bound),
      m_watchdog(startThread(&Poller::watch)),
      m_thread(startThread(&Poller::run)) {}

/* The kernel hands a signal sent to the process to any thread that does not
 * block it. The daemon's handlers write to the loop's signal pipe, which the
 * loop's thread sets up and tears down (the pipe goes while the pollers still
 * wind down a round trip); run on a poller's thread (or its watchdog's), a
 * handler would race with that, and could write into a descriptor number
 * already given to something else. The poller's threads block them all, so
 * they always land on the loop's thread. */
std::thread Poller::startThread(void (Poller::*body)()) {
    AsynchronousSignalsBlocked const blocked;
    return std::thread([this, body] { (this->*body)(); });
}

Poller::~Poller() {
    requestStop();
    m_thread.join();
    m_watchdog.join();
}

void Poller::requestStop() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
        // Nothing a poll still brings would be handed, and a write's client
        // goes with the daemon: the round trip ends now rather than when
        // upsd has finished answering.
        if (m_deadline && m_interrupt && !m_interrupted) {
            m_interrupted = true;
            m_interrupt();
        }
    }
    m_stopped.notify_all();
    m_watched.notify_all();
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

bool Poller::submit(Job job, std::size_t limit, Interrupt interrupt,
                    std::chrono::milliseconds bound) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_jobs.size() >= limit) {
            return false;
        }
        m_jobs.push_back({std::move(job), std::move(interrupt), bound});
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
    bool jobLast = false;  // the last round trip was a job's
    while (!m_stop) {
        bool const pollDue = std::chrono::steady_clock::now() >= next;
        // Jobs and due polls take turns: writes that keep coming never keep
        // the UPS unpolled (and its old values served), and polls that take
        // longer than the interval never keep a write waiting.
        if (!m_jobs.empty() && !(jobLast && pollDue)) {
            runJob(lock);
            jobLast = true;
            next = std::chrono::steady_clock::now();
            continue;
        }
        if (pollDue) {
            jobLast = false;
            auto const asked = std::chrono::steady_clock::now();
            begin(m_bound, [this] { m_fetcher->interrupt(); });
            lock.unlock();
            Reading reading = poll();
            lock.lock();
            if (m_stop) {
                break;  // interrupted for the stop: nothing to hand
            }
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

void Poller::begin(std::chrono::milliseconds bound, Interrupt interrupt) {
    m_deadline = std::chrono::steady_clock::now() + bound;
    m_interrupt = std::move(interrupt);
    m_interrupted = false;
    m_watched.notify_all();
}

/* The first job waiting, on the poller's thread; m_mutex held by `lock`
 * except while the job runs. */
void Poller::runJob(std::unique_lock<std::mutex>& lock) {
    Queued queued = std::move(m_jobs.front());
    m_jobs.pop_front();
    if (queued.interrupt) {
        begin(queued.bound, std::move(queued.interrupt));
    }
    lock.unlock();
    queued.job();
    lock.lock();
    m_deadline.reset();
    m_interrupt = nullptr;
}

/* One round trip, on the poller's thread; what it found, or that upsd did
 * not answer in time when the watchdog had to interrupt it. */
Reading Poller::poll() {
    Reading reading = m_fetcher->fetch();
    reading.fetched = std::chrono::steady_clock::now();
    std::lock_guard<std::mutex> lock(m_mutex);
    m_deadline.reset();
    m_interrupt = nullptr;
    if (m_interrupted) {
        // Whatever the interrupted exchange left (part of a list, a read
        // error) is not what upsd has: the reading says why there is none.
        Reading late;
        late.state = Reading::State::Unreachable;
        late.detail = "no whole answer within " + secondsText(m_bound) + " s";
        late.fetched = reading.fetched;
        return late;
    }
    return reading;
}

/* The watchdog's thread: interrupts a round trip that outlives its bound. */
void Poller::watch() {
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stop) {
        if (!m_deadline || m_interrupted) {
            m_watched.wait(lock);
        } else if (std::chrono::steady_clock::now() < *m_deadline) {
            m_watched.wait_until(lock, *m_deadline);
        } else {
            m_interrupted = true;
            m_interrupt();
        }
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
