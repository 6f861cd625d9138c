#include "StatusPages.h"

#include <algorithm>
#include <iterator>

#include <nlohmann/json.hpp>

#include "Exposition.h"

namespace tarsel::daemon {

namespace {

constexpr char kPrefix[] = "tarsel_modbusd_";
// Shown even while 0, so a dashboard has every series from the start.
constexpr std::uint8_t kServedFunctions[] = {1, 2, 3, 4, 5, 6, 15, 16, 43};

std::string metric(char const* name) {
    return std::string(kPrefix) + name;
}

void requestFamilies(Exposition& out, Metrics const& metrics) {
    out.family(metric("requests_total"), "Modbus requests answered, by function code",
               MetricType::Counter);
    for (unsigned function = 0; function < 256; ++function) {
        auto const code = static_cast<std::uint8_t>(function);
        bool const served = std::find(std::begin(kServedFunctions), std::end(kServedFunctions),
                                      code) != std::end(kServedFunctions);
        if (served || metrics.requests(code) > 0) {
            out.sample(metric("requests_total"), {{"function", std::to_string(function)}},
                       static_cast<double>(metrics.requests(code)));
        }
    }
    out.family(metric("exceptions_total"),
               "Modbus exception answers, by function code and exception code",
               MetricType::Counter);
    for (unsigned function = 0; function < 256; ++function) {
        for (std::size_t slot = 0; slot < Metrics::kExceptionSlots; ++slot) {
            std::uint64_t const count =
                metrics.exceptions(static_cast<std::uint8_t>(function), slot);
            if (count > 0) {
                out.sample(metric("exceptions_total"),
                           {{"function", std::to_string(function)},
                            {"code", slot == 0 ? "other" : std::to_string(slot)}},
                           static_cast<double>(count));
            }
        }
    }
    out.family(metric("writes_total"),
               "Write requests (functions 5, 6, 15, 16), by outcome: written, refused "
               "(Illegal Function), failed (Server Device Failure), rejected (other exceptions)",
               MetricType::Counter);
    for (std::size_t i = 0; i < kWriteOutcomes; ++i) {
        auto const outcome = static_cast<WriteOutcome>(i);
        out.sample(metric("writes_total"), {{"outcome", writeOutcomeName(outcome)}},
                   static_cast<double>(metrics.writes(outcome)));
    }
    out.family(metric("reloads_total"), "Reloads asked for with SIGHUP, by outcome",
               MetricType::Counter);
    for (std::size_t i = 0; i < kReloadOutcomes; ++i) {
        auto const outcome = static_cast<ReloadOutcome>(i);
        out.sample(metric("reloads_total"), {{"outcome", reloadOutcomeName(outcome)}},
                   static_cast<double>(metrics.reloads(outcome)));
    }
}

template <typename Enum>
void countsByLabel(Exposition& out, char const* name, char const* label, std::size_t values,
                   char const* (*nameOf)(Enum),
                   std::uint64_t (ConnectionCounts::*count)(Enum) const,
                   ConnectionCounts const& counts) {
    for (std::size_t i = 0; i < values; ++i) {
        auto const value = static_cast<Enum>(i);
        out.sample(metric(name), {{label, nameOf(value)}},
                   static_cast<double>((counts.*count)(value)));
    }
}

void connectionFamilies(Exposition& out, ConnectionCounts const& counts) {
    out.family(metric("connections_accepted_total"),
               "Modbus connections accepted, by listener: plain, tls", MetricType::Counter);
    countsByLabel(out, "connections_accepted_total", "listener", kListenerKinds, listenerKindName,
                  &ConnectionCounts::accepted, counts);
    out.family(metric("connections_refused_total"),
               "Modbus connections closed as soon as accepted, by reason: client_limit "
               "(--max-clients, none quiet enough to close for it), access_rules (may neither read "
               "nor write), tls_setup (no TLS session could be started)",
               MetricType::Counter);
    countsByLabel(out, "connections_refused_total", "reason", kRefusedReasons, refusedReasonName,
                  &ConnectionCounts::refused, counts);
    out.family(metric("connections_closed_total"),
               "Modbus connections that were served and ended, by reason", MetricType::Counter);
    countsByLabel(out, "connections_closed_total", "reason", kClosedReasons, closedReasonName,
                  &ConnectionCounts::closed, counts);
    out.family(metric("received_bytes_total"),
               "Modbus bytes received from clients (TLS: as decrypted)", MetricType::Counter);
    out.sample(metric("received_bytes_total"), static_cast<double>(counts.received()));
    out.family(metric("sent_bytes_total"), "Modbus bytes sent to clients (TLS: before encryption)",
               MetricType::Counter);
    out.sample(metric("sent_bytes_total"), static_cast<double>(counts.sent()));
}

void stateFamilies(Exposition& out, DaemonStatus const& status) {
    out.family(metric("clients"), "Modbus clients connected", MetricType::Gauge);
    out.sample(metric("clients"), static_cast<double>(status.clients));
    connectionFamilies(out, status.connections);
    out.family(metric("pushes_total"), "Value changes the encoders pushed to the daemon",
               MetricType::Counter);
    out.sample(metric("pushes_total"), static_cast<double>(status.pushes));
    out.family(metric("map_available"), "1 while the availability check opens the map",
               MetricType::Gauge);
    out.sample(metric("map_available"), status.mapAvailable ? 1 : 0);
    out.family(metric("map_pending_entries"),
               "Map entries whose encoder cannot be built yet (served as unavailable)",
               MetricType::Gauge);
    out.sample(metric("map_pending_entries"), static_cast<double>(status.pendingEntries));
    out.family(metric("source_fresh"), "1 while the data source's values are current",
               MetricType::Gauge);
    out.sample(metric("source_fresh"), !status.hasSource || status.source.fresh ? 1 : 0);
    out.family(metric("source_polls_total"), "Polls of the data source (NUT: LIST VAR round trips)",
               MetricType::Counter);
    out.sample(metric("source_polls_total"), static_cast<double>(status.source.polls));
    out.family(metric("source_poll_duration_seconds"), "How long each poll of the data source took",
               MetricType::Histogram);
    HistogramSnapshot latency = status.source.pollLatency;
    if (latency.bounds.empty()) {
        latency = Histogram(pollLatencyBounds()).snapshot();
    }
    out.histogram(metric("source_poll_duration_seconds"), {}, latency);
}

}  // namespace

HttpResponse healthResponse(DaemonStatus const& status) {
    nlohmann::json failed = nlohmann::json::array();
    if (status.listening < status.listeners || status.listeners == 0) {
        failed.push_back("listening: " + std::to_string(status.listening) + " of " +
                         std::to_string(status.listeners) + " Modbus listeners accept");
    }
    if (!status.mapAvailable) {
        failed.push_back("map not available: " + status.notAvailable);
    }
    if (status.hasSource && !status.source.fresh) {
        failed.push_back("data source not fresh: " + status.source.detail);
    }
    nlohmann::json body = {
        {"status", failed.empty() ? "ok" : "failing"},
        {"listening", status.listening >= status.listeners && status.listeners > 0},
        {"map_available", status.mapAvailable},
        {"source_fresh", !status.hasSource || status.source.fresh}};
    if (!failed.empty()) {
        body["failed"] = failed;
    }
    HttpResponse response;
    response.status = failed.empty() ? 200 : 503;
    response.contentType = "application/json";
    // Texts from the availability check and upsd may hold any byte.
    response.body = body.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace) + "\n";
    return response;
}

HttpResponse metricsResponse(DaemonStatus const& status) {
    Exposition out;
    if (status.metrics != nullptr) {
        requestFamilies(out, *status.metrics);
    }
    stateFamilies(out, status);
    HttpResponse response;
    response.contentType = "text/plain; version=0.0.4; charset=utf-8";
    response.body = out.text();
    return response;
}

HttpResponse statusPage(DaemonStatus const& status, HttpRequest const& request) {
    if (request.path == "/healthz") {
        return healthResponse(status);
    }
    if (request.path == "/metrics") {
        return metricsResponse(status);
    }
    return errorResponse(404, "this endpoint serves /healthz and /metrics");
}

}  // namespace tarsel::daemon
