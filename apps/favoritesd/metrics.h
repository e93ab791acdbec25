// The server's counters, written in the Prometheus text format at /metrics:
// requests by route and status, request latency, catalog call latency by
// operation, managers cached, open connections.
//
// Thread safety: every member function may be called from any thread.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "qz/platform/threads.h"

namespace kiv::server {

// A latency histogram with fixed buckets (seconds).
class Histogram {
public:
    static constexpr std::array<double, 14> kBounds = {0.0001, 0.00025, 0.0005, 0.001, 0.0025, 0.005, 0.01,
                                                       0.025,  0.05,    0.1,    0.25,  0.5,    1.0,  5.0};
    void observe(double seconds) noexcept;
    // Appends the _bucket, _sum and _count lines of `name` with `labels`
    // (such as `op="getItemInfo"`, or empty).
    void write(std::string& out, const std::string& name, const std::string& labels) const;

private:
    std::array<std::atomic<std::uint64_t>, kBounds.size() + 1> m_buckets{};
    std::atomic<std::uint64_t> m_count{0};
    std::atomic<std::uint64_t> m_sumNanos{0};
};

class Metrics {
public:
    void countRequest(const std::string& route, int status, double seconds);
    Histogram& catalogCall(const char* operation);
    // Gauges read when the text is written.
    void setGauges(std::function<std::size_t()> managersCached, std::function<std::size_t()> openConnections);
    std::string text() const;

private:
    mutable threads::Mutex m_mutex;
    std::map<std::pair<std::string, int>, std::uint64_t> m_requests KIV_GUARDED_BY(m_mutex);
    Histogram m_latency;
    Histogram m_catalog[5];  // getItemInfo, readObject, writeObject, deleteObject, other
    std::function<std::size_t()> m_managers;
    std::function<std::size_t()> m_connections;
};

}  // namespace kiv::server
