#include "qz/platform/systemutils.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace kiv {
namespace {

TEST(SystemUtils, ElapsedMillisecondsNeverGoBackwards) {
    std::uint32_t previous = SystemUtils::getRefElapsedMilliseconds();
    for (int i = 0; i < 100000; ++i) {
        const std::uint32_t now = SystemUtils::getRefElapsedMilliseconds();
        // Differences are taken modulo 2^32, as callers must around the wrap.
        EXPECT_LT(static_cast<std::uint32_t>(now - previous), 1000u) << "went backwards at " << i;
        previous = now;
    }
}

TEST(SystemUtils, ElapsedMillisecondsAdvanceWithTime) {
    const std::uint32_t before = SystemUtils::getRefElapsedMilliseconds();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    const std::uint32_t elapsed = SystemUtils::getRefElapsedMilliseconds() - before;
    EXPECT_GE(elapsed, 30u);
    EXPECT_LT(elapsed, 10000u);
}

TEST(SystemUtils, ElapsedMillisecondsFollowTheSteadyClock) {
    const auto steady = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now().time_since_epoch()).count();
    const std::uint32_t ref = SystemUtils::getRefElapsedMilliseconds();
    const auto low32 = static_cast<std::uint32_t>(static_cast<std::uint64_t>(steady));
    EXPECT_LT(static_cast<std::uint32_t>(ref - low32), 1000u);
}

}  // namespace
}  // namespace kiv
