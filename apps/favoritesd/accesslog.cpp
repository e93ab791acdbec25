#include "accesslog.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <stdexcept>

namespace kiv::server {

namespace {

// Control characters and quotes of a logged field are escaped, so that a
// request cannot forge log lines or terminal sequences.
void appendEscaped(std::string& out, std::string_view text) {
    for (const char ch : text) {
        const auto c = static_cast<unsigned char>(ch);
        if (c < 0x20 || c == 0x7f || c == '"' || c == '\\') {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\x%02x", c);
            out += buf;
        } else {
            out += ch;
        }
    }
}

}  // namespace

std::string utcTimestamp(std::int64_t micros, int fractionDigits) {
    const std::int64_t fraction = ((micros % 1000000) + 1000000) % 1000000;
    const std::time_t secs = static_cast<std::time_t>((micros - fraction) / 1000000);
    std::tm tm{};
    gmtime_r(&secs, &tm);
    char buf[80];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d.%06dZ", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(fraction));
    std::string out = buf;
    // Drop the digits not asked for: the text ends "ffffffZ".
    const int drop = 6 - std::min(6, std::max(1, fractionDigits));
    out.erase(out.size() - 1 - drop, drop);
    return out;
}

AccessLog::AccessLog(const std::string& destination) {
    if (destination == "off") return;
    if (destination == "-" || destination.empty()) {
        m_file = stderr;
        return;
    }
    m_file = std::fopen(destination.c_str(), "a");
    if (!m_file) throw std::runtime_error("cannot open the access log " + destination + ": " + std::strerror(errno));
    m_owned = true;
}

AccessLog::~AccessLog() {
    if (m_owned) std::fclose(m_file);
}

void AccessLog::write(std::string_view address, std::string_view user, std::string_view method,
                      std::string_view target, int status, std::size_t bytes, double seconds) {
    if (!m_file) return;
    const auto now = std::chrono::system_clock::now();
    const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(now.time_since_epoch()).count();
    std::string line = utcTimestamp(micros, 3);
    line += ' ';
    appendEscaped(line, address.empty() ? std::string_view("-") : address);
    line += ' ';
    appendEscaped(line, user.empty() ? std::string_view("-") : user);
    line += " \"";
    appendEscaped(line, method);
    line += ' ';
    appendEscaped(line, target);
    char tail[96];
    std::snprintf(tail, sizeof tail, "\" %d %zu %.3fms\n", status, bytes, seconds * 1000.0);
    line += tail;
    std::lock_guard<std::mutex> lock(m_mutex);
    std::fwrite(line.data(), 1, line.size(), m_file);
    std::fflush(m_file);
}

}  // namespace kiv::server
