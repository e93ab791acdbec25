#include "qz/webcatalog/returncode.h"

#include <gtest/gtest.h>

#include <string>

namespace kiv::catalog {
namespace {

struct CodeRow {
    ReturnCode code;
    int value;
    const char* name;
};

const CodeRow kRows[] = {
    {kSuccess, 0, "kSuccess"},
    {kErrorPathNotFound, 1, "kErrorPathNotFound"},
    {kErrorPathInvalid, 2, "kErrorPathInvalid"},
    {kErrorItemNameInvalid, 3, "kErrorItemNameInvalid"},
    {kErrorRootSacred, 4, "kErrorRootSacred"},
    {kErrorAccessDenied, 5, "kErrorAccessDenied"},
    {kErrorPrivilegeDenied, 6, "kErrorPrivilegeDenied"},
    {kErrorObjectTypeMismatch, 7, "kErrorObjectTypeMismatch"},
    {kErrorForeignCatalog, 8, "kErrorForeignCatalog"},
    {kErrorCircularLink, 9, "kErrorCircularLink"},
    {kErrorMaintenanceMode, 10, "kErrorMaintenanceMode"},
    {kErrorFactoryContent, 11, "kErrorFactoryContent"},
    {kErrorDestinationSameAsSource, 12, "kErrorDestinationSameAsSource"},
    {kErrorObjectOrLinkExpected, 13, "kErrorObjectOrLinkExpected"},
    {kErrorLinkExpected, 14, "kErrorLinkExpected"},
    {kErrorFolderExpected, 15, "kErrorFolderExpected"},
    {kErrorObjectExpected, 16, "kErrorObjectExpected"},
    {kErrorInvalidItem, 17, "kErrorInvalidItem"},
    {kErrorLinkTargetPathNotFound, 18, "kErrorLinkTargetPathNotFound"},
    {kErrorLinkTargetAccessDenied, 19, "kErrorLinkTargetAccessDenied"},
    {kErrorFolderNotEmpty, 20, "kErrorFolderNotEmpty"},
    {kErrorItemAlreadyExists, 21, "kErrorItemAlreadyExists"},
    {kErrorItemMoreRecent, 22, "kErrorItemMoreRecent"},
    {kErrorItemReadOnly, 23, "kErrorItemReadOnly"},
    {kErrorCatalogObjectException, 24, "kErrorCatalogObjectException"},
    {kErrorIO, 25, "kErrorIO"},
    {kErrorPrivilegeValidationFailed, 26, "kErrorPrivilegeValidationFailed"},
    {kErrorSchemaValidationFailed, 27, "kErrorSchemaValidationFailed"},
    {kErrorLoadingCatalog, 28, "kErrorLoadingCatalog"},
    {kErrorCatalogNotFound, 29, "kErrorCatalogNotFound"},
    {kErrorNewCatalogCreated, 30, "kErrorNewCatalogCreated"},
    {kErrorCatalogUpgradeFailed, 31, "kErrorCatalogUpgradeFailed"},
    {kErrorCatalogUpgradeSucceeded, 32, "kErrorCatalogUpgradeSucceeded"},
    {kErrorCatalogUpgradeRequired, 33, "kErrorCatalogUpgradeRequired"},
    {kCatalogUpgradeBackground, 34, "kCatalogUpgradeBackground"},
    {kErrorCatalogValidated, 35, "kErrorCatalogValidated"},
    {kErrorCatalogUpdateGuidsRequired, 36, "kErrorCatalogUpdateGuidsRequired"},
    {kErrorLocked, 37, "kErrorLocked"},
    {kErrorStale, 38, "kErrorStale"},
    {kErrorLockNeedsAttention, 39, "kErrorLockNeedsAttention"},
    {kErrorSearchCancelled, 40, "kErrorSearchCancelled"},
    {kErrorSearchTimedOut, 41, "kErrorSearchTimedOut"},
    {kErrorCatalogRootLockException, 42, "kErrorCatalogRootLockException"},
    {kServiceInstanceLoaded, 43, "kServiceInstanceLoaded"},
    {kErrorLCMPathFetching, 44, "kErrorLCMPathFetching"},
    {kErrorLCMPathEnvVarNotSet, 45, "kErrorLCMPathEnvVarNotSet"},
    {kErrorLCMPathServiceInstanceNotExist, 46, "kErrorLCMPathServiceInstanceNotExist"},
    {kErrorLCMPathWritableLocationNotExist, 47, "kErrorLCMPathWritableLocationNotExist"},
    {kErrorLCMPathWritableLocationEmpty, 48, "kErrorLCMPathWritableLocationEmpty"},
    {kErrorObjectCopyAtSharedDisallowed, 49, "kErrorObjectCopyAtSharedDisallowed"},
    {kErrorCatalogReadOnly, 50, "kErrorCatalogReadOnly"},
    {kErrorOperationNotSupported, 51, "kErrorOperationNotSupported"},
    {kErrorSICatalogQuotaFull, 52, "kErrorSICatalogQuotaFull"},
    {kErrorVirusDetected, 53, "kErrorVirusDetected"},
    {kErrorVirusScannerUnreacheable, 54, "kErrorVirusScannerUnreacheable"},
    {kErrorOther, 55, "kErrorOther"},
};

TEST(ReturnCodeTest, EveryCodeHasItsValueInOrder) {
    ASSERT_EQ(std::size(kRows), 56u);
    for (const CodeRow& row : kRows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(static_cast<int>(row.code), row.value);
    }
}

TEST(ReturnCodeTest, EveryCodeHasItsNameAndADescription) {
    for (const CodeRow& row : kRows) {
        SCOPED_TRACE(row.name);
        EXPECT_STREQ(returnCodeName(row.code), row.name);
        EXPECT_FALSE(returnCodeDescription(row.code).empty());
    }
}

TEST(ReturnCodeTest, ValuesOutsideTheEnumerationAreUnknown) {
    EXPECT_STREQ(returnCodeName(-1), "unknown");
    EXPECT_STREQ(returnCodeName(56), "unknown");
    EXPECT_FALSE(returnCodeDescription(1000).empty());
}

}  // namespace
}  // namespace kiv::catalog
