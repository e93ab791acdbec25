#include "qz/platform/message.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "qz/platform/config.h"
#include "qz/platform/logger.h"

namespace kiv {
namespace {

namespace fs = std::filesystem;

// A data directory of its own for each test, made current for the test's
// duration; the registry is re-read on the next lookup.
class MessageTest : public ::testing::Test {
protected:
    void SetUp() override {
        static int counter = 0;
        m_dir = fs::temp_directory_path() /
                ("kiv_message_test_" + std::to_string(::getpid()) + "_" + std::to_string(++counter));
        fs::create_directories(m_dir / "messages");
        m_previous = config::getCurrent();
        config::setCurrent(std::make_shared<ConfigReader>(
            std::map<int, String>{{ConfigReader::kDataDirectory, String::fromUtf8(m_dir.string())}}, 1.0));
        MessageFilesRegistry::getRegistry().reload();
        // Files registered by earlier tests are missing from this test's
        // directory; keep their error lines out of the output.
        m_quiet = std::make_shared<CapturingLogWriter>();
        Logger::getLogger().clearWriters();
        Logger::getLogger().addWriter(m_quiet);
    }
    void TearDown() override {
        Logger::getLogger().resetToDefault();
        config::setCurrent(m_previous);
        MessageFilesRegistry::getRegistry().reload();
        std::error_code ec;
        fs::remove_all(m_dir, ec);
    }
    void writeMessages(const std::string& file, const std::string& content) {
        std::ofstream(m_dir / "messages" / file, std::ios::binary) << content;
    }
    fs::path m_dir;
    std::shared_ptr<const ConfigReader> m_previous;
    std::shared_ptr<CapturingLogWriter> m_quiet;
};

const char* kTestMessages =
    "<?xml version='1.0' encoding='UTF-8'?>\n"
    "<messages>\n"
    "  <message id='kmsgTestPlain'>A plain text.</message>\n"
    "  <message id='kmsgTestOne'>\n    Item '%1' is gone.\n  </message>\n"
    "  <message id='kmsgTestTwo'>%2 before %1, 100%% sure.</message>\n"
    "</messages>\n";

TEST_F(MessageTest, RegisteredTextsResolve) {
    writeMessages("test-a.xml", kTestMessages);
    MessageFilesRegistry::getRegistry().registerMessageFiles(L"test-a.xml");
    EXPECT_EQ(MessageFilesRegistry::getRegistry().lookup(L"kmsgTestPlain"), String(L"A plain text."));
    // Surrounding whitespace of the element's text is trimmed.
    EXPECT_EQ(MessageFilesRegistry::getRegistry().lookup(L"kmsgTestOne"), String(L"Item '%1' is gone."));
    EXPECT_FALSE(MessageFilesRegistry::getRegistry().lookup(L"kmsgNoSuchMessage").has_value());
    const auto files = MessageFilesRegistry::getRegistry().registeredFiles();
    EXPECT_NE(std::find(files.begin(), files.end(), String(L"test-a.xml")), files.end());
}

TEST_F(MessageTest, RegisteringTheSameFileTwiceKeepsOneEntry) {
    writeMessages("test-a.xml", kTestMessages);
    MessageFilesRegistry::getRegistry().registerMessageFiles(L"test-a.xml");
    MessageFilesRegistry::getRegistry().registerMessageFiles(L"test-a.xml");
    const auto files = MessageFilesRegistry::getRegistry().registeredFiles();
    EXPECT_EQ(std::count(files.begin(), files.end(), String(L"test-a.xml")), 1);
}

TEST_F(MessageTest, FileRegisteredAfterALookupIsLoadedOnTheNextLookup) {
    writeMessages("test-a.xml", kTestMessages);
    writeMessages("test-late.xml", "<messages><message id='kmsgTestLate'>Late.</message></messages>");
    MessageFilesRegistry::getRegistry().registerMessageFiles(L"test-a.xml");
    EXPECT_FALSE(MessageFilesRegistry::getRegistry().lookup(L"kmsgTestLate").has_value());
    MessageFilesRegistry::getRegistry().registerMessageFiles(L"test-late.xml");
    EXPECT_EQ(MessageFilesRegistry::getRegistry().lookup(L"kmsgTestLate"), String(L"Late."));
    EXPECT_EQ(MessageFilesRegistry::getRegistry().lookup(L"kmsgTestPlain"), String(L"A plain text."));
}

TEST_F(MessageTest, ExternalMessageResolvesItsText) {
    writeMessages("test-a.xml", kTestMessages);
    MessageFilesRegistry::getRegistry().registerMessageFiles(L"test-a.xml");
    ExternalMessage plain(L"kmsgTestPlain");
    EXPECT_EQ(plain.getId(), L"kmsgTestPlain");
    EXPECT_TRUE(plain.getInserts().empty());
    EXPECT_EQ(plain.getText(), L"A plain text.");
    // Without inserts, a %1 stays as written.
    EXPECT_EQ(ExternalMessage(L"kmsgTestOne").getText(), L"Item '%1' is gone.");
}

TEST_F(MessageTest, UnknownExternalMessageReadsAsItsIdentifier) {
    EXPECT_EQ(ExternalMessage(L"kmsgNotDefinedAnywhere").getText(), L"kmsgNotDefinedAnywhere");
}

TEST_F(MessageTest, ParamMessageFillsItsInserts) {
    writeMessages("test-a.xml", kTestMessages);
    MessageFilesRegistry::getRegistry().registerMessageFiles(L"test-a.xml");
    ParamMessage one(ExternalMessage(L"kmsgTestOne"));
    one.setParam(1, GDVariant(String(L"/shared/Q1")));
    EXPECT_EQ(one.getId(), L"kmsgTestOne");
    EXPECT_EQ(one.getText(), L"Item '/shared/Q1' is gone.");

    ParamMessage two(ExternalMessage(L"kmsgTestTwo"));
    two.setParam(2, GDVariant(String(L"second")));
    two.setParam(1, GDVariant(42));
    EXPECT_EQ(two.getText(), L"second before 42, 100% sure.");
}

TEST_F(MessageTest, SetParamGrowsTheInsertsAndNumbersFromOne) {
    ParamMessage m(ExternalMessage(L"kmsgAny"));
    m.setParam(3, GDVariant(String(L"c")));
    ASSERT_EQ(m.getInserts().size(), 3u);
    EXPECT_TRUE(m.getInserts()[0].isEmpty());
    EXPECT_TRUE(m.getInserts()[1].isEmpty());
    EXPECT_EQ(m.getInserts()[2], GDVariant(String(L"c")));
    m.setParam(1, GDVariant(String(L"a")));
    EXPECT_EQ(m.getInserts().size(), 3u);
    EXPECT_EQ(m.getInserts()[0], GDVariant(String(L"a")));
    m.setParam(1, GDVariant(String(L"A")));
    EXPECT_EQ(m.getInserts()[0], GDVariant(String(L"A")));
    m.setParam(0, GDVariant(String(L"ignored")));
    EXPECT_EQ(m.getInserts().size(), 3u);
}

TEST_F(MessageTest, UnknownParamMessageReadsAsIdentifierFollowedByInserts) {
    ParamMessage m(ExternalMessage(L"kmsgNotDefinedAnywhere"));
    EXPECT_EQ(m.getText(), L"kmsgNotDefinedAnywhere");
    m.setParam(1, GDVariant(String(L"/a/b")));
    m.setParam(2, GDVariant(7));
    EXPECT_EQ(m.getText(), L"kmsgNotDefinedAnywhere: /a/b, 7");
}

TEST_F(MessageTest, MessagesAsVariantsResolveThroughTheRegistry) {
    writeMessages("test-a.xml", kTestMessages);
    MessageFilesRegistry::getRegistry().registerMessageFiles(L"test-a.xml");
    auto p = std::make_shared<ParamMessage>(ExternalMessage(L"kmsgTestOne"));
    p->setParam(1, GDVariant(String(L"x")));
    GDVariant v{std::shared_ptr<const Message>(p)};
    EXPECT_EQ(v.toText(), L"Item 'x' is gone.");
}

// Captures what is logged in a scope (inside a MessageTest, whose fixture
// restores the default writer afterwards).
class CapturingScope {
public:
    CapturingScope() : m_writer(std::make_shared<CapturingLogWriter>()) {
        Logger::getLogger().clearWriters();
        Logger::getLogger().addWriter(m_writer);
    }
    std::shared_ptr<CapturingLogWriter> writer() const { return m_writer; }

private:
    std::shared_ptr<CapturingLogWriter> m_writer;
};

TEST_F(MessageTest, MissingMessageFileIsLoggedAndSkipped) {
    CapturingScope capture;
    writeMessages("test-a.xml", kTestMessages);
    MessageFilesRegistry::getRegistry().registerMessageFiles(L"test-missing.xml");
    MessageFilesRegistry::getRegistry().registerMessageFiles(L"test-a.xml");
    EXPECT_EQ(MessageFilesRegistry::getRegistry().lookup(L"kmsgTestPlain"), String(L"A plain text."));

    bool logged = false;
    for (const LogRecord& r : capture.writer()->records()) {
        if (r.severity == kSevError && r.text.find(L"test-missing.xml") != String::npos) logged = true;
    }
    EXPECT_TRUE(logged);
    // Logged once per load, not on every lookup.
    capture.writer()->clear();
    EXPECT_TRUE(MessageFilesRegistry::getRegistry().lookup(L"kmsgTestPlain").has_value());
    EXPECT_TRUE(capture.writer()->records().empty());
}

TEST_F(MessageTest, MalformedMessageFileIsLoggedAndSkipped) {
    CapturingScope capture;
    writeMessages("test-bad.xml", "<messages><message id='kmsgBad'>unterminated</messages>");
    writeMessages("test-a.xml", kTestMessages);
    MessageFilesRegistry::getRegistry().registerMessageFiles(L"test-bad.xml");
    MessageFilesRegistry::getRegistry().registerMessageFiles(L"test-a.xml");
    EXPECT_FALSE(MessageFilesRegistry::getRegistry().lookup(L"kmsgBad").has_value());
    EXPECT_TRUE(MessageFilesRegistry::getRegistry().lookup(L"kmsgTestPlain").has_value());
    bool logged = false;
    for (const LogRecord& r : capture.writer()->records())
        logged |= r.severity == kSevError && r.text.find(L"test-bad.xml") != String::npos;
    EXPECT_TRUE(logged);
}

TEST_F(MessageTest, FirstRegisteredFileWinsForADuplicateIdentifier) {
    writeMessages("test-a.xml", kTestMessages);
    writeMessages("test-dup.xml", "<messages><message id='kmsgTestPlain'>Other.</message></messages>");
    MessageFilesRegistry::getRegistry().registerMessageFiles(L"test-a.xml");
    MessageFilesRegistry::getRegistry().registerMessageFiles(L"test-dup.xml");
    EXPECT_EQ(MessageFilesRegistry::getRegistry().lookup(L"kmsgTestPlain"), String(L"A plain text."));
}

// -- the favorites message file shipped in the data directory ----------------------------

class FavoritesMessagesTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_previous = config::getCurrent();
        config::setCurrent(std::make_shared<ConfigReader>(
            std::map<int, String>{{ConfigReader::kDataDirectory, String::fromUtf8(KIV_TEST_DATA_DIR)}}, 1.0));
        MessageFilesRegistry::getRegistry().registerMessageFiles(L"favoritesmessages.xml");
        MessageFilesRegistry::getRegistry().reload();
        Logger::getLogger().clearWriters();
        Logger::getLogger().addWriter(std::make_shared<CapturingLogWriter>());
    }
    void TearDown() override {
        Logger::getLogger().resetToDefault();
        config::setCurrent(m_previous);
        MessageFilesRegistry::getRegistry().reload();
    }
    std::shared_ptr<const ConfigReader> m_previous;
};

TEST_F(FavoritesMessagesTest, EveryFavoritesMessageHasAText) {
    const wchar_t* withInsert[] = {
        L"kmsgFavoritesErrorInvalidFavoritesPath", L"kmsgFavoritesErrorItemAlreadyExists",
        L"kmsgFavoritesErrorItemCannotHaveChild", L"kmsgFavoritesErrorItemDoesNotExitsInCatalog"};
    const wchar_t* withoutInsert[] = {L"kmsgFavoritesErrorFavoritesOutOfSync",
                                      L"kmsgFavoritesErrorInvalidFavoritesJson",
                                      L"kmsgFavoritesErrorInvalidItem", L"kmsgFavoritesErrorUnknownError"};
    for (const wchar_t* id : withInsert) {
        auto text = MessageFilesRegistry::getRegistry().lookup(id);
        ASSERT_TRUE(text.has_value()) << String(id).toUtf8();
        EXPECT_NE(text->find(L"%1"), String::npos) << String(id).toUtf8();
        ParamMessage m{ExternalMessage(id)};
        m.setParam(1, GDVariant(String(L"/shared/Sales")));
        EXPECT_NE(m.getText().find(L"/shared/Sales"), String::npos) << m.getText().toUtf8();
        EXPECT_EQ(m.getText().find(L"%1"), String::npos);
    }
    for (const wchar_t* id : withoutInsert) {
        auto text = MessageFilesRegistry::getRegistry().lookup(id);
        ASSERT_TRUE(text.has_value()) << String(id).toUtf8();
        EXPECT_EQ(text->find(L"%"), String::npos) << String(id).toUtf8();
        EXPECT_EQ(ExternalMessage(id).getText(), *text);
        EXPECT_GT(text->size(), 10u);
    }
}

}  // namespace
}  // namespace kiv
