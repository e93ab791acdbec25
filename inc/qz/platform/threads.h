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

namespace kiv {

class CriticalSection {
public:
    // recursion 1: the owning thread may lock again (recursive); 0: not.
    explicit CriticalSection(int recursion = 1);
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;

    // First virtual operation: switches contention reporting on or off.
    virtual void setContentionReporting(bool bOn);
    virtual ~CriticalSection();

    void lock();
    bool tryLock();
    void unlock();

    bool isContentionReportingOn() const noexcept { return m_bReporting; }
    std::uint8_t getSequentialWaits() const noexcept { return m_nSequentialWaits; }

    static std::atomic<bool> m_bContentionDetectionON;
    static std::atomic<unsigned> m_nSequentialLocksWithWaitLogThreshold;

private:
    std::recursive_mutex m_recursive;
    std::mutex m_plain;
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
