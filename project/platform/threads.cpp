#include "qz/platform/threads.h"

namespace kiv {

std::atomic<bool> CriticalSection::m_bContentionDetectionON{false};
std::atomic<unsigned> CriticalSection::m_nSequentialLocksWithWaitLogThreshold{10};

CriticalSection::CriticalSection(int recursion) : m_bRecursive(recursion != 0) {}

CriticalSection::~CriticalSection() = default;

// The base operation records the state; lock() consults it. An override that
// wants the bookkeeping to continue must call this one. It is only called
// while the lock is held, which is what guards m_bReporting.
void CriticalSection::setContentionReporting(bool bOn) { m_bReporting = bOn; }

void CriticalSection::lock() {
    if (!m_bContentionDetectionON.load(std::memory_order_relaxed)) {
        if (m_bRecursive) m_recursive.lock(); else m_plain.lock();
        return;
    }

    const bool bAcquiredAtOnce = m_bRecursive ? m_recursive.try_lock() : m_plain.try_lock();
    if (bAcquiredAtOnce) {
        // No wait: the run of waited acquisitions is over.
        m_nSequentialWaits = 0;
        if (!m_bReporting) setContentionReporting(true);
        return;
    }

    if (m_bRecursive) m_recursive.lock(); else m_plain.lock();
    if (m_bReporting) {
        // The count is 8 bits wide; it stops at its maximum instead of
        // wrapping round to 0.
        if (m_nSequentialWaits < 0xFF) ++m_nSequentialWaits;
        if (m_nSequentialWaits > m_nSequentialLocksWithWaitLogThreshold.load(std::memory_order_relaxed))
            setContentionReporting(false);
    }
}

// A plain attempt: contention detection watches blocking acquisitions only.
bool CriticalSection::tryLock() { return m_bRecursive ? m_recursive.try_lock() : m_plain.try_lock(); }

void CriticalSection::unlock() {
    if (m_bRecursive) m_recursive.unlock(); else m_plain.unlock();
}

}  // namespace kiv
