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
    // Written digit by digit: a listing writes one per item, and formatting
    // through gmtime and snprintf was a tenth of a listing's time.
    using namespace std::chrono;
    const sys_time<microseconds> t{microseconds(micros)};
    const sys_days day = floor<days>(t);
    const year_month_day ymd(day);
    const std::int64_t inDay = (t - day).count();  // microseconds since midnight
    const std::int64_t secs = inDay / 1000000;
    const int digits = std::min(6, std::max(1, fractionDigits));
    char buf[40];
    char* o = buf;
    const auto put = [&o](std::int64_t v, int width) {
        for (int i = width - 1; i >= 0; --i, v /= 10) o[i] = static_cast<char>('0' + v % 10);
        o += width;
    };
    put(static_cast<int>(ymd.year()), 4);
    *o++ = '-';
    put(static_cast<unsigned>(ymd.month()), 2);
    *o++ = '-';
    put(static_cast<unsigned>(ymd.day()), 2);
    *o++ = 'T';
    put(secs / 3600, 2);
    *o++ = ':';
    put(secs / 60 % 60, 2);
    *o++ = ':';
    put(secs % 60, 2);
    *o++ = '.';
    std::int64_t fraction = inDay % 1000000;
    for (int i = digits; i < 6; ++i) fraction /= 10;
    put(fraction, digits);
    *o++ = 'Z';
    return std::string(buf, o);
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
    threads::MutexLock lock(m_mutex);
    std::fwrite(line.data(), 1, line.size(), m_file);
    std::fflush(m_file);
}

}  // namespace kiv::server
