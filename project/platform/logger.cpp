#include "qz/platform/logger.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "qz/platform/exception.h"

namespace kiv {

namespace {

const char* severityName(ESeverity sev) noexcept {
    switch (sev) {
        case kSevTrace: return "TRACE";
        case kSevDebug: return "DEBUG";
        case kSevInfo: return "INFO";
        case kSevWarning: return "WARNING";
        case kSevError: return "ERROR";
        case kSevErrorCritical: return "CRITICAL";
    }
    return "?";
}

// Source file names come from the compiler; they are not trusted to be
// valid UTF-8, so bytes that do not decode are taken one by one.
String fileNameToString(const char* file) {
    if (!file) return String();
    const std::string_view bytes(file);
    if (utf8::isValid(bytes)) return String::fromUtf8(bytes);
    String out;
    for (unsigned char c : bytes) out.push_back(static_cast<wchar_t>(c));
    return out;
}

// Writes to standard error or to the file named by KIV_LOG_FILE, from the
// severity named by KIV_LOG_LEVEL (0-5) up; kSevWarning by default.
class StreamLogWriter : public LogWriter {
public:
    StreamLogWriter() {
        if (const char* level = std::getenv("KIV_LOG_LEVEL"); level && *level) {
            char* end = nullptr;
            const long n = std::strtol(level, &end, 10);
            if (end && *end == '\0' && n >= kSevTrace && n <= kSevErrorCritical)
                m_minimum = static_cast<ESeverity>(n);
        }
        if (const char* path = std::getenv("KIV_LOG_FILE"); path && *path) {
            m_file = std::fopen(path, "a");
            m_bOwnsFile = m_file != nullptr;
        }
        if (!m_file) m_file = stderr;
    }
    ~StreamLogWriter() override {
        if (m_bOwnsFile) std::fclose(m_file);
    }
    StreamLogWriter(const StreamLogWriter&) = delete;
    StreamLogWriter& operator=(const StreamLogWriter&) = delete;

    bool isEnabled(ESeverity sev) const override { return sev >= m_minimum; }

    void write(const LogRecord& r) override {
        std::string line = timestamp();
        line += ' ';
        line += severityName(r.severity);
        if (!r.source.empty()) line += " [" + toUtf8Lenient(r.source) + "]";
        line += ' ';
        line += toUtf8Lenient(r.text);
        if (!r.file.empty()) line += " (" + toUtf8Lenient(r.file) + ":" + std::to_string(r.line) + ")";
        line += '\n';
        std::lock_guard<std::mutex> g(m_mutex);
        std::fwrite(line.data(), 1, line.size(), m_file);
        std::fflush(m_file);
    }

private:
    // Log output must not fail on a character UTF-8 cannot carry.
    static std::string toUtf8Lenient(const String& s) {
        try {
            return s.toUtf8();
        } catch (const Exception&) {
            String clean;
            for (wchar_t c : s) {
                const auto u = static_cast<char32_t>(c);
                clean.push_back((u > 0x10FFFF || (u >= 0xD800 && u <= 0xDFFF)) ? L'\uFFFD' : c);
            }
            return clean.toUtf8();
        }
    }

    static std::string timestamp() {
        const auto now = std::chrono::system_clock::now();
        const std::time_t t = std::chrono::system_clock::to_time_t(now);
        const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
        std::tm tm{};
        gmtime_r(&t, &tm);
        char buf[96];
        std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900, tm.tm_mon + 1,
                      tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(ms));
        return buf;
    }

    std::mutex m_mutex;
    std::FILE* m_file = nullptr;
    bool m_bOwnsFile = false;
    ESeverity m_minimum = kSevWarning;
};

std::shared_ptr<LogWriter> makeDefaultWriter() { return std::make_shared<StreamLogWriter>(); }

// The calling thread's stack of log sources.
thread_local std::vector<LogSourceHandle> t_sources;

// How deeply log() is nested on this thread: a writer may log, but a writer
// that logs on every record would otherwise recurse without end.
thread_local int t_nLogDepth = 0;
constexpr int kMaxLogDepth = 4;

}  // namespace

// ---------------------------------------------------------------------------
// formatInserts

String formatInserts(const String& text, const std::vector<GDVariant>& inserts) {
    String out;
    out.reserve(text.size());
    const std::size_t n = text.size();
    std::size_t i = 0;
    while (i < n) {
        const wchar_t c = text[i];
        if (c != L'%' || i + 1 >= n) {
            out.push_back(c);
            ++i;
            continue;
        }
        const wchar_t next = text[i + 1];
        if (next == L'%') {
            out.push_back(L'%');
            i += 2;
            continue;
        }
        if (next < L'0' || next > L'9') {
            out.push_back(c);
            ++i;
            continue;
        }
        // The whole run of digits is the insert number.
        std::size_t j = i + 1;
        std::size_t number = 0;
        bool bTooBig = false;
        while (j < n && text[j] >= L'0' && text[j] <= L'9') {
            if (number > 1000000) bTooBig = true;
            else number = number * 10 + static_cast<std::size_t>(text[j] - L'0');
            ++j;
        }
        if (!bTooBig && number >= 1 && number <= inserts.size() && !inserts[number - 1].isEmpty()) {
            out += inserts[number - 1].toText();  // inserted text is not scanned again
        } else {
            out.append(text, i, j - i);  // no value: left as it is
        }
        i = j;
    }
    return out;
}

// ---------------------------------------------------------------------------
// CapturingLogWriter

void CapturingLogWriter::write(const LogRecord& record) {
    std::lock_guard<std::mutex> g(m_mutex);
    m_records.push_back(record);
}

std::vector<LogRecord> CapturingLogWriter::records() const {
    std::lock_guard<std::mutex> g(m_mutex);
    return m_records;
}

void CapturingLogWriter::clear() {
    std::lock_guard<std::mutex> g(m_mutex);
    m_records.clear();
}

// ---------------------------------------------------------------------------
// Logger

Logger::Logger() { m_writers.push_back(makeDefaultWriter()); }

Logger& Logger::getLogger() {
    // Never destroyed, so that code running during static destruction can
    // still log.
    static Logger* const s_pLogger = new Logger();
    return *s_pLogger;
}

bool Logger::isEnabled(ESeverity sev) const { return !enabledWriters(sev).empty(); }

namespace {

// Hands one finished record to the writers chosen for its severity. The
// writer list is copied under the logger's mutex and the writers are called
// (isEnabled as well as write) outside it, so a writer may itself log or
// change the writers.
void dispatch(const std::vector<std::shared_ptr<LogWriter>>& writers, ESeverity sev, const String& text,
              const Logger::FileLocation& fl, const LogSourceHandle* source) {
    LogRecord record{sev, String(), text, fileNameToString(fl.file), fl.line};
    if (source && source->exists()) record.source = source->getName();
    else if (!t_sources.empty()) record.source = t_sources.back().getName();
    for (const auto& w : writers) {
        try {
            w->write(record);
        } catch (...) {
            // A failing writer must not turn logging into a failure of the caller.
        }
    }
}

struct LogDepthGuard {
    LogDepthGuard() { ++t_nLogDepth; }
    ~LogDepthGuard() { --t_nLogDepth; }
    LogDepthGuard(const LogDepthGuard&) = delete;
    LogDepthGuard& operator=(const LogDepthGuard&) = delete;
};

}  // namespace

// A copy of the writers that take `sev`: they are called without the lock, so
// a writer may log in turn.
std::vector<std::shared_ptr<LogWriter>> Logger::enabledWriters(ESeverity sev) const {
    std::vector<std::shared_ptr<LogWriter>> writers;
    {
        std::lock_guard<std::mutex> g(m_mutex);
        writers = m_writers;
    }
    std::erase_if(writers, [sev](const auto& w) { return !w->isEnabled(sev); });
    return writers;
}

void Logger::log(ESeverity sev, const GDVariant& message, std::initializer_list<GDVariant> inserts,
                 const FileLocation& fl, const LogSourceHandle* source) {
    if (t_nLogDepth >= kMaxLogDepth) return;
    LogDepthGuard depth;
    std::vector<std::shared_ptr<LogWriter>> writers = enabledWriters(sev);
    if (writers.empty()) return;  // nobody listens: do not build the text
    try {
        // A message value has already filled in its own inserts; its text is
        // only scanned again when inserts are given here. A plain text is
        // always scanned, so "%%" means the same with or without inserts.
        const bool bIsMessage = message.kind() == GDVariant::Kind::kMessage;
        String text = message.toText();
        if (!bIsMessage || inserts.size() != 0) text = formatInserts(text, std::vector<GDVariant>(inserts));
        dispatch(writers, sev, text, fl, source);
    } catch (...) {
        // Logging is best effort: a message that cannot be rendered is dropped.
    }
}

void Logger::logException(const Exception& e, const FileLocation& fl, const LogSourceHandle* source,
                          ESeverity sev) {
    if (t_nLogDepth >= kMaxLogDepth) return;
    LogDepthGuard depth;
    std::vector<std::shared_ptr<LogWriter>> writers = enabledWriters(sev);
    if (writers.empty()) return;
    try {
        // The exception's text is final; it is logged as it is.
        dispatch(writers, sev, e.getMessageText(), fl, source);
    } catch (...) {
    }
}

void Logger::addWriter(std::shared_ptr<LogWriter> writer) {
    if (!writer) return;
    std::lock_guard<std::mutex> g(m_mutex);
    m_writers.push_back(std::move(writer));
}

void Logger::removeWriter(const std::shared_ptr<LogWriter>& writer) {
    std::lock_guard<std::mutex> g(m_mutex);
    std::erase(m_writers, writer);
}

void Logger::clearWriters() {
    std::vector<std::shared_ptr<LogWriter>> old;
    {
        std::lock_guard<std::mutex> g(m_mutex);
        old.swap(m_writers);
    }
    // The writers are released outside the mutex.
}

void Logger::resetToDefault() {
    auto writer = makeDefaultWriter();  // reads KIV_LOG_LEVEL and KIV_LOG_FILE again
    std::vector<std::shared_ptr<LogWriter>> old;
    {
        std::lock_guard<std::mutex> g(m_mutex);
        old.swap(m_writers);
        m_writers.push_back(std::move(writer));
    }
}

void Logger::pushSource(const LogSourceHandle& source) { t_sources.push_back(source); }

void Logger::popSource() {
    if (!t_sources.empty()) t_sources.pop_back();
}

const LogSourceHandle* Logger::currentSource() const { return t_sources.empty() ? nullptr : &t_sources.back(); }

// ---------------------------------------------------------------------------
// ScopedLogSource

ScopedLogSource::ScopedLogSource(const LogSourceHandle& source) {
    // A blank source is not pushed, so it does not hide an enclosing one.
    if (source.exists()) {
        Logger::getLogger().pushSource(source);
        m_bPushed = true;
    }
}

ScopedLogSource::~ScopedLogSource() {
    if (m_bPushed) Logger::getLogger().popSource();
}

}  // namespace kiv
