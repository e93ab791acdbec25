#include "qz/webcatalog/storecommon.h"

#include <chrono>

#include "namerules.h"
#include "qz/webcatalog/managedcatalog.h"
#include "qz/webcatalog/readerwriter.h"

namespace kiv::catalog::store {

void appendUtf8(std::string& out, std::wstring_view in) { utf8::encodeAppendReplacing(in, out); }

std::string toUtf8(std::wstring_view in) {
    std::string out;
    out.reserve(in.size());
    appendUtf8(out, in);
    return out;
}

void appendUtf8(std::string& out, const Path& path) {
    if (path.text().isWide())
        appendUtf8(out, std::wstring_view(path.toString()));
    else
        path.appendUtf8(out);
}

std::string toUtf8(const Path& path) {
    std::string out;
    appendUtf8(out, path);
    return out;
}

void decodeInto(String& out, std::string_view in) { utf8::decodeReplacing(in, out); }

String fromUtf8(std::string_view in) {
    String s;
    decodeInto(s, in);
    return s;
}

std::string encodeProperties(const std::map<String, String>& properties) {
    std::string out;
    for (const auto& [name, value] : properties) {
        appendUtf8(out, name);
        out.push_back('\0');
        appendUtf8(out, value);
        out.push_back('\0');
    }
    return out;
}

void decodeProperties(std::map<String, String>& out, std::string_view blob) {
    out.clear();
    String name;
    while (!blob.empty()) {
        const std::size_t a = blob.find('\0');
        if (a == std::string_view::npos) break;
        const std::size_t b = blob.find('\0', a + 1);
        if (b == std::string_view::npos) break;
        decodeInto(name, blob.substr(0, a));
        decodeInto(out[name], blob.substr(a + 1, b - a - 1));
        blob.remove_prefix(b + 1);
    }
}

std::string_view parentOf(std::string_view path) noexcept {
    if (path.size() <= 1) return {};
    for (std::size_t i = path.size(); i-- > 0;) {
        if (path[i] != '/') continue;
        std::size_t run = 0;
        while (run < i && path[i - 1 - run] == '\\') ++run;
        if (run % 2 == 0) return path.substr(0, i == 0 ? 1 : i);
    }
    return {};
}

bool isValidPathText(const Path& path) noexcept { return path.check() == kItemNameValid; }

ReturnCode checkWritePath(const Path& path) noexcept {
    if (path.isRoot()) return kErrorRootSacred;
    const EItemNameValidity validity = path.check();
    if (validity == kPathEmpty || validity == kPathTooLong || validity == kPathMustStartWithSlash)
        return kErrorPathInvalid;
    if (validity != kItemNameValid) {
        // A bad last component is a bad name; anything else a bad path.
        const Path parent = path.getParentPath();
        return !parent.isBlank() && isValidPathText(parent) ? kErrorItemNameInvalid : kErrorPathInvalid;
    }
    return kSuccess;
}

std::int64_t nowMicros() noexcept {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string joinGroups(const std::vector<String>& groups) {
    std::string joined;
    for (const String& g : groups) {
        if (!joined.empty()) joined.push_back('\n');
        appendUtf8(joined, g);
    }
    return joined;
}

std::vector<String> splitGroups(std::string_view rest) {
    std::vector<String> groups;
    while (!rest.empty()) {
        const std::size_t nl = rest.find('\n');
        groups.push_back(fromUtf8(rest.substr(0, nl)));
        if (nl == std::string_view::npos) break;
        rest.remove_prefix(nl + 1);
    }
    return groups;
}

AclEntry makeAclEntry(std::string_view principalUtf8, bool isGroup, int rights) {
    String principal = fromUtf8(principalUtf8);
    const bool everyone = isGroup && principal == ManagedCatalog::ksEveryoneGroup;
    return AclEntry{std::move(principal), isGroup, everyone, rights};
}

int rightsFrom(const std::vector<AclEntry>& list, const AccountToken& user) noexcept {
    int rights = 0;
    for (const AclEntry& e : list) {
        const bool matches =
            e.isGroup ? (e.everyone || user.isMemberOf(e.principal)) : e.principal == user.getUserName();
        if (matches) rights |= e.rights;
    }
    return rights;
}

bool mayRead(int rights) noexcept { return (rights & static_cast<int>(Rights::kRead)) != 0; }

bool mayWrite(int rights) noexcept {
    return (rights & static_cast<int>(Rights::kWrite)) == static_cast<int>(Rights::kWrite);
}

ReturnCode handToReader(Reader& reader, const AccountToken& user, const ItemInfo& info, std::string_view body,
                        int upgradeMode) {
    reader.setUpgradeMode(static_cast<Reader::UpgradeMode>(upgradeMode));
    if (reader.preInspectRead(info) == Reader::kDontContinueToRead) return kSuccess;
    if (!reader.isObjectTypeMatch(info)) return kErrorObjectTypeMismatch;
    if (!reader.validatePrivileges(user)) return kErrorPrivilegeValidationFailed;
    reader.read(body.data(), body.size(), info);
    return kSuccess;
}

ReturnCode runWriter(const Writer& writer, const AccountToken& user, std::string& body) {
    if (!writer.validatePrivileges(user)) return kErrorPrivilegeValidationFailed;
    StringOutputStream out;
    try {
        writer.write(out);
    } catch (const std::exception&) {
        return kErrorCatalogObjectException;
    }
    body = std::move(out.str());
    return kSuccess;
}

void HistorySetting::set(ManagedCatalog::HistoryPolicy policy) {
    auto shared = policy.versions != 0 && policy.keeps
                      ? std::make_shared<const ManagedCatalog::HistoryPolicy>(std::move(policy))
                      : nullptr;
    threads::MutexLock lock(m_mutex);
    m_policy = std::move(shared);
}

bool HistorySetting::active() const {
    threads::MutexLock lock(m_mutex);
    return m_policy != nullptr;
}

unsigned HistorySetting::versionsFor(std::string_view path, std::string_view signature) const {
    std::shared_ptr<const ManagedCatalog::HistoryPolicy> policy;
    {
        threads::MutexLock lock(m_mutex);
        policy = m_policy;
    }
    if (!policy) return 0;
    return policy->keeps(Path(fromUtf8(path), kUnchecked), fromUtf8(signature)) ? policy->versions : 0;
}

}  // namespace kiv::catalog::store
