#include "qz/platform/assert.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include "qz/platform/logger.h"

namespace kiv {
namespace {

class Assertions : public ::testing::Test {
protected:
    void SetUp() override {
        Logger::getLogger().clearWriters();
        m_log = std::make_shared<CapturingLogWriter>();
        Logger::getLogger().addWriter(m_log);
    }
    void TearDown() override { Logger::getLogger().resetToDefault(); }
    std::shared_ptr<CapturingLogWriter> m_log;
};

int valueAfterFailedAssertion() {
    const std::vector<int> items;
    KIV_ASSERT_SEV(!items.empty(), kSevErrorCritical, "project/webfavorites/favoritesmanager", 802);
    return 17;  // reached: the assertion returns to its caller
}

TEST_F(Assertions, FailureIsRecordedAndControlReturns) {
    debug::ScopedAssertRecorder recorder;
    EXPECT_EQ(valueAfterFailedAssertion(), 17);
    ASSERT_EQ(recorder.failures().size(), 1u);
    const auto& f = recorder.failures()[0];
    EXPECT_EQ(f.message, String(L"!items.empty()"));
    EXPECT_EQ(f.severity, kSevErrorCritical);
    EXPECT_STREQ(f.file, "project/webfavorites/favoritesmanager");
    EXPECT_EQ(f.line, 802);
}

TEST_F(Assertions, PassingAssertionReportsNothing) {
    debug::ScopedAssertRecorder recorder;
    KIV_ASSERT_SEV(1 + 1 == 2, kSevError, "f", 1);
    EXPECT_TRUE(recorder.failures().empty());
    EXPECT_TRUE(m_log->records().empty());
}

TEST_F(Assertions, FailureIsLoggedAtItsSeverityWithItsLocation) {
    debug::ScopedAssertRecorder recorder;
    debug::assertionFailed(5, String(L"String enum value not found: bogus"), "project/x", 77);
    const auto r = m_log->records();
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].severity, kSevErrorCritical);
    EXPECT_NE(r[0].text.find(L"String enum value not found: bogus"), String::npos);
    EXPECT_EQ(r[0].file, String(L"project/x"));
    EXPECT_EQ(r[0].line, 77);
}

TEST_F(Assertions, PercentSignsInTheMessageAreLoggedAsWritten) {
    debug::ScopedAssertRecorder recorder;
    debug::assertionFailed(kSevError, String(L"n %% 2 == 0 && %1"), "f", 1);
    ASSERT_EQ(m_log->records().size(), 1u);
    EXPECT_NE(m_log->records()[0].text.find(L"n %% 2 == 0 && %1"), String::npos);
}

TEST_F(Assertions, FailureWithoutAHandlerIsLoggedAndReturns) {
    auto previous = debug::setAssertHandler({});
    debug::assertionFailed(kSevError, String(L"no handler"), "f", 3);
    debug::setAssertHandler(previous);
    EXPECT_EQ(m_log->records().size(), 1u);
}

TEST_F(Assertions, OutOfRangeSeverityIsLoggedAtTheNearestOneAndReportedAsGiven) {
    debug::ScopedAssertRecorder recorder;
    debug::assertionFailed(9, String(L"high"), "f", 1);
    debug::assertionFailed(-2, String(L"low"), "f", 2);
    const auto r = m_log->records();
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].severity, kSevErrorCritical);
    EXPECT_EQ(r[1].severity, kSevTrace);
    ASSERT_EQ(recorder.failures().size(), 2u);
    EXPECT_EQ(recorder.failures()[0].severity, 9);
}

TEST_F(Assertions, SetHandlerReturnsThePreviousOne) {
    int calls = 0;
    auto original = debug::setAssertHandler([&](const debug::AssertionFailure&) { ++calls; });
    auto mine = debug::setAssertHandler(original);
    ASSERT_TRUE(static_cast<bool>(mine));
    mine(debug::AssertionFailure{1, String(L"direct"), "f", 1});
    EXPECT_EQ(calls, 1);
}

TEST_F(Assertions, InstalledHandlerIsCalled) {
    std::vector<String> seen;
    auto previous = debug::setAssertHandler([&](const debug::AssertionFailure& f) { seen.push_back(f.message); });
    debug::assertionFailed(kSevError, String(L"first"), "f", 1);
    debug::assertionFailed(kSevError, String(L"second"), "f", 2);
    debug::setAssertHandler(previous);
    debug::assertionFailed(kSevError, String(L"after"), "f", 3);
    EXPECT_EQ(seen, (std::vector<String>{String(L"first"), String(L"second")}));
}

TEST_F(Assertions, RecorderRestoresThePreviousHandler) {
    int outerCalls = 0;
    auto previous = debug::setAssertHandler([&](const debug::AssertionFailure&) { ++outerCalls; });
    {
        debug::ScopedAssertRecorder inner;
        debug::assertionFailed(kSevError, String(L"inner"), "f", 1);
        EXPECT_EQ(inner.failures().size(), 1u);
        EXPECT_EQ(outerCalls, 0);
    }
    debug::assertionFailed(kSevError, String(L"outer"), "f", 2);
    EXPECT_EQ(outerCalls, 1);
    debug::setAssertHandler(previous);
}

TEST_F(Assertions, HandlerMayReplaceTheHandler) {
    int calls = 0;
    auto previous = debug::setAssertHandler({});
    debug::setAssertHandler([&](const debug::AssertionFailure&) {
        ++calls;
        debug::setAssertHandler({});  // one-shot
    });
    debug::assertionFailed(kSevError, String(L"a"), "f", 1);
    debug::assertionFailed(kSevError, String(L"b"), "f", 2);
    EXPECT_EQ(calls, 1);
    debug::setAssertHandler(previous);
}

TEST_F(Assertions, ExceptionFromTheHandlerReachesTheCaller) {
    auto previous = debug::setAssertHandler([](const debug::AssertionFailure&) { throw std::logic_error("stop"); });
    EXPECT_THROW(debug::assertionFailed(kSevError, String(L"x"), "f", 1), std::logic_error);
    debug::setAssertHandler(previous);
}

TEST_F(Assertions, FailuresFromManyThreadsAreAllRecorded) {
    m_log->setMinimum(kSevErrorCritical);  // keep the log quiet
    debug::ScopedAssertRecorder recorder;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([] {
            for (int i = 0; i < 50; ++i) debug::assertionFailed(kSevError, String(L"threaded"), "f", i);
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(recorder.failures().size(), 200u);
}

}  // namespace
}  // namespace kiv
