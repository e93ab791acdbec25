#include "favoritesdocument.h"

#include <gtest/gtest.h>

#include "favoritesopen.h"
#include "hosterrors.h"
#include "qz/platform/xml.h"
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

}  // namespace
}  // namespace kiv::host
