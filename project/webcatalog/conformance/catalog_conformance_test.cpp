// The catalog contract, tested once and run against every back-end: the
// SQLite catalog in memory and in a file, and the PostgreSQL catalog (each
// test on a fresh store; see catalogbackends.h).
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <thread>

#include "webcatalog/conformance/catalogbackends.h"
#include "webcatalog/conformance/catalogtestsupport.h"

namespace kiv::catalog {
namespace {

using testing::allBackends;
using testing::makeStore;
using testing::NeverReplace;
using testing::RecordingReader;
using testing::RecordingWriter;
using testing::sharedBackends;
using testing::TestStore;

class CatalogContract : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override {
        store = makeStore(GetParam());
        catalog = store->open();
        catalog->addUser(L"alice", {L"sales"});
        catalog->addUser(L"bob", {L"finance"});
        catalog->addUser(L"root", {L"administrators"});
        alice = catalog->tokenFor(L"alice");
        bob = catalog->tokenFor(L"bob");
        admin = catalog->tokenFor(L"root");
        catalog->makeFolder(Path(L"/shared"));
        catalog->setAccess(Path(L"/shared"), L"everyone", true, Rights::kWrite);
        catalog->putObject(Path(L"/shared/report"), L"test1", {{L"owner", L"alice"}}, "report body");
    }
    void TearDown() override {
        catalog.reset();
        store.reset();
    }

    ReturnCode info(const AccountToken& user, const wchar_t* path, ItemInfo& out, bool originalOnly = false) {
        return catalog->getItemInfo(user, Path(path, kUnchecked), out, originalOnly, true);
    }
    ReturnCode write(const AccountToken& user, const wchar_t* path, RecordingWriter& w) {
        return catalog->writeObject(user, Path(path, kUnchecked), w, tDefaultReplaceHelper);
    }
    ReturnCode read(const AccountToken& user, const wchar_t* path, RecordingReader& r) {
        ItemInfo i;
        return catalog->readObject(user, Path(path, kUnchecked), r, i, 0);
    }

    std::unique_ptr<TestStore> store;
    std::unique_ptr<ManagedCatalog> catalog;
    AccountToken alice, bob, admin;
};

INSTANTIATE_TEST_SUITE_P(Backends, CatalogContract, ::testing::ValuesIn(allBackends()),
                         [](const ::testing::TestParamInfo<std::string>& i) { return testing::testName(i.param); });

// --- getItemInfo ------------------------------------------------------------

TEST_P(CatalogContract, GetItemInfoOnAnObjectGivesItsTypeSignatureTimeAndProperties) {
    ItemInfo i;
    ASSERT_EQ(info(alice, L"/shared/report", i), kSuccess);
    for (EItemInfo which : {kInfoOriginal, kInfoResolved}) {
        SCOPED_TRACE(which);
        EXPECT_EQ(i.getItemType(which), static_cast<unsigned>(kObject));
        EXPECT_EQ(i.getObjectSignature(which), L"test1");
        EXPECT_EQ(i.getPath(which).toString(), L"/shared/report");
        EXPECT_EQ(i.getItemProperty(L"owner", L"", which), L"alice");
        EXPECT_GT(i.getLastModifiedTime(which), 0);
    }
}

TEST_P(CatalogContract, SetPropertiesGivesAFolderItsPropertiesAndANewerTime) {
    catalog->makeFolder(Path(L"/shared/dash"));
    ItemInfo before;
    ASSERT_EQ(info(alice, L"/shared/dash", before), kSuccess);
    EXPECT_EQ(before.getItemProperty(L"compositeSignature", L"none", kInfoResolved), L"none");
    catalog->setProperties(Path(L"/shared/dash"), {{L"compositeSignature", L"dashboardfolder1"}});
    ItemInfo after;
    ASSERT_EQ(info(alice, L"/shared/dash", after), kSuccess);
    EXPECT_EQ(after.getItemType(kInfoResolved), static_cast<unsigned>(kFolder));
    EXPECT_EQ(after.getItemProperty(L"compositeSignature", L"", kInfoResolved), L"dashboardfolder1");
    EXPECT_GT(after.getLastModifiedTime(kInfoResolved), before.getLastModifiedTime(kInfoResolved));
    // Replaces, does not merge.
    catalog->setProperties(Path(L"/shared/report"), {{L"x", L"1"}});
    ItemInfo report;
    ASSERT_EQ(info(alice, L"/shared/report", report), kSuccess);
    EXPECT_EQ(report.getItemProperty(L"owner", L"gone", kInfoResolved), L"gone");
    EXPECT_EQ(report.getItemProperty(L"x", L"", kInfoResolved), L"1");
}

TEST_P(CatalogContract, SetPropertiesOnAMissingItemRaises) {
    EXPECT_THROW(catalog->setProperties(Path(L"/shared/none"), {}), CatalogException);
}

TEST_P(CatalogContract, GetItemInfoOnTheRootIsAFolder) {
    ItemInfo i;
    ASSERT_EQ(info(alice, L"/", i), kSuccess);
    EXPECT_EQ(i.getItemType(kInfoResolved), static_cast<unsigned>(kFolder));
}

TEST_P(CatalogContract, GetItemInfoWithoutPropertiesLeavesThemEmpty) {
    ItemInfo i;
    ASSERT_EQ(catalog->getItemInfo(alice, Path(L"/shared/report"), i, false, false), kSuccess);
    EXPECT_EQ(i.getItemProperty(L"owner", L"none", kInfoResolved), L"none");
}

TEST_P(CatalogContract, GetItemInfoOnAMissingItemIsPathNotFound) {
    ItemInfo i;
    EXPECT_EQ(info(alice, L"/shared/missing", i), kErrorPathNotFound);
    EXPECT_EQ(info(alice, L"/nowhere/missing", i), kErrorPathNotFound);
}

TEST_P(CatalogContract, GetItemInfoOnABlankPathIsPathInvalid) {
    ItemInfo i;
    EXPECT_EQ(catalog->getItemInfo(alice, kpBlank, i, false, true), kErrorPathInvalid);
}

TEST_P(CatalogContract, GetItemInfoOnAMalformedPathIsPathInvalid) {
    ItemInfo i;
    EXPECT_EQ(info(alice, L"shared/report", i), kErrorPathInvalid);
    EXPECT_EQ(info(alice, L"/shared//report", i), kErrorPathInvalid);
    EXPECT_EQ(info(alice, L"/shared/report/", i), kErrorPathInvalid);
    EXPECT_EQ(info(alice, L"/shared/re\\port", i), kErrorPathInvalid);
}

TEST_P(CatalogContract, GetItemInfoOnAnUnreadableItemIsAccessDenied) {
    catalog->setAccess(Path(L"/shared/report"), L"bob", false, Rights::kRead);
    ItemInfo i;
    EXPECT_EQ(info(alice, L"/shared/report", i), kErrorAccessDenied);
    EXPECT_EQ(info(bob, L"/shared/report", i), kSuccess);
}

TEST_P(CatalogContract, AnItemInAFolderTheUserMayNotReadIsNotFoundWhetherItExistsOrNot) {
    catalog->makeFolder(Path(L"/shared/hidden"));
    catalog->setAccess(Path(L"/shared/hidden"), L"finance", true, Rights::kRead);
    catalog->putObject(Path(L"/shared/hidden/plan"), L"test1", {}, "plan");
    ItemInfo i;
    EXPECT_EQ(info(alice, L"/shared/hidden/plan", i), kErrorPathNotFound);
    EXPECT_EQ(info(alice, L"/shared/hidden/missing", i), kErrorPathNotFound);
    RecordingReader r;
    EXPECT_EQ(read(alice, L"/shared/hidden/plan", r), kErrorPathNotFound);
    // The folder itself is listed in /shared, which alice may read.
    EXPECT_EQ(info(alice, L"/shared/hidden", i), kErrorAccessDenied);
    EXPECT_EQ(info(bob, L"/shared/hidden/plan", i), kSuccess);
}

TEST_P(CatalogContract, AReadableItemInAFolderTheUserMayNotReadIsFound) {
    catalog->makeFolder(Path(L"/shared/hidden"));
    catalog->setAccess(Path(L"/shared/hidden"), L"finance", true, Rights::kRead);
    catalog->putObject(Path(L"/shared/hidden/memo"), L"test1", {}, "memo");
    catalog->setAccess(Path(L"/shared/hidden/memo"), L"alice", false, Rights::kRead);
    ItemInfo i;
    EXPECT_EQ(info(alice, L"/shared/hidden/memo", i), kSuccess);
}

TEST_P(CatalogContract, GetItemInfoFollowsALinkForTheResolvedView) {
    catalog->makeLink(Path(L"/shared/link"), Path(L"/shared/report"));
    ItemInfo i;
    ASSERT_EQ(info(alice, L"/shared/link", i), kSuccess);
    EXPECT_EQ(i.getItemType(kInfoOriginal), static_cast<unsigned>(kLink));
    EXPECT_EQ(i.getPath(kInfoOriginal).toString(), L"/shared/link");
    EXPECT_EQ(i.getItemType(kInfoResolved), static_cast<unsigned>(kObject));
    EXPECT_EQ(i.getPath(kInfoResolved).toString(), L"/shared/report");
    EXPECT_EQ(i.getObjectSignature(kInfoResolved), L"test1");
    EXPECT_EQ(i.getItemProperty(L"owner", L"", kInfoResolved), L"alice");
}

TEST_P(CatalogContract, GetItemInfoOriginalOnlyDoesNotFollowLinks) {
    catalog->makeLink(Path(L"/shared/link"), Path(L"/shared/missing"));
    ItemInfo i;
    ASSERT_EQ(info(alice, L"/shared/link", i, true), kSuccess);
    EXPECT_EQ(i.getItemType(kInfoResolved), static_cast<unsigned>(kLink));
}

TEST_P(CatalogContract, GetItemInfoFollowsAChainOfLinks) {
    catalog->makeLink(Path(L"/shared/l1"), Path(L"/shared/l2"));
    catalog->makeLink(Path(L"/shared/l2"), Path(L"/shared/report"));
    ItemInfo i;
    ASSERT_EQ(info(alice, L"/shared/l1", i), kSuccess);
    EXPECT_EQ(i.getPath(kInfoResolved).toString(), L"/shared/report");
}

TEST_P(CatalogContract, GetItemInfoOnADanglingLinkIsLinkTargetPathNotFound) {
    catalog->makeLink(Path(L"/shared/link"), Path(L"/shared/missing"));
    ItemInfo i;
    EXPECT_EQ(info(alice, L"/shared/link", i), kErrorLinkTargetPathNotFound);
    EXPECT_EQ(i.getItemType(kInfoOriginal), static_cast<unsigned>(kLink));
    EXPECT_EQ(i.getItemType(kInfoResolved), static_cast<unsigned>(kMissing));
}

TEST_P(CatalogContract, GetItemInfoOnACircularLinkIsCircularLink) {
    catalog->makeLink(Path(L"/shared/self"), Path(L"/shared/self"));
    catalog->makeLink(Path(L"/shared/a"), Path(L"/shared/b"));
    catalog->makeLink(Path(L"/shared/b"), Path(L"/shared/a"));
    ItemInfo i;
    EXPECT_EQ(info(alice, L"/shared/self", i), kErrorCircularLink);
    EXPECT_TRUE(i.getItemType(kInfoResolved) & kCircular);
    EXPECT_EQ(info(alice, L"/shared/a", i), kErrorCircularLink);
}

TEST_P(CatalogContract, GetItemInfoOnALinkToAnUnreadableTargetIsLinkTargetAccessDenied) {
    catalog->putObject(Path(L"/private/x"), L"test1", {}, "x");
    catalog->setAccess(Path(L"/private"), L"everyone", true, Rights::kNone);
    catalog->makeLink(Path(L"/shared/link"), Path(L"/private/x"));
    ItemInfo i;
    EXPECT_EQ(info(alice, L"/shared/link", i), kErrorLinkTargetAccessDenied);
    EXPECT_EQ(info(admin, L"/shared/link", i), kSuccess);
}

// --- readObject -------------------------------------------------------------

TEST_P(CatalogContract, ReadObjectHandsTheBodyToTheReader) {
    RecordingReader r;
    ItemInfo i;
    ASSERT_EQ(catalog->readObject(alice, Path(L"/shared/report"), r, i, 0), kSuccess);
    EXPECT_EQ(r.body, "report body");
    EXPECT_EQ(i.getObjectSignature(kInfoResolved), L"test1");
    EXPECT_EQ(r.seenInfo.getPath(kInfoOriginal).toString(), L"/shared/report");
}

TEST_P(CatalogContract, ReadObjectStopsWhenPreInspectSaysSo) {
    RecordingReader r(L"other1");
    r.stopAtPreInspect = true;
    EXPECT_EQ(read(alice, L"/shared/report", r), kSuccess);
    EXPECT_EQ(r.preCalls, 1);
    EXPECT_EQ(r.readCalls, 0);
}

TEST_P(CatalogContract, ReadObjectWithAnotherSignatureIsObjectTypeMismatch) {
    RecordingReader r(L"other1");
    EXPECT_EQ(read(alice, L"/shared/report", r), kErrorObjectTypeMismatch);
    EXPECT_EQ(r.readCalls, 0);
}

TEST_P(CatalogContract, ReadObjectOnAMissingObjectIsPathNotFound) {
    RecordingReader r;
    EXPECT_EQ(read(alice, L"/shared/missing", r), kErrorPathNotFound);
    EXPECT_EQ(r.preCalls, 0);
}

TEST_P(CatalogContract, ReadObjectOnAFolderIsObjectExpected) {
    RecordingReader r;
    EXPECT_EQ(read(alice, L"/shared", r), kErrorObjectExpected);
}

TEST_P(CatalogContract, ReadObjectOnAnUnreadableObjectIsAccessDenied) {
    catalog->setAccess(Path(L"/shared/report"), L"finance", true, Rights::kRead);
    RecordingReader r;
    EXPECT_EQ(read(alice, L"/shared/report", r), kErrorAccessDenied);
    EXPECT_EQ(read(bob, L"/shared/report", r), kSuccess);
}

TEST_P(CatalogContract, ReadObjectOnAnInvalidPathIsPathInvalid) {
    RecordingReader r;
    EXPECT_EQ(read(alice, L"no/slash", r), kErrorPathInvalid);
}

TEST_P(CatalogContract, ReadObjectThroughALinkReadsTheTarget) {
    catalog->makeLink(Path(L"/shared/link"), Path(L"/shared/report"));
    RecordingReader r;
    ASSERT_EQ(read(alice, L"/shared/link", r), kSuccess);
    EXPECT_EQ(r.body, "report body");
}

TEST_P(CatalogContract, ReadObjectOnADanglingLinkIsLinkTargetPathNotFound) {
    catalog->makeLink(Path(L"/shared/link"), Path(L"/shared/gone"));
    RecordingReader r;
    EXPECT_EQ(read(alice, L"/shared/link", r), kErrorLinkTargetPathNotFound);
}

TEST_P(CatalogContract, ReadObjectOnACircularLinkIsCircularLink) {
    catalog->makeLink(Path(L"/shared/link"), Path(L"/shared/link"));
    RecordingReader r;
    EXPECT_EQ(read(alice, L"/shared/link", r), kErrorCircularLink);
}

TEST_P(CatalogContract, ReadObjectLetsTheReadersExceptionPass) {
    RecordingReader r;
    r.throwOnRead = true;
    EXPECT_THROW(read(alice, L"/shared/report", r), CatalogUpgradeRequired);
    // The catalog is still usable afterwards.
    ItemInfo i;
    EXPECT_EQ(info(alice, L"/shared/report", i), kSuccess);
}

TEST_P(CatalogContract, ReadObjectWhenTheReaderRefusesPrivilegesIsPrivilegeValidationFailed) {
    RecordingReader r;
    r.privilegesOk = false;
    EXPECT_EQ(read(alice, L"/shared/report", r), kErrorPrivilegeValidationFailed);
    EXPECT_EQ(r.readCalls, 0);
}

TEST_P(CatalogContract, ReadersMayUseTheCatalogFromTheirCallbacks) {
    class NestedReader : public RecordingReader {
    public:
        NestedReader(ManagedCatalog& c, const AccountToken& u) : m_catalog(c), m_user(u) {}
        bool read(const void* data, std::size_t size, const ItemInfo& info) override {
            ItemInfo other;
            nested = m_catalog.getItemInfo(m_user, Path(L"/shared"), other, false, false);
            return RecordingReader::read(data, size, info);
        }
        ReturnCode nested = kErrorOther;

    private:
        ManagedCatalog& m_catalog;
        AccountToken m_user;
    } r(*catalog, alice);
    ASSERT_EQ(read(alice, L"/shared/report", r), kSuccess);
    EXPECT_EQ(r.nested, kSuccess);
}

// --- writeObject ------------------------------------------------------------

TEST_P(CatalogContract, WriteObjectCreatesAnObject) {
    RecordingWriter w("new body", L"sig1");
    ASSERT_EQ(write(alice, L"/shared/new", w), kSuccess);
    EXPECT_EQ(catalog->readRaw(Path(L"/shared/new")), "new body");
    ItemInfo i;
    ASSERT_EQ(info(alice, L"/shared/new", i), kSuccess);
    EXPECT_EQ(i.getObjectSignature(kInfoResolved), L"sig1");
    EXPECT_EQ(w.postCalls, 1);
    EXPECT_EQ(w.written.getLastModifiedTime(kInfoResolved), i.getLastModifiedTime(kInfoResolved));
    EXPECT_EQ(w.written.getPath(kInfoOriginal).toString(), L"/shared/new");
}

TEST_P(CatalogContract, WriteObjectReplacesAnObjectAndKeepsItsProperties) {
    RecordingWriter w("second");
    ASSERT_EQ(write(alice, L"/shared/report", w), kSuccess);
    EXPECT_EQ(catalog->readRaw(Path(L"/shared/report")), "second");
    ItemInfo i;
    ASSERT_EQ(info(alice, L"/shared/report", i), kSuccess);
    EXPECT_EQ(i.getItemProperty(L"owner", L"", kInfoResolved), L"alice");
}

TEST_P(CatalogContract, WriteObjectOverAnObjectOfAnotherSignatureIsObjectTypeMismatch) {
    RecordingWriter w("favorites", L"favorites1");
    EXPECT_EQ(write(alice, L"/shared/report", w), kErrorObjectTypeMismatch);
    EXPECT_EQ(w.writeCalls, 0);
    EXPECT_EQ(catalog->readRaw(Path(L"/shared/report")), "report body");
    ItemInfo i;
    ASSERT_EQ(info(alice, L"/shared/report", i), kSuccess);
    EXPECT_EQ(i.getObjectSignature(kInfoOriginal), L"test1");
}

TEST_P(CatalogContract, WriteObjectWithoutParentFolderIsPathNotFound) {
    RecordingWriter w("x");
    EXPECT_EQ(write(alice, L"/shared/nofolder/x", w), kErrorPathNotFound);
    EXPECT_EQ(w.writeCalls, 0);
}

TEST_P(CatalogContract, WriteObjectUnderAnObjectIsFolderExpected) {
    RecordingWriter w("x");
    EXPECT_EQ(write(alice, L"/shared/report/x", w), kErrorFolderExpected);
}

TEST_P(CatalogContract, WriteObjectOnAFolderIsObjectExpected) {
    RecordingWriter w("x");
    EXPECT_EQ(write(alice, L"/shared", w), kErrorObjectExpected);
}

TEST_P(CatalogContract, WriteObjectOnALinkIsObjectExpected) {
    catalog->makeLink(Path(L"/shared/link"), Path(L"/shared/report"));
    RecordingWriter w("x");
    EXPECT_EQ(write(alice, L"/shared/link", w), kErrorObjectExpected);
}

TEST_P(CatalogContract, WriteObjectOnTheRootIsRootSacred) {
    RecordingWriter w("x");
    EXPECT_EQ(write(admin, L"/", w), kErrorRootSacred);
}

TEST_P(CatalogContract, WriteObjectWithAnInvalidNameIsItemNameInvalid) {
    RecordingWriter w("x");
    EXPECT_EQ(write(alice, L"/shared/bad\x01name", w), kErrorItemNameInvalid);
    EXPECT_EQ(write(alice, L"/shared/   ", w), kErrorItemNameInvalid);
    EXPECT_EQ(write(alice, (L"/shared/" + String(256, L'n')).c_str(), w), kErrorItemNameInvalid);
}

TEST_P(CatalogContract, WriteObjectWithAnInvalidPathIsPathInvalid) {
    RecordingWriter w("x");
    EXPECT_EQ(catalog->writeObject(alice, kpBlank, w, tDefaultReplaceHelper), kErrorPathInvalid);
    EXPECT_EQ(write(alice, L"shared/x", w), kErrorPathInvalid);
    EXPECT_EQ(write(alice, L"/sha//red/x", w), kErrorPathInvalid);
    EXPECT_EQ(write(alice, (L"/" + String(4200, L'a')).c_str(), w), kErrorPathInvalid);
    EXPECT_EQ(w.writeCalls, 0);
}

TEST_P(CatalogContract, WriteObjectWithoutWriteRightIsAccessDenied) {
    catalog->makeFolder(Path(L"/readonly"));
    RecordingWriter w("x");
    EXPECT_EQ(write(alice, L"/readonly/new", w), kErrorAccessDenied);
    catalog->setAccess(Path(L"/shared/report"), L"everyone", true, Rights::kRead);
    EXPECT_EQ(write(alice, L"/shared/report", w), kErrorAccessDenied);
    EXPECT_EQ(w.writeCalls, 0);
    EXPECT_EQ(catalog->readRaw(Path(L"/shared/report")), "report body");
}

TEST_P(CatalogContract, WriteObjectRefusedByTheReplaceHelperIsItemAlreadyExists) {
    RecordingWriter w("x");
    NeverReplace never;
    EXPECT_EQ(catalog->writeObject(alice, Path(L"/shared/report"), w, never), kErrorItemAlreadyExists);
    EXPECT_EQ(never.calls, 1);
    EXPECT_EQ(never.seen.getObjectSignature(kInfoOriginal), L"test1");
    EXPECT_EQ(catalog->readRaw(Path(L"/shared/report")), "report body");
    // A new object is created without asking the helper.
    EXPECT_EQ(catalog->writeObject(alice, Path(L"/shared/fresh"), w, never), kSuccess);
    EXPECT_EQ(never.calls, 1);
}

TEST_P(CatalogContract, WriteObjectWhenTheWriterRefusesPrivilegesIsPrivilegeValidationFailed) {
    RecordingWriter w("x");
    w.privilegesOk = false;
    EXPECT_EQ(write(alice, L"/shared/new", w), kErrorPrivilegeValidationFailed);
    EXPECT_FALSE(catalog->exists(Path(L"/shared/new")));
    RecordingWriter anonymous("x");
    EXPECT_EQ(write(AccountToken(), L"/shared/new", anonymous), kErrorPrivilegeValidationFailed);
}

TEST_P(CatalogContract, WriteObjectWhenTheWriterThrowsIsCatalogObjectException) {
    RecordingWriter w("x");
    w.throwOnWrite = true;
    EXPECT_EQ(write(alice, L"/shared/report", w), kErrorCatalogObjectException);
    EXPECT_EQ(catalog->readRaw(Path(L"/shared/report")), "report body");
}

TEST_P(CatalogContract, TwoWritesInATightLoopHaveStrictlyIncreasingTimes) {
    RecordingWriter w("x");
    Time previous = 0;
    for (int n = 0; n < 200; ++n) {
        ASSERT_EQ(write(alice, L"/shared/report", w), kSuccess);
        ItemInfo i;
        ASSERT_EQ(info(alice, L"/shared/report", i), kSuccess);
        ASSERT_GT(i.getLastModifiedTime(kInfoResolved), previous);
        previous = i.getLastModifiedTime(kInfoResolved);
    }
}

TEST_P(CatalogContract, AnObjectWrittenAgainAfterDeletionHasALaterTime) {
    ItemInfo before;
    ASSERT_EQ(info(alice, L"/shared/report", before), kSuccess);
    ASSERT_EQ(catalog->deleteObject(alice, Path(L"/shared/report")), kSuccess);
    RecordingWriter w("again");
    ASSERT_EQ(write(alice, L"/shared/report", w), kSuccess);
    ItemInfo after;
    ASSERT_EQ(info(alice, L"/shared/report", after), kSuccess);
    EXPECT_GT(after.getLastModifiedTime(kInfoResolved), before.getLastModifiedTime(kInfoResolved));
}

// --- deleteObject -----------------------------------------------------------

TEST_P(CatalogContract, DeleteObjectRemovesAnObject) {
    EXPECT_EQ(catalog->deleteObject(alice, Path(L"/shared/report")), kSuccess);
    EXPECT_FALSE(catalog->exists(Path(L"/shared/report")));
    ItemInfo i;
    EXPECT_EQ(info(alice, L"/shared/report", i), kErrorPathNotFound);
}

TEST_P(CatalogContract, DeleteObjectRemovesALinkNotItsTarget) {
    catalog->makeLink(Path(L"/shared/link"), Path(L"/shared/report"));
    EXPECT_EQ(catalog->deleteObject(alice, Path(L"/shared/link")), kSuccess);
    EXPECT_FALSE(catalog->exists(Path(L"/shared/link")));
    EXPECT_TRUE(catalog->exists(Path(L"/shared/report")));
}

TEST_P(CatalogContract, DeleteObjectOnAMissingItemIsPathNotFound) {
    EXPECT_EQ(catalog->deleteObject(alice, Path(L"/shared/missing")), kErrorPathNotFound);
}

TEST_P(CatalogContract, DeleteObjectOnAFolderIsObjectOrLinkExpected) {
    EXPECT_EQ(catalog->deleteObject(admin, Path(L"/shared")), kErrorObjectOrLinkExpected);
    EXPECT_TRUE(catalog->exists(Path(L"/shared")));
}

TEST_P(CatalogContract, DeleteObjectOnTheRootIsRootSacred) {
    EXPECT_EQ(catalog->deleteObject(admin, Path(L"/")), kErrorRootSacred);
}

TEST_P(CatalogContract, DeleteObjectWithoutWriteRightIsAccessDenied) {
    catalog->setAccess(Path(L"/shared/report"), L"everyone", true, Rights::kRead);
    EXPECT_EQ(catalog->deleteObject(alice, Path(L"/shared/report")), kErrorAccessDenied);
    EXPECT_TRUE(catalog->exists(Path(L"/shared/report")));
}

TEST_P(CatalogContract, DeleteObjectOnAnInvalidPathIsPathInvalid) {
    EXPECT_EQ(catalog->deleteObject(alice, kpBlank), kErrorPathInvalid);
    EXPECT_EQ(catalog->deleteObject(alice, Path(L"/a//b", kUnchecked)), kErrorPathInvalid);
}

// --- access rights ----------------------------------------------------------

TEST_P(CatalogContract, ANewCatalogLetsEveryoneReadAndNobodyWrite) {
    const std::unique_ptr<TestStore> freshStore = makeStore(GetParam());
    const std::unique_ptr<ManagedCatalog> fresh = freshStore->open();
    fresh->putObject(Path(L"/a/x"), L"t", {}, "x");
    EXPECT_EQ(fresh->effectiveRights(alice, Path(L"/a/x")), Rights::kRead);
    EXPECT_EQ(fresh->effectiveRights(alice, Path(L"/")), Rights::kRead);
}

TEST_P(CatalogContract, RightsAreInheritedFromTheNearestAncestorThatSetsThem) {
    catalog->putObject(Path(L"/shared/deep/er/x"), L"t", {}, "x");
    EXPECT_EQ(catalog->effectiveRights(alice, Path(L"/shared/deep/er/x")), Rights::kWrite);
    catalog->setAccess(Path(L"/shared/deep"), L"everyone", true, Rights::kRead);
    EXPECT_EQ(catalog->effectiveRights(alice, Path(L"/shared/deep/er/x")), Rights::kRead);
    catalog->setAccess(Path(L"/shared/deep/er"), L"alice", false, Rights::kWrite);
    EXPECT_EQ(catalog->effectiveRights(alice, Path(L"/shared/deep/er/x")), Rights::kWrite);
    EXPECT_EQ(catalog->effectiveRights(alice, Path(L"/shared/deep")), Rights::kRead);
}

TEST_P(CatalogContract, TheNearestAccessListReplacesTheOnesAbove) {
    catalog->putObject(Path(L"/shared/team/x"), L"t", {}, "x");
    catalog->setAccess(Path(L"/shared/team"), L"alice", false, Rights::kWrite);
    // bob had write on /shared through "everyone", but /shared/team names alice only.
    EXPECT_EQ(catalog->effectiveRights(bob, Path(L"/shared/team/x")), Rights::kNone);
    ItemInfo i;
    EXPECT_EQ(info(bob, L"/shared/team", i), kErrorAccessDenied);
    EXPECT_EQ(info(bob, L"/shared/team/x", i), kErrorPathNotFound);  // in a folder bob may not read
    EXPECT_EQ(info(alice, L"/shared/team/x", i), kSuccess);
}

TEST_P(CatalogContract, AccessListsOnLongPathsApplyToTheirItemsOnly) {
    // Item paths of 30, 286 and 542 bytes: the same length modulo 256.
    const std::wstring folder = L"/shared/" + std::wstring(20, L'f');  // 28 characters
    const Path shortItem(folder + L"/x");
    const Path longItem(folder + L"/" + std::wstring(255, L'l') + L"/x");
    const Path longerItem(folder + L"/" + std::wstring(255, L'l') + L"/" + std::wstring(255, L'm') + L"/x");
    for (const Path* p : {&shortItem, &longItem, &longerItem}) catalog->putObject(*p, L"test1", {}, "x");
    catalog->setAccess(longItem, L"alice", false, Rights::kNone);
    ItemInfo i;
    EXPECT_EQ(catalog->getItemInfo(alice, longItem, i, false, true), kErrorAccessDenied);
    EXPECT_EQ(catalog->getItemInfo(alice, shortItem, i, false, true), kSuccess);
    EXPECT_EQ(catalog->getItemInfo(alice, longerItem, i, false, true), kSuccess);
    catalog->setAccess(longerItem, L"alice", false, Rights::kNone);
    EXPECT_EQ(catalog->getItemInfo(alice, longerItem, i, false, true), kErrorAccessDenied);
    EXPECT_EQ(catalog->getItemInfo(alice, shortItem, i, false, true), kSuccess);
    // The list names alice only.
    EXPECT_EQ(catalog->getItemInfo(bob, longerItem, i, false, true), kErrorAccessDenied);
}

TEST_P(CatalogContract, AUserEntryGrantsToThatUserOnly) {
    catalog->makeFolder(Path(L"/home"));
    catalog->setAccess(Path(L"/home"), L"alice", false, Rights::kWrite);
    RecordingWriter w("x");
    EXPECT_EQ(write(alice, L"/home/mine", w), kSuccess);
    EXPECT_EQ(write(bob, L"/home/bobs", w), kErrorAccessDenied);
    // A group of the same name as the user is another principal.
    catalog->setAccess(Path(L"/home"), L"bob", true, Rights::kWrite);
    EXPECT_EQ(write(bob, L"/home/bobs", w), kErrorAccessDenied);
}

TEST_P(CatalogContract, AGroupEntryGrantsToItsMembers) {
    catalog->makeFolder(Path(L"/finance"));
    catalog->setAccess(Path(L"/finance"), L"finance", true, Rights::kWrite);
    RecordingWriter w("x");
    EXPECT_EQ(write(bob, L"/finance/plan", w), kSuccess);
    EXPECT_EQ(write(alice, L"/finance/plan", w), kErrorAccessDenied);
    ItemInfo i;
    EXPECT_EQ(info(alice, L"/finance", i), kErrorAccessDenied);
    EXPECT_EQ(info(alice, L"/finance/plan", i), kErrorPathNotFound);  // in a folder alice may not read
}

TEST_P(CatalogContract, TheGreatestMatchingEntryWins) {
    catalog->setAccess(Path(L"/shared"), L"alice", false, Rights::kNone);
    catalog->setAccess(Path(L"/shared"), L"sales", true, Rights::kRead);
    EXPECT_EQ(catalog->effectiveRights(alice, Path(L"/shared/report")), Rights::kWrite);  // everyone: write
    catalog->setAccess(Path(L"/shared"), L"everyone", true, Rights::kNone);
    EXPECT_EQ(catalog->effectiveRights(alice, Path(L"/shared/report")), Rights::kRead);
}

TEST_P(CatalogContract, AdministratorsMayDoEverything) {
    catalog->putObject(Path(L"/locked/x"), L"test1", {}, "x");
    catalog->setAccess(Path(L"/locked"), L"everyone", true, Rights::kNone);
    ItemInfo i;
    EXPECT_EQ(info(admin, L"/locked/x", i), kSuccess);
    RecordingReader r;
    EXPECT_EQ(read(admin, L"/locked/x", r), kSuccess);
    RecordingWriter w("y");
    EXPECT_EQ(write(admin, L"/locked/x", w), kSuccess);
    EXPECT_EQ(catalog->deleteObject(admin, Path(L"/locked/x")), kSuccess);
    EXPECT_EQ(info(alice, L"/locked", i), kErrorAccessDenied);
}

TEST_P(CatalogContract, ClearingAnAccessListInheritsAgain) {
    catalog->setAccess(Path(L"/shared/report"), L"bob", false, Rights::kRead);
    EXPECT_EQ(catalog->effectiveRights(alice, Path(L"/shared/report")), Rights::kNone);
    catalog->clearAccess(Path(L"/shared/report"));
    EXPECT_EQ(catalog->effectiveRights(alice, Path(L"/shared/report")), Rights::kWrite);
}

TEST_P(CatalogContract, SetAccessOnAMissingItemIsPathNotFound) {
    try {
        catalog->setAccess(Path(L"/missing"), L"alice", false, Rights::kRead);
        FAIL() << "no exception";
    } catch (const CatalogException& e) {
        EXPECT_EQ(e.getCode(), kErrorPathNotFound);
    }
}

// --- administration ---------------------------------------------------------

TEST_P(CatalogContract, MakeFolderMakesMissingAncestors) {
    catalog->makeFolder(Path(L"/a/b/c"));
    for (const wchar_t* p : {L"/a", L"/a/b", L"/a/b/c"}) {
        ItemInfo i;
        ASSERT_EQ(info(admin, p, i), kSuccess) << String(p).toUtf8();
        EXPECT_EQ(i.getItemType(kInfoOriginal), static_cast<unsigned>(kFolder));
    }
    EXPECT_NO_THROW(catalog->makeFolder(Path(L"/a/b")));
    EXPECT_THROW(catalog->makeFolder(Path(L"/shared/report/x")), CatalogException);
}

TEST_P(CatalogContract, ListGivesTheChildrenInOrder) {
    catalog->putObject(Path(L"/shared/a"), L"s", {}, "");
    catalog->makeLink(Path(L"/shared/b"), Path(L"/shared/a"));
    catalog->makeFolder(Path(L"/shared/c"));
    catalog->putObject(Path(L"/shared/c/inner"), L"s", {}, "");
    const auto entries = catalog->list(Path(L"/shared"));
    ASSERT_EQ(entries.size(), 4u);
    EXPECT_EQ(entries[0].path.toString(), L"/shared/a");
    EXPECT_EQ(entries[1].type, static_cast<unsigned>(kLink));
    EXPECT_EQ(entries[1].linkTarget, L"/shared/a");
    EXPECT_EQ(entries[2].type, static_cast<unsigned>(kFolder));
    EXPECT_EQ(entries[3].path.toString(), L"/shared/report");
}

TEST_P(CatalogContract, TokenForGivesTheRegisteredGroups) {
    const AccountToken t = catalog->tokenFor(L"alice");
    EXPECT_EQ(t.getUserName(), L"alice");
    ASSERT_EQ(t.getGroups().size(), 1u);
    EXPECT_EQ(t.getGroups()[0], L"sales");
    catalog->addUser(L"alice", {L"sales", L"finance"});
    EXPECT_EQ(catalog->tokenFor(L"alice").getGroups().size(), 2u);
    EXPECT_TRUE(catalog->tokenFor(L"stranger").getGroups().empty());
}

TEST_P(CatalogContract, APasswordHashIsStoredWithItsUserAndSurvivesNewGroups) {
    EXPECT_EQ(catalog->passwordHash(L"alice"), "");
    catalog->setPasswordHash(L"alice", "$argon2id$stored");
    EXPECT_EQ(catalog->passwordHash(L"alice"), "$argon2id$stored");
    EXPECT_EQ(catalog->passwordHash(L"bob"), "");
    catalog->addUser(L"alice", {L"sales", L"finance"});
    EXPECT_EQ(catalog->passwordHash(L"alice"), "$argon2id$stored");
    catalog->setPasswordHash(L"alice", "");
    EXPECT_EQ(catalog->passwordHash(L"alice"), "");
}

TEST_P(CatalogContract, APasswordForAnUnknownUserIsRefused) {
    try {
        catalog->setPasswordHash(L"stranger", "$argon2id$x");
        FAIL() << "no exception";
    } catch (const CatalogException& e) {
        EXPECT_EQ(e.getCode(), kErrorPathNotFound);
        EXPECT_EQ(e.getPath(), L"stranger");
    }
    EXPECT_EQ(catalog->passwordHash(L"stranger"), "");
    EXPECT_FALSE(catalog->hasUser(L"stranger"));
    EXPECT_TRUE(catalog->hasUser(L"alice"));
}

TEST_P(CatalogContract, ListGivesEachChildsProperties) {
    catalog->makeFolder(Path(L"/shared/dash"));
    catalog->setProperties(Path(L"/shared/dash"), {{L"compositeSignature", L"dashboardfolder1"}});
    const auto entries = catalog->list(Path(L"/shared"));
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].path.toString(), L"/shared/dash");
    EXPECT_EQ(entries[0].properties.at(L"compositeSignature"), L"dashboardfolder1");
    EXPECT_EQ(entries[1].properties.at(L"owner"), L"alice");
}

TEST_P(CatalogContract, ListReadableGivesOnlyTheChildrenTheUserMayRead) {
    catalog->putObject(Path(L"/shared/sales"), L"s", {}, "x");
    catalog->clearAccess(Path(L"/shared/sales"));
    catalog->setAccess(Path(L"/shared/sales"), L"sales", true, Rights::kRead);
    catalog->putObject(Path(L"/shared/finance"), L"s", {}, "x");
    catalog->clearAccess(Path(L"/shared/finance"));
    catalog->setAccess(Path(L"/shared/finance"), L"finance", true, Rights::kRead);
    auto names = [&](const AccountToken& user) {
        std::vector<std::wstring> out;
        for (const auto& e : catalog->listReadable(user, Path(L"/shared"))) out.push_back(e.path.toString());
        return out;
    };
    EXPECT_EQ(names(alice), (std::vector<std::wstring>{L"/shared/report", L"/shared/sales"}));
    EXPECT_EQ(names(bob), (std::vector<std::wstring>{L"/shared/finance", L"/shared/report"}));
    EXPECT_EQ(names(admin).size(), 3u);
}

TEST_P(CatalogContract, ListReadableOfAFolderTheUserMayNotReadIsAccessDenied) {
    catalog->makeFolder(Path(L"/shared/hidden"));
    catalog->clearAccess(Path(L"/shared/hidden"));
    catalog->setAccess(Path(L"/shared/hidden"), L"finance", true, Rights::kRead);
    auto code = [&](const AccountToken& user, const wchar_t* path) {
        try {
            catalog->listReadable(user, Path(path));
            return kSuccess;
        } catch (const CatalogException& e) {
            return e.getCode();
        }
    };
    EXPECT_EQ(code(alice, L"/shared/hidden"), kErrorAccessDenied);
    EXPECT_EQ(code(bob, L"/shared/hidden"), kSuccess);
    EXPECT_EQ(code(alice, L"/shared/missing"), kErrorPathNotFound);
    EXPECT_EQ(code(alice, L"/shared/report"), kErrorFolderExpected);
    catalog->makeFolder(Path(L"/shared/hidden/inner"));
    EXPECT_EQ(code(alice, L"/shared/hidden/inner"), kErrorPathNotFound);
}

TEST_P(CatalogContract, OnlyTheAdministratorsGroupMakesAnAdministrator) {
    EXPECT_TRUE(ManagedCatalog::isAdministrator(admin));
    EXPECT_FALSE(ManagedCatalog::isAdministrator(alice));
}

TEST_P(CatalogContract, RemoveDeletesAFolderWithEverythingUnderIt) {
    catalog->putObject(Path(L"/shared/f/x"), L"s", {}, "x");
    catalog->putObject(Path(L"/shared/f/y/z"), L"s", {}, "z");
    catalog->putObject(Path(L"/shared/f0"), L"s", {}, "keep");
    catalog->remove(Path(L"/shared/f"));
    EXPECT_FALSE(catalog->exists(Path(L"/shared/f")));
    EXPECT_FALSE(catalog->exists(Path(L"/shared/f/y/z")));
    EXPECT_TRUE(catalog->exists(Path(L"/shared/f0")));
    EXPECT_THROW(catalog->remove(Path(L"/")), CatalogException);
}

TEST_P(CatalogContract, ReadRawOfAFolderIsObjectExpected) {
    try {
        catalog->readRaw(Path(L"/shared"));
        FAIL() << "no exception";
    } catch (const CatalogException& e) {
        EXPECT_EQ(e.getCode(), kErrorObjectExpected);
    }
}

TEST_P(CatalogContract, NamesWithEscapedSlashesAreDistinctItems) {
    catalog->putObject(Path(L"/shared/a\\/b"), L"s", {}, "escaped");
    catalog->putObject(Path(L"/shared/a/b"), L"s", {}, "nested");
    EXPECT_EQ(catalog->readRaw(Path(L"/shared/a\\/b")), "escaped");
    EXPECT_EQ(catalog->readRaw(Path(L"/shared/a/b")), "nested");
    const auto entries = catalog->list(Path(L"/shared"));
    EXPECT_EQ(entries.size(), 3u);
}

TEST_P(CatalogContract, UnicodePathsAndPropertiesRoundTrip) {
    const Path p(L"/shared/r\u00e9sum\u00e9 \u4e2d\U0001F600");
    catalog->putObject(p, L"sig\u00e9", {{L"k\u00e9y", L"v\u4e2d"}}, std::string("\0bin\xff", 5));
    ItemInfo i;
    ASSERT_EQ(catalog->getItemInfo(alice, p, i, false, true), kSuccess);
    EXPECT_EQ(i.getObjectSignature(kInfoResolved), L"sig\u00e9");
    EXPECT_EQ(i.getItemProperty(L"k\u00e9y", L"", kInfoResolved), L"v\u4e2d");
    EXPECT_EQ(catalog->readRaw(p), std::string("\0bin\xff", 5));
}

TEST_P(CatalogContract, InvalidPathTextsNeverCrashTheCatalog) {
    std::mt19937 rng(3);
    const wchar_t alphabet[] = {L'/', L'\\', L's', L' ', L'\x01', static_cast<wchar_t>(0xD800),
                                static_cast<wchar_t>(0x110000), L'\x9F', L'r'};
    RecordingWriter w("x");
    RecordingReader r;
    for (int n = 0; n < 1500; ++n) {
        std::wstring text(rng() % 12, L'a');
        for (auto& c : text) c = alphabet[rng() % std::size(alphabet)];
        const Path p(String(text), kUnchecked);
        ItemInfo i;
        const bool valid = Path::checkPath(String(text)) == kItemNameValid;
        const ReturnCode a = catalog->getItemInfo(alice, p, i, false, true);
        if (!valid) {
            EXPECT_EQ(a, kErrorPathInvalid);
        }
        const ReturnCode b = catalog->readObject(alice, p, r, i, 0);
        if (!valid) {
            EXPECT_EQ(b, kErrorPathInvalid);
        }
        const ReturnCode c = catalog->writeObject(alice, p, w, tDefaultReplaceHelper);
        if (!valid) {
            EXPECT_TRUE(c == kErrorPathInvalid || c == kErrorItemNameInvalid || c == kErrorRootSacred);
        }
        const ReturnCode d = catalog->deleteObject(alice, p);
        if (!valid) {
            EXPECT_EQ(d, kErrorPathInvalid);
        }
    }
    EXPECT_EQ(testing::integrityOf(*catalog), "ok");
    ItemInfo i;
    EXPECT_EQ(info(alice, L"/shared/report", i), kSuccess);
}

TEST_P(CatalogContract, GetItemInfoRefusesExactlyThePathTextsThePathCheckRefuses) {
    // Texts near every rule of the path check: separators, escapes, white
    // space, control characters, characters beyond ASCII, and the limits of
    // name and path length.
    std::mt19937 rng(11);
    const wchar_t alphabet[] = {L'/', L'/', L'\\', L's', L'Z', L'~', L'!', L' ', L' ', L'\t', L'\x7F',
                                L'\x80', L'\xA0', L'\xE9', static_cast<wchar_t>(0x3000),
                                static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0x4E2D),
                                static_cast<wchar_t>(0x1F600)};
    std::vector<std::wstring> texts = {L"", L"/", L"//", L"/a/", L"/a//b", L"a/b", L"/ ", L"/ a", L"/a /b",
                                       L"/\\", L"/\\/", L"/\\\\", L"/a\\b", L"/a\\", L"/\\ ", L"/a\x7F",
                                       L"/\x7F" L"a", L"/\x85", L"/\xE9t\xE9"};
    for (std::size_t length : {254u, 255u, 256u}) {
        texts.push_back(L"/" + std::wstring(length, L'n'));
        texts.push_back(L"/" + std::wstring(length, L'n') + L"/x");
        texts.push_back(L"/x/" + std::wstring(length - 1, L'n') + L"\\/");
    }
    for (std::size_t length : {Path::kMaxPathLength - 1, Path::kMaxPathLength, Path::kMaxPathLength + 1}) {
        std::wstring text;
        while (text.size() < length) text += L"/" + std::wstring(200, L'p');
        text.resize(length);
        if (text.back() == L'/') text.back() = L'q';
        texts.push_back(text);
    }
    for (int n = 0; n < 3000; ++n) {
        std::wstring text(1 + rng() % 10, L'a');
        for (auto& c : text) c = alphabet[rng() % std::size(alphabet)];
        if (rng() % 2) text[0] = L'/';
        texts.push_back(text);
    }
    int valid = 0;
    for (std::size_t n = 0; n < texts.size(); ++n) {
        const std::wstring& text = texts[n];
        SCOPED_TRACE("text " + std::to_string(n) + " of length " + std::to_string(text.size()));
        ItemInfo i;
        const ReturnCode rc = catalog->getItemInfo(alice, Path(String(text), kUnchecked), i, false, true);
        if (Path::checkPath(String(text)) == kItemNameValid) {
            ++valid;
            EXPECT_TRUE(rc == kSuccess || rc == kErrorPathNotFound) << rc;
        } else {
            EXPECT_EQ(rc, kErrorPathInvalid);
        }
    }
    EXPECT_GT(valid, 100);  // both kinds were tried
}

TEST_P(CatalogContract, GetItemInfoFindsItemsWhoseNamesHoldSpacesEscapesAndCharactersBeyondAscii) {
    const std::vector<std::wstring> names = {L"quarterly report", L"a\\/b", L"back\\\\slash", L" lead",
                                             L"r\xE9sum\xE9", L"\x4E2D\U0001F600", L"tab\u3000wide",
                                             std::wstring(255, L'n')};
    for (const std::wstring& name : names) {
        const Path p(L"/shared/" + name);
        catalog->putObject(p, L"sig " + name, {}, "body");
        SCOPED_TRACE(::testing::PrintToString(p.toString().toUtf8()));
        ItemInfo i;
        ASSERT_EQ(catalog->getItemInfo(alice, p, i, false, true), kSuccess);
        EXPECT_EQ(i.getObjectSignature(kInfoResolved), L"sig " + name);
        EXPECT_EQ(i.getPath(kInfoOriginal), p);
        RecordingReader r(L"sig " + name);
        ASSERT_EQ(read(alice, p.toString().c_str(), r), kSuccess);
        EXPECT_EQ(r.body, "body");
        EXPECT_EQ(catalog->deleteObject(alice, p), kSuccess);
        EXPECT_EQ(catalog->getItemInfo(alice, p, i, false, true), kErrorPathNotFound);
    }
}


// --- history ------------------------------------------------------------------

class CatalogHistory : public CatalogContract {
protected:
    void keepVersionsOf(const wchar_t* signature, unsigned versions) {
        const String kept(signature);
        catalog->setHistoryPolicy({versions, [kept](const Path&, const String& s) { return s == kept; }});
    }
    std::string versionBody(const wchar_t* path, std::int64_t number) {
        std::string body;
        catalog->readVersion(alice, Path(path), number, body);
        return body;
    }
    std::vector<std::int64_t> numbers(const wchar_t* path) {
        std::vector<std::int64_t> out;
        for (const auto& v : catalog->versions(alice, Path(path))) out.push_back(v.number);
        return out;
    }
};

INSTANTIATE_TEST_SUITE_P(Backends, CatalogHistory, ::testing::ValuesIn(allBackends()),
                         [](const ::testing::TestParamInfo<std::string>& i) { return testing::testName(i.param); });

TEST_P(CatalogHistory, EachWriteOfAnObjectTheRuleNamesKeepsTheVersionItReplaces) {
    keepVersionsOf(L"fav1", 20);
    for (const char* body : {"one", "two", "three"}) {
        RecordingWriter w(body, L"fav1");
        ASSERT_EQ(write(alice, L"/shared/favorites", w), kSuccess);
    }
    const auto versions = catalog->versions(alice, Path(L"/shared/favorites"));
    ASSERT_EQ(versions.size(), 2u);
    EXPECT_EQ(versions[0].number, 2);
    EXPECT_EQ(versions[1].number, 1);
    EXPECT_EQ(versions[0].size, 3u);
    EXPECT_EQ(versions[0].signature, L"fav1");
    EXPECT_EQ(versionBody(L"/shared/favorites", 2), "two");
    EXPECT_EQ(versionBody(L"/shared/favorites", 1), "one");
    EXPECT_EQ(catalog->readRaw(Path(L"/shared/favorites")), "three");
}

TEST_P(CatalogHistory, AVersionCarriesItsOwnModifiedTimeAndTheTimeItWasReplaced) {
    keepVersionsOf(L"fav1", 20);
    RecordingWriter first("one", L"fav1"), second("two", L"fav1");
    ASSERT_EQ(write(alice, L"/shared/favorites", first), kSuccess);
    ASSERT_EQ(write(alice, L"/shared/favorites", second), kSuccess);
    const auto versions = catalog->versions(alice, Path(L"/shared/favorites"));
    ASSERT_EQ(versions.size(), 1u);
    EXPECT_EQ(versions[0].modified, first.written.getLastModifiedTime(kInfoOriginal));
    EXPECT_EQ(versions[0].replaced, second.written.getLastModifiedTime(kInfoOriginal));
}

TEST_P(CatalogHistory, VersionsBeyondTheRulesCountArePrunedOldestFirst) {
    keepVersionsOf(L"fav1", 3);
    for (int n = 1; n <= 6; ++n) {
        RecordingWriter w("v" + std::to_string(n), L"fav1");
        ASSERT_EQ(write(alice, L"/shared/favorites", w), kSuccess);
    }
    EXPECT_EQ(numbers(L"/shared/favorites"), (std::vector<std::int64_t>{5, 4, 3}));
    EXPECT_EQ(versionBody(L"/shared/favorites", 3), "v3");
    std::string body;
    EXPECT_THROW(catalog->readVersion(alice, Path(L"/shared/favorites"), 2, body), CatalogException);
}

TEST_P(CatalogHistory, ObjectsTheRuleDoesNotNameKeepNoVersions) {
    keepVersionsOf(L"fav1", 20);
    RecordingWriter w("new report");
    ASSERT_EQ(write(alice, L"/shared/report", w), kSuccess);
    EXPECT_TRUE(catalog->versions(alice, Path(L"/shared/report")).empty());
}

TEST_P(CatalogHistory, WithoutARuleNoVersionsAreKept) {
    RecordingWriter first("one", L"fav1"), second("two", L"fav1");
    ASSERT_EQ(write(alice, L"/shared/favorites", first), kSuccess);
    ASSERT_EQ(write(alice, L"/shared/favorites", second), kSuccess);
    EXPECT_TRUE(catalog->versions(alice, Path(L"/shared/favorites")).empty());
}

TEST_P(CatalogHistory, TheRuleIsAskedWithThePathAndTheStoredSignature) {
    catalog->setHistoryPolicy({20, [](const Path& path, const String& signature) {
                                   return path.toString() == L"/shared/favorites" && signature == L"fav1";
                               }});
    for (const wchar_t* path : {L"/shared/favorites", L"/shared/other"}) {
        RecordingWriter first("one", L"fav1"), second("two", L"fav1");
        ASSERT_EQ(write(alice, path, first), kSuccess);
        ASSERT_EQ(write(alice, path, second), kSuccess);
    }
    EXPECT_EQ(numbers(L"/shared/favorites").size(), 1u);
    EXPECT_TRUE(numbers(L"/shared/other").empty());
}

TEST_P(CatalogHistory, DeletingAnObjectKeepsItsLastVersion) {
    keepVersionsOf(L"fav1", 20);
    RecordingWriter w("kept", L"fav1");
    ASSERT_EQ(write(alice, L"/shared/favorites", w), kSuccess);
    ASSERT_EQ(catalog->deleteObject(alice, Path(L"/shared/favorites")), kSuccess);
    EXPECT_FALSE(catalog->exists(Path(L"/shared/favorites")));
    EXPECT_EQ(numbers(L"/shared/favorites"), (std::vector<std::int64_t>{1}));
    EXPECT_EQ(versionBody(L"/shared/favorites", 1), "kept");
}

TEST_P(CatalogHistory, RemovingAFolderKeepsTheLastVersionOfEveryObjectTheRuleNamesUnderIt) {
    keepVersionsOf(L"fav1", 20);
    catalog->putObject(Path(L"/shared/users/a/favorites"), L"fav1", {}, "a");
    catalog->putObject(Path(L"/shared/users/b/favorites"), L"fav1", {}, "b");
    catalog->putObject(Path(L"/shared/users/b/report"), L"test1", {}, "r");
    catalog->remove(Path(L"/shared/users"));
    EXPECT_EQ(versionBody(L"/shared/users/a/favorites", 1), "a");
    EXPECT_EQ(versionBody(L"/shared/users/b/favorites", 1), "b");
    EXPECT_TRUE(numbers(L"/shared/users/b/report").empty());
}

TEST_P(CatalogHistory, PutObjectKeepsTheVersionItReplaces) {
    keepVersionsOf(L"fav1", 20);
    catalog->putObject(Path(L"/shared/favorites"), L"fav1", {}, "one");
    catalog->putObjects({{Path(L"/shared/favorites"), L"fav1", {}, "two"}});
    catalog->putObject(Path(L"/shared/favorites"), L"fav1", {}, "three");
    EXPECT_EQ(numbers(L"/shared/favorites"), (std::vector<std::int64_t>{2, 1}));
    EXPECT_EQ(versionBody(L"/shared/favorites", 2), "two");
}

TEST_P(CatalogHistory, VersionNumbersGoOnAfterAnObjectIsDeletedAndWrittenAgain) {
    keepVersionsOf(L"fav1", 20);
    catalog->putObject(Path(L"/shared/favorites"), L"fav1", {}, "one");
    ASSERT_EQ(catalog->deleteObject(alice, Path(L"/shared/favorites")), kSuccess);
    catalog->putObject(Path(L"/shared/favorites"), L"fav1", {}, "two");
    catalog->putObject(Path(L"/shared/favorites"), L"fav1", {}, "three");
    EXPECT_EQ(numbers(L"/shared/favorites"), (std::vector<std::int64_t>{2, 1}));
    EXPECT_EQ(versionBody(L"/shared/favorites", 2), "two");
}

TEST_P(CatalogHistory, AFailedWriteKeepsNoVersion) {
    keepVersionsOf(L"fav1", 20);
    catalog->putObject(Path(L"/shared/favorites"), L"fav1", {}, "one");
    RecordingWriter refused("two", L"fav1");
    refused.throwOnWrite = true;
    EXPECT_EQ(write(alice, L"/shared/favorites", refused), kErrorCatalogObjectException);
    EXPECT_TRUE(numbers(L"/shared/favorites").empty());
    EXPECT_THROW(catalog->putObjects({{Path(L"/shared/favorites"), L"fav1", {}, "two"},
                                      {Path(L"/shared/report/under"), L"fav1", {}, "x"}}),
                 CatalogException);
    EXPECT_TRUE(numbers(L"/shared/favorites").empty());
    EXPECT_EQ(catalog->readRaw(Path(L"/shared/favorites")), "one");
}

TEST_P(CatalogHistory, ReadingVersionsNeedsTheRightToReadThePath) {
    keepVersionsOf(L"fav1", 20);
    catalog->putObject(Path(L"/shared/favorites"), L"fav1", {}, "one");
    catalog->putObject(Path(L"/shared/favorites"), L"fav1", {}, "two");
    catalog->setAccess(Path(L"/shared/favorites"), L"alice", false, Rights::kWrite);
    std::string body;
    try {
        catalog->versions(bob, Path(L"/shared/favorites"));
        FAIL() << "bob may not read alice's versions";
    } catch (const CatalogException& e) {
        EXPECT_EQ(e.getCode(), kErrorAccessDenied);
    }
    EXPECT_THROW(catalog->readVersion(bob, Path(L"/shared/favorites"), 1, body), CatalogException);
    EXPECT_EQ(catalog->versions(alice, Path(L"/shared/favorites")).size(), 1u);
    EXPECT_EQ(catalog->versions(admin, Path(L"/shared/favorites")).size(), 1u);
}

TEST_P(CatalogHistory, ReadingAVersionThatIsNotKeptIsPathNotFound) {
    keepVersionsOf(L"fav1", 20);
    std::string body;
    for (std::int64_t n : {0, 1, -1, 99}) {
        try {
            catalog->readVersion(alice, Path(L"/shared/favorites"), n, body);
            FAIL() << n;
        } catch (const CatalogException& e) {
            EXPECT_EQ(e.getCode(), kErrorPathNotFound) << n;
        }
    }
}

// --- read batches -------------------------------------------------------------

TEST_P(CatalogContract, ReadBatchGivesTheSameAnswersAsSingleReads) {
    catalog->makeLink(Path(L"/shared/link"), Path(L"/shared/report"));
    ItemInfo alone, aloneLink;
    ASSERT_EQ(info(alice, L"/shared/report", alone), kSuccess);
    ASSERT_EQ(info(alice, L"/shared/link", aloneLink), kSuccess);
    RecordingReader r;
    catalog->putObject(Path(L"/shared/favs"), L"test1", {},
                       "<f><i path=\"/shared/report\"/><i path='/shared/link'/><i path=\"/shared/none\"/></f>");
    ASSERT_EQ(read(alice, L"/shared/favs", r), kSuccess);
    std::unique_ptr<ReadBatch> batch = catalog->beginReadBatch();
    EXPECT_EQ(catalog->beginReadBatch(), nullptr);  // an open batch serves a nested one
    ItemInfo inBatch, inBatchLink;
    ASSERT_EQ(info(alice, L"/shared/report", inBatch), kSuccess);
    EXPECT_EQ(inBatch.getLastModifiedTime(kInfoResolved), alone.getLastModifiedTime(kInfoResolved));
    EXPECT_EQ(inBatch.getItemProperty(L"owner", L"", kInfoResolved), L"alice");
    ASSERT_EQ(info(alice, L"/shared/link", inBatchLink), kSuccess);
    EXPECT_EQ(inBatchLink.getItemType(kInfoOriginal), static_cast<unsigned>(kLink));
    EXPECT_EQ(inBatchLink.getPath(kInfoResolved).toString(), L"/shared/report");
    ItemInfo missing;
    EXPECT_EQ(info(alice, L"/shared/none", missing), kErrorPathNotFound);
    EXPECT_EQ(info(bob, L"/shared/report", missing), kSuccess);
    catalog->setAccess(Path(L"/shared/report"), L"alice", false, Rights::kNone);
    batch.reset();
    EXPECT_EQ(info(alice, L"/shared/report", missing), kErrorAccessDenied);
}

TEST_P(CatalogContract, ReadBatchAnswersAccessAsSingleReadsDo) {
    catalog->setAccess(Path(L"/shared/report"), L"bob", false, Rights::kNone);
    RecordingReader r;
    catalog->putObject(Path(L"/shared/favs"), L"test1", {}, "<f><i path=\"/shared/report\"/></f>");
    ASSERT_EQ(read(alice, L"/shared/favs", r), kSuccess);
    std::unique_ptr<ReadBatch> batch = catalog->beginReadBatch();
    ItemInfo i;
    EXPECT_EQ(info(bob, L"/shared/report", i), kErrorAccessDenied);
    EXPECT_EQ(info(alice, L"/shared/report", i), kErrorAccessDenied);  // the list names bob only
    EXPECT_EQ(info(admin, L"/shared/report", i), kSuccess);
}

TEST_P(CatalogContract, WriteDuringAReadBatchOnTheSameThreadSucceedsAndIsSeenAfterIt) {
    std::unique_ptr<ReadBatch> batch = catalog->beginReadBatch();
    ItemInfo before;
    ASSERT_EQ(info(alice, L"/shared/report", before), kSuccess);
    RecordingWriter w("new body");
    EXPECT_EQ(write(alice, L"/shared/report", w), kSuccess);
    batch.reset();
    ItemInfo after;
    ASSERT_EQ(info(alice, L"/shared/report", after), kSuccess);
    EXPECT_GT(after.getLastModifiedTime(kInfoResolved), before.getLastModifiedTime(kInfoResolved));
    EXPECT_EQ(catalog->readRaw(Path(L"/shared/report")), "new body");
}

TEST_P(CatalogContract, ABatchOnOneThreadDoesNotServeAnother) {
    std::unique_ptr<ReadBatch> batch = catalog->beginReadBatch();
    ReturnCode otherRead = kErrorOther;
    std::thread t([&] {
        std::unique_ptr<ReadBatch> other = catalog->beginReadBatch();
        ItemInfo i;
        otherRead = info(alice, L"/shared/report", i);
    });
    t.join();
    EXPECT_EQ(otherRead, kSuccess);
}

// --- write locks ----------------------------------------------------------------

TEST_P(CatalogContract, AWriteLockExcludesOtherHoldersOfTheSamePathOnly) {
    const Path favorites(L"/users/alice/favorites");
    std::unique_ptr<WriteLock> held = catalog->lockForWriting(favorites);
    std::atomic<bool> otherPathLocked{false}, samePathLocked{false};
    std::thread other([&] {
        std::unique_ptr<WriteLock> l = catalog->lockForWriting(Path(L"/users/bob/favorites"));
        otherPathLocked = true;
    });
    other.join();
    EXPECT_TRUE(otherPathLocked);
    std::thread same([&] {
        std::unique_ptr<WriteLock> l = catalog->lockForWriting(favorites);
        samePathLocked = true;
    });
    // The waiter cannot get in while the lock is held (checked over a while,
    // not timed: it must still be out after the pause).
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_FALSE(samePathLocked);
    held.reset();
    same.join();
    EXPECT_TRUE(samePathLocked);
}

TEST_P(CatalogContract, ReadsAndWritesDoNotWaitForAWriteLock) {
    std::unique_ptr<WriteLock> held = catalog->lockForWriting(Path(L"/shared/report"));
    ItemInfo i;
    EXPECT_EQ(info(alice, L"/shared/report", i), kSuccess);
    RecordingWriter w("written while locked");
    EXPECT_EQ(write(alice, L"/shared/report", w), kSuccess);  // the lock guards hosts' sequences, not the store
}

TEST_P(CatalogContract, AWriteLockOnAnInvalidPathIsRefused) {
    EXPECT_THROW(catalog->lockForWriting(Path(L"/a//b", kUnchecked)), CatalogException);
}

// --- several catalog objects on one store -------------------------------------------

class SharedStoreContract : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override { store = makeStore(GetParam()); }
    std::unique_ptr<TestStore> store;
};

INSTANTIATE_TEST_SUITE_P(Backends, SharedStoreContract, ::testing::ValuesIn(sharedBackends()),
                         [](const ::testing::TestParamInfo<std::string>& i) { return testing::testName(i.param); });

TEST_P(SharedStoreContract, AStoreKeepsItsContentAcrossOpens) {
    {
        std::unique_ptr<ManagedCatalog> c = store->open();
        c->putObject(Path(L"/x/y"), L"s", {{L"p", L"v"}}, "body");
        c->addUser(L"u", {L"g"});
    }
    std::unique_ptr<ManagedCatalog> c = store->open();
    EXPECT_EQ(c->readRaw(Path(L"/x/y")), "body");
    EXPECT_EQ(c->tokenFor(L"u").getGroups().size(), 1u);
}

TEST_P(SharedStoreContract, VersionsKeptThroughOneCatalogObjectAreReadThroughAnotherAndAfterReopening) {
    const auto rule = [](const Path&, const String& signature) { return signature == L"fav1"; };
    const AccountToken user(L"u");
    {
        std::unique_ptr<ManagedCatalog> first = store->open();
        std::unique_ptr<ManagedCatalog> second = store->open();
        first->setHistoryPolicy({20, rule});
        first->putObject(Path(L"/x"), L"fav1", {}, "one");
        first->putObject(Path(L"/x"), L"fav1", {}, "two");
        ASSERT_EQ(second->versions(user, Path(L"/x")).size(), 1u);
    }
    std::unique_ptr<ManagedCatalog> c = store->open();
    std::string body;
    EXPECT_EQ(c->readVersion(user, Path(L"/x"), 1, body).number, 1);
    EXPECT_EQ(body, "one");
}

TEST_P(SharedStoreContract, AccessChangesMadeThroughAnotherCatalogObjectAreSeen) {
    std::unique_ptr<ManagedCatalog> first = store->open();
    std::unique_ptr<ManagedCatalog> second = store->open();
    first->putObject(Path(L"/x"), L"s", {}, "body");
    const AccountToken user(L"u");
    ItemInfo i;
    ASSERT_EQ(second->getItemInfo(user, Path(L"/x"), i, false, true), kSuccess);
    first->setAccess(Path(L"/x"), L"everyone", true, Rights::kNone);
    EXPECT_EQ(second->getItemInfo(user, Path(L"/x"), i, false, true), kErrorAccessDenied);
    first->clearAccess(Path(L"/x"));
    EXPECT_EQ(second->getItemInfo(user, Path(L"/x"), i, false, true), kSuccess);
}

TEST_P(SharedStoreContract, WritesThroughTwoCatalogObjectsHaveIncreasingTimes) {
    std::unique_ptr<ManagedCatalog> first = store->open();
    std::unique_ptr<ManagedCatalog> second = store->open();
    first->putObject(Path(L"/x"), L"test1", {}, "0");
    const AccountToken admin(L"root", {L"administrators"});
    RecordingWriter w("body");
    Time previous = 0;
    for (int n = 0; n < 50; ++n) {
        ManagedCatalog& c = n % 2 ? *first : *second;
        ASSERT_EQ(c.writeObject(admin, Path(L"/x"), w, tDefaultReplaceHelper), kSuccess);
        ASSERT_GT(w.written.getLastModifiedTime(kInfoResolved), previous);
        previous = w.written.getLastModifiedTime(kInfoResolved);
    }
}

TEST_P(SharedStoreContract, WritesFromManyThreadsOfTwoCatalogObjectsAllHaveDistinctTimes) {
    std::unique_ptr<ManagedCatalog> first = store->open();
    std::unique_ptr<ManagedCatalog> second = store->open();
    first->makeFolder(Path(L"/t"));
    const AccountToken admin(L"root", {L"administrators"});
    std::vector<std::vector<Time>> times(4);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            ManagedCatalog& c = t % 2 ? *first : *second;
            RecordingWriter w("body");
            for (int n = 0; n < 25; ++n) {
                if (c.writeObject(admin, Path(L"/t/o" + std::to_wstring(t)), w, tDefaultReplaceHelper) == kSuccess)
                    times[t].push_back(w.written.getLastModifiedTime(kInfoResolved));
            }
        });
    }
    for (auto& th : threads) th.join();
    std::vector<Time> all;
    for (const auto& v : times) {
        EXPECT_EQ(v.size(), 25u);
        EXPECT_TRUE(std::is_sorted(v.begin(), v.end()));
        all.insert(all.end(), v.begin(), v.end());
    }
    std::sort(all.begin(), all.end());
    EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end());
}

TEST_P(SharedStoreContract, AWriteLockHeldThroughOneCatalogObjectExcludesAnother) {
    std::unique_ptr<ManagedCatalog> first = store->open();
    std::unique_ptr<ManagedCatalog> second = store->open();
    std::unique_ptr<WriteLock> held = first->lockForWriting(Path(L"/users/u/favorites"));
    std::atomic<bool> got{false};
    std::thread waiter([&] {
        std::unique_ptr<WriteLock> l = second->lockForWriting(Path(L"/users/u/favorites"));
        got = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_FALSE(got);
    held.reset();
    waiter.join();
    EXPECT_TRUE(got);
}

TEST_P(CatalogContract, PutObjectsStoresEveryObjectInOneGo) {
    std::vector<ManagedCatalog::ObjectSpec> batch;
    for (int n = 0; n < 20; ++n)
        batch.push_back({Path(L"/batch/f" + std::to_wstring(n % 3) + L"/o" + std::to_wstring(n)), L"s", {}, "b"});
    catalog->putObjects(batch);
    EXPECT_EQ(catalog->list(Path(L"/batch")).size(), 3u);
    EXPECT_EQ(catalog->readRaw(Path(L"/batch/f1/o19")), "b");
}

TEST_P(CatalogContract, PutObjectsStoresNothingWhenOneObjectIsRefused) {
    catalog->makeFolder(Path(L"/f"));
    std::vector<ManagedCatalog::ObjectSpec> batch{{Path(L"/a/x"), L"s", {}, "x"}, {Path(L"/f"), L"s", {}, "y"}};
    EXPECT_THROW(catalog->putObjects(batch), CatalogException);
    EXPECT_FALSE(catalog->exists(Path(L"/a/x")));
}

}  // namespace
}  // namespace kiv::catalog
