// The NUT source's poll path: 10 UPSes of 200 variables each, a share of
// them changed before every poll. One poll is what the source does per UPS:
// a LIST VAR round trip through libupsclient (to an in-process stand-in for
// upsd on loopback, whose own work is not counted), the comparison with the
// last reading, and the changes written to the data store, which pushes them
// into the served image of a map with one entry per variable.
//
// Reported: the poller's CPU per UPS per poll (thread CPU time of the
// fetching and applying thread), the wall time from the start of a poll to
// the last change in the served image, and the pushes per poll.
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Log.h"
#include "ServedMap.h"
#include "sources/nut/NutSource.h"
#include "sources/nut/Poller.h"
#include "sources/nut/UpsMirror.h"

namespace {

using namespace tarsel::daemon;

constexpr int kUpses = 10;
constexpr int kVariables = 200;

std::string upsName(int k) {
    return "ups" + std::to_string(k);
}

/* Answers LIST VAR from a table the benchmark changes; one thread, poll(). */
class FakeUpsd {
  public:
    FakeUpsd() : m_values(kUpses, std::vector<int>(kVariables, 0)) {
        m_listener = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::listen(m_listener, 16);
        socklen_t length = sizeof address;
        ::getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length);
        m_port = ntohs(address.sin_port);
        m_thread = std::thread([this] { serve(); });
    }

    ~FakeUpsd() {
        m_stop = true;
        m_thread.join();
        for (int const fd : m_clients) {
            ::close(fd);
        }
        ::close(m_listener);
    }

    std::uint16_t port() const { return m_port; }

    /* Changes the first `percent` % of every UPS's variables. */
    void change(int percent) {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto& values : m_values) {
            for (int i = 0; i < kVariables * percent / 100; ++i) {
                ++values[static_cast<std::size_t>(i)];
            }
        }
    }

  private:
    void serve() {
        std::vector<std::string> buffers;
        while (!m_stop) {
            std::vector<pollfd> fds{{m_listener, POLLIN, 0}};
            for (int const fd : m_clients) {
                fds.push_back({fd, POLLIN, 0});
            }
            if (::poll(fds.data(), fds.size(), 50) <= 0) {
                continue;
            }
            if ((fds[0].revents & POLLIN) != 0) {
                m_clients.push_back(::accept(m_listener, nullptr, nullptr));
                buffers.emplace_back();
            }
            for (std::size_t i = 1; i < fds.size(); ++i) {
                if ((fds[i].revents & POLLIN) != 0) {
                    receive(fds[i].fd, buffers[i - 1]);
                }
            }
        }
    }

    void receive(int fd, std::string& buffer) {
        char bytes[512];
        ssize_t const got = ::read(fd, bytes, sizeof bytes);
        if (got <= 0) {
            return;
        }
        buffer.append(bytes, static_cast<std::size_t>(got));
        for (auto end = buffer.find('\n'); end != std::string::npos; end = buffer.find('\n')) {
            std::string const line = buffer.substr(0, end);
            buffer.erase(0, end + 1);
            answer(fd, line);
        }
    }

    void answer(int fd, std::string const& line) {
        std::string const commands = "LIST CMD ";
        if (line.compare(0, commands.size(), commands) == 0) {
            // No instant commands; asked once per connection.
            std::string const ups = line.substr(commands.size());
            send(fd, "BEGIN LIST CMD " + ups + "\nEND LIST CMD " + ups + "\n");
            return;
        }
        std::string const prefix = "LIST VAR ";
        if (line.compare(0, prefix.size(), prefix) != 0) {
            return;
        }
        std::string const ups = line.substr(prefix.size());
        int const k = std::stoi(ups.substr(3));
        std::ostringstream out;
        out << "BEGIN LIST VAR " << ups << "\n";
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            out << "VAR " << ups << " ups.status \"OL\"\n";
            for (int i = 0; i < kVariables - 1; ++i) {
                out << "VAR " << ups << " var." << i << " \""
                    << m_values[static_cast<std::size_t>(k)][static_cast<std::size_t>(i)] << "\"\n";
            }
        }
        out << "END LIST VAR " << ups << "\n";
        send(fd, out.str());
    }

    static void send(int fd, std::string const& text) {
        for (std::size_t sent = 0; sent < text.size();) {
            ssize_t const n = ::write(fd, text.data() + sent, text.size() - sent);
            if (n <= 0) {
                return;
            }
            sent += static_cast<std::size_t>(n);
        }
    }

    std::mutex m_mutex;
    std::vector<std::vector<int>> m_values;
    int m_listener = -1;
    std::uint16_t m_port = 0;
    std::vector<int> m_clients;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

/* One uint16 entry per variable of the UPS on `device`. */
RegisterMapDefinition mapOf(cdshost::Id device) {
    RegisterMapDefinition map;
    for (int i = 0; i < kVariables - 1; ++i) {
        EntryDefinition entry;
        entry.name = "var." + std::to_string(i);
        entry.table = Table::InputRegisters;
        entry.address = static_cast<std::uint16_t>(i);
        entry.encoder = EncoderKind::Uint16;
        SourceDefinition source;
        source.device.id = device;
        source.channel = entry.name;
        entry.sources.push_back(source);
        map.entries.push_back(entry);
    }
    return map;
}

double threadCpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

void BM_NutPollPath(benchmark::State& state) {
    auto& store = cdshost::Store::instance();
    store.reset();
    std::ostringstream logText;
    Log log(logText);
    FakeUpsd upsd;
    nut::IdPool ids(1'000'000);
    std::vector<std::unique_ptr<nut::UpsMirror>> mirrors;
    std::vector<std::unique_ptr<nut::Fetcher>> fetchers;
    std::vector<std::unique_ptr<ServedMap>> maps;
    std::vector<nut::Reading> last(kUpses);
    for (int k = 0; k < kUpses; ++k) {
        cdshost::Id const device = nut::kFirstUpsDevice + static_cast<cdshost::Id>(k);
        mirrors.push_back(std::make_unique<nut::UpsMirror>(store, upsName(k), device, ids));
        fetchers.push_back(
            nut::makeNutFetcher({upsName(k), "127.0.0.1", upsd.port()}, std::chrono::seconds(2)));
        maps.push_back(std::make_unique<ServedMap>(mapOf(device), log));
    }
    auto poll = [&] {
        for (std::size_t k = 0; k < mirrors.size(); ++k) {
            nut::Reading reading = fetchers[k]->fetch();
            if (reading.state != nut::Reading::State::Fresh) {
                throw std::runtime_error("the stand-in upsd did not answer: " + reading.detail);
            }
            if (!reading.sameAs(last[k])) {
                mirrors[k]->apply(reading.variables);
                last[k] = std::move(reading);
            }
        }
    };
    poll();  // the devices appear
    for (auto& map : maps) {
        map->buildPending();
    }
    auto pushes = [&] {
        std::uint64_t total = 0;
        for (auto const& map : maps) {
            total += map->totalPushes();
        }
        return total;
    };
    std::uint64_t const pushesBefore = pushes();
    double cpu = 0.0;
    double wall = 0.0;
    for (auto _ : state) {
        upsd.change(static_cast<int>(state.range(0)));
        auto const start = std::chrono::steady_clock::now();
        double const cpuStart = threadCpuSeconds();
        poll();
        double const cpuSpent = threadCpuSeconds() - cpuStart;
        cpu += cpuSpent;
        wall += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        state.SetIterationTime(cpuSpent);
    }
    double const polls = static_cast<double>(state.iterations());
    state.counters["cpu_us_per_ups_poll"] = cpu / polls / kUpses * 1e6;
    state.counters["served_ms_after_poll_start"] = wall / polls * 1e3;
    state.counters["pushes_per_poll"] = static_cast<double>(pushes() - pushesBefore) / polls;
}
BENCHMARK(BM_NutPollPath)
    ->Arg(0)
    ->Arg(1)
    ->Arg(10)
    ->Arg(50)
    ->Arg(100)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace
