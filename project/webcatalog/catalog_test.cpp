#include "qz/webcatalog/catalog.h"

#include <gtest/gtest.h>

#include "qz/webcatalog/sqlitecatalog.h"

namespace kiv::catalog {
namespace {

TEST(CatalogExceptionTest, TheTextIsTheCodeNameAndThePath) {
    const CatalogException e(kErrorPathNotFound, L"/users/u/favorites");
    EXPECT_EQ(e.getMessageText(), L"kErrorPathNotFound: /users/u/favorites");
    EXPECT_EQ(e.getCode(), kErrorPathNotFound);
    EXPECT_EQ(e.getPath(), L"/users/u/favorites");
}

TEST(CatalogExceptionTest, ACloneKeepsTheTypeAndTheCode) {
    const CatalogException e(kErrorAccessDenied, L"/x");
    std::unique_ptr<Exception> copy(e.clone());
    try {
        copy->throwMe();
        FAIL() << "no exception";
    } catch (const CatalogException& thrown) {
        EXPECT_EQ(thrown.getCode(), kErrorAccessDenied);
        EXPECT_EQ(thrown.getPath(), L"/x");
    }
}

TEST(CatalogExceptionTest, ErrorCodeToExceptionDoesNothingForSuccess) {
    EXPECT_NO_THROW(errorCodeToException(kSuccess, L"/x", String(), String(), KIV_FILE_LOCATION(__FILE__, __LINE__)));
}

TEST(CatalogExceptionTest, ErrorCodeToExceptionRaisesTheCodeAndThePath) {
    try {
        errorCodeToException(kErrorCircularLink, L"/a/b", String(), String(), KIV_FILE_LOCATION(__FILE__, __LINE__));
        FAIL() << "no exception";
    } catch (const CatalogException& e) {
        EXPECT_EQ(e.getCode(), kErrorCircularLink);
        EXPECT_EQ(e.getPath(), L"/a/b");
        EXPECT_STREQ(e.what(), "kErrorCircularLink: /a/b");
    }
}

TEST(CatalogExceptionTest, TheCatalogExceptionIsAHostException) {
    EXPECT_THROW(errorCodeToException(kErrorOther, L"/", String(), String(), KIV_FILE_LOCATION(__FILE__, __LINE__)),
                 Exception);
}

TEST(CatalogUpgradeRequiredTest, CarriesTheMessageAndTheUpgradeCode) {
    const CatalogUpgradeRequired e(L"/x needs upgrading.", String());
    EXPECT_EQ(e.getMessageText(), L"/x needs upgrading.");
    EXPECT_EQ(e.getCode(), kErrorCatalogUpgradeRequired);
    std::unique_ptr<Exception> copy(e.clone());
    EXPECT_NE(dynamic_cast<CatalogUpgradeRequired*>(copy.get()), nullptr);
    EXPECT_THROW(e.Throw(), CatalogUpgradeRequired);
}

TEST(ReplaceHelperTest, TheDefaultHelperReplacesAnExistingObject) {
    EXPECT_TRUE(tDefaultReplaceHelper.mayReplace(ItemInfo()));
}

TEST(ItemInfoTest, GettersReadTheChosenView) {
    ItemInfo info;
    info.original().path = Path(L"/link");
    info.original().type = kLink;
    info.original().lastModified = 5;
    info.resolved().path = Path(L"/target");
    info.resolved().type = kObject;
    info.resolved().lastModified = 7;
    info.resolved().signature = L"report1";
    info.resolved().properties[L"owner"] = L"u";
    EXPECT_EQ(info.getPath(kInfoOriginal).toString(), L"/link");
    EXPECT_EQ(info.getPath(kInfoResolved).toString(), L"/target");
    EXPECT_EQ(info.getItemType(kInfoOriginal), static_cast<unsigned>(kLink));
    EXPECT_EQ(info.getItemType(kInfoResolved), static_cast<unsigned>(kObject));
    EXPECT_EQ(info.getLastModifiedTime(kInfoOriginal), 5);
    EXPECT_EQ(info.getLastModifiedTime(kInfoResolved), 7);
    EXPECT_EQ(info.getObjectSignature(kInfoResolved), L"report1");
    EXPECT_EQ(info.getObjectSignature(kInfoOriginal), L"");
    EXPECT_EQ(info.getItemProperty(L"owner", L"none", kInfoResolved), L"u");
    EXPECT_EQ(info.getItemProperty(L"owner", L"none", kInfoOriginal), L"none");
    EXPECT_EQ(info.getItemProperty(L"missing", L"dflt", kInfoResolved), L"dflt");
    info.clear();
    EXPECT_TRUE(info.getPath(kInfoResolved).isBlank());
}

TEST(ItemTypeTest, TheTypeBitsHaveTheirValues) {
    EXPECT_EQ(kFolder, 1u);
    EXPECT_EQ(kLink, 2u);
    EXPECT_EQ(kObject, 4u);
    EXPECT_EQ(kMissing, 8u);
    EXPECT_EQ(kNoAccess, 16u);
    EXPECT_EQ(kCircular, 32u);
    EXPECT_EQ(kInfoOriginal, 0);
    EXPECT_EQ(kInfoResolved, 1);
}

class TestCatalogBase : public Catalog {
public:
    ReturnCode deleteObject(const AccountToken&, const Path&) override { return kSuccess; }
    ReturnCode readObject(const AccountToken&, const Path&, Reader&, ItemInfo&, unsigned) override { return kSuccess; }
    ReturnCode writeObject(const AccountToken&, const Path&, Writer&, const ReplaceHelper&) override {
        return kSuccess;
    }
    ReturnCode getItemInfo(const AccountToken&, const Path&, ItemInfo&, bool, bool) override { return kSuccess; }
};

TEST(CatalogTest, TheDefaultReaderUpgradeModeIsAuto) {
    TestCatalogBase catalog;
    EXPECT_EQ(catalog.getReaderUpgradeMode(), 1);
}

class CatalogObjectFilterTest : public ::testing::Test {
protected:
    void SetUp() override {
        catalog = SqliteCatalog::openInMemory();
        catalog->putObject(Path(L"/r/report"), L"report1", {}, "r");
        catalog->putObject(Path(L"/r/page"), L"dashboardpage1", {}, "p");
        catalog->putObject(Path(L"/r/dash"), L"folder1", {{L"compositeSignature", L"dashboardfolder1"}}, "d");
        catalog->putObject(Path(L"/r/other"), L"other1", {}, "o");
        catalog->putObject(Path(L"/secret/report"), L"report1", {}, "s");
        catalog->setAccess(Path(L"/secret"), L"everyone", true, Rights::kNone);
        user = AccountToken(L"u");
    }
    std::unique_ptr<SqliteCatalog> catalog;
    AccountToken user;
};

TEST_F(CatalogObjectFilterTest, AnEmptyNameAdmitsEveryReadableObject) {
    const CatalogObjectFilter filter(*catalog, user, L"");
    EXPECT_TRUE(filter(Path(L"/r/report")));
    EXPECT_TRUE(filter(Path(L"/r/other")));
    EXPECT_FALSE(filter(Path(L"/secret/report")));
    EXPECT_FALSE(filter(Path(L"/r/missing")));
}

TEST_F(CatalogObjectFilterTest, AnUnknownNameAdmitsEveryReadableObject) {
    const CatalogObjectFilter filter(*catalog, user, L"no such filter");
    EXPECT_TRUE(filter(Path(L"/r/other")));
    EXPECT_FALSE(filter(Path(L"/secret/report")));
    EXPECT_EQ(filter.getName(), L"no such filter");
}

TEST_F(CatalogObjectFilterTest, TheReadableFilterIsTheEmptyOne) {
    const CatalogObjectFilter filter(*catalog, user, L"readable");
    EXPECT_TRUE(filter(Path(L"/r/page")));
    EXPECT_FALSE(filter(Path(L"/secret/report")));
}

TEST_F(CatalogObjectFilterTest, TheReportsFilterAdmitsReportsOnly) {
    const CatalogObjectFilter filter(*catalog, user, L"reports");
    EXPECT_TRUE(filter(Path(L"/r/report")));
    EXPECT_FALSE(filter(Path(L"/r/page")));
    EXPECT_FALSE(filter(Path(L"/r/other")));
    EXPECT_FALSE(filter(Path(L"/secret/report")));
}

TEST_F(CatalogObjectFilterTest, TheDashboardsFilterAdmitsPagesAndDashboardFolders) {
    const CatalogObjectFilter filter(*catalog, user, L"dashboards");
    EXPECT_TRUE(filter(Path(L"/r/page")));
    EXPECT_TRUE(filter(Path(L"/r/dash")));
    EXPECT_FALSE(filter(Path(L"/r/report")));
}

}  // namespace
}  // namespace kiv::catalog
