#include "users.h"

#include <vector>

#include "errors.h"
#include "favoritesdocument.h"
#include "favoritesopen.h"

namespace kiv::server {

UserSlot::UserSlot(std::string name, boost::asio::thread_pool& pool, std::atomic<std::size_t>& managers)
    : m_name(std::move(name)),
      m_favoritesPath(host::defaultFavoritesPath(String::fromUtf8(m_name))),
      m_strand(boost::asio::make_strand(pool.get_executor())), m_managers(managers) {}

UserSlot::~UserSlot() {
    if (!m_manager.isNull()) m_managers.fetch_sub(1, std::memory_order_relaxed);
}

FavoritesManager& UserSlot::manager(catalog::ManagedCatalog& store, catalog::Catalog& catalog, bool lockHeld) {
    if (!m_manager.isNull()) return *m_manager;
    const String user = String::fromUtf8(m_name);
    if (!store.hasUser(user)) throw ApiError(404, "userNotFound", "there is no user " + m_name);
    m_token = store.tokenFor(user);
    m_manager = host::openFavoritesManager(catalog, m_token, m_favoritesPath, lockHeld ? nullptr : &store);
    m_managers.fetch_add(1, std::memory_order_relaxed);
    m_published.store(m_manager.get(), std::memory_order_release);
    return *m_manager;
}

const std::string& UserSlot::storedProblem(catalog::ManagedCatalog& store) {
    catalog::ItemInfo info;
    if (store.getItemInfo(m_token, m_favoritesPath, info, false, false) != catalog::kSuccess) {
        m_checkedTime = -1;
        m_problem.clear();
        return m_problem;
    }
    const catalog::Time t = info.getLastModifiedTime(catalog::kInfoResolved);
    if (t != m_checkedTime) {
        m_problem = host::storedFavoritesProblem(store, m_token, m_favoritesPath);
        m_checkedTime = t;
    }
    return m_problem;
}

void UserSlot::markInSync() noexcept {
    if (m_manager.isNull()) return;
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    m_inSyncAt.store(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count(), std::memory_order_release);
}

FavoritesManager* UserSlot::freshManager(std::chrono::steady_clock::duration maxAge) const noexcept {
    FavoritesManager* m = m_published.load(std::memory_order_acquire);
    if (!m) return nullptr;
    const std::int64_t at = m_inSyncAt.load(std::memory_order_acquire);
    const auto now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                         std::chrono::steady_clock::now().time_since_epoch())
                         .count();
    return now - at < std::chrono::duration_cast<std::chrono::nanoseconds>(maxAge).count() ? m : nullptr;
}

UserHost::UserHost(unsigned workers, std::size_t maxUsers) : m_pool(workers), m_maxUsers(maxUsers) {}

UserHost::~UserHost() { stop(); }

std::shared_ptr<UserSlot> UserHost::slotFor(const std::string& user) {
    std::vector<std::shared_ptr<UserSlot>> evicted;
    std::shared_ptr<UserSlot> slot;
    {
        threads::MutexLock lock(m_mutex);
        auto it = m_slots.find(user);
        if (it != m_slots.end()) {
            slot = it->second;
            m_order.splice(m_order.begin(), m_order, slot->m_lru);
            return slot;
        }
        slot = std::make_shared<UserSlot>(user, m_pool, m_managers);
        m_order.push_front(user);
        slot->m_lru = m_order.begin();
        m_slots.emplace(user, slot);
        // Drop the least recently used slots that nobody is using (the map's
        // reference is then the only one, and only this mutex hands out more).
        for (auto victim = m_order.end(); m_slots.size() > m_maxUsers && victim != m_order.begin();) {
            --victim;
            auto found = m_slots.find(*victim);
            if (found->second == slot || found->second.use_count() > 1) continue;
            evicted.push_back(std::move(found->second));
            m_slots.erase(found);
            victim = m_order.erase(victim);
        }
    }
    // A manager may hold a large tree: free it on a worker, not here.
    if (!evicted.empty()) boost::asio::post(m_pool, [dropped = std::move(evicted)] {});
    return slot;
}

void UserHost::runAs(const std::string& user, std::function<void(UserSlot&)> work) {
    std::shared_ptr<UserSlot> slot = slotFor(user);
    boost::asio::post(slot->m_strand, [slot, work = std::move(work)] { work(*slot); });
}

void UserHost::runReading(const std::string& user, std::chrono::steady_clock::duration maxAge,
                          std::function<void(UserSlot&, bool fresh)> work) {
    std::shared_ptr<UserSlot> slot = slotFor(user);
    if (slot->freshManager(maxAge)) return work(*slot, true);
    boost::asio::post(slot->m_strand, [slot, work = std::move(work)] { work(*slot, false); });
}

void UserHost::runAnywhere(std::function<void()> work) { boost::asio::post(m_pool, std::move(work)); }

void UserHost::stop() {
    m_pool.join();
    threads::MutexLock lock(m_mutex);
    m_slots.clear();
    m_order.clear();
}

}  // namespace kiv::server
