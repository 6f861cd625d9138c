// Request counting: what the front handler answers, counted by function,
// exception and write outcome; and the pages built from the counts.
#include <gtest/gtest.h>

#include "DaemonTestSupport.h"
#include "Metrics.h"
#include "StatusPages.h"
#include "sources/nut/NutSource.h"

namespace tarsel::daemon {
namespace {

using testing::TestDaemon;

char const* const kMap = R"({"entries": [
  {"name": "t", "table": "holding-registers", "address": 0, "encoder": "int32",
   "source": {"device": 2, "channel": "T"}},
  {"name": "status", "table": "input-registers", "address": 2, "encoder": "uint16",
   "source": {"device": 2, "channel": "PowerDistribution.Status.OperatingStatus"}}
]})";
char const* const kRunning = R"({"devices": [{"id": 2, "name": "UPS", "channels": {
  "PowerDistribution.Status.OperatingStatus": {"uint32": 16}, "T": 5}}]})";

/* A request of functions 1 to 6 written out whole (see Reload_test). */
std::vector<std::uint8_t> request(std::uint8_t function, std::uint16_t address,
                                  std::uint16_t second, std::uint8_t unit = 1) {
    auto const byte = [](unsigned value) { return static_cast<std::uint8_t>(value & 0xFF); };
    return {0,
            1,
            0,
            0,
            0,
            6,
            unit,
            function,
            byte(address >> 8u),
            byte(address),
            byte(second >> 8u),
            byte(second)};
}

class MetricsTest : public ::testing::Test {
  protected:
    void SetUp() override { m_daemon.core().setMetrics(&m_metrics); }
    std::uint8_t ask(std::vector<std::uint8_t> const& bytes) {
        return m_daemon.ask(bytes).exception;
    }

    TestDaemon m_daemon{kMap, kRunning};
    Metrics m_metrics;
};

TEST_F(MetricsTest, RequestsAreCountedByFunctionAndExceptionsByFunctionAndCode) {
    ASSERT_EQ(ask(request(3, 0, 2)), 0);
    ASSERT_EQ(ask(request(3, 0, 2)), 0);
    ASSERT_EQ(ask(request(4, 2, 1)), 0);
    ASSERT_EQ(ask(request(3, 100, 1)), exception_code::kIllegalDataAddress);
    ASSERT_EQ(ask(request(1, 0, 1)), exception_code::kIllegalDataAddress);
    ASSERT_EQ(ask(request(7, 0, 1)), exception_code::kIllegalFunction);
    EXPECT_EQ(m_metrics.requests(3), 3u);
    EXPECT_EQ(m_metrics.requests(4), 1u);
    EXPECT_EQ(m_metrics.requests(1), 1u);
    EXPECT_EQ(m_metrics.requests(7), 1u);
    EXPECT_EQ(m_metrics.requests(2), 0u);
    EXPECT_EQ(m_metrics.exceptions(3, exception_code::kIllegalDataAddress), 1u);
    EXPECT_EQ(m_metrics.exceptions(1, exception_code::kIllegalDataAddress), 1u);
    EXPECT_EQ(m_metrics.exceptions(7, exception_code::kIllegalFunction), 1u);
    EXPECT_EQ(m_metrics.exceptions(4, exception_code::kIllegalDataAddress), 0u);
}

TEST_F(MetricsTest, WritesAreCountedByOutcome) {
    ASSERT_EQ(ask(request(6, 1, 9)), exception_code::kIllegalDataAddress);  // inside "t"
    // Write Multiple Registers of [0, 9] at 0, written out whole.
    ASSERT_EQ(ask({0, 1, 0, 0, 0, 11, 1, 16, 0, 0, 0, 2, 4, 0, 0, 0, 9}), 0);
    ASSERT_EQ(ask(request(6, 0, 9)), exception_code::kIllegalDataAddress);  // half of "t"
    EXPECT_EQ(m_metrics.writes(WriteOutcome::Written), 1u);
    EXPECT_EQ(m_metrics.writes(WriteOutcome::Rejected), 2u);
    EXPECT_EQ(m_metrics.writes(WriteOutcome::Refused), 0u);
    EXPECT_EQ(m_metrics.requests(16), 1u);
    EXPECT_EQ(m_metrics.requests(6), 2u);
}

TEST(MetricsCountingTest, RefusedWritesAndFurtherUnitsAreCountedOnceByTheFrontHandler) {
    cdshost::Store::instance().reset();
    std::ostringstream text;
    Log log(text);
    CoreConfig config = testing::twoUpsConfig(kMap);
    config.readOnly = true;
    DaemonCore core(std::move(config), log);
    Metrics metrics;
    core.setMetrics(&metrics);
    auto const read = request(3, 0, 2, 9);
    EXPECT_EQ(core.handler().handle(read.data(), read.size()).registers,
              (std::vector<std::uint16_t>{0, 7}));
    auto const write = request(6, 0, 1, 9);
    EXPECT_EQ(core.handler().handle(write.data(), write.size()).exception,
              exception_code::kIllegalFunction);
    EXPECT_EQ(metrics.requests(3), 1u);
    EXPECT_EQ(metrics.requests(6), 1u);
    EXPECT_EQ(metrics.writes(WriteOutcome::Refused), 1u);
}

TEST(MetricsCountingTest, AnExceptionCodeAbove15IsCountedAsOther) {
    Metrics metrics;
    metrics.countRequest(3, 0x20);
    EXPECT_EQ(metrics.exceptions(3, 0), 1u);
    HttpResponse const page = metricsResponse({0, 0, false, "", 0, false, {}, 0, 0, &metrics, {}});
    EXPECT_NE(page.body.find("tarsel_modbusd_exceptions_total{function=\"3\",code=\"other\"} 1\n"),
              std::string::npos);
}

DaemonStatus healthy(Metrics const* metrics = nullptr) {
    DaemonStatus status;
    status.listeners = 1;
    status.listening = 1;
    status.mapAvailable = true;
    status.hasSource = true;
    status.metrics = metrics;
    return status;
}

TEST(StatusPagesTest, HealthIs200WhenListeningAvailableAndFresh) {
    HttpResponse const response = healthResponse(healthy());
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.body,
              "{\"listening\":true,\"map_available\":true,\"source_fresh\":true,"
              "\"status\":\"ok\"}\n");
}

TEST(StatusPagesTest, HealthIs503AndSaysWhatFailed) {
    DaemonStatus status = healthy();
    status.mapAvailable = false;
    status.notAvailable = "UPS map is not yet available";
    status.source.fresh = false;
    status.source.detail = "ups@localhost:3493: stale: Driver not connected";
    HttpResponse const response = healthResponse(status);
    EXPECT_EQ(response.status, 503);
    EXPECT_NE(response.body.find("\"map not available: UPS map is not yet available\""),
              std::string::npos);
    EXPECT_NE(response.body.find(
                  "\"data source not fresh: ups@localhost:3493: stale: Driver not connected\""),
              std::string::npos);
    EXPECT_NE(response.body.find("\"status\":\"failing\""), std::string::npos);
    EXPECT_EQ(response.body.find("listening:"), std::string::npos);
}

TEST(StatusPagesTest, HealthFailsWhenAListenerDoesNotListen) {
    DaemonStatus status = healthy();
    status.listeners = 2;
    HttpResponse const response = healthResponse(status);
    EXPECT_EQ(response.status, 503);
    EXPECT_NE(response.body.find("listening: 1 of 2 Modbus listeners accept"), std::string::npos);
}

TEST(StatusPagesTest, MetricsShowTheCountsAndTheState) {
    Metrics metrics;
    metrics.countRequest(3, 0);
    metrics.countRequest(3, 2);
    metrics.countRequest(16, 0);
    metrics.countReload(ReloadOutcome::Refused);
    DaemonStatus status = healthy(&metrics);
    status.clients = 4;
    status.pushes = 12;
    status.source.polls = 3;
    Histogram latency(pollLatencyBounds());
    latency.observe(0.003);
    status.source.pollLatency = latency.snapshot();
    std::string const page = metricsResponse(status).body;
    for (char const* line : {
             "tarsel_modbusd_requests_total{function=\"3\"} 2\n",
             "tarsel_modbusd_requests_total{function=\"16\"} 1\n",
             "tarsel_modbusd_requests_total{function=\"1\"} 0\n",
             "tarsel_modbusd_requests_total{function=\"43\"} 0\n",
             "tarsel_modbusd_exceptions_total{function=\"3\",code=\"2\"} 1\n",
             "tarsel_modbusd_writes_total{outcome=\"written\"} 1\n",
             "tarsel_modbusd_reloads_total{outcome=\"refused\"} 1\n",
             "tarsel_modbusd_reloads_total{outcome=\"applied\"} 0\n",
             "tarsel_modbusd_clients 4\n",
             "tarsel_modbusd_pushes_total 12\n",
             "tarsel_modbusd_map_available 1\n",
             "tarsel_modbusd_source_fresh 1\n",
             "tarsel_modbusd_source_polls_total 3\n",
             "tarsel_modbusd_source_poll_duration_seconds_bucket{le=\"0.005\"} 1\n",
             "tarsel_modbusd_source_poll_duration_seconds_count 1\n",
             "# TYPE tarsel_modbusd_clients gauge\n",
             "# TYPE tarsel_modbusd_source_poll_duration_seconds histogram\n",
         }) {
        EXPECT_NE(page.find(line), std::string::npos) << line;
    }
    EXPECT_EQ(page.find("function=\"4\",code="), std::string::npos);
}

TEST(StatusPagesTest, ConnectionCountsAreShownByListenerAndReasonEveryOneFromZero) {
    DaemonStatus status = healthy();
    status.connections.countAccepted(ListenerKind::Plain);
    status.connections.countAccepted(ListenerKind::Plain);
    status.connections.countRefused(RefusedReason::ClientLimit);
    status.connections.countClosed(ClosedReason::IdleTimeout);
    status.connections.countClosed(ClosedReason::MalformedFrame);
    status.connections.countClosed(ClosedReason::MalformedFrame);
    status.connections.addReceived(120);
    status.connections.addSent(110);
    std::string const page = metricsResponse(status).body;
    for (char const* line : {
             "# TYPE tarsel_modbusd_connections_accepted_total counter\n",
             "tarsel_modbusd_connections_accepted_total{listener=\"plain\"} 2\n",
             "tarsel_modbusd_connections_accepted_total{listener=\"tls\"} 0\n",
             "# TYPE tarsel_modbusd_connections_refused_total counter\n",
             "tarsel_modbusd_connections_refused_total{reason=\"client_limit\"} 1\n",
             "tarsel_modbusd_connections_refused_total{reason=\"access_rules\"} 0\n",
             "tarsel_modbusd_connections_refused_total{reason=\"tls_setup\"} 0\n",
             "# TYPE tarsel_modbusd_connections_closed_total counter\n",
             "tarsel_modbusd_connections_closed_total{reason=\"idle_timeout\"} 1\n",
             "tarsel_modbusd_connections_closed_total{reason=\"malformed_frame\"} 2\n",
             "tarsel_modbusd_connections_closed_total{reason=\"peer_closed\"} 0\n",
             "tarsel_modbusd_connections_closed_total{reason=\"tls_role\"} 0\n",
             "# TYPE tarsel_modbusd_received_bytes_total counter\n",
             "tarsel_modbusd_received_bytes_total 120\n",
             "tarsel_modbusd_sent_bytes_total 110\n",
         }) {
        EXPECT_NE(page.find(line), std::string::npos) << line;
    }
    std::size_t closedLines = 0;
    for (std::size_t at = 0;
         (at = page.find("\ntarsel_modbusd_connections_closed_total{", at)) != std::string::npos;
         ++at) {
        ++closedLines;
    }
    EXPECT_EQ(closedLines, kClosedReasons);
}

TEST(StatusPagesTest, OnlyHealthzAndMetricsAreServed) {
    DaemonStatus const status = healthy();
    EXPECT_EQ(statusPage(status, {"GET", "/healthz"}).status, 200);
    EXPECT_EQ(statusPage(status, {"GET", "/metrics"}).status, 200);
    EXPECT_EQ(statusPage(status, {"GET", "/"}).status, 404);
    EXPECT_EQ(statusPage(status, {"GET", "/metrics/"}).status, 404);
}

}  // namespace
}  // namespace tarsel::daemon
