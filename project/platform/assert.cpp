#include "qz/platform/assert.h"

#include <algorithm>
#include <mutex>

#include "qz/platform/logger.h"

namespace kiv::debug {

namespace {

struct HandlerSlot {
    std::mutex mutex;
    // Shared so that a call in progress keeps its handler alive while another
    // thread replaces it.
    std::shared_ptr<const AssertHandler> handler;
};

HandlerSlot& slot() {
    static HandlerSlot* const s = new HandlerSlot();  // never destroyed: usable during exit
    return *s;
}

}  // namespace

void assertionFailed(int severity, const String& message, const char* file, int line) {
    const int sev = std::clamp(severity, static_cast<int>(kSevTrace), static_cast<int>(kSevErrorCritical));
    // The message goes in as an insert so that '%' in it is kept as written.
    Logger::getLogger().log(static_cast<ESeverity>(sev), GDVariant(L"Assertion failed: %1"), {GDVariant(message)},
                            KIV_FILE_LOCATION(file, line));

    std::shared_ptr<const AssertHandler> handler;
    {
        HandlerSlot& s = slot();
        std::lock_guard<std::mutex> g(s.mutex);
        handler = s.handler;
    }
    // Called outside the mutex so that a handler may replace the handler. An
    // exception from the handler reaches the caller.
    if (handler && *handler) (*handler)(AssertionFailure{severity, message, file, line});
}

AssertHandler setAssertHandler(AssertHandler handler) {
    auto next = handler ? std::make_shared<const AssertHandler>(std::move(handler)) : nullptr;
    std::shared_ptr<const AssertHandler> previous;
    {
        HandlerSlot& s = slot();
        std::lock_guard<std::mutex> g(s.mutex);
        previous = std::exchange(s.handler, std::move(next));
    }
    return previous ? *previous : AssertHandler();
}

ScopedAssertRecorder::ScopedAssertRecorder() : m_failures(std::make_shared<std::vector<AssertionFailure>>()) {
    auto mutex = std::make_shared<std::mutex>();
    m_previous = setAssertHandler([failures = m_failures, mutex](const AssertionFailure& f) {
        std::lock_guard<std::mutex> g(*mutex);
        failures->push_back(f);
    });
}

ScopedAssertRecorder::~ScopedAssertRecorder() { setAssertHandler(std::move(m_previous)); }

}  // namespace kiv::debug
