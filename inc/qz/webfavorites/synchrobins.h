// SynchroBins: a map split into lock-striped bins.
//
// The number of bins is the base count N times the process scaling factor,
// truncated, and at least 1; it is fixed at construction. A key lives in the
// bin of its hash modulo the bin count. Every operation locks exactly one bin
// (clear() locks each bin in turn), and no operation holds two bin locks at
// once, so there is no lock order to keep.
//
// Thread safety: all operations may be called from any thread.
#pragma once

#include "qz/platform/export.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "qz/platform/config.h"
#include "qz/platform/threadannotations.h"

namespace kiv {

template <class Map, std::size_t N, class Hash, class Lock>
class SynchroBins {
public:
    using key_type = typename Map::key_type;
    using mapped_type = typename Map::mapped_type;

    struct BucketContainer {
        Lock m_lock{1};
        Map m_map KIV_GUARDED_BY(m_lock);
        std::uint64_t m_nOps KIV_GUARDED_BY(m_lock) = 0;  // read-modify-writes on this bin
    };

    explicit SynchroBins(double scalingFactor = config::getScalingFactor()) {
        double scaled = static_cast<double>(N) * scalingFactor;
        std::uint64_t n = scaled > 0 ? static_cast<std::uint64_t>(scaled) : 0;
        if (n == 0) n = 1;
        m_BucketContainers.reserve(n);
        for (std::uint64_t i = 0; i < n; ++i) m_BucketContainers.push_back(std::make_unique<BucketContainer>());
    }

    std::size_t binCount() const noexcept { return m_BucketContainers.size(); }
    std::size_t binOf(const key_type& key) const noexcept {
        return static_cast<std::size_t>(static_cast<std::uint64_t>(Hash()(key)) % m_BucketContainers.size());
    }

    bool has(const key_type& key) const {
        BucketContainer& b = *m_BucketContainers[binOf(key)];
        Guard g(b.m_lock);
        return b.m_map.find(key) != b.m_map.end();
    }

    // If the key is present, applies `functor` to its value and returns true;
    // otherwise returns false and changes nothing.
    template <class F>
    bool get_and_update(const key_type& key, mapped_type& value, F functor) {
        BucketContainer& b = *m_BucketContainers[binOf(key)];
        Guard g(b.m_lock);
        ++b.m_nOps;
        auto it = b.m_map.find(key);
        if (it == b.m_map.end()) return false;
        functor(it->second);
        value = it->second;
        return true;
    }

    // Inserts the key, or overwrites its value.
    void set(const key_type& key, const mapped_type& value) {
        BucketContainer& b = *m_BucketContainers[binOf(key)];
        Guard g(b.m_lock);
        b.m_map.insert_or_assign(key, value);
    }

    bool erase(const key_type& key) {
        BucketContainer& b = *m_BucketContainers[binOf(key)];
        Guard g(b.m_lock);
        return b.m_map.erase(key) > 0;
    }

    // Empties every bin, one at a time, each under its own lock.
    void clear() {
        for (auto& b : m_BucketContainers) {
            Guard g(b->m_lock);
            b->m_map.clear();
        }
    }

    // Number of keys (sums the bins one at a time; not a snapshot).
    std::size_t size() const {
        std::size_t n = 0;
        for (auto& b : m_BucketContainers) {
            Guard g(b->m_lock);
            n += b->m_map.size();
        }
        return n;
    }

    // The value stored for a key, or 0.
    mapped_type count(const key_type& key) const {
        BucketContainer& b = *m_BucketContainers[binOf(key)];
        Guard g(b.m_lock);
        auto it = b.m_map.find(key);
        return it == b.m_map.end() ? mapped_type() : it->second;
    }

    BucketContainer& bucket(std::size_t i) noexcept { return *m_BucketContainers[i]; }

private:
    struct KIV_SCOPED_CAPABILITY Guard {
        explicit Guard(Lock& l) KIV_ACQUIRE(l) : m_l(l) { m_l.lock(); }
        ~Guard() KIV_RELEASE() { m_l.unlock(); }
        Lock& m_l;
    };
    std::vector<std::unique_ptr<BucketContainer>> m_BucketContainers;
};

}  // namespace kiv
