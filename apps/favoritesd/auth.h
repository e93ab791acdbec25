// Who is asking: sign-in sessions, remembered Basic credentials and the
// slow-down of failed sign-ins. Memory only; nothing here touches the
// catalog or verifies a password (the caller does that on a worker thread).
//
// Thread safety: every member function may be called from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "settings.h"
#include "qz/platform/threads.h"

namespace kiv::server {

using Clock = std::chrono::steady_clock;

// A signed-in user as the server remembers it.
struct Identity {
    std::string user;           // UTF-8
    bool administrator = false;
};

struct Session {
    Identity identity;
    std::string csrfToken;      // 64 hex digits
    Clock::time_point expires;
};

// A random 256-bit value in hex (64 digits), from libsodium.
std::string randomHexId();

// The user name and password of an "Authorization: Basic ..." value; nullopt
// when it is not one or does not decode.
struct BasicCredentials {
    std::string user;
    std::string password;
};
std::optional<BasicCredentials> parseBasic(std::string_view authorization);

// The value of cookie `name` in a Cookie header; empty when absent.
std::string_view cookieValue(std::string_view cookieHeader, std::string_view name);

class Sessions {
public:
    explicit Sessions(double lifetimeSeconds) : m_lifetime(toDuration(lifetimeSeconds)) {}
    // Starts a session; answers its id.
    std::string start(const Identity& identity, Session* out = nullptr);
    // The live session of that id; expired ones are forgotten.
    std::optional<Session> find(const std::string& id);
    void end(const std::string& id);
    double lifetimeSeconds() const noexcept { return std::chrono::duration<double>(m_lifetime).count(); }

    static Clock::duration toDuration(double seconds);

private:
    void prune(Clock::time_point now) KIV_REQUIRES(m_mutex);
    Clock::duration m_lifetime;
    threads::Mutex m_mutex;
    std::unordered_map<std::string, Session> m_sessions KIV_GUARDED_BY(m_mutex);
    std::size_t m_pruneAt KIV_GUARDED_BY(m_mutex) = 1024;
};

// Verified Basic credentials, kept for a short time under a keyed hash of the
// name and password (never the password itself).
class CredentialCache {
public:
    explicit CredentialCache(double ttlSeconds);
    std::optional<Identity> find(const BasicCredentials& c);
    void remember(const BasicCredentials& c, const Identity& identity);

private:
    std::string key(const BasicCredentials& c) const;
    Clock::duration m_ttl;
    unsigned char m_secret[32];
    threads::Mutex m_mutex;
    std::unordered_map<std::string, std::pair<Identity, Clock::time_point>> m_entries KIV_GUARDED_BY(m_mutex);
};

// Counts failed sign-ins per user name and per client address.
class SigninThrottle {
public:
    SigninThrottle(unsigned failures, double windowSeconds)
        : m_limit(failures), m_window(Sessions::toDuration(windowSeconds)) {}
    // Seconds to wait before another attempt for that user or from that
    // address may be made; 0 when one may be made now.
    long retryAfterSeconds(std::string_view user, std::string_view address);
    void recordFailure(std::string_view user, std::string_view address);

private:
    struct Count {
        unsigned failures = 0;
        Clock::time_point windowStart;
    };
    long wait(const std::string& key, Clock::time_point now) KIV_REQUIRES(m_mutex);
    void fail(const std::string& key, Clock::time_point now) KIV_REQUIRES(m_mutex);
    unsigned m_limit;
    Clock::duration m_window;
    threads::Mutex m_mutex;
    std::unordered_map<std::string, Count> m_counts KIV_GUARDED_BY(m_mutex);
};

}  // namespace kiv::server
