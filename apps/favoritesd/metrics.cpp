#include "metrics.h"

#include <cstdio>
#include <cstring>

namespace kiv::server {

namespace {

constexpr const char* kCatalogOps[5] = {"getItemInfo", "readObject", "writeObject", "deleteObject", "other"};

std::string number(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.9g", v);
    return buf;
}

std::string withLabels(const std::string& labels, const std::string& more) {
    if (labels.empty()) return "{" + more + "}";
    return "{" + labels + "," + more + "}";
}

}  // namespace

void Histogram::observe(double seconds) noexcept {
    std::size_t i = 0;
    while (i < kBounds.size() && seconds > kBounds[i]) ++i;
    m_buckets[i].fetch_add(1, std::memory_order_relaxed);
    m_count.fetch_add(1, std::memory_order_relaxed);
    m_sumNanos.fetch_add(static_cast<std::uint64_t>(seconds * 1e9), std::memory_order_relaxed);
}

void Histogram::write(std::string& out, const std::string& name, const std::string& labels) const {
    std::uint64_t cumulative = 0;
    for (std::size_t i = 0; i < kBounds.size(); ++i) {
        cumulative += m_buckets[i].load(std::memory_order_relaxed);
        out += name + "_bucket" + withLabels(labels, "le=\"" + number(kBounds[i]) + "\"") + " " +
               std::to_string(cumulative) + "\n";
    }
    cumulative += m_buckets[kBounds.size()].load(std::memory_order_relaxed);
    out += name + "_bucket" + withLabels(labels, "le=\"+Inf\"") + " " + std::to_string(cumulative) + "\n";
    const std::string plain = labels.empty() ? std::string() : "{" + labels + "}";
    out += name + "_sum" + plain + " " + number(m_sumNanos.load(std::memory_order_relaxed) / 1e9) + "\n";
    out += name + "_count" + plain + " " + std::to_string(m_count.load(std::memory_order_relaxed)) + "\n";
}

void Metrics::countRequest(const std::string& route, int status, double seconds) {
    m_latency.observe(seconds);
    threads::MutexLock lock(m_mutex);
    ++m_requests[{route, status}];
}

Histogram& Metrics::catalogCall(const char* operation) {
    for (std::size_t i = 0; i < 4; ++i)
        if (std::strcmp(operation, kCatalogOps[i]) == 0) return m_catalog[i];
    return m_catalog[4];
}

void Metrics::setGauges(std::function<std::size_t()> managersCached, std::function<std::size_t()> openConnections) {
    m_managers = std::move(managersCached);
    m_connections = std::move(openConnections);
}

std::string Metrics::text() const {
    std::string out;
    out += "# HELP favoritesd_requests_total Requests answered, by route and HTTP status.\n";
    out += "# TYPE favoritesd_requests_total counter\n";
    {
        threads::MutexLock lock(m_mutex);
        for (const auto& [key, n] : m_requests)
            out += "favoritesd_requests_total{route=\"" + key.first + "\",status=\"" + std::to_string(key.second) +
                   "\"} " + std::to_string(n) + "\n";
    }
    out += "# HELP favoritesd_request_duration_seconds Time from a parsed request to its answer.\n";
    out += "# TYPE favoritesd_request_duration_seconds histogram\n";
    m_latency.write(out, "favoritesd_request_duration_seconds", "");
    out += "# HELP favoritesd_catalog_call_duration_seconds Catalog calls made for users, by operation.\n";
    out += "# TYPE favoritesd_catalog_call_duration_seconds histogram\n";
    for (std::size_t i = 0; i < 5; ++i)
        m_catalog[i].write(out, "favoritesd_catalog_call_duration_seconds",
                           std::string("op=\"") + kCatalogOps[i] + "\"");
    out += "# HELP favoritesd_managers_cached Users whose favorites are held in memory.\n";
    out += "# TYPE favoritesd_managers_cached gauge\n";
    out += "favoritesd_managers_cached " + std::to_string(m_managers ? m_managers() : 0) + "\n";
    out += "# HELP favoritesd_open_connections Open client connections.\n";
    out += "# TYPE favoritesd_open_connections gauge\n";
    out += "favoritesd_open_connections " + std::to_string(m_connections ? m_connections() : 0) + "\n";
    return out;
}

}  // namespace kiv::server
