// Logger: the process logger, log sources and log writers.
//
// A message is logged with a severity, a text or message value whose "%1",
// "%2", ... inserts are filled in, a source location, and a log source: the
// one given, else the top of the calling thread's source stack, else none.
// Writers decide which severities they take; `isEnabled` is the test callers
// make before building an expensive message. The default writer prints to
// standard error from kSevWarning up (KIV_LOG_FILE names a file instead,
// KIV_LOG_LEVEL a number 0-5 for the lowest severity written). Tests add a
// CapturingLogWriter and read back what was logged.
//
// Thread safety: all operations may be called from any thread; the source
// stack is per thread.
#pragma once

#include "qz/platform/export.h"

#include <initializer_list>
#include <memory>
#include <mutex>
#include <vector>

#include "qz/platform/gdvariant.h"
#include "qz/platform/string.h"

namespace kiv {

class Exception;

enum ESeverity : int {
    kSevTrace = 0,
    kSevDebug = 1,
    kSevInfo = 2,
    kSevWarning = 3,
    kSevError = 4,
    kSevErrorCritical = 5,
};

// A named log source. Cheap to copy; `exists()` is false for a blank name.
class KIV_API LogSourceHandle {
public:
    LogSourceHandle() = default;
    explicit LogSourceHandle(String name) : m_name(std::move(name)) {}
    const String& getName() const noexcept { return m_name; }
    bool exists() const noexcept { return !m_name.empty(); }

private:
    String m_name;
};

struct KIV_API LogRecord {
    ESeverity severity;
    String source;  // blank when none
    String text;    // inserts filled in
    String file;
    int line;
};

class KIV_API LogWriter {
public:
    virtual ~LogWriter() = default;
    virtual bool isEnabled(ESeverity sev) const = 0;
    virtual void write(const LogRecord& record) = 0;
};

// Keeps every record it is given (all severities); for tests.
class KIV_API CapturingLogWriter : public LogWriter {
public:
    bool isEnabled(ESeverity sev) const override { return sev >= m_minimum; }
    void write(const LogRecord& record) override;
    std::vector<LogRecord> records() const;
    void clear();
    void setMinimum(ESeverity sev) { m_minimum = sev; }

private:
    mutable std::mutex m_mutex;
    std::vector<LogRecord> m_records;
    ESeverity m_minimum = kSevTrace;
};

class KIV_API Logger {
public:
    struct FileLocation {
        const char* file;
        int line;
    };

    static Logger& getLogger();

    // True when at least one writer takes this severity.
    bool isEnabled(ESeverity sev) const;

    // `message` is a text with %n inserts, or a Message value.
    void log(ESeverity sev, const GDVariant& message, std::initializer_list<GDVariant> inserts,
             const FileLocation& fl, const LogSourceHandle* source = nullptr);
    void log(ESeverity sev, const GDVariant& message, const FileLocation& fl,
             const LogSourceHandle* source = nullptr) {
        log(sev, message, {}, fl, source);
    }
    // Logs an exception's message; default severity kSevError.
    void logException(const Exception& e, const FileLocation& fl, const LogSourceHandle* source = nullptr,
                      ESeverity sev = kSevError);

    void addWriter(std::shared_ptr<LogWriter> writer);
    void removeWriter(const std::shared_ptr<LogWriter>& writer);
    // Removes every writer, the default one included.
    void clearWriters();
    // Restores the default writer alone.
    void resetToDefault();

    // The calling thread's source stack.
    void pushSource(const LogSourceHandle& source);
    void popSource();
    const LogSourceHandle* currentSource() const;

private:
    Logger();
    std::vector<std::shared_ptr<LogWriter>> enabledWriters(ESeverity sev) const;
    mutable std::mutex m_mutex;
    std::vector<std::shared_ptr<LogWriter>> m_writers;
};

// Pushes a log source for a scope; pops it on the way out.
class KIV_API ScopedLogSource {
public:
    explicit ScopedLogSource(const LogSourceHandle& source);
    ~ScopedLogSource();
    ScopedLogSource(const ScopedLogSource&) = delete;
    ScopedLogSource& operator=(const ScopedLogSource&) = delete;

private:
    bool m_bPushed = false;
};

// Fills "%1", "%2", ... in `text` with the text of inserts[0], [1], ...
// "%%" is a literal percent sign; an insert number with no value is left as is.
KIV_API String formatInserts(const String& text, const std::vector<GDVariant>& inserts);

}  // namespace kiv

#define KIV_FILE_LOCATION(file, line) (::kiv::Logger::FileLocation{(file), (line)})
