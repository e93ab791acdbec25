#include "auth.h"

#include <sodium.h>

#include <algorithm>
#include <stdexcept>

namespace kiv::server {

namespace {

void initSodium() {
    static const int rc = sodium_init();
    if (rc < 0) throw std::runtime_error("libsodium could not be initialised");
}

std::string hex(const unsigned char* bytes, std::size_t n) {
    std::string out(n * 2 + 1, '\0');
    sodium_bin2hex(out.data(), out.size(), bytes, n);
    out.pop_back();
    return out;
}

}  // namespace

std::string randomHexId() {
    initSodium();
    unsigned char bytes[32];
    randombytes_buf(bytes, sizeof bytes);
    return hex(bytes, sizeof bytes);
}

std::optional<BasicCredentials> parseBasic(std::string_view authorization) {
    constexpr std::string_view kScheme = "basic ";
    if (authorization.size() <= kScheme.size()) return std::nullopt;
    for (std::size_t i = 0; i < kScheme.size(); ++i)
        if (static_cast<char>(std::tolower(static_cast<unsigned char>(authorization[i]))) != kScheme[i])
            return std::nullopt;
    std::string_view b64 = authorization.substr(kScheme.size());
    while (!b64.empty() && b64.front() == ' ') b64.remove_prefix(1);
    while (!b64.empty() && b64.back() == ' ') b64.remove_suffix(1);
    initSodium();
    std::string decoded(b64.size(), '\0');
    std::size_t len = 0;
    if (sodium_base642bin(reinterpret_cast<unsigned char*>(decoded.data()), decoded.size(), b64.data(), b64.size(),
                          nullptr, &len, nullptr, sodium_base64_VARIANT_ORIGINAL) != 0)
        return std::nullopt;
    decoded.resize(len);
    const std::size_t colon = decoded.find(':');
    if (colon == std::string::npos) return std::nullopt;
    return BasicCredentials{decoded.substr(0, colon), decoded.substr(colon + 1)};
}

std::string_view cookieValue(std::string_view header, std::string_view name) {
    while (!header.empty()) {
        const std::size_t semi = header.find(';');
        std::string_view pair = header.substr(0, semi);
        while (!pair.empty() && pair.front() == ' ') pair.remove_prefix(1);
        const std::size_t eq = pair.find('=');
        if (eq != std::string_view::npos && pair.substr(0, eq) == name) return pair.substr(eq + 1);
        if (semi == std::string_view::npos) break;
        header.remove_prefix(semi + 1);
    }
    return {};
}

Clock::duration Sessions::toDuration(double seconds) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

std::string Sessions::start(const Identity& identity, Session* out) {
    Session s{identity, randomHexId(), Clock::now() + m_lifetime};
    std::string id = randomHexId();
    threads::MutexLock lock(m_mutex);
    prune(Clock::now());
    if (out) *out = s;
    m_sessions.emplace(id, std::move(s));
    return id;
}

std::optional<Session> Sessions::find(const std::string& id) {
    threads::MutexLock lock(m_mutex);
    auto it = m_sessions.find(id);
    if (it == m_sessions.end()) return std::nullopt;
    if (it->second.expires <= Clock::now()) {
        m_sessions.erase(it);
        return std::nullopt;
    }
    return it->second;
}

void Sessions::end(const std::string& id) {
    threads::MutexLock lock(m_mutex);
    m_sessions.erase(id);
}

void Sessions::prune(Clock::time_point now) {
    if (m_sessions.size() < m_pruneAt) return;
    std::erase_if(m_sessions, [now](const auto& kv) { return kv.second.expires <= now; });
    m_pruneAt = std::max<std::size_t>(1024, m_sessions.size() * 2);
}

CredentialCache::CredentialCache(double ttlSeconds) : m_ttl(Sessions::toDuration(ttlSeconds)) {
    initSodium();
    randombytes_buf(m_secret, sizeof m_secret);
}

std::string CredentialCache::key(const BasicCredentials& c) const {
    unsigned char out[32];
    crypto_generichash_state st;
    crypto_generichash_init(&st, m_secret, sizeof m_secret, sizeof out);
    crypto_generichash_update(&st, reinterpret_cast<const unsigned char*>(c.user.data()), c.user.size());
    const unsigned char sep = 0;
    crypto_generichash_update(&st, &sep, 1);
    crypto_generichash_update(&st, reinterpret_cast<const unsigned char*>(c.password.data()), c.password.size());
    crypto_generichash_final(&st, out, sizeof out);
    return std::string(reinterpret_cast<const char*>(out), sizeof out);
}

std::optional<Identity> CredentialCache::find(const BasicCredentials& c) {
    if (m_ttl <= Clock::duration::zero()) return std::nullopt;
    const std::string k = key(c);
    threads::MutexLock lock(m_mutex);
    auto it = m_entries.find(k);
    if (it == m_entries.end()) return std::nullopt;
    if (it->second.second <= Clock::now()) {
        m_entries.erase(it);
        return std::nullopt;
    }
    return it->second.first;
}

void CredentialCache::remember(const BasicCredentials& c, const Identity& identity) {
    if (m_ttl <= Clock::duration::zero()) return;
    const std::string k = key(c);
    const auto now = Clock::now();
    threads::MutexLock lock(m_mutex);
    if (m_entries.size() >= 4096)
        std::erase_if(m_entries, [now](const auto& kv) { return kv.second.second <= now; });
    m_entries[k] = {identity, now + m_ttl};
}

long SigninThrottle::wait(const std::string& key, Clock::time_point now) {
    auto it = m_counts.find(key);
    if (it == m_counts.end()) return 0;
    const Clock::time_point end = it->second.windowStart + m_window;
    if (end <= now) {
        m_counts.erase(it);
        return 0;
    }
    if (it->second.failures < m_limit) return 0;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - now).count();
    return std::max<long>(1, static_cast<long>((left + 999) / 1000));
}

void SigninThrottle::fail(const std::string& key, Clock::time_point now) {
    Count& c = m_counts[key];
    if (c.failures == 0 || c.windowStart + m_window <= now) {
        c.failures = 0;
        c.windowStart = now;
    }
    ++c.failures;
}

long SigninThrottle::retryAfterSeconds(std::string_view user, std::string_view address) {
    if (m_limit == 0) return 0;
    const auto now = Clock::now();
    threads::MutexLock lock(m_mutex);
    return std::max(wait("u:" + std::string(user), now), wait("a:" + std::string(address), now));
}

void SigninThrottle::recordFailure(std::string_view user, std::string_view address) {
    if (m_limit == 0) return;
    const auto now = Clock::now();
    threads::MutexLock lock(m_mutex);
    if (m_counts.size() >= 65536)
        std::erase_if(m_counts, [&](const auto& kv) { return kv.second.windowStart + m_window <= now; });
    fail("u:" + std::string(user), now);
    fail("a:" + std::string(address), now);
}

}  // namespace kiv::server
