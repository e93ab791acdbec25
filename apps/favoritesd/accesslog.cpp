#include "accesslog.h"

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
    const std::time_t t = std::chrono::system_clock::to_time_t(now);
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm tm{};
    gmtime_r(&t, &tm);
    char stamp[80];
    std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(ms));
    std::string line = stamp;
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
