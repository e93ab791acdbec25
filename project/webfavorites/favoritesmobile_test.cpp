// The one-time upgrade of the old mobile client's favorites object.
#include <gtest/gtest.h>

#include "qz/platform/logger.h"
#include "qz/webcatalog/faultinjectingcatalog.h"
#include "qz/webfavorites/favoritesmanager.h"
#include "testcatalog.h"
#include "testsupport.h"

namespace kiv {
namespace {

using catalog::FaultInjectingCatalog;
using catalog::Path;
using testing::dump;
using testing::TestCatalog;

Path P(const wchar_t* s) { return Path(String(s)); }

const String kSource(L"kiv.favoritesmanager.upgrade");

class FavoritesMobileTest : public testing::FavoritesTest {
protected:
    void SetUp() override {
        // The dashboard folder is marked by its composite signature.
        env.admin().setProperties(P(L"/shared/Sales/Dashboard"),
                                  {{String(L"compositeSignature"), String(L"dashboardfolder1")}});
        log = std::make_shared<CapturingLogWriter>();
        Logger::getLogger().addWriter(log);
    }
    void TearDown() override { Logger::getLogger().removeWriter(log); }

    const Path mobilePath = P(L"/users/alice/mobile-favoritelist");

    void storeMobile(const std::string& entries) {
        env.admin().putObject(mobilePath, String(L"mobilefavorites1"), {},
                              "<?xml version=\"1.0\"?>\n<mobilefavorites><favoritelist>" + entries +
                                  "</favoritelist></mobilefavorites>");
    }
    // The texts logged at error severity under the upgrade's log source.
    std::vector<String> upgradeMessages() {
        std::vector<String> out;
        for (const LogRecord& r : log->records())
            if (r.source == kSource && r.severity == kSevError) out.push_back(r.text);
        return out;
    }

    std::shared_ptr<CapturingLogWriter> log;
};

TEST_F(FavoritesMobileTest, UserWithoutAnOldObjectGetsNotFoundAndAnUnchangedTree) {
    env.storeFavorites(L"alice", "/shared/Sales/Report1");
    auto m = manager();
    EXPECT_EQ(m->checkAndUpgradeMobileFavorites(), catalog::kErrorPathNotFound);
    EXPECT_EQ(tree(m), "/shared/Sales/Report1");
    EXPECT_TRUE(upgradeMessages().empty());
}

TEST_F(FavoritesMobileTest, EntriesMoveIntoTheFixedCategoryAndTheOldObjectIsDeleted) {
    env.storeFavorites(L"alice", "Mine[ /shared/HR/Headcount ]");
    storeMobile("<favorite path=\"/shared/Sales/Report1\"/><favorite path=\"/shared/Sales/Report2\"/>");
    auto m = manager();
    EXPECT_EQ(tree(m), "Mine[ /shared/HR/Headcount ] Mobile_Favorites[ /shared/Sales/Report1 /shared/Sales/Report2 ]");
    EXPECT_EQ(stored(), tree(m));
    EXPECT_FALSE(env.admin().exists(mobilePath));
    EXPECT_TRUE(m->isFavorite(P(L"/shared/Sales/Report2")));
    EXPECT_EQ(FavoritesManager::kpOldMobileClientFixedCategory, P(L"/root/Mobile Favorites"));
}

TEST_F(FavoritesMobileTest, DashboardFolderWithAPageBecomesAFavoriteOfThePage) {
    storeMobile("<favorite path=\"/shared/Sales/Dashboard\" page=\"Page1\"/>");
    auto m = manager();
    EXPECT_EQ(tree(m), "Mobile_Favorites[ /shared/Sales/Dashboard/Page1 ]");
}

TEST_F(FavoritesMobileTest, DashboardFolderWithoutAPageIsSkippedWithItsMessage) {
    storeMobile("<favorite path=\"/shared/Sales/Dashboard\"/><favorite path=\"/shared/Sales/Archive\"/>");
    auto m = manager();
    // An ordinary folder without a page becomes a favorite of the folder.
    EXPECT_EQ(tree(m), "Mobile_Favorites[ /shared/Sales/Archive ]");
    ASSERT_EQ(upgradeMessages().size(), 1u);
    EXPECT_EQ(upgradeMessages()[0],
              String(L"Skipping upgrade of old mobile favorite '/shared/Sales/Dashboard'. No dashboard page was specified."));
}

TEST_F(FavoritesMobileTest, InvalidPageNamesAreSkippedWithTheirMessage) {
    storeMobile("<favorite path=\"/shared/Sales/Dashboard\" page=\"   \"/>"
                "<favorite path=\"/shared/Sales/Dashboard\" page=\"bad&#x85;name\"/>"
                "<favorite path=\"/shared/Sales/Report1\"/>");
    auto m = manager();
    EXPECT_EQ(tree(m), "Mobile_Favorites[ /shared/Sales/Report1 ]");
    const auto messages = upgradeMessages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0], String(L"Skipping upgrade of old mobile favorite '/shared/Sales/Dashboard' with page '   '. "
                                  L"The page name is invalid."));
    EXPECT_EQ(messages[1], String(L"Skipping upgrade of old mobile favorite '/shared/Sales/Dashboard' with page 'bad\x85name'. "
                                  L"The page name is invalid."));
}

TEST_F(FavoritesMobileTest, InvalidPathsAreSkippedWithTheirMessage) {
    storeMobile("<favorite path=\"no/slash\"/><favorite/><favorite path=\"/shared/Sales/Report1\"/>");
    auto m = manager();
    EXPECT_EQ(tree(m), "Mobile_Favorites[ /shared/Sales/Report1 ]");
    const auto messages = upgradeMessages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0], String(L"Skipping upgrade of old mobile favorite 'no/slash'. The catalog path is invalid."));
    EXPECT_EQ(messages[1], String(L"Skipping upgrade of old mobile favorite ''. The catalog path is invalid."));
}

TEST_F(FavoritesMobileTest, MissingOrUnreadableTargetsAreSkippedSilently) {
    storeMobile("<favorite path=\"/shared/Sales/Gone\"/><favorite path=\"/private/Secret\"/>"
                "<favorite path=\"/shared/Sales/Dashboard\" page=\"NoSuchPage\"/><favorite path=\"/shared/Sales/Report1\"/>");
    auto m = manager();
    EXPECT_EQ(tree(m), "Mobile_Favorites[ /shared/Sales/Report1 ]");
    EXPECT_TRUE(upgradeMessages().empty());
    EXPECT_FALSE(env.admin().exists(mobilePath));
}

TEST_F(FavoritesMobileTest, AnExistingMobileFavoritesCategoryIsReused) {
    env.storeFavorites(L"alice", "Mobile_Favorites[ /shared/Sales/Report1 ] Other[]");
    storeMobile("<favorite path=\"/shared/Sales/Report1\"/><favorite path=\"/shared/Sales/Report2\"/>");
    auto m = manager();
    // The equal entry is dropped without a message; no second category.
    EXPECT_EQ(tree(m), "Mobile_Favorites[ /shared/Sales/Report1 /shared/Sales/Report2 ] Other[]");
    EXPECT_TRUE(upgradeMessages().empty());
}

TEST_F(FavoritesMobileTest, NonElementNodesAreIgnoredAndEntryNamesAreNotChecked) {
    storeMobile("\n  <!-- a comment -->\n  text\n  <anything path=\"/shared/Sales/Report1\"/>\n"
                "  <![CDATA[ cdata ]]><item path=\"/shared/Sales/Report2\"/>\n");
    auto m = manager();
    EXPECT_EQ(tree(m), "Mobile_Favorites[ /shared/Sales/Report1 /shared/Sales/Report2 ]");
}

TEST_F(FavoritesMobileTest, ObjectWithoutAListOrWithAnEmptyOneIsDeleted) {
    for (const char* body : {"<mobilefavorites/>", "<mobilefavorites><other/></mobilefavorites>",
                             "<mobilefavorites><favoritelist/></mobilefavorites>"}) {
        SCOPED_TRACE(body);
        env.admin().putObject(mobilePath, String(L"mobilefavorites1"), {}, body);
        env.storeFavorites(L"alice", "/shared/Sales/Report1");
        auto m = manager();
        EXPECT_FALSE(env.admin().exists(mobilePath));
        EXPECT_EQ(tree(m), "/shared/Sales/Report1");  // no category was made
    }
}

TEST_F(FavoritesMobileTest, DirectCallReturnsTheDeletesCode) {
    auto m = manager();
    storeMobile("<favorite path=\"/shared/Sales/Report1\"/>");
    EXPECT_EQ(m->checkAndUpgradeMobileFavorites(), catalog::kSuccess);
    EXPECT_EQ(tree(m), "Mobile_Favorites[ /shared/Sales/Report1 ]");
}

TEST_F(FavoritesMobileTest, DocumentThatDoesNotParseGivesOtherAndKeepsTheObject) {
    env.storeFavorites(L"alice", "/shared/Sales/Report1");
    auto m = manager();
    env.admin().putObject(mobilePath, String(L"mobilefavorites1"), {}, "<mobilefavorites><favoritelist>");
    EXPECT_EQ(m->checkAndUpgradeMobileFavorites(), catalog::kErrorOther);
    EXPECT_TRUE(env.admin().exists(mobilePath));
    EXPECT_EQ(tree(m), "/shared/Sales/Report1");
    EXPECT_EQ(stored(), "/shared/Sales/Report1");
}

TEST_F(FavoritesMobileTest, ObjectOfAnotherTypeAtThatNameGivesOtherAndIsKept) {
    env.storeFavorites(L"alice", "/shared/Sales/Report1");
    auto m = manager();
    env.admin().putObject(mobilePath, String(L"report1"), {}, "<mobilefavorites><favoritelist/></mobilefavorites>");
    EXPECT_EQ(m->checkAndUpgradeMobileFavorites(), catalog::kErrorOther);
    EXPECT_TRUE(env.admin().exists(mobilePath));
    EXPECT_EQ(stored(), "/shared/Sales/Report1");
}

TEST_F(FavoritesMobileTest, CurrentFavoritesDocumentAtThatNameIsAcceptedByTheReader) {
    // Same signature, other description: the reader takes it; its root has
    // no "favoritelist" child, so nothing is upgraded and it is deleted.
    env.admin().putObject(mobilePath, String(L"mobilefavorites1"), {},
                          TestCatalog::documentFromNotation("/shared/Sales/Report1"));
    auto m = manager();
    EXPECT_FALSE(env.admin().exists(mobilePath));
    EXPECT_EQ(tree(m), "");
}

TEST_F(FavoritesMobileTest, FailedDeleteReturnsItsCodeAndALaterRunDropsTheEqualEntries) {
    storeMobile("<favorite path=\"/shared/Sales/Report1\"/>");
    FaultInjectingCatalog faulty(env.catalog());
    faulty.failCall(FaultInjectingCatalog::kDeleteObject, 1, catalog::kErrorAccessDenied);
    auto m = manager(L"alice", &faulty);
    EXPECT_EQ(tree(m), "Mobile_Favorites[ /shared/Sales/Report1 ]");
    EXPECT_TRUE(env.admin().exists(mobilePath));
    EXPECT_EQ(m->checkAndUpgradeMobileFavorites(), catalog::kSuccess);  // the second delete succeeds
    EXPECT_EQ(tree(m), "Mobile_Favorites[ /shared/Sales/Report1 ]");
    EXPECT_FALSE(env.admin().exists(mobilePath));
}

TEST_F(FavoritesMobileTest, ExceptionWhileUpgradingGivesOtherAndKeepsEntriesAlreadyAdded) {
    env.storeFavorites(L"alice", "/shared/HR/Headcount");
    storeMobile("<favorite path=\"/shared/Sales/Report1\"/><favorite path=\"/shared/Sales/Report2\"/>");
    FaultInjectingCatalog failing(env.catalog());
    // The upgrade writes three times: the new category, the first entry, the
    // second entry. The third write fails; the manager reloads the stored
    // tree and raises the catalog's exception, which ends the upgrade.
    failing.failCall(FaultInjectingCatalog::kWriteObject, 3, catalog::kErrorIO);
    auto m = manager(L"alice", &failing);
    EXPECT_TRUE(env.admin().exists(mobilePath));  // kept for a later try
    EXPECT_EQ(stored(), "/shared/HR/Headcount Mobile_Favorites[ /shared/Sales/Report1 ]");
    // The direct call reports kErrorOther the same way.
    failing.throwOnCall(FaultInjectingCatalog::kReadObject, failing.callCount(FaultInjectingCatalog::kReadObject) + 1,
                        Exception(String(L"read failed")));
    EXPECT_EQ(m->checkAndUpgradeMobileFavorites(), catalog::kErrorOther);
    EXPECT_TRUE(env.admin().exists(mobilePath));
    // A later run finishes the job; the equal first entry is dropped.
    EXPECT_EQ(m->checkAndUpgradeMobileFavorites(), catalog::kSuccess);
    EXPECT_EQ(stored(), "/shared/HR/Headcount Mobile_Favorites[ /shared/Sales/Report1 /shared/Sales/Report2 ]");
    EXPECT_FALSE(env.admin().exists(mobilePath));
}

TEST_F(FavoritesMobileTest, MessagesAreNotLoggedWhenNoWriterTakesErrors) {
    log->setMinimum(kSevErrorCritical);
    Logger::getLogger().clearWriters();
    Logger::getLogger().addWriter(log);
    storeMobile("<favorite path=\"bad\"/>");
    auto m = manager();
    Logger::getLogger().resetToDefault();
    Logger::getLogger().addWriter(log);
    EXPECT_TRUE(log->records().empty());
    EXPECT_FALSE(env.admin().exists(mobilePath));
}

TEST_F(FavoritesMobileTest, TheLogSourceIsPoppedAfterTheCall) {
    storeMobile("<favorite path=\"bad\"/>");
    auto m = manager();
    EXPECT_EQ(Logger::getLogger().currentSource(), nullptr);
    ASSERT_EQ(upgradeMessages().size(), 1u);
}

TEST_F(FavoritesMobileTest, AThousandEntriesUpgradeOnceAndASecondConstructionChangesNothing) {
    std::string entries;
    for (int i = 0; i < 1000; ++i) {
        const std::string path = "/shared/Mobile/R" + std::to_string(i);
        env.admin().putObject(catalog::Path(String::fromUtf8(path)), String(L"report1"), {}, "r");
        entries += "<favorite path=\"" + path + "\"/>";
    }
    env.storeFavorites(L"alice", "/shared/HR/Headcount");
    storeMobile(entries);
    {
        auto m = manager();
        FavoritesItems items;
        ASSERT_EQ(m->getFavorites(items, String(L"/root/Mobile Favorites"), String()), favorites::kSuccess);
        EXPECT_EQ(items.size(), 1000u);
        EXPECT_TRUE(m->isFavorite(P(L"/shared/Mobile/R999")));
    }
    EXPECT_FALSE(env.admin().exists(mobilePath));
    catalog::ItemInfo before;
    env.catalog().getItemInfo(env.alice, TestCatalog::favoritesPath(L"alice"), before, false, true);
    auto second = manager();
    EXPECT_EQ(second->checkAndUpgradeMobileFavorites(), catalog::kErrorPathNotFound);
    catalog::ItemInfo after;
    env.catalog().getItemInfo(env.alice, TestCatalog::favoritesPath(L"alice"), after, false, true);
    EXPECT_EQ(before.getLastModifiedTime(catalog::kInfoResolved), after.getLastModifiedTime(catalog::kInfoResolved));
}

}  // namespace
}  // namespace kiv
