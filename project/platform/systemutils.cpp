#include "qz/platform/systemutils.h"

#include <chrono>

namespace kiv {

std::uint32_t SystemUtils::getRefElapsedMilliseconds() noexcept {
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now().time_since_epoch());
    // Keep the low 32 bits: the value wraps at 2^32 like the host's clock.
    return static_cast<std::uint32_t>(static_cast<std::uint64_t>(ms.count()));
}

}  // namespace kiv
