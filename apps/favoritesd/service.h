// FavoritesService: the server's request handler. It maps a route to its
// handler, signs the caller in (session cookie or HTTP Basic), enforces the
// anti-forgery rule and who may act for whom, and runs the handler on the
// acting user's strand of the worker pool. It also serves the page's files,
// /healthz, /metrics and the OpenAPI document, counts every request and
// writes the access log.
//
// Thread safety: handle() may be called from any number of I/O threads.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <string>

#include "accesslog.h"
#include "auth.h"
#include "http.h"
#include "metrics.h"
#include "qz/webcatalog/managedcatalog.h"
#include "routes.h"
#include "settings.h"
#include "favoritesdocument.h"
#include "timedcatalog.h"
#include "users.h"

namespace kiv::server {

class FavoritesService : public RequestHandler {
public:
    // Raises std::runtime_error when the web directory or access log cannot
    // be read or opened.
    FavoritesService(const Settings& settings, catalog::ManagedCatalog& store);
    ~FavoritesService() override;

    void handle(HttpRequest request, Responder respond) override;

    // From now on /healthz answers 503 and new sign-ins are refused.
    void beginStop() noexcept { m_stopping = true; }
    // Waits for the work given to the workers (after the HTTP server stopped).
    void stopWorkers() { m_users.stop(); }
    Metrics& metrics() noexcept { return m_metrics; }
    UserHost& users() noexcept { return m_users; }

    struct Route;
    struct Exchange;

private:
    void dispatchPublic(const Route& route, std::shared_ptr<Exchange> x);
    void authenticate(const Route& route, std::shared_ptr<Exchange> x);
    void actAs(const Route& route, std::shared_ptr<Exchange> x, const Identity& identity, bool viaCookie,
               const std::string& csrfToken);
    void signIn(std::shared_ptr<Exchange> x);
    std::optional<Identity> verify(const BasicCredentials& credentials);
    HttpResponse sessionAnswer(const Exchange& x);
    HttpResponse signOut(const Exchange& x);
    HttpResponse staticFile(const Exchange& x) const;
    void finish(Exchange& x, HttpResponse response);

    Settings m_settings;
    catalog::ManagedCatalog& m_store;
    Metrics m_metrics;
    TimedCatalog m_catalog;
    host::ReadBackCatalog m_readBack;  // what the managers write through
    AccessLog m_accessLog;
    Sessions m_sessions;
    CredentialCache m_credentials;
    SigninThrottle m_throttle;
    std::string m_dummyHash;  // verified when a user has no hash, so that both take as long
    std::map<std::string, std::pair<std::string, std::string>> m_files;  // path -> (type, bytes)
    std::atomic<bool> m_stopping{false};
    UserHost m_users;  // last: its workers stop before the rest goes away
};

}  // namespace kiv::server
