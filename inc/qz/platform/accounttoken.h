// AccountToken: a user name and the groups the user belongs to. A value type.
// Thread rule: it has no setters, so a token may be read from any number of
// threads at once; assigning to one is a write like any other.
#pragma once

#include "qz/platform/export.h"

#include <vector>

#include "qz/platform/string.h"

namespace kiv {

class KIV_API AccountToken {
public:
    AccountToken() = default;
    explicit AccountToken(String user, std::vector<String> groups = {})
        : m_user(std::move(user)), m_groups(std::move(groups)) {}

    const String& getUserName() const noexcept { return m_user; }
    const std::vector<String>& getGroups() const noexcept { return m_groups; }
    bool isMemberOf(const String& group) const noexcept {
        for (const auto& g : m_groups)
            if (g == group) return true;
        return false;
    }

private:
    String m_user;
    std::vector<String> m_groups;
};

}  // namespace kiv
