// catalog::ReturnCode: the result of every catalog operation (kSuccess is 0).
// Thread rule: constants and functions of them only; callable from any thread.
#pragma once

#include "qz/platform/export.h"

#include "qz/platform/string.h"

namespace kiv::catalog {

enum ReturnCode : int {
    kSuccess = 0,
    kErrorPathNotFound,
    kErrorPathInvalid,
    kErrorItemNameInvalid,
    kErrorRootSacred,
    kErrorAccessDenied,
    kErrorPrivilegeDenied,
    kErrorObjectTypeMismatch,
    kErrorForeignCatalog,
    kErrorCircularLink,
    kErrorMaintenanceMode,
    kErrorFactoryContent,
    kErrorDestinationSameAsSource,
    kErrorObjectOrLinkExpected,
    kErrorLinkExpected,
    kErrorFolderExpected,
    kErrorObjectExpected,
    kErrorInvalidItem,
    kErrorLinkTargetPathNotFound,
    kErrorLinkTargetAccessDenied,
    kErrorFolderNotEmpty,
    kErrorItemAlreadyExists,
    kErrorItemMoreRecent,
    kErrorItemReadOnly,
    kErrorCatalogObjectException,
    kErrorIO,
    kErrorPrivilegeValidationFailed,
    kErrorSchemaValidationFailed,
    kErrorLoadingCatalog,
    kErrorCatalogNotFound,
    kErrorNewCatalogCreated,
    kErrorCatalogUpgradeFailed,
    kErrorCatalogUpgradeSucceeded,
    kErrorCatalogUpgradeRequired,
    kCatalogUpgradeBackground,
    kErrorCatalogValidated,
    kErrorCatalogUpdateGuidsRequired,
    kErrorLocked,
    kErrorStale,
    kErrorLockNeedsAttention,
    kErrorSearchCancelled,
    kErrorSearchTimedOut,
    kErrorCatalogRootLockException,
    kServiceInstanceLoaded,
    kErrorLCMPathFetching,
    kErrorLCMPathEnvVarNotSet,
    kErrorLCMPathServiceInstanceNotExist,
    kErrorLCMPathWritableLocationNotExist,
    kErrorLCMPathWritableLocationEmpty,
    kErrorObjectCopyAtSharedDisallowed,
    kErrorCatalogReadOnly,
    kErrorOperationNotSupported,
    kErrorSICatalogQuotaFull,
    kErrorVirusDetected,
    kErrorVirusScannerUnreacheable,
    kErrorOther,  // 55
};

static_assert(kErrorSchemaValidationFailed == 27 && kErrorOther == 55, "catalog return codes are fixed");

// The code's name, such as "kErrorPathNotFound"; "unknown" for other values.
KIV_API const char* returnCodeName(int code) noexcept;
// A short English description of the code.
KIV_API String returnCodeDescription(int code);

}  // namespace kiv::catalog
