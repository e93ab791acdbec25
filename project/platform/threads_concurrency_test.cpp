// Many threads on one lock or one object: run under ThreadSanitizer in CI.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "qz/platform/handle.h"
#include "qz/platform/threads.h"

namespace kiv {
namespace {

constexpr int kThreads = 8;

class RestoreContentionSettings : public ::testing::Test {
protected:
    void SetUp() override {
        m_bSwitch = CriticalSection::m_bContentionDetectionON.load();
        m_nThreshold = CriticalSection::m_nSequentialLocksWithWaitLogThreshold.load();
    }
    void TearDown() override {
        CriticalSection::m_bContentionDetectionON = m_bSwitch;
        CriticalSection::m_nSequentialLocksWithWaitLogThreshold = m_nThreshold;
    }

private:
    bool m_bSwitch = false;
    unsigned m_nThreshold = 0;
};

// Counts switches of contention reporting; the counts are only changed while
// the lock is held, so they need no synchronisation of their own.
class CountingSection : public CriticalSection {
public:
    explicit CountingSection(int recursion) : CriticalSection(recursion) {}
    void setContentionReporting(bool bOn) override {
        (bOn ? switchesOn : switchesOff)++;
        CriticalSection::setContentionReporting(bOn);
    }
    long switchesOn = 0;
    long switchesOff = 0;
};

void hammer(CriticalSection& cs, long& counter, int iterations) {
    std::vector<std::thread> threads;
    std::atomic<bool> bGo{false};
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&] {
            while (!bGo) std::this_thread::yield();
            for (int i = 0; i < iterations; ++i) {
                CriticalSectionLock guard(cs);
                const long seen = counter;
                counter = seen + 1;  // a lost update shows if the lock fails
            }
        });
    bGo = true;
    for (auto& t : threads) t.join();
}

TEST_F(RestoreContentionSettings, ManyThreadsOnOneRecursiveLockWithDetectionOn) {
    CriticalSection::m_bContentionDetectionON = true;
    CriticalSection::m_nSequentialLocksWithWaitLogThreshold = 3;
    CountingSection cs(1);
    long counter = 0;
    hammer(cs, counter, 20000);
    EXPECT_EQ(counter, kThreads * 20000L);
    cs.lock();
    // Reporting is switched on by the first acquisition and can only be
    // switched off after having been on.
    EXPECT_GE(cs.switchesOn, 1);
    EXPECT_TRUE(cs.switchesOn == cs.switchesOff || cs.switchesOn == cs.switchesOff + 1);
    EXPECT_EQ(cs.isContentionReportingOn(), cs.switchesOn > cs.switchesOff);
    cs.unlock();
}

TEST_F(RestoreContentionSettings, ManyThreadsOnOnePlainLockWithDetectionOn) {
    CriticalSection::m_bContentionDetectionON = true;
    CountingSection cs(0);
    long counter = 0;
    hammer(cs, counter, 20000);
    EXPECT_EQ(counter, kThreads * 20000L);
}

TEST_F(RestoreContentionSettings, ManyThreadsOnOneLockWithDetectionOff) {
    CriticalSection::m_bContentionDetectionON = false;
    CountingSection cs(1);
    long counter = 0;
    hammer(cs, counter, 20000);
    EXPECT_EQ(counter, kThreads * 20000L);
    EXPECT_EQ(cs.switchesOn, 0);
    EXPECT_EQ(cs.switchesOff, 0);
}

TEST_F(RestoreContentionSettings, DetectionSwitchedWhileThreadsRun) {
    CountingSection cs(1);
    long counter = 0;
    std::atomic<bool> bStop{false};
    std::thread toggler([&] {
        bool b = false;
        while (!bStop) {
            CriticalSection::m_bContentionDetectionON = (b = !b);
            std::this_thread::yield();
        }
    });
    hammer(cs, counter, 10000);
    bStop = true;
    toggler.join();
    EXPECT_EQ(counter, kThreads * 10000L);
}

TEST(ReaderWriterConcurrency, WritersAreExclusiveAndReadersSeeWholeUpdates) {
    threads::FastReaderWriterLock rw;
    long a = 0, b = 0;  // a writer keeps a == b
    std::atomic<long> tornReads{0};
    std::atomic<int> readersInside{0};
    std::atomic<int> maxReadersInside{0};
    std::vector<std::thread> threads;
    for (int w = 0; w < 2; ++w)
        threads.emplace_back([&] {
            for (int i = 0; i < 5000; ++i) {
                threads::WriteLock guard(rw);
                ++a;
                ++b;
            }
        });
    for (int r = 0; r < 4; ++r)
        threads.emplace_back([&] {
            for (int i = 0; i < 5000; ++i) {
                threads::ReadLock guard(rw);
                const int inside = ++readersInside;
                int m = maxReadersInside.load();
                while (inside > m && !maxReadersInside.compare_exchange_weak(m, inside)) {
                }
                if (a != b) ++tornReads;
                --readersInside;
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(tornReads.load(), 0);
    EXPECT_EQ(a, 10000);
    EXPECT_EQ(b, 10000);
    EXPECT_GE(maxReadersInside.load(), 1);
}

struct Shared : RefCountedBase {
    explicit Shared(std::atomic<int>& deletions) : m_deletions(deletions) {}
    ~Shared() override { ++m_deletions; }
    std::atomic<int>& m_deletions;
};

TEST(HandleConcurrency, CopiesDroppedOnManyThreadsDeleteExactlyOnce) {
    for (int round = 0; round < 20; ++round) {
        std::atomic<int> deletions{0};
        Handle<Shared> original(new Shared(deletions));
        std::vector<std::thread> threads;
        std::atomic<bool> bGo{false};
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([copy = original, &bGo] {
                while (!bGo) std::this_thread::yield();
                for (int i = 0; i < 1000; ++i) {
                    Handle<Shared> a(copy);
                    Handle<Shared> b = a;
                    b.reset();
                    Handle<Shared> c(std::move(a));
                }
            });
        original.reset();  // only the threads' copies remain
        bGo = true;
        for (auto& t : threads) t.join();
        EXPECT_EQ(deletions.load(), 1) << "round " << round;
    }
}

TEST(HandleConcurrency, LastHandleReleasedOnAnyThreadDeletes) {
    std::atomic<int> deletions{0};
    std::vector<Handle<Shared>> handles(kThreads, Handle<Shared>(new Shared(deletions)));
    EXPECT_EQ(handles[0]->getRefCount(), kThreads);
    std::vector<std::thread> threads;
    for (auto& h : handles) threads.emplace_back([hh = std::move(h)]() mutable { hh.reset(); });
    for (auto& t : threads) t.join();
    EXPECT_EQ(deletions.load(), 1);
}

}  // namespace
}  // namespace kiv
