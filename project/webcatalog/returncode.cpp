// Names and short descriptions of the catalog return codes.
#include "qz/webcatalog/returncode.h"

#include <array>

namespace kiv::catalog {

namespace {

struct CodeText {
    ReturnCode code;
    const char* name;
    const wchar_t* description;
};

// One row per code, in value order; the static_assert below keeps the table
// and the enumeration in step.
constexpr std::array<CodeText, 56> kCodeTexts{{
    {kSuccess, "kSuccess", L"The operation succeeded."},
    {kErrorPathNotFound, "kErrorPathNotFound", L"The path does not exist."},
    {kErrorPathInvalid, "kErrorPathInvalid", L"The path is not valid."},
    {kErrorItemNameInvalid, "kErrorItemNameInvalid", L"The item name is not valid."},
    {kErrorRootSacred, "kErrorRootSacred", L"The root folder cannot be changed."},
    {kErrorAccessDenied, "kErrorAccessDenied", L"Access to the item is denied."},
    {kErrorPrivilegeDenied, "kErrorPrivilegeDenied", L"The user lacks the privilege for this operation."},
    {kErrorObjectTypeMismatch, "kErrorObjectTypeMismatch", L"The object is not of the expected type."},
    {kErrorForeignCatalog, "kErrorForeignCatalog", L"The item belongs to another catalog."},
    {kErrorCircularLink, "kErrorCircularLink", L"The link leads to itself."},
    {kErrorMaintenanceMode, "kErrorMaintenanceMode", L"The catalog is in maintenance mode."},
    {kErrorFactoryContent, "kErrorFactoryContent", L"Factory content cannot be changed."},
    {kErrorDestinationSameAsSource, "kErrorDestinationSameAsSource", L"The destination is the same as the source."},
    {kErrorObjectOrLinkExpected, "kErrorObjectOrLinkExpected", L"An object or a link was expected."},
    {kErrorLinkExpected, "kErrorLinkExpected", L"A link was expected."},
    {kErrorFolderExpected, "kErrorFolderExpected", L"A folder was expected."},
    {kErrorObjectExpected, "kErrorObjectExpected", L"An object was expected."},
    {kErrorInvalidItem, "kErrorInvalidItem", L"The item is not valid."},
    {kErrorLinkTargetPathNotFound, "kErrorLinkTargetPathNotFound", L"The target of the link does not exist."},
    {kErrorLinkTargetAccessDenied, "kErrorLinkTargetAccessDenied", L"Access to the target of the link is denied."},
    {kErrorFolderNotEmpty, "kErrorFolderNotEmpty", L"The folder is not empty."},
    {kErrorItemAlreadyExists, "kErrorItemAlreadyExists", L"The item already exists."},
    {kErrorItemMoreRecent, "kErrorItemMoreRecent", L"The stored item is more recent."},
    {kErrorItemReadOnly, "kErrorItemReadOnly", L"The item is read-only."},
    {kErrorCatalogObjectException, "kErrorCatalogObjectException", L"The object's reader or writer failed."},
    {kErrorIO, "kErrorIO", L"The catalog store could not be read or written."},
    {kErrorPrivilegeValidationFailed, "kErrorPrivilegeValidationFailed", L"The object's privilege validation failed."},
    {kErrorSchemaValidationFailed, "kErrorSchemaValidationFailed", L"The object failed schema validation."},
    {kErrorLoadingCatalog, "kErrorLoadingCatalog", L"The catalog could not be loaded."},
    {kErrorCatalogNotFound, "kErrorCatalogNotFound", L"The catalog was not found."},
    {kErrorNewCatalogCreated, "kErrorNewCatalogCreated", L"A new catalog was created."},
    {kErrorCatalogUpgradeFailed, "kErrorCatalogUpgradeFailed", L"The catalog upgrade failed."},
    {kErrorCatalogUpgradeSucceeded, "kErrorCatalogUpgradeSucceeded", L"The catalog upgrade succeeded."},
    {kErrorCatalogUpgradeRequired, "kErrorCatalogUpgradeRequired", L"The catalog or object must be upgraded."},
    {kCatalogUpgradeBackground, "kCatalogUpgradeBackground", L"The catalog is being upgraded in the background."},
    {kErrorCatalogValidated, "kErrorCatalogValidated", L"The catalog was validated."},
    {kErrorCatalogUpdateGuidsRequired, "kErrorCatalogUpdateGuidsRequired", L"The catalog identifiers must be updated."},
    {kErrorLocked, "kErrorLocked", L"The item is locked."},
    {kErrorStale, "kErrorStale", L"The item is stale."},
    {kErrorLockNeedsAttention, "kErrorLockNeedsAttention", L"A lock needs attention."},
    {kErrorSearchCancelled, "kErrorSearchCancelled", L"The search was cancelled."},
    {kErrorSearchTimedOut, "kErrorSearchTimedOut", L"The search timed out."},
    {kErrorCatalogRootLockException, "kErrorCatalogRootLockException", L"The catalog root lock failed."},
    {kServiceInstanceLoaded, "kServiceInstanceLoaded", L"The service instance is loaded."},
    {kErrorLCMPathFetching, "kErrorLCMPathFetching", L"The life-cycle path could not be fetched."},
    {kErrorLCMPathEnvVarNotSet, "kErrorLCMPathEnvVarNotSet", L"The life-cycle path variable is not set."},
    {kErrorLCMPathServiceInstanceNotExist, "kErrorLCMPathServiceInstanceNotExist", L"The life-cycle service instance does not exist."},
    {kErrorLCMPathWritableLocationNotExist, "kErrorLCMPathWritableLocationNotExist", L"The life-cycle writable location does not exist."},
    {kErrorLCMPathWritableLocationEmpty, "kErrorLCMPathWritableLocationEmpty", L"The life-cycle writable location is empty."},
    {kErrorObjectCopyAtSharedDisallowed, "kErrorObjectCopyAtSharedDisallowed", L"Copying the object into the shared area is not allowed."},
    {kErrorCatalogReadOnly, "kErrorCatalogReadOnly", L"The catalog is read-only."},
    {kErrorOperationNotSupported, "kErrorOperationNotSupported", L"The operation is not supported."},
    {kErrorSICatalogQuotaFull, "kErrorSICatalogQuotaFull", L"The catalog quota is full."},
    {kErrorVirusDetected, "kErrorVirusDetected", L"A virus was detected in the content."},
    {kErrorVirusScannerUnreacheable, "kErrorVirusScannerUnreacheable", L"The virus scanner cannot be reached."},
    {kErrorOther, "kErrorOther", L"The operation failed."},
}};

constexpr bool tableInOrder() {
    for (std::size_t i = 0; i < kCodeTexts.size(); ++i)
        if (static_cast<std::size_t>(kCodeTexts[i].code) != i) return false;
    return true;
}
static_assert(tableInOrder() && kCodeTexts.size() == kErrorOther + 1, "one text per return code, in order");

}  // namespace

const char* returnCodeName(int code) noexcept {
    if (code < 0 || code > kErrorOther) return "unknown";
    return kCodeTexts[static_cast<std::size_t>(code)].name;
}

String returnCodeDescription(int code) {
    if (code < 0 || code > kErrorOther) return String(L"Unknown catalog return code.");
    return String(kCodeTexts[static_cast<std::size_t>(code)].description);
}

}  // namespace kiv::catalog
