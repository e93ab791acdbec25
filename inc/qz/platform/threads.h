// Locks: CriticalSection with contention detection, and a reader-writer lock.
//
// CriticalSection acquisition when the global switch m_bContentionDetectionON
// is on: a non-blocking attempt first; on success the count of consecutive
// waited acquisitions (8 bits) is reset to 0 and, if reporting is off, it is
// switched on through the first virtual operation (setContentionReporting,
// with true). On failure the lock is acquired blocking; then, if reporting is
// on, the count is raised by 1 and once it exceeds
// m_nSequentialLocksWithWaitLogThreshold reporting is switched off (first
// virtual operation, with false). With the switch off the lock is simply
// acquired.
//
// Thread safety: both locks are for use from many threads; the counters they
// keep are only touched while the lock is held.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <shared_mutex>
#include <thread>

namespace kiv {

namespace threads::detail {

// A small mutex on one atomic word (0 free, 1 held, 2 held and maybe awaited),
// waiting through the standard atomic wait: a free lock costs one exchange to
// take and one to release, with no call into the thread library.
class WordMutex {
public:
    bool try_lock() noexcept {
        std::uint32_t expected = 0;
        return m_state.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed);
    }
    void lock() noexcept {
        if (!try_lock()) lockContended();
    }
    void unlock() noexcept {
        if (m_state.exchange(0, std::memory_order_release) == 2) m_state.notify_one();
    }

private:
    void lockContended() noexcept {
        // Mark the lock awaited, then sleep until it is released; whoever takes
        // it here keeps it marked, so its release wakes the next waiter.
        while (m_state.exchange(2, std::memory_order_acquire) != 0) m_state.wait(2, std::memory_order_relaxed);
    }
    std::atomic<std::uint32_t> m_state{0};
};

}  // namespace threads::detail

class CriticalSection {
public:
    // recursion 1: the owning thread may lock again (recursive); 0: not.
    explicit CriticalSection(int recursion = 1);
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;

    // First virtual operation: switches contention reporting on or off.
    virtual void setContentionReporting(bool bOn);
    virtual ~CriticalSection();

    // The common case inline: detection off, the lock free and not already
    // held by the caller.
    void lock() {
        if (!m_bContentionDetectionON.load(std::memory_order_relaxed) && !heldByCaller() && m_mutex.try_lock()) {
            takeOwnership();
            return;
        }
        lockSlow();
    }
    bool tryLock();
    void unlock() {
        if (m_bRecursive) {
            if (--m_nDepth > 0) return;
            m_owner.store(std::thread::id(), std::memory_order_relaxed);
        }
        m_mutex.unlock();
    }

    bool isContentionReportingOn() const noexcept { return m_bReporting; }
    std::uint8_t getSequentialWaits() const noexcept { return m_nSequentialWaits; }

    static std::atomic<bool> m_bContentionDetectionON;
    static std::atomic<unsigned> m_nSequentialLocksWithWaitLogThreshold;

private:
    // A recursive lock is one mutex plus its owner and depth: only the owner
    // ever stores its own id, so reading the owner without the lock cannot
    // mistake another thread's hold for the caller's.
    bool heldByCaller() const noexcept {
        return m_bRecursive && m_owner.load(std::memory_order_relaxed) == std::this_thread::get_id();
    }
    void takeOwnership() noexcept {
        if (m_bRecursive) {
            m_owner.store(std::this_thread::get_id(), std::memory_order_relaxed);
            m_nDepth = 1;
        }
    }
    void lockSlow();

    threads::detail::WordMutex m_mutex;
    std::atomic<std::thread::id> m_owner{};  // recursive locks: the holder, or no thread
    unsigned m_nDepth = 0;                    // recursive locks: holds by the owner; guarded by the lock
    const bool m_bRecursive;
    bool m_bReporting = false;           // guarded by the lock itself
    std::uint8_t m_nSequentialWaits = 0;  // guarded by the lock itself
};

// Scoped holder of a CriticalSection.
class CriticalSectionLock {
public:
    explicit CriticalSectionLock(CriticalSection& cs) : m_cs(cs) { m_cs.lock(); }
    ~CriticalSectionLock() { m_cs.unlock(); }
    CriticalSectionLock(const CriticalSectionLock&) = delete;
    CriticalSectionLock& operator=(const CriticalSectionLock&) = delete;

private:
    CriticalSection& m_cs;
};

namespace threads {

// A reader-writer lock: many readers or one writer. Not recursive.
class FastReaderWriterLock {
public:
    void lockRead() { m_m.lock_shared(); }
    void unlockRead() { m_m.unlock_shared(); }
    void lockWrite() { m_m.lock(); }
    void unlockWrite() { m_m.unlock(); }

private:
    std::shared_mutex m_m;
};

class ReadLock {
public:
    explicit ReadLock(FastReaderWriterLock& l) : m_l(l) { m_l.lockRead(); }
    ~ReadLock() { m_l.unlockRead(); }
    ReadLock(const ReadLock&) = delete;
    ReadLock& operator=(const ReadLock&) = delete;

private:
    FastReaderWriterLock& m_l;
};

class WriteLock {
public:
    explicit WriteLock(FastReaderWriterLock& l) : m_l(l) { m_l.lockWrite(); }
    ~WriteLock() { m_l.unlockWrite(); }
    WriteLock(const WriteLock&) = delete;
    WriteLock& operator=(const WriteLock&) = delete;

private:
    FastReaderWriterLock& m_l;
};

}  // namespace threads
}  // namespace kiv
