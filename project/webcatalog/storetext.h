// The stored form of catalog texts, shared by the catalog back-ends (an
// implementation detail, not installed).
//
// Paths, names, signatures and property texts are stored as UTF-8; a
// character that is not a Unicode scalar value is stored as U+FFFD, and
// malformed stored bytes read back as U+FFFD. Properties are kept as one
// byte string "name\0value\0..." so that an item's information is one row.
//
// Thread safety: free functions without shared state.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "qz/webcatalog/iteminfo.h"
#include "qz/webcatalog/path.h"
#include "qz/webcatalog/returncode.h"

namespace kiv::catalog::store {

// The kinds of stored items (the item type bits of ItemInfo).
constexpr int kKindFolder = kFolder;
constexpr int kKindLink = kLink;
constexpr int kKindObject = kObject;
// A chain of links longer than this counts as circular.
constexpr int kMaxLinkHops = 64;

void appendUtf8(std::string& out, std::wstring_view in);
std::string toUtf8(std::wstring_view in);
// A path's text: one-byte text straight from the path, wide text as above.
void appendUtf8(std::string& out, const Path& path);
std::string toUtf8(const Path& path);
// Decodes into `out`, reusing its storage.
void decodeInto(String& out, std::string_view in);
String fromUtf8(std::string_view in);

std::string encodeProperties(const std::map<String, String>& properties);
void decodeProperties(std::map<String, String>& out, std::string_view blob);

// The parent of a UTF-8 path text ("/a/b" -> "/a", "/a" -> "/"); empty for
// the root. Escaped slashes ("\/") are not separators.
std::string_view parentOf(std::string_view path) noexcept;

// Whether the path text is a valid catalog path.
bool isValidPathText(const Path& path) noexcept;

// The code writeObject answers for the path before looking at the store:
// kSuccess for a path it may write, kErrorRootSacred for the root,
// kErrorItemNameInvalid for a bad last component under a valid parent, and
// kErrorPathInvalid otherwise.
ReturnCode checkWritePath(const Path& path) noexcept;

// Microseconds since the Unix epoch by this machine's clock.
std::int64_t nowMicros() noexcept;

}  // namespace kiv::catalog::store
