#include "qz/platform/threads.h"

namespace kiv {

std::atomic<bool> CriticalSection::m_bContentionDetectionON{false};
std::atomic<unsigned> CriticalSection::m_nSequentialLocksWithWaitLogThreshold{10};

namespace {

// Critical sections guard short stretches (an index bin's map look-up, a few
// hundred nanoseconds). A waiter that goes to sleep in the kernel pays
// microseconds to be woken, so a blocking acquisition first retries the
// non-blocking one for about as long as such a stretch lasts.
constexpr int kSpinAttempts = 64;

inline void cpuRelax() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

template <class Mutex>
void spinThenLock(Mutex& m) {
    for (int i = 0; i < kSpinAttempts; ++i) {
        if (m.try_lock()) return;
        cpuRelax();
    }
    m.lock();
}

}  // namespace

CriticalSection::CriticalSection(int recursion) : m_bRecursive(recursion != 0) {}

CriticalSection::~CriticalSection() = default;

// The base operation records the state; lock() consults it. An override that
// wants the bookkeeping to continue must call this one. It is only called
// while the lock is held, which is what guards m_bReporting.
void CriticalSection::setContentionReporting(bool bOn) { m_bReporting = bOn; }

void CriticalSection::lock() {
    if (!m_bContentionDetectionON.load(std::memory_order_relaxed)) {
        if (m_bRecursive) spinThenLock(m_recursive); else spinThenLock(m_plain);
        return;
    }

    const bool bAcquiredAtOnce = m_bRecursive ? m_recursive.try_lock() : m_plain.try_lock();
    if (bAcquiredAtOnce) {
        // No wait: the run of waited acquisitions is over.
        m_nSequentialWaits = 0;
        if (!m_bReporting) setContentionReporting(true);
        return;
    }

    // Acquired blocking (after a short spin): this counts as a waited acquisition.
    if (m_bRecursive) spinThenLock(m_recursive); else spinThenLock(m_plain);
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
