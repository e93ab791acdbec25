// SystemUtils: the reference millisecond clock.
// Thread rule: callable from any thread.
#pragma once

#include "qz/platform/export.h"

#include <cstdint>

namespace kiv {

class KIV_API SystemUtils {
public:
    // Milliseconds since an arbitrary fixed point (a monotonic clock),
    // wrapping at 2^32.
    static std::uint32_t getRefElapsedMilliseconds() noexcept;
};

}  // namespace kiv
