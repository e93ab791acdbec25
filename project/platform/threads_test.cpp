#include "qz/platform/threads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace kiv {
namespace {

using namespace std::chrono_literals;

// Records every switch of contention reporting and keeps the base behaviour.
class RecordingSection : public CriticalSection {
public:
    explicit RecordingSection(int recursion = 1) : CriticalSection(recursion) {}
    void setContentionReporting(bool bOn) override {
        calls.push_back(bOn);  // only called while the lock is held
        CriticalSection::setContentionReporting(bOn);
    }
    std::vector<bool> calls;
};

// Takes `cs` on the calling thread while another thread holds it, so the
// acquisition has to wait. The other thread takes the lock with tryLock,
// which does no contention bookkeeping of its own, and lets go well after
// this thread has started to acquire.
void lockAfterWaiting(CriticalSection& cs) {
    std::atomic<bool> bHeld{false};
    std::atomic<bool> bAboutToLock{false};
    std::thread holder([&] {
        while (!cs.tryLock()) std::this_thread::yield();
        bHeld = true;
        while (!bAboutToLock) std::this_thread::yield();
        std::this_thread::sleep_for(100ms);
        cs.unlock();
    });
    while (!bHeld) std::this_thread::yield();
    bAboutToLock = true;
    cs.lock();
    holder.join();
}

bool otherThreadCanTake(CriticalSection& cs) {
    bool bTaken = false;
    std::thread t([&] {
        bTaken = cs.tryLock();
        if (bTaken) cs.unlock();
    });
    t.join();
    return bTaken;
}

class ContentionDetection : public ::testing::Test {
protected:
    void SetUp() override {
        m_bSavedSwitch = CriticalSection::m_bContentionDetectionON.load();
        m_nSavedThreshold = CriticalSection::m_nSequentialLocksWithWaitLogThreshold.load();
    }
    void TearDown() override {
        CriticalSection::m_bContentionDetectionON = m_bSavedSwitch;
        CriticalSection::m_nSequentialLocksWithWaitLogThreshold = m_nSavedThreshold;
    }

private:
    bool m_bSavedSwitch = false;
    unsigned m_nSavedThreshold = 0;
};

TEST_F(ContentionDetection, IsSwitchedOffByDefaultWithAThresholdOfTen) {
    EXPECT_FALSE(CriticalSection::m_bContentionDetectionON.load());
    EXPECT_EQ(CriticalSection::m_nSequentialLocksWithWaitLogThreshold.load(), 10u);
}

TEST_F(ContentionDetection, NewLockHasReportingOffAndNoWaits) {
    RecordingSection cs;
    EXPECT_FALSE(cs.isContentionReportingOn());
    EXPECT_EQ(cs.getSequentialWaits(), 0);
    EXPECT_TRUE(cs.calls.empty());
}

TEST_F(ContentionDetection, WithTheSwitchOffAcquisitionIsPlainAndReportsNothing) {
    CriticalSection::m_bContentionDetectionON = false;
    RecordingSection cs;
    cs.lock();
    cs.unlock();
    lockAfterWaiting(cs);
    cs.unlock();
    EXPECT_TRUE(cs.calls.empty());
    EXPECT_FALSE(cs.isContentionReportingOn());
    EXPECT_EQ(cs.getSequentialWaits(), 0);
}

TEST_F(ContentionDetection, FirstUnwaitedAcquisitionSwitchesReportingOn) {
    CriticalSection::m_bContentionDetectionON = true;
    RecordingSection cs;
    cs.lock();
    EXPECT_EQ(cs.calls, std::vector<bool>{true});
    EXPECT_TRUE(cs.isContentionReportingOn());
    EXPECT_EQ(cs.getSequentialWaits(), 0);
    cs.unlock();

    // Reporting is already on: a further unwaited acquisition does not switch again.
    cs.lock();
    cs.unlock();
    EXPECT_EQ(cs.calls, std::vector<bool>{true});
}

TEST_F(ContentionDetection, WaitedAcquisitionWhileReportingIsOnRaisesTheCount) {
    CriticalSection::m_bContentionDetectionON = true;
    RecordingSection cs;
    cs.lock();
    cs.unlock();
    ASSERT_TRUE(cs.isContentionReportingOn());

    lockAfterWaiting(cs);
    EXPECT_EQ(cs.getSequentialWaits(), 1);
    cs.unlock();
    lockAfterWaiting(cs);
    EXPECT_EQ(cs.getSequentialWaits(), 2);
    cs.unlock();
    EXPECT_EQ(cs.calls, std::vector<bool>{true});  // below the threshold: no switch
    EXPECT_TRUE(cs.isContentionReportingOn());
}

TEST_F(ContentionDetection, WaitedAcquisitionWhileReportingIsOffLeavesTheCount) {
    CriticalSection::m_bContentionDetectionON = true;
    RecordingSection cs;  // reporting starts off
    lockAfterWaiting(cs);
    EXPECT_EQ(cs.getSequentialWaits(), 0);
    EXPECT_TRUE(cs.calls.empty());
    EXPECT_FALSE(cs.isContentionReportingOn());
    cs.unlock();
}

TEST_F(ContentionDetection, ReportingSwitchesOffOnceTheCountExceedsTheThreshold) {
    CriticalSection::m_bContentionDetectionON = true;
    CriticalSection::m_nSequentialLocksWithWaitLogThreshold = 2;
    RecordingSection cs;
    cs.lock();
    cs.unlock();

    lockAfterWaiting(cs);
    cs.unlock();
    lockAfterWaiting(cs);
    cs.unlock();
    EXPECT_EQ(cs.getSequentialWaits(), 2);  // equal to the threshold: not yet
    EXPECT_EQ(cs.calls, std::vector<bool>{true});

    lockAfterWaiting(cs);
    cs.unlock();
    EXPECT_EQ(cs.getSequentialWaits(), 3);
    EXPECT_EQ(cs.calls, (std::vector<bool>{true, false}));
    EXPECT_FALSE(cs.isContentionReportingOn());

    // With reporting off, further waits neither count nor switch.
    lockAfterWaiting(cs);
    cs.unlock();
    EXPECT_EQ(cs.getSequentialWaits(), 3);
    EXPECT_EQ(cs.calls, (std::vector<bool>{true, false}));

    // The next unwaited acquisition resets the count and switches reporting on again.
    cs.lock();
    EXPECT_EQ(cs.getSequentialWaits(), 0);
    EXPECT_EQ(cs.calls, (std::vector<bool>{true, false, true}));
    EXPECT_TRUE(cs.isContentionReportingOn());
    cs.unlock();
}

TEST_F(ContentionDetection, ThresholdOfZeroSwitchesOffOnTheFirstWait) {
    CriticalSection::m_bContentionDetectionON = true;
    CriticalSection::m_nSequentialLocksWithWaitLogThreshold = 0;
    RecordingSection cs;
    cs.lock();
    cs.unlock();
    lockAfterWaiting(cs);
    cs.unlock();
    EXPECT_EQ(cs.getSequentialWaits(), 1);
    EXPECT_EQ(cs.calls, (std::vector<bool>{true, false}));
}

TEST_F(ContentionDetection, UnwaitedAcquisitionResetsTheCount) {
    CriticalSection::m_bContentionDetectionON = true;
    RecordingSection cs;
    cs.lock();
    cs.unlock();
    lockAfterWaiting(cs);
    cs.unlock();
    ASSERT_EQ(cs.getSequentialWaits(), 1);
    cs.lock();
    EXPECT_EQ(cs.getSequentialWaits(), 0);
    EXPECT_EQ(cs.calls, std::vector<bool>{true});  // reporting stayed on: no second switch
    cs.unlock();
}

TEST_F(ContentionDetection, RecursiveAcquisitionByTheOwnerCountsAsUnwaited) {
    CriticalSection::m_bContentionDetectionON = true;
    RecordingSection cs(1);
    cs.lock();
    cs.unlock();
    lockAfterWaiting(cs);
    ASSERT_EQ(cs.getSequentialWaits(), 1);
    cs.lock();  // the owner locks again: succeeds at once
    EXPECT_EQ(cs.getSequentialWaits(), 0);
    cs.unlock();
    cs.unlock();
    EXPECT_TRUE(otherThreadCanTake(cs));
}

TEST_F(ContentionDetection, PlainLockFollowsTheSameRules) {
    CriticalSection::m_bContentionDetectionON = true;
    CriticalSection::m_nSequentialLocksWithWaitLogThreshold = 1;
    RecordingSection cs(0);
    cs.lock();
    cs.unlock();
    lockAfterWaiting(cs);
    cs.unlock();
    lockAfterWaiting(cs);
    cs.unlock();
    EXPECT_EQ(cs.getSequentialWaits(), 2);
    EXPECT_EQ(cs.calls, (std::vector<bool>{true, false}));
}

TEST_F(ContentionDetection, TryLockDoesNoBookkeeping) {
    CriticalSection::m_bContentionDetectionON = true;
    RecordingSection cs;
    ASSERT_TRUE(cs.tryLock());
    EXPECT_TRUE(cs.calls.empty());
    EXPECT_FALSE(cs.isContentionReportingOn());
    cs.unlock();
}

TEST_F(ContentionDetection, BaseLockSwitchesReportingByItself) {
    CriticalSection::m_bContentionDetectionON = true;
    CriticalSection cs;
    cs.lock();
    EXPECT_TRUE(cs.isContentionReportingOn());
    cs.unlock();
}

// --- locking itself ----------------------------------------------------------

TEST(CriticalSection, RecursiveLockMayBeTakenAgainByItsOwner) {
    CriticalSection cs(1);
    cs.lock();
    cs.lock();
    EXPECT_TRUE(cs.tryLock());
    cs.unlock();
    cs.unlock();
    EXPECT_FALSE(otherThreadCanTake(cs));  // still held once
    cs.unlock();
    EXPECT_TRUE(otherThreadCanTake(cs));
}

TEST(CriticalSection, DefaultIsRecursive) {
    CriticalSection cs;
    cs.lock();
    EXPECT_TRUE(cs.tryLock());
    cs.unlock();
    cs.unlock();
    EXPECT_TRUE(otherThreadCanTake(cs));
}

TEST(CriticalSection, PlainLockExcludesOtherThreads) {
    CriticalSection cs(0);
    cs.lock();
    EXPECT_FALSE(otherThreadCanTake(cs));
    cs.unlock();
    EXPECT_TRUE(otherThreadCanTake(cs));
}

TEST(CriticalSection, AThreadWaitingForAHeldLockTakesItAtTheLastRelease) {
    for (int recursion : {0, 1}) {
        SCOPED_TRACE(recursion);
        CriticalSection cs(recursion);
        cs.lock();
        if (recursion) cs.lock();
        std::atomic<bool> taken{false};
        std::thread waiter([&] {
            cs.lock();  // sleeps: the lock is held
            taken = true;
            cs.unlock();
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_FALSE(taken);
        if (recursion) {
            cs.unlock();  // still held once
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            EXPECT_FALSE(taken);
        }
        cs.unlock();
        waiter.join();
        EXPECT_TRUE(taken);
        EXPECT_TRUE(otherThreadCanTake(cs));
    }
}

TEST(CriticalSection, ScopedLockHoldsForItsScope) {
    CriticalSection cs(0);
    {
        CriticalSectionLock guard(cs);
        EXPECT_FALSE(otherThreadCanTake(cs));
    }
    EXPECT_TRUE(otherThreadCanTake(cs));
}

TEST(FastReaderWriterLock, TwoReadersHoldItTogether) {
    threads::FastReaderWriterLock rw;
    threads::ReadLock mine(rw);
    std::atomic<bool> bOtherRead{false};
    std::thread t([&] {
        threads::ReadLock theirs(rw);
        bOtherRead = true;
    });
    t.join();  // would never return if the second reader had to wait for the first
    EXPECT_TRUE(bOtherRead);
}

TEST(FastReaderWriterLock, WriterWaitsForTheReader) {
    threads::FastReaderWriterLock rw;
    std::atomic<bool> bWritten{false};
    rw.lockRead();
    std::thread t([&] {
        threads::WriteLock w(rw);
        bWritten = true;
    });
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(bWritten);
    rw.unlockRead();
    t.join();
    EXPECT_TRUE(bWritten);
}

TEST(FastReaderWriterLock, ReaderWaitsForTheWriter) {
    threads::FastReaderWriterLock rw;
    std::atomic<bool> bRead{false};
    rw.lockWrite();
    std::thread t([&] {
        threads::ReadLock r(rw);
        bRead = true;
    });
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(bRead);
    rw.unlockWrite();
    t.join();
    EXPECT_TRUE(bRead);
}

}  // namespace
}  // namespace kiv
