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
// threads::Mutex is a plain exclusive lock that the thread-safety analysis
// knows (std::mutex is not annotated in the standard library we build with),
// for state guarded with KIV_GUARDED_BY; MutexLock holds one for a scope and
// serves a std::condition_variable_any.
//
// Thread safety: every lock is for use from many threads; the counters they
// keep are only touched while the lock is held.
#pragma once

#include "qz/platform/export.h"
#include "qz/platform/threadannotations.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <shared_mutex>
#include <thread>

namespace kiv {

class KIV_API KIV_CAPABILITY("mutex") CriticalSection {
public:
    // recursion 1: the owning thread may lock again (recursive); 0: not.
    explicit CriticalSection(int recursion = 1);
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;

    // First virtual operation: switches contention reporting on or off.
    virtual void setContentionReporting(bool bOn) KIV_REQUIRES(this);
    virtual ~CriticalSection();

    // The common case inline: detection off and not already held by the
    // caller.
    void lock() KIV_ACQUIRE() KIV_NO_THREAD_SAFETY_ANALYSIS {
        if (m_bContentionDetectionON.load(std::memory_order_relaxed) || heldByCaller()) {
            lockSlow();
            return;
        }
        m_mutex.lock();
        takeOwnership();
    }
    bool tryLock() KIV_TRY_ACQUIRE(true);
    void unlock() KIV_RELEASE() KIV_NO_THREAD_SAFETY_ANALYSIS {
        if (m_bRecursive) {
            if (--m_nDepth > 0) return;
            m_owner.store(std::thread::id(), std::memory_order_relaxed);
        }
        m_mutex.unlock();
    }

    // The bookkeeping, read by a thread that knows no other is locking.
    bool isContentionReportingOn() const noexcept KIV_NO_THREAD_SAFETY_ANALYSIS { return m_bReporting; }
    std::uint8_t getSequentialWaits() const noexcept KIV_NO_THREAD_SAFETY_ANALYSIS { return m_nSequentialWaits; }

    static std::atomic<bool> m_bContentionDetectionON;
    static std::atomic<unsigned> m_nSequentialLocksWithWaitLogThreshold;

private:
    // A recursive lock is one mutex plus its owner and depth: only the owner
    // ever stores its own id, so reading the owner without the lock cannot
    // mistake another thread's hold for the caller's.
    bool heldByCaller() const noexcept {
        return m_bRecursive && m_owner.load(std::memory_order_relaxed) == std::this_thread::get_id();
    }
    void takeOwnership() noexcept KIV_REQUIRES(this) {
        if (m_bRecursive) {
            m_owner.store(std::this_thread::get_id(), std::memory_order_relaxed);
            m_nDepth = 1;
        }
    }
    void lockSlow() KIV_ACQUIRE();

    std::mutex m_mutex;
    std::atomic<std::thread::id> m_owner{};  // recursive locks: the holder, or no thread
    unsigned m_nDepth KIV_GUARDED_BY(this) = 0;  // recursive locks: holds by the owner
    const bool m_bRecursive;
    bool m_bReporting KIV_GUARDED_BY(this) = false;
    std::uint8_t m_nSequentialWaits KIV_GUARDED_BY(this) = 0;
};

// Scoped holder of a CriticalSection.
class KIV_API KIV_SCOPED_CAPABILITY CriticalSectionLock {
public:
    explicit CriticalSectionLock(CriticalSection& cs) KIV_ACQUIRE(cs) : m_cs(cs) { m_cs.lock(); }
    ~CriticalSectionLock() KIV_RELEASE() { m_cs.unlock(); }
    CriticalSectionLock(const CriticalSectionLock&) = delete;
    CriticalSectionLock& operator=(const CriticalSectionLock&) = delete;

private:
    CriticalSection& m_cs;
};

namespace threads {

// A reader-writer lock: many readers or one writer. Not recursive.
class KIV_API KIV_CAPABILITY("mutex") FastReaderWriterLock {
public:
    void lockRead() KIV_ACQUIRE_SHARED() { m_m.lock_shared(); }
    void unlockRead() KIV_RELEASE_SHARED() { m_m.unlock_shared(); }
    void lockWrite() KIV_ACQUIRE() { m_m.lock(); }
    void unlockWrite() KIV_RELEASE() { m_m.unlock(); }

private:
    std::shared_mutex m_m;
};

class KIV_API KIV_SCOPED_CAPABILITY ReadLock {
public:
    explicit ReadLock(FastReaderWriterLock& l) KIV_ACQUIRE_SHARED(l) : m_l(l) { m_l.lockRead(); }
    ~ReadLock() KIV_RELEASE() { m_l.unlockRead(); }
    ReadLock(const ReadLock&) = delete;
    ReadLock& operator=(const ReadLock&) = delete;

private:
    FastReaderWriterLock& m_l;
};

class KIV_API KIV_SCOPED_CAPABILITY WriteLock {
public:
    explicit WriteLock(FastReaderWriterLock& l) KIV_ACQUIRE(l) : m_l(l) { m_l.lockWrite(); }
    ~WriteLock() KIV_RELEASE() { m_l.unlockWrite(); }
    WriteLock(const WriteLock&) = delete;
    WriteLock& operator=(const WriteLock&) = delete;

private:
    FastReaderWriterLock& m_l;
};

// A plain exclusive lock, known to the thread-safety analysis.
class KIV_CAPABILITY("mutex") Mutex {
public:
    void lock() KIV_ACQUIRE() { m_m.lock(); }
    void unlock() KIV_RELEASE() { m_m.unlock(); }
    bool try_lock() KIV_TRY_ACQUIRE(true) { return m_m.try_lock(); }

private:
    std::mutex m_m;
};

// Holds a Mutex for a scope. It may be given back and taken again inside the
// scope (unlock, lock), and a std::condition_variable_any waits on it.
class KIV_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& m) KIV_ACQUIRE(m) : m_m(m) { m_m.lock(); }
    ~MutexLock() KIV_RELEASE() {
        if (m_held) m_m.unlock();
    }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;
    void lock() KIV_ACQUIRE() {
        m_m.lock();
        m_held = true;
    }
    void unlock() KIV_RELEASE() {
        m_held = false;
        m_m.unlock();
    }

private:
    Mutex& m_m;
    bool m_held = true;
};

}  // namespace threads
}  // namespace kiv
