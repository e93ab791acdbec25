#include "qz/platform/logger.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <unistd.h>

#include "qz/platform/exception.h"

namespace kiv {
namespace {

namespace fs = std::filesystem;

#define HERE KIV_FILE_LOCATION("project/platform/logger_test", __LINE__)

// A message value with a fixed text that counts how often it is rendered.
class CountingMessage : public Message {
public:
    explicit CountingMessage(String text) : m_text(std::move(text)) {}
    const String& getId() const noexcept override { return m_id; }
    const std::vector<GDVariant>& getInserts() const noexcept override { return m_inserts; }
    String getText() const override {
        ++renders;
        return m_text;
    }
    mutable std::atomic<int> renders{0};

private:
    String m_id{L"kmsgTest"};
    String m_text;
    std::vector<GDVariant> m_inserts;
};

class LoggerTest : public ::testing::Test {
protected:
    void SetUp() override {
        Logger::getLogger().clearWriters();
        m_log = std::make_shared<CapturingLogWriter>();
        Logger::getLogger().addWriter(m_log);
    }
    void TearDown() override { Logger::getLogger().resetToDefault(); }

    LogRecord only() const {
        const auto r = m_log->records();
        EXPECT_EQ(r.size(), 1u);
        return r.empty() ? LogRecord{kSevTrace, String(), String(), String(), 0} : r.front();
    }

    Logger& logger() { return Logger::getLogger(); }
    std::shared_ptr<CapturingLogWriter> m_log;
};

TEST_F(LoggerTest, CapturingWriterReceivesSeverityTextAndLocation) {
    logger().log(kSevError, GDVariant(L"catalog write failed"), KIV_FILE_LOCATION("src/a.cpp", 123));
    const LogRecord r = only();
    EXPECT_EQ(r.severity, kSevError);
    EXPECT_EQ(r.text, String(L"catalog write failed"));
    EXPECT_EQ(r.file, String(L"src/a.cpp"));
    EXPECT_EQ(r.line, 123);
    EXPECT_EQ(r.source, String());
}

TEST_F(LoggerTest, RecordsArriveInOrderAndClearEmptiesThem) {
    logger().log(kSevInfo, GDVariant(L"one"), HERE);
    logger().log(kSevWarning, GDVariant(L"two"), HERE);
    auto r = m_log->records();
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].text, String(L"one"));
    EXPECT_EQ(r[1].text, String(L"two"));
    m_log->clear();
    EXPECT_TRUE(m_log->records().empty());
}

TEST_F(LoggerTest, NullFileIsRecordedBlank) {
    logger().log(kSevError, GDVariant(L"x"), KIV_FILE_LOCATION(nullptr, 0));
    EXPECT_EQ(only().file, String());
}

TEST_F(LoggerTest, InsertsFillNumberedPlaces) {
    logger().log(kSevError, GDVariant(L"Cannot add %1 to %2."), {GDVariant(L"Sales"), GDVariant(7)}, HERE);
    EXPECT_EQ(only().text, String(L"Cannot add Sales to 7."));
}

TEST_F(LoggerTest, InsertsMayAppearInAnyOrderAndRepeat) {
    logger().log(kSevError, GDVariant(L"%2-%1-%2"), {GDVariant(L"a"), GDVariant(L"b")}, HERE);
    EXPECT_EQ(only().text, String(L"b-a-b"));
}

TEST_F(LoggerTest, DoublePercentIsALiteralPercent) {
    logger().log(kSevError, GDVariant(L"100%% of %1, %%1 stays"), {GDVariant(L"x")}, HERE);
    EXPECT_EQ(only().text, String(L"100% of x, %1 stays"));
}

TEST_F(LoggerTest, MissingInsertsAreLeftAsWritten) {
    logger().log(kSevError, GDVariant(L"%1 and %3 and %0"), {GDVariant(L"x")}, HERE);
    EXPECT_EQ(only().text, String(L"x and %3 and %0"));
}

TEST_F(LoggerTest, TextWithoutInsertsKeepsItsPlaces) {
    logger().log(kSevError, GDVariant(L"value %1"), HERE);
    EXPECT_EQ(only().text, String(L"value %1"));
}

TEST_F(LoggerTest, MessageValueTextIsUsedAndItsPlacesFilled) {
    auto message = std::make_shared<const CountingMessage>(L"Favorite %1 not found");
    logger().log(kSevError, GDVariant(std::shared_ptr<const Message>(message)), {GDVariant(L"/a/b")}, HERE);
    EXPECT_EQ(only().text, String(L"Favorite /a/b not found"));
}

TEST_F(LoggerTest, MessageValueWithoutInsertsIsLoggedAsItsText) {
    auto message = std::make_shared<const CountingMessage>(L"at 100%% and %1");
    logger().log(kSevError, GDVariant(std::shared_ptr<const Message>(message)), HERE);
    EXPECT_EQ(only().text, String(L"at 100%% and %1"));
}

TEST_F(LoggerTest, NothingIsRenderedWhenNoWriterTakesTheSeverity) {
    m_log->setMinimum(kSevError);
    auto message = std::make_shared<const CountingMessage>(L"expensive");
    logger().log(kSevInfo, GDVariant(std::shared_ptr<const Message>(message)), HERE);
    EXPECT_EQ(message->renders.load(), 0);
    EXPECT_TRUE(m_log->records().empty());
    logger().log(kSevError, GDVariant(std::shared_ptr<const Message>(message)), HERE);
    EXPECT_EQ(message->renders.load(), 1);
    EXPECT_EQ(m_log->records().size(), 1u);
}

TEST_F(LoggerTest, IsEnabledReflectsTheWriters) {
    m_log->setMinimum(kSevWarning);
    EXPECT_FALSE(logger().isEnabled(kSevInfo));
    EXPECT_TRUE(logger().isEnabled(kSevWarning));
    EXPECT_TRUE(logger().isEnabled(kSevErrorCritical));

    auto verbose = std::make_shared<CapturingLogWriter>();
    logger().addWriter(verbose);
    EXPECT_TRUE(logger().isEnabled(kSevTrace));
    logger().removeWriter(verbose);
    EXPECT_FALSE(logger().isEnabled(kSevTrace));

    logger().clearWriters();
    EXPECT_FALSE(logger().isEnabled(kSevErrorCritical));
}

TEST_F(LoggerTest, RemovedWriterGetsNothingMore) {
    logger().log(kSevError, GDVariant(L"first"), HERE);
    logger().removeWriter(m_log);
    logger().log(kSevError, GDVariant(L"second"), HERE);
    EXPECT_EQ(only().text, String(L"first"));
}

TEST_F(LoggerTest, EveryWriterGetsTheRecord) {
    auto second = std::make_shared<CapturingLogWriter>();
    logger().addWriter(second);
    logger().log(kSevError, GDVariant(L"both"), HERE);
    EXPECT_EQ(m_log->records().size(), 1u);
    EXPECT_EQ(second->records().size(), 1u);
}

TEST_F(LoggerTest, ExplicitSourceIsRecorded) {
    const LogSourceHandle source(String(L"favorites"));
    logger().log(kSevError, GDVariant(L"x"), HERE, &source);
    EXPECT_EQ(only().source, String(L"favorites"));
}

TEST_F(LoggerTest, ThreadSourceIsUsedWhenNoneIsGiven) {
    const LogSourceHandle source(String(L"catalog"));
    logger().pushSource(source);
    ASSERT_NE(logger().currentSource(), nullptr);
    EXPECT_EQ(logger().currentSource()->getName(), String(L"catalog"));
    logger().log(kSevError, GDVariant(L"x"), HERE);
    logger().popSource();
    EXPECT_EQ(logger().currentSource(), nullptr);
    EXPECT_EQ(only().source, String(L"catalog"));
}

TEST_F(LoggerTest, ExplicitSourceWinsOverTheThreadSource) {
    const LogSourceHandle outer(String(L"outer"));
    const LogSourceHandle mine(String(L"mine"));
    ScopedLogSource scope(outer);
    logger().log(kSevError, GDVariant(L"x"), HERE, &mine);
    EXPECT_EQ(only().source, String(L"mine"));
}

TEST_F(LoggerTest, ScopedSourcesNestAndPop) {
    {
        ScopedLogSource a(LogSourceHandle(String(L"a")));
        {
            ScopedLogSource b(LogSourceHandle(String(L"b")));
            logger().log(kSevError, GDVariant(L"in b"), HERE);
        }
        logger().log(kSevError, GDVariant(L"in a"), HERE);
    }
    logger().log(kSevError, GDVariant(L"outside"), HERE);
    const auto r = m_log->records();
    ASSERT_EQ(r.size(), 3u);
    EXPECT_EQ(r[0].source, String(L"b"));
    EXPECT_EQ(r[1].source, String(L"a"));
    EXPECT_EQ(r[2].source, String());
    EXPECT_EQ(logger().currentSource(), nullptr);
}

TEST_F(LoggerTest, BlankScopedSourceDoesNotHideTheEnclosingOne) {
    ScopedLogSource a(LogSourceHandle(String(L"a")));
    {
        ScopedLogSource blank{LogSourceHandle()};
        logger().log(kSevError, GDVariant(L"x"), HERE);
    }
    EXPECT_EQ(only().source, String(L"a"));
    ASSERT_NE(logger().currentSource(), nullptr);
    EXPECT_EQ(logger().currentSource()->getName(), String(L"a"));
}

TEST_F(LoggerTest, AnotherThreadDoesNotSeeThisThreadsSource) {
    ScopedLogSource mine(LogSourceHandle(String(L"main-thread")));
    bool bOtherHasSource = true;
    std::thread t([&] {
        bOtherHasSource = Logger::getLogger().currentSource() != nullptr;
        Logger::getLogger().log(kSevError, GDVariant(L"from other"), HERE);
    });
    t.join();
    EXPECT_FALSE(bOtherHasSource);
    EXPECT_EQ(only().source, String());
}

TEST_F(LoggerTest, PoppingAnEmptyStackIsHarmless) {
    logger().popSource();
    EXPECT_EQ(logger().currentSource(), nullptr);
}

TEST_F(LoggerTest, ExceptionIsLoggedWithItsTextAsAnError) {
    const Exception e(String(L"disk full at 100%"));
    logger().logException(e, KIV_FILE_LOCATION("src/b.cpp", 9));
    const LogRecord r = only();
    EXPECT_EQ(r.severity, kSevError);
    EXPECT_EQ(r.text, String(L"disk full at 100%"));
    EXPECT_EQ(r.file, String(L"src/b.cpp"));
    EXPECT_EQ(r.line, 9);
}

TEST_F(LoggerTest, ExceptionMayBeLoggedAtAnotherSeverityAndSource) {
    const LogSourceHandle source(String(L"upgrade"));
    logger().logException(Utf8Error(String(L"bad %% text")), HERE, &source, kSevErrorCritical);
    const LogRecord r = only();
    EXPECT_EQ(r.severity, kSevErrorCritical);
    EXPECT_EQ(r.text, String(L"bad %% text"));
    EXPECT_EQ(r.source, String(L"upgrade"));
}

// A writer that logs once from inside write().
class ReentrantWriter : public LogWriter {
public:
    bool isEnabled(ESeverity) const override { return true; }
    void write(const LogRecord& r) override {
        texts.push_back(r.text);
        if (texts.size() == 1) Logger::getLogger().log(kSevInfo, GDVariant(L"nested"), HERE);
    }
    std::vector<String> texts;
};

TEST_F(LoggerTest, WriterMayLogWithoutDeadlock) {
    auto w = std::make_shared<ReentrantWriter>();
    logger().addWriter(w);
    logger().log(kSevError, GDVariant(L"outer"), HERE);
    ASSERT_EQ(w->texts.size(), 2u);
    EXPECT_EQ(w->texts[0], String(L"outer"));
    EXPECT_EQ(w->texts[1], String(L"nested"));
    const auto r = m_log->records();
    ASSERT_EQ(r.size(), 2u);
}

// A writer that logs on every record: the nesting is cut off, not endless.
class AlwaysLoggingWriter : public LogWriter {
public:
    bool isEnabled(ESeverity) const override { return true; }
    void write(const LogRecord&) override {
        ++writes;
        Logger::getLogger().log(kSevInfo, GDVariant(L"again"), HERE);
    }
    int writes = 0;
};

TEST_F(LoggerTest, EndlesslyLoggingWriterIsCutOff) {
    auto w = std::make_shared<AlwaysLoggingWriter>();
    logger().addWriter(w);
    logger().log(kSevError, GDVariant(L"start"), HERE);
    EXPECT_GT(w->writes, 1);
    EXPECT_LT(w->writes, 10);
}

class ThrowingWriter : public LogWriter {
public:
    bool isEnabled(ESeverity) const override { return true; }
    void write(const LogRecord&) override { throw std::runtime_error("writer broke"); }
};

TEST_F(LoggerTest, FailingWriterDoesNotStopTheOthers) {
    logger().clearWriters();
    logger().addWriter(std::make_shared<ThrowingWriter>());
    logger().addWriter(m_log);
    EXPECT_NO_THROW(logger().log(kSevError, GDVariant(L"still logged"), HERE));
    EXPECT_EQ(only().text, String(L"still logged"));
}

TEST_F(LoggerTest, AddingANullWriterIsIgnored) {
    logger().addWriter(nullptr);
    EXPECT_NO_THROW(logger().log(kSevError, GDVariant(L"x"), HERE));
    EXPECT_EQ(m_log->records().size(), 1u);
}

// --- the default writer ----------------------------------------------------------

class EnvVar {
public:
    explicit EnvVar(const char* name) : m_name(name) {
        if (const char* v = std::getenv(name)) m_saved = v;
    }
    ~EnvVar() {
        if (m_saved) ::setenv(m_name, m_saved->c_str(), 1);
        else ::unsetenv(m_name);
    }
    void set(const std::string& value) { ::setenv(m_name, value.c_str(), 1); }
    void unset() { ::unsetenv(m_name); }

private:
    const char* m_name;
    std::optional<std::string> m_saved;
};

std::string readAll(const fs::path& p) {
    std::ifstream in(p);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

TEST_F(LoggerTest, DefaultWriterTakesWarningsAndAbove) {
    EnvVar level("KIV_LOG_LEVEL");
    level.unset();
    logger().resetToDefault();
    EXPECT_FALSE(logger().isEnabled(kSevInfo));
    EXPECT_TRUE(logger().isEnabled(kSevWarning));
}

TEST_F(LoggerTest, DefaultWriterLevelComesFromTheEnvironment) {
    EnvVar level("KIV_LOG_LEVEL");
    level.set("1");
    logger().resetToDefault();
    EXPECT_FALSE(logger().isEnabled(kSevTrace));
    EXPECT_TRUE(logger().isEnabled(kSevDebug));
    level.set("5");
    logger().resetToDefault();
    EXPECT_FALSE(logger().isEnabled(kSevError));
    EXPECT_TRUE(logger().isEnabled(kSevErrorCritical));
    level.set("loud");  // not a level: the default
    logger().resetToDefault();
    EXPECT_FALSE(logger().isEnabled(kSevInfo));
    EXPECT_TRUE(logger().isEnabled(kSevWarning));
}

TEST_F(LoggerTest, ResetToDefaultDropsAddedWriters) {
    logger().resetToDefault();
    logger().log(kSevErrorCritical, GDVariant(L"only to the default writer"), HERE);
    EXPECT_TRUE(m_log->records().empty());
}

TEST_F(LoggerTest, DefaultWriterWritesToTheNamedFile) {
    EnvVar file("KIV_LOG_FILE");
    EnvVar level("KIV_LOG_LEVEL");
    level.unset();
    const fs::path p = fs::temp_directory_path() / ("kiv_logger_test_" + std::to_string(::getpid()) + ".log");
    fs::remove(p);
    file.set(p.string());
    logger().resetToDefault();
    const LogSourceHandle source(String(L"src"));
    logger().log(kSevError, GDVariant(L"written %1"), {GDVariant(L"caf\u00E9")}, KIV_FILE_LOCATION("f.cpp", 5), &source);
    logger().log(kSevInfo, GDVariant(L"too low"), HERE);
    logger().clearWriters();  // closes the file
    const std::string text = readAll(p);
    fs::remove(p);
    EXPECT_NE(text.find("ERROR [src] written caf\xC3\xA9 (f.cpp:5)"), std::string::npos) << text;
    EXPECT_EQ(text.find("too low"), std::string::npos) << text;
}

// --- formatInserts -------------------------------------------------------------

TEST(FormatInserts, FillsPlacesFromTheirTexts) {
    EXPECT_EQ(formatInserts(L"%1/%2/%3", {GDVariant(1), GDVariant(true), GDVariant(2.5)}), String(L"1/true/2.5"));
}

TEST(FormatInserts, TwoDigitPlaceNumbers) {
    std::vector<GDVariant> inserts;
    for (int i = 1; i <= 12; ++i) inserts.emplace_back(i * 10);
    EXPECT_EQ(formatInserts(L"%12 %1", inserts), String(L"120 10"));
}

TEST(FormatInserts, EmptyInsertLeavesThePlace) {
    EXPECT_EQ(formatInserts(L"[%1][%2]", {GDVariant(), GDVariant(L"b")}), String(L"[%1][b]"));
}

TEST(FormatInserts, InsertedTextIsNotScannedAgain) {
    EXPECT_EQ(formatInserts(L"%1", {GDVariant(L"%2"), GDVariant(L"Z")}), String(L"%2"));
    EXPECT_EQ(formatInserts(L"%1", {GDVariant(L"50%%")}), String(L"50%%"));
}

TEST(FormatInserts, LonePercentSignsStay) {
    EXPECT_EQ(formatInserts(L"100%", {}), String(L"100%"));
    EXPECT_EQ(formatInserts(L"%a %", {GDVariant(L"x")}), String(L"%a %"));
    EXPECT_EQ(formatInserts(L"", {GDVariant(L"x")}), String());
}

TEST(FormatInserts, HugePlaceNumberStaysAsWritten) {
    EXPECT_EQ(formatInserts(L"%99999999999999999999999", {GDVariant(L"x")}), String(L"%99999999999999999999999"));
}

}  // namespace
}  // namespace kiv
