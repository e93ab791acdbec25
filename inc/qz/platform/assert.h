// Host assertions.
//
// A failed assertion is logged at its severity (with the source location) and
// handed to the installed handler; then control returns to the caller, which
// carries on. Tests install a handler that records the failures.
//
// Thread safety: the handler may be replaced and called from any thread.
#pragma once

#include "qz/platform/export.h"

#include <functional>
#include <memory>
#include <vector>

#include "qz/platform/string.h"

namespace kiv::debug {

struct KIV_API AssertionFailure {
    int severity;
    String message;
    const char* file;
    int line;
};

using AssertHandler = std::function<void(const AssertionFailure&)>;

// Logs and reports one failure, then returns.
KIV_API void assertionFailed(int severity, const String& message, const char* file, int line);
// Installs a handler (empty: none) and returns the previous one.
KIV_API AssertHandler setAssertHandler(AssertHandler handler);

// Records failures while in scope; restores the previous handler on exit.
class KIV_API ScopedAssertRecorder {
public:
    ScopedAssertRecorder();
    ~ScopedAssertRecorder();
    const std::vector<AssertionFailure>& failures() const { return *m_failures; }

private:
    std::shared_ptr<std::vector<AssertionFailure>> m_failures;
    AssertHandler m_previous;
};

}  // namespace kiv::debug

// Checks `cond`; on failure reports its text at severity `sev`.
#define KIV_ASSERT_SEV(cond, sev, file, line) \
    do {                                     \
        if (!(cond)) ::kiv::debug::assertionFailed((sev), L"" #cond, (file), (line)); \
    } while (0)
