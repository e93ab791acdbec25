// UserHost: one FavoritesManager per user, kept in a bounded least recently
// used cache, and the bounded worker pool that every library and catalog
// call runs on.
//
// The library needs its host to run one operation at a time on a manager:
// each user has a strand on the pool, so one user's operations run one after
// another while different users run in parallel. Edits are persisted at
// once, so dropping a manager from the cache loses nothing; a manager in use
// is never dropped, so no user ever has two managers in one process.
//
// Thread safety: runAs, runAnywhere and managersCached may be called from any
// thread. A UserSlot's fields are used only inside work run by runAs for it.
#pragma once

#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/thread_pool.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "qz/platform/accounttoken.h"
#include "qz/webcatalog/managedcatalog.h"
#include "qz/webfavorites/favoritesmanager.h"
#include "qz/platform/threads.h"

namespace kiv::server {

class UserHost;

class UserSlot {
public:
    UserSlot(std::string name, boost::asio::thread_pool& pool, std::atomic<std::size_t>& managers);
    ~UserSlot();
    UserSlot(const UserSlot&) = delete;
    UserSlot& operator=(const UserSlot&) = delete;

    const std::string& name() const noexcept { return m_name; }
    // The user's token, favorites path and manager; made on first use (which
    // creates a new user's favorites object and upgrades old mobile
    // favorites). Raises ApiError 404 for a user the catalog does not know,
    // and the catalog's exception when the favorites cannot be opened.
    // `lockHeld`: the caller holds the store's write lock of the favorites
    // object; otherwise the lock is taken while the manager is made when
    // making it writes (see host::openFavoritesManager).
    FavoritesManager& manager(catalog::ManagedCatalog& store, catalog::Catalog& catalog, bool lockHeld);
    // /users/NAME/favorites
    const catalog::Path& favoritesPath() const noexcept { return m_favoritesPath; }
    const AccountToken& token() const noexcept { return m_token; }

    // Why the stored favorites object does not load (see
    // host::storedFavoritesProblem), or empty; checked again only when the
    // object changed.
    const std::string& storedProblem(catalog::ManagedCatalog& store);

    // Notes that the manager was just in step with the store: every operation
    // run for the user checks that (and reloads) before it answers.
    void markInSync() noexcept;
    // The manager, when it is loaded and was in step with the store less than
    // maxAge ago; null otherwise. Safe from any thread; the manager may then
    // be used only for isFavorite, which has locks of its own.
    FavoritesManager* freshManager(std::chrono::steady_clock::duration maxAge) const noexcept;

private:
    friend class UserHost;
    const std::string m_name;  // UTF-8
    const catalog::Path m_favoritesPath;
    boost::asio::strand<boost::asio::thread_pool::executor_type> m_strand;
    std::atomic<std::size_t>& m_managers;
    AccountToken m_token;
    Handle<FavoritesManager> m_manager;
    std::atomic<FavoritesManager*> m_published{nullptr};  // m_manager, once made
    std::atomic<std::int64_t> m_inSyncAt{0};              // steady clock, nanoseconds
    std::list<std::string>::iterator m_lru;  // guarded by the host's mutex
    catalog::Time m_checkedTime = -1;  // the modified time storedProblem last judged
    std::string m_problem;
};

class UserHost {
public:
    UserHost(unsigned workers, std::size_t maxUsers);
    ~UserHost();

    // Runs work(slot) on the user's strand: after every earlier work of that
    // user, never beside another work of that user.
    void runAs(const std::string& user, std::function<void(UserSlot&)> work);
    // Runs work(slot) at once on the calling thread when the user's manager
    // is fresh (UserSlot::freshManager), otherwise as runAs does; `fresh`
    // tells the work which one happened.
    void runReading(const std::string& user, std::chrono::steady_clock::duration maxAge,
                    std::function<void(UserSlot&, bool fresh)> work);
    // Runs work on any worker (password checks).
    void runAnywhere(std::function<void()> work);
    // Users whose manager is in memory.
    std::size_t managersCached() const noexcept { return m_managers.load(std::memory_order_relaxed); }
    // Waits for the work already given and stops the workers.
    void stop();

private:
    std::shared_ptr<UserSlot> slotFor(const std::string& user);

    boost::asio::thread_pool m_pool;
    std::size_t m_maxUsers;
    std::atomic<std::size_t> m_managers{0};
    threads::Mutex m_mutex;
    std::list<std::string> m_order KIV_GUARDED_BY(m_mutex);  // most recently used first
    std::unordered_map<std::string, std::shared_ptr<UserSlot>> m_slots KIV_GUARDED_BY(m_mutex);
};

}  // namespace kiv::server
