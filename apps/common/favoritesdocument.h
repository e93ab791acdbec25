// What hosts do around the library to keep a user's favorites safe:
//
// - check a stored favorites document the way the manager's load reads it,
//   so that a document the load would turn into an empty or partial tree is
//   noticed and named (checkFavoritesDocument);
// - refuse to store a favorites document that the load could not read back
//   (ReadBackCatalog), so that such a document never replaces a good one;
// - keep the earlier versions of every favorites object and put one back
//   (keepFavoritesHistory, favoritesHistory, restoreFavoritesVersion).
//
// The library's own behaviour is untouched: a refused write reaches it as a
// failing catalog write, on which it reloads the stored tree and raises the
// catalog's exception.
//
// Thread safety: the functions keep no shared state; ReadBackCatalog is as
// safe as the catalog it wraps, and its refusal reason is kept per thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "qz/platform/accounttoken.h"
#include "qz/webcatalog/catalog.h"
#include "qz/webcatalog/managedcatalog.h"
#include "qz/webcatalog/path.h"

namespace kiv::host {

// The signature of favorites objects (the old mobile object carries it too).
inline constexpr const wchar_t* kFavoritesSignature = L"mobilefavorites1";
// The name of the old mobile client's favorites object, beside the user's
// favorites object; it keeps no history.
inline constexpr const wchar_t* kOldMobileFavoritesName = L"mobile-favoritelist";
// Versions kept per favorites object unless a host is told otherwise.
inline constexpr unsigned kDefaultHistoryVersions = 20;

// What a favorites document holds, or why the manager's load would not read
// it whole. `problem` is empty for a document that loads.
struct FavoritesDocumentCheck {
    std::string problem;
    std::size_t categories = 0;
    std::size_t items = 0;  // catalog item entries, whether their objects exist or not
    bool readable() const noexcept { return problem.empty(); }
};

// Reads `body` as the load does: parsed with the catalog's XML limits,
// validated against the favorites schema of the data directory, and every
// entry's name and catalog path made as the load makes them (a name or path
// the catalog refuses stops the load).
FavoritesDocumentCheck checkFavoritesDocument(std::string_view body);

// Reads the stored favorites object at `path` as `user`: `body` gets its
// bytes as the library wrote them, `info` what the catalog says of it.
// Returns the catalog's code (kErrorObjectTypeMismatch for an object that is
// not a favorites object).
catalog::ReturnCode readFavoritesDocument(catalog::Catalog& catalog, const AccountToken& user,
                                          const catalog::Path& path, std::string& body, catalog::ItemInfo& info);

// The problem of the user's stored favorites object, or empty when it
// loads, is missing, or the user may not read it (the catalog's code then
// says why, and is reported where the manager is made). A store that fails
// to read it (a damaged file, say) is a problem: the load shows such
// favorites as empty too.
std::string storedFavoritesProblem(catalog::Catalog& catalog, const AccountToken& user, const catalog::Path& path);

// A catalog that passes every call to `store`, except the write of a
// favorites document that the load could not read back: that write is
// refused with kErrorSchemaValidationFailed and nothing is stored, and the
// reason is kept for the calling thread (takeRefusal).
class ReadBackCatalog : public catalog::Catalog {
public:
    explicit ReadBackCatalog(catalog::Catalog& store) : m_store(store) {}

    catalog::ReturnCode deleteObject(const AccountToken& user, const catalog::Path& path) override;
    int getReaderUpgradeMode() const noexcept override;
    catalog::ReturnCode readObject(const AccountToken& user, const catalog::Path& path, catalog::Reader& reader,
                                   catalog::ItemInfo& info, unsigned flags) override;
    catalog::ReturnCode writeObject(const AccountToken& user, const catalog::Path& path, catalog::Writer& writer,
                                    const catalog::ReplaceHelper& replaceHelper) override;
    catalog::ReturnCode getItemInfo(const AccountToken& user, const catalog::Path& path, catalog::ItemInfo& info,
                                    bool bOriginalOnly, bool bWithProperties) override;
    std::unique_ptr<catalog::ReadBatch> beginReadBatch() override;

    // Why the last favorites write of this thread was refused, and forgets
    // it; empty when none was refused since the last call.
    static std::string takeRefusal();

private:
    catalog::Catalog& m_store;
};

// Makes `store` keep the last `versions` versions of every favorites object
// (not of the old mobile object, nor of any other kind of object).
void keepFavoritesHistory(catalog::ManagedCatalog& store, unsigned versions);

// Catalog time (microseconds since the epoch) in UTC, whole seconds, as the
// strftime `format` writes it.
std::string utcTimeText(catalog::Time t, const char* format);

// One kept version of a favorites object, with what it holds.
struct FavoritesVersion {
    catalog::ManagedCatalog::Version version;
    FavoritesDocumentCheck content;
};

// The kept versions of the favorites object at `path`, newest first.
std::vector<FavoritesVersion> favoritesHistory(catalog::ManagedCatalog& store, const AccountToken& user,
                                               const catalog::Path& path);

class JsonWriter;
// The history as JSON: {"favoritesPath":..,["warning":..,]"versions":[{"version",
// "modified","replaced" (ISO 8601 UTC),"bytes","readable", then "categories"
// and "catalogObjects", or "problem"}]}; an empty warning is left out.
void writeHistoryJson(JsonWriter& w, const catalog::Path& path, const std::vector<FavoritesVersion>& versions,
                      const std::string& warning);

// Writes version `number` back as the favorites object, on behalf of
// `user`; the version it replaces is kept in turn, so a restore can itself
// be undone. A version that would not load is refused (InputError); so is
// one that is not a favorites document. Hold the object's write lock.
// Returns what the restored version holds.
FavoritesDocumentCheck restoreFavoritesVersion(catalog::ManagedCatalog& store, const AccountToken& user, const catalog::Path& path,
                             std::int64_t number);

}  // namespace kiv::host
