// FavoritesManager when the catalog fails: every catalog call of loading,
// persisting, editing and looking up fails in turn, with a failing code and
// with an exception. Nothing crashes, the stored object always validates,
// and after a reload the tree equals what is stored.
#include <gtest/gtest.h>

#include <stdexcept>

#include "qz/platform/config.h"
#include "qz/platform/xml.h"
#include "qz/webcatalog/faultinjectingcatalog.h"
#include "qz/webfavorites/favoritesmanager.h"
#include "testcatalog.h"
#include "testsupport.h"
#include "webfavorites/favoritesmanagertestpeer.h"

namespace kiv {

namespace {

using catalog::FaultInjectingCatalog;
using catalog::Path;
using Peer = FavoritesManagerTestPeer;
using testing::dump;
using testing::TestCatalog;

Path P(const wchar_t* s) { return Path(String(s)); }

constexpr FaultInjectingCatalog::Operation kOperations[] = {
    FaultInjectingCatalog::kGetItemInfo, FaultInjectingCatalog::kReadObject, FaultInjectingCatalog::kWriteObject,
    FaultInjectingCatalog::kDeleteObject};
const char* opName(FaultInjectingCatalog::Operation op) {
    switch (op) {
        case FaultInjectingCatalog::kGetItemInfo: return "getItemInfo";
        case FaultInjectingCatalog::kReadObject: return "readObject";
        case FaultInjectingCatalog::kWriteObject: return "writeObject";
        case FaultInjectingCatalog::kDeleteObject: return "deleteObject";
    }
    return "?";
}

class FavoritesFailureTest : public ::testing::Test {
protected:
    const Path favPath = TestCatalog::favoritesPath(L"alice");

    // The stored document parses and validates against the favorites schema.
    ::testing::AssertionResult storedDocumentValidates() {
        if (!env.admin().exists(favPath)) return ::testing::AssertionSuccess();  // nothing stored yet
        const std::string body = env.storedFavorites(L"alice");
        Handle<XmlDocument> doc;
        try {
            doc = XmlDocument::fromBuffer(body.data(), body.size());
        } catch (const Exception& e) {
            return ::testing::AssertionFailure() << "stored document does not parse: " << e.what();
        }
        XmlValidator v({xml::SchemaLocation(String(L"urn:kiv-web:favorites/v1"),
                                            config::getDataDirectory() + L"/schemas/favorites.xsd")});
        std::vector<String> errors;
        if (!v.validate(*doc, errors)) return ::testing::AssertionFailure() << "stored document is invalid: " << body;
        return ::testing::AssertionSuccess();
    }

    std::string storedTree() { return env.storedDocumentTree(L"alice"); }

    // A host's session: load, list, add to a category, add a category,
    // delete an item, delete a category. Catalog exceptions of a failed save
    // are the documented outcome and are caught here like a host would.
    void session(FaultInjectingCatalog& c) {
        Handle<FavoritesManager> m(new FavoritesManager(c, env.alice, favPath));
        auto step = [&](auto&& fn) {
            try {
                fn();
            } catch (const Exception&) {
            }
        };
        step([&] {
            FavoritesItems items;
            m->getFavorites(items, String(), String());
        });
        step([&] {
            FavoritesItems items;
            m->getFavorites(items, String(L"/root/Sales"), String(L"reports"));
        });
        step([&] {
            Handle<FavoritesItem> h;
            m->createFavoriteCatalogObject(String(L"/shared/Sales/Report3"), String(L"/root/Sales"), h);
            m->addItem(h);
        });
        step([&] {
            Handle<FavoritesItem> h;
            m->createFavoriteCategory(String(), String(L"New"), h);
            m->addItem(h);
        });
        step([&] {
            Handle<FavoritesItem> h;
            m->createFavoriteCatalogObject(String(L"/shared/Sales/Report1"), String(L"/root/Sales"), h);
            m->deleteItem(h, true);
        });
        step([&] {
            Handle<FavoritesItem> h;
            m->createFavoriteCategory(String(), String(L"Old"), h);
            m->deleteItem(h, false);
        });
        step([&] { m->isFavorite(P(L"/shared/Sales/Report2")); });
        // After a reload (with the catalog working again) the manager holds
        // exactly what is stored.
        c.clearFaults();
        ASSERT_EQ(Peer::load(*m), catalog::kSuccess);
        EXPECT_EQ(dump(m->getRootFolder()), storedTree());
    }

    void resetStore() {
        env.storeFavorites(L"alice", "Sales[ /shared/Sales/Report1 /shared/Sales/Report2 ] Old[ /shared/HR/Headcount ]");
        env.admin().putObject(TestCatalog::favoritesPath(L"alice").getParentPath() +
                                  catalog::ItemName(String(L"mobile-favoritelist"), catalog::ItemName::kNone),
                              String(L"mobilefavorites1"), {},
                              "<mobile><favoritelist><item path=\"/shared/Sales/Report3\"/></favoritelist></mobile>");
    }

    TestCatalog env;
};

TEST_F(FavoritesFailureTest, EveryCatalogCallFailingInTurnLeavesAValidStoreAndAConsistentTree) {
    // Count the calls a whole session makes.
    resetStore();
    FaultInjectingCatalog counting(env.catalog());
    session(counting);
    for (FaultInjectingCatalog::Operation op : kOperations) {
        const unsigned calls = counting.callCount(op);
        ASSERT_GT(calls, 0u) << opName(op);
        for (unsigned n = 1; n <= calls; ++n) {
            for (int mode = 0; mode < 2; ++mode) {
                SCOPED_TRACE(std::string(opName(op)) + " call " + std::to_string(n) +
                             (mode == 0 ? " answers kErrorIO" : " throws"));
                resetStore();
                FaultInjectingCatalog faulty(env.catalog());
                if (mode == 0)
                    faulty.failCall(op, n, catalog::kErrorIO);
                else
                    faulty.throwOnCall(op, n, catalog::CatalogException(catalog::kErrorIO, String(L"/injected")));
                ASSERT_NO_FATAL_FAILURE(session(faulty));
                EXPECT_TRUE(storedDocumentValidates());
            }
        }
    }
}

TEST_F(FavoritesFailureTest, ConstructorDropsHostExceptionsFromLoading) {
    resetStore();
    FaultInjectingCatalog faulty(env.catalog());
    faulty.throwOnCall(FaultInjectingCatalog::kReadObject, 1, Exception(String(L"read failed")));
    FavoritesManager m(faulty, env.alice, favPath);
    EXPECT_EQ(dump(m.getRootFolder()), "");
    // The upgrade was skipped with the load: the old object is still there.
    EXPECT_EQ(faulty.callCount(FaultInjectingCatalog::kDeleteObject), 0u);
}

TEST_F(FavoritesFailureTest, ConstructorLetsOtherExceptionsPass) {
    resetStore();
    FaultInjectingCatalog faulty(env.catalog());
    faulty.runOnCall(FaultInjectingCatalog::kGetItemInfo, 1, [] { throw std::runtime_error("not a host failure"); });
    EXPECT_THROW(FavoritesManager(faulty, env.alice, favPath), std::runtime_error);
}

TEST_F(FavoritesFailureTest, LoadReturnsTheCatalogCodeOfAFailedInfoOrRead) {
    resetStore();
    FaultInjectingCatalog faulty(env.catalog());
    FavoritesManager m(faulty, env.alice, favPath);
    ASSERT_NE(dump(m.getRootFolder()), "");
    faulty.failCall(FaultInjectingCatalog::kGetItemInfo, faulty.callCount(FaultInjectingCatalog::kGetItemInfo) + 1,
                    catalog::kErrorLocked);
    EXPECT_EQ(Peer::load(m), catalog::kErrorLocked);
    EXPECT_EQ(dump(m.getRootFolder()), "");
    EXPECT_FALSE(m.isFavorite(P(L"/shared/Sales/Report1")));
    faulty.failCall(FaultInjectingCatalog::kReadObject, faulty.callCount(FaultInjectingCatalog::kReadObject) + 1,
                    catalog::kErrorIO);
    EXPECT_EQ(Peer::load(m), catalog::kErrorIO);
    EXPECT_EQ(dump(m.getRootFolder()), "");
}

TEST_F(FavoritesFailureTest, FailedDefaultDocumentWriteForANewUserIsNotReported) {
    FaultInjectingCatalog faulty(env.catalog());
    faulty.failCall(FaultInjectingCatalog::kWriteObject, 1, catalog::kErrorIO);
    FavoritesManager m(faulty, env.alice, favPath);
    EXPECT_EQ(dump(m.getRootFolder()), "");
    EXPECT_FALSE(env.admin().exists(favPath));
    // The next load stores the default document.
    EXPECT_EQ(Peer::load(m), catalog::kSuccess);
    EXPECT_TRUE(env.admin().exists(favPath));
}

TEST_F(FavoritesFailureTest, FailedSaveReloadsTheTreeAndRaisesTheCatalogException) {
    resetStore();
    FaultInjectingCatalog faulty(env.catalog());
    FavoritesManager m(faulty, env.alice, favPath);
    const std::string before = dump(m.getRootFolder());
    Handle<FavoritesItem> h;
    m.createFavoriteCatalogObject(String(L"/shared/Sales/Dashboard/Page1"), String(), h);
    faulty.failCall(FaultInjectingCatalog::kWriteObject, faulty.callCount(FaultInjectingCatalog::kWriteObject) + 1,
                    catalog::kErrorAccessDenied);
    try {
        m.addItem(h);
        ADD_FAILURE() << "no exception";
    } catch (const catalog::CatalogException& e) {
        EXPECT_EQ(e.getCode(), catalog::kErrorAccessDenied);
        EXPECT_EQ(e.getPath(), favPath.toString());
    }
    EXPECT_EQ(dump(m.getRootFolder()), before);  // the unsaved edit was dropped
    EXPECT_EQ(storedTree(), before);
    EXPECT_FALSE(m.isFavorite(P(L"/shared/Sales/Dashboard/Page1")));
}

TEST_F(FavoritesFailureTest, InfoFailingAfterASaveKeepsTheManagerDirty) {
    resetStore();
    FaultInjectingCatalog faulty(env.catalog());
    FavoritesManager m(faulty, env.alice, favPath);
    Peer::dirty(m) = true;
    // persist: the sync check, the write, then the info that fails.
    faulty.failCall(FaultInjectingCatalog::kGetItemInfo, faulty.callCount(FaultInjectingCatalog::kGetItemInfo) + 2,
                    catalog::kErrorIO);
    EXPECT_EQ(m.persist(), favorites::kSuccess);
    EXPECT_TRUE(m.isDirty());
}

TEST_F(FavoritesFailureTest, GetFavoritesServesTheTreeWhenTheReloadThrows) {
    resetStore();
    FaultInjectingCatalog faulty(env.catalog());
    FavoritesManager m(faulty, env.alice, favPath);
    env.storeFavorites(L"alice", "/shared/Sales/Report2");  // another writer
    faulty.throwOnCall(FaultInjectingCatalog::kReadObject, faulty.callCount(FaultInjectingCatalog::kReadObject) + 1,
                       Exception(String(L"read failed")));
    FavoritesItems items;
    EXPECT_EQ(m.getFavorites(items, String(), String()), favorites::kSuccess);
    EXPECT_TRUE(items.empty());  // the reload began with an empty tree, then failed
}

TEST_F(FavoritesFailureTest, CatalogThatCannotReportTheObjectCountsAsInSync) {
    resetStore();
    FaultInjectingCatalog faulty(env.catalog());
    FavoritesManager m(faulty, env.alice, favPath);
    faulty.failCall(FaultInjectingCatalog::kGetItemInfo, faulty.callCount(FaultInjectingCatalog::kGetItemInfo) + 1,
                    catalog::kErrorIO, true);
    EXPECT_TRUE(m.isFavoritesInSync());
}

}  // namespace
}  // namespace kiv
