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

// The lock is the std::mutex inside, which the analysis does not know.
void CriticalSection::lockSlow() KIV_NO_THREAD_SAFETY_ANALYSIS {
    // A recursive hold by the owner never waits.
    const bool bReentry = heldByCaller();
    if (!m_bContentionDetectionON.load(std::memory_order_relaxed)) {
        if (bReentry) {
            ++m_nDepth;
        } else {
            m_mutex.lock();
            takeOwnership();
        }
        return;
    }

    const bool bAcquiredAtOnce = bReentry || m_mutex.try_lock();
    if (bAcquiredAtOnce) {
        if (bReentry)
            ++m_nDepth;
        else
            takeOwnership();
        // No wait: the run of waited acquisitions is over.
        m_nSequentialWaits = 0;
        if (!m_bReporting) setContentionReporting(true);
        return;
    }

    // Acquired blocking: this counts as a waited acquisition.
    m_mutex.lock();
    takeOwnership();
    if (m_bReporting) {
        // The count is 8 bits wide; it stops at its maximum instead of
        // wrapping round to 0.
        if (m_nSequentialWaits < 0xFF) ++m_nSequentialWaits;
        if (m_nSequentialWaits > m_nSequentialLocksWithWaitLogThreshold.load(std::memory_order_relaxed))
            setContentionReporting(false);
    }
}

// A plain attempt: contention detection watches blocking acquisitions only.
bool CriticalSection::tryLock() KIV_NO_THREAD_SAFETY_ANALYSIS {
    if (heldByCaller()) {
        ++m_nDepth;
        return true;
    }
    if (!m_mutex.try_lock()) return false;
    takeOwnership();
    return true;
}

}  // namespace kiv
