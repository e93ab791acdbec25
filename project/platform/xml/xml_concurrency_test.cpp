// The schema cache and the parser used from several threads at once.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "qz/platform/message.h"
#include "qz/platform/xml.h"

namespace kiv {
namespace {

namespace fs = std::filesystem;

constexpr int kThreads = 4;
constexpr int kRounds = 50;

const char* kValid =
    "<favoritelist xmlns='urn:kiv-web:favorites/v1'>"
    "<favorite xmlns='' name='Sales' type='category'>"
    "<favorite name='Q1' catalogpath='/shared/Q1' type='catalogitem'/></favorite></favoritelist>";
const char* kInvalid = "<favoritelist xmlns='urn:kiv-web:favorites/v1'><folder xmlns=''/></favoritelist>";

// A copy of the favorites schema under a path no other test uses, so the
// first validations of all threads race to compile it.
String freshSchemaCopy() {
    static std::atomic<int> counter{0};
    const fs::path dst = fs::temp_directory_path() / ("kiv_xml_concurrency_" + std::to_string(::getpid()) +
                                                      "_" + std::to_string(++counter) + ".xsd");
    fs::copy_file(KIV_TEST_DATA_DIR "/schemas/favorites.xsd", dst, fs::copy_options::overwrite_existing);
    return String::fromUtf8(dst.string());
}

// Runs body(t) for t = 0 .. kThreads-1, each on its own thread, all released
// at once, and waits for them.
void onThreads(const std::function<void(int)>& body) {
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            body(t);
        });
    }
    for (auto& th : threads) th.join();
}

TEST(XmlConcurrencyTest, SchemaCacheServesFourThreadsValidatingAtOnce) {
    const String schema = freshSchemaCopy();
    std::atomic<int> validOk{0}, invalidRejected{0}, wrong{0};
    onThreads([&](int) {
        XmlValidator validator({xml::SchemaLocation(L"urn:kiv-web:favorites/v1", schema)});
        for (int i = 0; i < kRounds; ++i) {
            // Each thread parses its own documents; only the schema is shared.
            auto good = XmlDocument::fromBuffer(kValid, std::char_traits<char>::length(kValid));
            auto bad = XmlDocument::fromBuffer(kInvalid, std::char_traits<char>::length(kInvalid));
            std::vector<String> errors;
            if (validator.validate(*good, errors) && errors.empty())
                ++validOk;
            else
                ++wrong;
            errors.clear();
            if (!validator.validate(*bad, errors) && !errors.empty())
                ++invalidRejected;
            else
                ++wrong;
        }
    });
    std::error_code ec;
    fs::remove(schema.toUtf8(), ec);
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(validOk.load(), kThreads * kRounds);
    EXPECT_EQ(invalidRejected.load(), kThreads * kRounds);
}

TEST(XmlConcurrencyTest, HostileDocumentsFailOnEveryThread) {
    std::atomic<int> failures{0};
    const std::string bomb = "<!DOCTYPE x [<!ENTITY a 'aaaa'><!ENTITY b '&a;&a;&a;&a;'>]><x>&b;</x>";
    const std::string broken = "<x><y></x>";
    onThreads([&](int) {
        for (int i = 0; i < kRounds; ++i) {
            for (const std::string* text : {&bomb, &broken}) {
                XmlDocument doc;
                try {
                    doc.parse(text->data(), text->size());
                } catch (const XmlException&) {
                    ++failures;
                }
            }
        }
    });
    EXPECT_EQ(failures.load(), kThreads * kRounds * 2);
}

// Each thread builds and writes documents of its own: the per-thread buffer
// that attribute values pass through never mixes one thread's text with
// another's.
TEST(XmlConcurrencyTest, ThreadsBuildingDocumentsKeepTheirOwnValues) {
    std::atomic<int> mismatches{0};
    onThreads([&](int t) {
        for (int i = 0; i < kRounds; ++i) {
            XmlDocument doc;
            XmlElement* root = doc.createXmlElement(XmlQualifiedName(L"list"));
            doc.setRootElement(root, XmlDocument::kSplice);
            const String value = String(L"thread ") + String(std::to_wstring(t)) + L" round " +
                                 String(std::to_wstring(i)) + L" \u00e9\u4e2d";
            for (int k = 0; k < 20; ++k)
                root->appendXmlElement(XmlQualifiedName(L"e"))->setAttributeValue(XmlQualifiedName(L"v"), value);
            std::string out;
            doc.serialize([&out](const char* data, std::size_t size) { out.append(data, size); });
            Handle<XmlDocument> back = XmlDocument::fromBuffer(out.data(), out.size());
            for (XmlElement* e = back->getRootElementRef().getFirstChildElement(); e; e = e->getNextSiblingElement())
                if (e->getAttributeValue(L"v", XmlElement::kRequired) != value) ++mismatches;
        }
    });
    EXPECT_EQ(mismatches.load(), 0);
}

TEST(XmlConcurrencyTest, MessageLookupsFromSeveralThreadsAgree) {
    std::atomic<int> mismatches{0};
    onThreads([&](int t) {
        for (int i = 0; i < kRounds; ++i) {
            if (t == 0 && i % 10 == 0) MessageFilesRegistry::getRegistry().reload();
            ParamMessage m(ExternalMessage(L"kmsgNotDefinedInAnyFile"));
            m.setParam(1, GDVariant(String(L"x")));
            if (m.getText() != L"kmsgNotDefinedInAnyFile: x") ++mismatches;
        }
    });
    EXPECT_EQ(mismatches.load(), 0);
}

}  // namespace
}  // namespace kiv
