#include "favoritesdocument.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <functional>

#include "favoritesopen.h"
#include "hosterrors.h"
#include "qz/platform/xml.h"
#include "qz/webcatalog/faultinjectingcatalog.h"
#include "qz/webcatalog/readerwriter.h"
#include "qz/webcatalog/sqlitecatalog.h"

namespace kiv::host {
namespace {

const char* const kHead = "<favoritelist xmlns=\"urn:kiv-web:favorites/v1\">";

TEST(FavoritesDocument, ADocumentTheLoadReadsIsReadableWithWhatItHolds) {
    const FavoritesDocumentCheck c = checkFavoritesDocument(
        std::string(kHead) +
        "<favorite name=\"Sales\" type=\"category\"><favorite name=\"r\" catalogpath=\"/shared/r\" "
        "type=\"catalogitem\"/><favorite name=\"Q1\" type=\"Category\"/></favorite></favoritelist>");
    EXPECT_TRUE(c.readable()) << c.problem;
    EXPECT_EQ(c.categories, 2u);
    EXPECT_EQ(c.items, 1u);
}

TEST(FavoritesDocument, ADocumentThatDoesNotParseNamesTheParseError) {
    const FavoritesDocumentCheck c = checkFavoritesDocument(std::string(kHead) + "<favorite");
    EXPECT_FALSE(c.readable());
    EXPECT_NE(c.problem.find("cannot be read"), std::string::npos) << c.problem;
}

TEST(FavoritesDocument, ADocumentOutsideTheSchemaSaysSo) {
    const FavoritesDocumentCheck c = checkFavoritesDocument("<favoritelist xmlns=\"urn:other\"/>");
    EXPECT_NE(c.problem.find("favorites schema"), std::string::npos) << c.problem;
}

TEST(FavoritesDocument, ANameTheCatalogRefusesStopsTheLoadAndIsNamed) {
    for (const char* name : {"", "a&#9;b", "   "}) {
        const FavoritesDocumentCheck c = checkFavoritesDocument(std::string(kHead) + "<favorite name=\"" + name +
                                                                "\" type=\"category\"/></favoritelist>");
        EXPECT_NE(c.problem.find("a name or path the catalog refuses"), std::string::npos) << name << c.problem;
    }
    const FavoritesDocumentCheck path = checkFavoritesDocument(
        std::string(kHead) + "<favorite name=\"r\" catalogpath=\"no-slash\" type=\"catalogitem\"/></favoritelist>");
    EXPECT_FALSE(path.readable());
}

class ReadBackCatalogTest : public ::testing::Test {
protected:
    void SetUp() override {
        store = catalog::SqliteCatalog::openInMemory();
        store->addUser(L"alice", {});
        store->makeFolder(catalog::Path(L"/users/alice"));
        store->setAccess(catalog::Path(L"/users/alice"), L"alice", false, catalog::Rights::kWrite);
        keepFavoritesHistory(*store, 5);
        alice = store->tokenFor(L"alice");
    }
    std::unique_ptr<catalog::SqliteCatalog> store;
    AccountToken alice;
    const catalog::Path path{L"/users/alice/favorites"};
};

TEST_F(ReadBackCatalogTest, AnAddThatWouldNestFavoritesDeeperThanTheReaderTakesIsRefusedAndTheStoredTreeKept) {
    ReadBackCatalog guarded(*store);
    Handle<FavoritesManager> m = openFavoritesManager(guarded, alice, path);
    // The document's root element is one level; each category one more.
    String parent(L"/root");
    for (int depth = 1; depth < XmlDocument::kMaxDepth; ++depth) {
        Handle<FavoritesItem> item;
        ASSERT_EQ(m->createFavoriteCategory(parent, String(L"c"), item), favorites::kSuccess);
        ASSERT_EQ(m->addItem(item), favorites::kSuccess) << depth;
        parent = item->getPath().toString();
    }
    const std::string before = store->readRaw(path);
    EXPECT_TRUE(checkFavoritesDocument(before).readable());
    Handle<FavoritesItem> deeper;
    ASSERT_EQ(m->createFavoriteCategory(parent, String(L"c"), deeper), favorites::kSuccess);
    try {
        m->addItem(deeper);
        FAIL() << "an add past the reader's depth was stored";
    } catch (const catalog::CatalogException& e) {
        EXPECT_EQ(e.getCode(), catalog::kErrorSchemaValidationFailed);
    }
    EXPECT_NE(ReadBackCatalog::takeRefusal().find("nested deeper than the limit of 1024"), std::string::npos);
    EXPECT_EQ(ReadBackCatalog::takeRefusal(), "");
    EXPECT_EQ(store->readRaw(path), before);
    // A fresh manager reads the whole stored tree back.
    Handle<FavoritesManager> fresh = openFavoritesManager(*store, alice, path);
    EXPECT_FALSE(fresh->findCategory(catalog::Path(parent)).isNull());
}

TEST_F(ReadBackCatalogTest, OtherObjectsAndTheOldMobileObjectPassUnchecked) {
    ReadBackCatalog guarded(*store);
    struct Raw : catalog::Writer {
        String signature;
        void write(OutputStream& s) const override { s.write("not xml", 7); }
        String getSignature() const override { return signature; }
    };
    Raw report;
    report.signature = L"report1";
    EXPECT_EQ(guarded.writeObject(alice, catalog::Path(L"/users/alice/r"), report, catalog::tDefaultReplaceHelper),
              catalog::kSuccess);
    Raw mobile;
    mobile.signature = kFavoritesSignature;
    EXPECT_EQ(guarded.writeObject(alice, catalog::Path(L"/users/alice/mobile-favoritelist"), mobile,
                                  catalog::tDefaultReplaceHelper),
              catalog::kSuccess);
    EXPECT_EQ(guarded.writeObject(alice, path, mobile, catalog::tDefaultReplaceHelper),
              catalog::kErrorSchemaValidationFailed);
    EXPECT_FALSE(store->exists(path));
    ReadBackCatalog::takeRefusal();
}

TEST_F(ReadBackCatalogTest, HistoryKeepsFavoritesObjectsOnlyAndRestoreRefusesUnreadableVersions) {
    store->putObject(path, kFavoritesSignature, {}, std::string(kHead) + "</favoritelist>");
    store->putObject(path, kFavoritesSignature, {}, std::string(kHead) + "<favorite name=\"\" type=\"category\"/></favoritelist>");
    store->putObject(path, kFavoritesSignature, {}, std::string(kHead) + "</favoritelist>");
    const catalog::Path mobile(L"/users/alice/mobile-favoritelist");
    store->putObject(mobile, kFavoritesSignature, {}, "a");
    store->putObject(mobile, kFavoritesSignature, {}, "b");
    EXPECT_TRUE(store->versions(alice, mobile).empty());
    const std::vector<FavoritesVersion> versions = favoritesHistory(*store, alice, path);
    ASSERT_EQ(versions.size(), 2u);
    EXPECT_FALSE(versions[0].content.readable());
    EXPECT_TRUE(versions[1].content.readable());
    EXPECT_THROW(restoreFavoritesVersion(*store, alice, path, 2), InputError);
    restoreFavoritesVersion(*store, alice, path, 1);
    EXPECT_EQ(favoritesHistory(*store, alice, path).size(), 3u);
}

// --- every catalog call of a save failing in turn --------------------------------

// A host's stack over a SQLite catalog file that keeps history: the
// fault-injecting catalog between the manager and the read-back guard. Each
// save below is run once to count its catalog calls, then once per call
// with that call failing (answering kErrorIO, then throwing), each time on
// a fresh catalog holding the same stored tree and history.
class SaveFaultTest : public ::testing::Test {
protected:
    using Op = catalog::FaultInjectingCatalog::Operation;
    static constexpr Op kOps[] = {catalog::FaultInjectingCatalog::kGetItemInfo, catalog::FaultInjectingCatalog::kReadObject,
                                  catalog::FaultInjectingCatalog::kWriteObject, catalog::FaultInjectingCatalog::kDeleteObject};

    void SetUp() override {
        char tmpl[] = "/tmp/save-faults-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
    }
    void TearDown() override {
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }

    // A fresh catalog file with alice's favorites stored three times over
    // (so history holds two versions) and the objects they link to.
    std::unique_ptr<catalog::SqliteCatalog> freshCatalog() {
        const std::string file = dir + "/c" + std::to_string(++files) + ".db";
        auto c = std::make_unique<catalog::SqliteCatalog>(file);
        keepFavoritesHistory(*c, 5);
        c->addUser(L"alice", {});
        c->makeFolder(catalog::Path(L"/users/alice"));
        c->setAccess(catalog::Path(L"/users/alice"), L"alice", false, catalog::Rights::kWrite);
        for (const wchar_t* r : {L"/shared/r1", L"/shared/r2", L"/shared/r3"}) c->putObject(catalog::Path(r), L"report1", {}, "");
        c->setAccess(catalog::Path(L"/shared"), L"alice", false, catalog::Rights::kRead);
        const std::string item = "<favorite name=\"r1\" catalogpath=\"/shared/r1\" type=\"catalogitem\"/>";
        c->putObject(path, kFavoritesSignature, {}, std::string(kHead) + "</favoritelist>");
        c->putObject(path, kFavoritesSignature, {}, std::string(kHead) + item + "</favoritelist>");
        c->putObject(path, kFavoritesSignature, {},
                     std::string(kHead) + "<favorite name=\"Sales\" type=\"category\">" + item + "</favorite>" + item +
                         "</favoritelist>");
        return c;
    }

    struct Stored {
        std::string body;
        std::vector<std::string> versions;  // the kept bodies, newest first
        bool operator==(const Stored&) const = default;
    };
    Stored stored(catalog::SqliteCatalog& c) {
        Stored s;
        s.body = c.readRaw(path);
        const AccountToken alice = c.tokenFor(L"alice");
        for (const auto& v : c.versions(alice, path)) {
            std::string body;
            c.readVersion(alice, path, v.number, body);
            s.versions.push_back(body);
        }
        return s;
    }

    // Runs `save` through a host's stack over `store` with `setFault`
    // applied once the manager is made; answers the counts of the save's calls.
    std::array<unsigned, 4> runSave(catalog::SqliteCatalog& store,
                                    const std::function<void(FavoritesManager&)>& save,
                                    const std::function<void(catalog::FaultInjectingCatalog&)>& setFault) {
        ReadBackCatalog guarded(store);
        catalog::FaultInjectingCatalog faults(guarded);
        const AccountToken alice = store.tokenFor(L"alice");
        Handle<FavoritesManager> m = openFavoritesManager(faults, alice, path);
        faults.resetCounts();
        setFault(faults);
        try {
            save(*m);
        } catch (const Exception&) {
            // A save the catalog failed raises; a host reports it.
        }
        ReadBackCatalog::takeRefusal();
        std::array<unsigned, 4> counts{};
        for (Op op : kOps) counts[op] = faults.callCount(op);
        return counts;
    }

    void everyCallFailsInTurn(const char* name, const std::function<void(FavoritesManager&)>& save) {
        auto clean = freshCatalog();
        const Stored before = stored(*clean);
        const std::array<unsigned, 4> counts = runSave(*clean, save, [](catalog::FaultInjectingCatalog&) {});
        const Stored after = stored(*clean);
        ASSERT_NE(after.body, before.body) << name << ": the save stored nothing without faults";
        unsigned calls = 0;
        for (Op op : kOps) {
            for (unsigned n = 1; n <= counts[op]; ++n) {
                for (const bool throws : {false, true}) {
                    ++calls;
                    auto c = freshCatalog();
                    runSave(*c, save, [&](catalog::FaultInjectingCatalog& f) {
                        if (throws)
                            f.throwOnCall(op, n, catalog::CatalogException(catalog::kErrorIO, path.toString()));
                        else
                            f.failCall(op, n, catalog::kErrorIO);
                    });
                    const Stored now = stored(*c);
                    const std::string where = std::string(name) + ": call " + std::to_string(n) + " of operation " +
                                              std::to_string(op) + (throws ? " throwing" : " failing");
                    // The old tree and its history whole, or the new tree with
                    // the old one kept on top of the history: nothing between.
                    EXPECT_TRUE(now == before || now == after) << where << "\nstored:\n" << now.body;
                    EXPECT_TRUE(checkFavoritesDocument(now.body).readable()) << where;
                    EXPECT_EQ(c->integrityCheck(), "ok") << where;
                }
            }
        }
        EXPECT_GT(calls, 2u) << name;
    }

    std::string dir;
    int files = 0;
    const catalog::Path path{L"/users/alice/favorites"};
};

TEST_F(SaveFaultTest, AddingAFavoriteKeepsTheStoredTreeAndHistoryWholeWhicheverCallFails) {
    everyCallFailsInTurn("add", [](FavoritesManager& m) {
        Handle<FavoritesItem> item;
        m.createFavoriteCatalogObject(String(L"/shared/r2"), String(L"/root"), item);
        m.addItem(item);
    });
}

TEST_F(SaveFaultTest, MakingACategoryKeepsTheStoredTreeAndHistoryWholeWhicheverCallFails) {
    everyCallFailsInTurn("category", [](FavoritesManager& m) {
        Handle<FavoritesItem> item;
        m.createFavoriteCategory(String(L"/root/Sales"), String(L"Q1"), item);
        m.addItem(item);
    });
}

TEST_F(SaveFaultTest, DeletingACategoryKeepsTheStoredTreeAndHistoryWholeWhicheverCallFails) {
    everyCallFailsInTurn("delete", [](FavoritesManager& m) {
        Handle<FavoritesItem> item;
        m.createFavoriteCategory(String(L"/root"), String(L"Sales"), item);
        m.deleteItem(item, false);
    });
}

TEST_F(SaveFaultTest, ReplacingTheWholeTreeKeepsTheStoredTreeAndHistoryWholeWhicheverCallFails) {
    everyCallFailsInTurn("replace", [](FavoritesManager& m) {
        m.updateAll(String(LR"([{"type":"1","name":"New","children":[{"type":"0","path":"/shared/r3"}]}])"));
    });
}

TEST_F(SaveFaultTest, AWriteThatFailsHalfwayThroughItsBodyLeavesTheStoredTreeAndHistoryAsTheyWere) {
    auto c = freshCatalog();
    const Stored before = stored(*c);
    struct Halfway : catalog::Writer {
        void write(OutputStream& s) const override {
            s.write(kHead, std::strlen(kHead));
            throw catalog::CatalogException(catalog::kErrorIO, String(L"/users/alice/favorites"));
        }
        String getSignature() const override { return kFavoritesSignature; }
    } halfway;
    const AccountToken alice = c->tokenFor(L"alice");
    catalog::ReturnCode rc = catalog::kSuccess;
    try {
        rc = c->writeObject(alice, path, halfway, catalog::tDefaultReplaceHelper);
    } catch (const catalog::CatalogException& e) {
        rc = e.getCode();
    }
    EXPECT_NE(rc, catalog::kSuccess);
    EXPECT_EQ(stored(*c), before);
    EXPECT_EQ(c->integrityCheck(), "ok");
}

}  // namespace
}  // namespace kiv::host
