#include "qz/webcatalog/faultinjectingcatalog.h"

#include <gtest/gtest.h>

#include "qz/webcatalog/sqlitecatalog.h"
#include "webcatalog/conformance/catalogtestsupport.h"

namespace kiv::catalog {
namespace {

using testing::RecordingReader;
using testing::RecordingWriter;

class FaultInjectingCatalogTest : public ::testing::Test {
protected:
    void SetUp() override {
        inner = SqliteCatalog::openInMemory();
        inner->putObject(Path(L"/x"), L"test1", {}, "body");
        faulty = std::make_unique<FaultInjectingCatalog>(*inner);
    }
    ReturnCode info() {
        ItemInfo i;
        return faulty->getItemInfo(admin, Path(L"/x"), i, false, true);
    }
    std::unique_ptr<SqliteCatalog> inner;
    std::unique_ptr<FaultInjectingCatalog> faulty;
    AccountToken admin{L"root", {L"administrators"}};
};

TEST_F(FaultInjectingCatalogTest, WithoutFaultsEveryCallIsForwarded) {
    EXPECT_EQ(info(), kSuccess);
    RecordingReader r;
    ItemInfo i;
    EXPECT_EQ(faulty->readObject(admin, Path(L"/x"), r, i, 0), kSuccess);
    EXPECT_EQ(r.body, "body");
    RecordingWriter w("new");
    EXPECT_EQ(faulty->writeObject(admin, Path(L"/x"), w, tDefaultReplaceHelper), kSuccess);
    EXPECT_EQ(inner->readRaw(Path(L"/x")), "new");
    EXPECT_EQ(faulty->deleteObject(admin, Path(L"/x")), kSuccess);
    EXPECT_FALSE(inner->exists(Path(L"/x")));
}

TEST_F(FaultInjectingCatalogTest, TheNthCallAnswersTheChosenCode) {
    faulty->failCall(FaultInjectingCatalog::kGetItemInfo, 2, kErrorIO);
    EXPECT_EQ(info(), kSuccess);
    EXPECT_EQ(info(), kErrorIO);
    EXPECT_EQ(info(), kSuccess);
}

TEST_F(FaultInjectingCatalogTest, AFailedCallDoesNotReachTheWrappedCatalog) {
    faulty->failCall(FaultInjectingCatalog::kWriteObject, 1, kErrorAccessDenied);
    RecordingWriter w("never");
    EXPECT_EQ(faulty->writeObject(admin, Path(L"/x"), w, tDefaultReplaceHelper), kErrorAccessDenied);
    EXPECT_EQ(w.writeCalls, 0);
    EXPECT_EQ(inner->readRaw(Path(L"/x")), "body");
    faulty->failCall(FaultInjectingCatalog::kDeleteObject, 1, kErrorLocked);
    EXPECT_EQ(faulty->deleteObject(admin, Path(L"/x")), kErrorLocked);
    EXPECT_TRUE(inner->exists(Path(L"/x")));
}

TEST_F(FaultInjectingCatalogTest, AFaultMayCoverEveryLaterCall) {
    faulty->failCall(FaultInjectingCatalog::kGetItemInfo, 2, kErrorOther, true);
    EXPECT_EQ(info(), kSuccess);
    for (int n = 0; n < 5; ++n) EXPECT_EQ(info(), kErrorOther);
    faulty->clearFaults();
    EXPECT_EQ(info(), kSuccess);
}

TEST_F(FaultInjectingCatalogTest, CallsAreCountedPerOperation) {
    info();
    info();
    RecordingReader r;
    ItemInfo i;
    faulty->readObject(admin, Path(L"/x"), r, i, 0);
    EXPECT_EQ(faulty->callCount(FaultInjectingCatalog::kGetItemInfo), 2u);
    EXPECT_EQ(faulty->callCount(FaultInjectingCatalog::kReadObject), 1u);
    EXPECT_EQ(faulty->callCount(FaultInjectingCatalog::kWriteObject), 0u);
    EXPECT_EQ(faulty->callCount(FaultInjectingCatalog::kDeleteObject), 0u);
    faulty->resetCounts();
    EXPECT_EQ(faulty->callCount(FaultInjectingCatalog::kGetItemInfo), 0u);
}

TEST_F(FaultInjectingCatalogTest, FaultsOfOneOperationLeaveTheOthersAlone) {
    faulty->failCall(FaultInjectingCatalog::kReadObject, 1, kErrorIO);
    EXPECT_EQ(info(), kSuccess);
    RecordingReader r;
    ItemInfo i;
    EXPECT_EQ(faulty->readObject(admin, Path(L"/x"), r, i, 0), kErrorIO);
}

TEST_F(FaultInjectingCatalogTest, TheNthCallThrowsACopyOfTheChosenException) {
    faulty->throwOnCall(FaultInjectingCatalog::kReadObject, 1, CatalogException(kErrorIO, L"/x"));
    RecordingReader r;
    ItemInfo i;
    try {
        faulty->readObject(admin, Path(L"/x"), r, i, 0);
        FAIL() << "no exception";
    } catch (const CatalogException& e) {
        EXPECT_EQ(e.getCode(), kErrorIO);
    }
    EXPECT_EQ(r.preCalls, 0);
    EXPECT_EQ(faulty->readObject(admin, Path(L"/x"), r, i, 0), kSuccess);
}

TEST_F(FaultInjectingCatalogTest, TheNthCallRunsTheChosenAction) {
    int ran = 0;
    faulty->runOnCall(FaultInjectingCatalog::kGetItemInfo, 1, [&] { ++ran; });
    faulty->runOnCall(FaultInjectingCatalog::kGetItemInfo, 2, [] { throw CatalogUpgradeRequired(L"upgrade", String()); });
    EXPECT_EQ(info(), kSuccess);  // the action returned, so the call went on
    EXPECT_EQ(ran, 1);
    EXPECT_THROW(info(), CatalogUpgradeRequired);
    EXPECT_EQ(faulty->callCount(FaultInjectingCatalog::kGetItemInfo), 2u);
}

TEST_F(FaultInjectingCatalogTest, TheReaderUpgradeModeIsTheWrappedCatalogs) {
    inner->setReaderUpgradeMode(Reader::kUpgradeForce);
    EXPECT_EQ(faulty->getReaderUpgradeMode(), Reader::kUpgradeForce);
}

}  // namespace
}  // namespace kiv::catalog
