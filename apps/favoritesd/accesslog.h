// One line per answered request:
//   TIME ADDRESS USER "METHOD TARGET" STATUS BYTES DURATIONms
// written to a file, to standard error ("-"), or nowhere ("off").
//
// Thread safety: write() may be called from any thread; lines never interleave.
#pragma once

#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>

#include "qz/platform/threads.h"

namespace kiv::server {

// Microseconds since the Unix epoch as "YYYY-MM-DDTHH:MM:SS.fffZ" (UTC), with
// `fractionDigits` (1 to 6) digits of the second.
std::string utcTimestamp(std::int64_t micros, int fractionDigits);

class AccessLog {
public:
    // Raises std::runtime_error when the file cannot be opened.
    explicit AccessLog(const std::string& destination);
    ~AccessLog();
    AccessLog(const AccessLog&) = delete;
    AccessLog& operator=(const AccessLog&) = delete;

    void write(std::string_view address, std::string_view user, std::string_view method, std::string_view target,
               int status, std::size_t bytes, double seconds);

private:
    threads::Mutex m_mutex;  // one line at a time
    std::FILE* m_file = nullptr;
    bool m_owned = false;
};

}  // namespace kiv::server
