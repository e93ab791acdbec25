#include "service.h"

#include <sodium.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <simdjson.h>
#include <sstream>

#include "errors.h"
#include "jsonwriter.h"
#include "passwords.h"
#include "textinput.h"
#include "qz/webcatalog/itemname.h"

namespace kiv::server {

extern const char* const kOpenApiDocument;  // openapi.cpp, generated from docs/openapi.json

using host::JsonWriter;

namespace {

constexpr const char* kSessionCookie = "kiv_session";

enum class Access {
    kPublic,  // no sign-in
    kUser,    // a signed-in user; runs on the acting user's strand
};

bool changesState(const std::string& method) {
    return method == "POST" || method == "PUT" || method == "PATCH" || method == "DELETE";
}

HttpResponse text(int status, std::string body, const char* type = "text/plain; charset=utf-8") {
    HttpResponse r;
    r.status = status;
    r.contentType = type;
    r.body = std::move(body);
    return r;
}

HttpResponse unauthorized(const std::string& message) {
    return serverErrorResponse(401, "unauthorized", message).header("WWW-Authenticate", "Basic realm=\"favorites\"");
}

std::string contentTypeFor(const std::filesystem::path& file) {
    const std::string ext = file.extension().string();
    if (ext == ".html") return "text/html; charset=utf-8";
    if (ext == ".js" || ext == ".mjs") return "text/javascript; charset=utf-8";
    if (ext == ".css") return "text/css; charset=utf-8";
    if (ext == ".svg") return "image/svg+xml";
    if (ext == ".png") return "image/png";
    if (ext == ".ico") return "image/x-icon";
    if (ext == ".json") return "application/json";
    if (ext == ".woff2") return "font/woff2";
    if (ext == ".txt") return "text/plain; charset=utf-8";
    return "application/octet-stream";
}

}  // namespace

struct FavoritesService::Route {
    const char* method;
    const char* path;
    Access access;
    Handler handler;  // for kUser routes
};

// One request on its way through the service.
struct FavoritesService::Exchange {
    HttpRequest request;
    Responder respond;
    std::string path;   // the target's path
    std::string query;  // the raw query string
    std::string user;   // who it was answered for, for the log
    std::string routeName;
    std::string pathParameter;  // the {n} of the route path
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
};

namespace {

const FavoritesService::Route kRoutes[] = {
    {"GET", "/api/v1/favorites", Access::kUser, &getFavoritesTree},
    {"PUT", "/api/v1/favorites", Access::kUser, &putFavorites},
    {"GET", "/api/v1/favorites/children", Access::kUser, &getFavoritesChildren},
    {"POST", "/api/v1/favorites/status", Access::kUser, &postFavoritesStatus},
    {"POST", "/api/v1/favorites/items", Access::kUser, &postFavoritesItem},
    {"DELETE", "/api/v1/favorites/items", Access::kUser, &deleteFavoritesItem},
    {"DELETE", "/api/v1/favorites/categories", Access::kUser, &deleteFavoritesCategory},
    {"GET", "/api/v1/favorites/export", Access::kUser, &getFavoritesExport},
    {"GET", "/api/v1/catalog/children", Access::kUser, &getCatalogChildren},
    {"GET", "/api/v1/favorites/history", Access::kUser, &getFavoritesHistory},
    {"POST", "/api/v1/favorites/history/{n}/restore", Access::kUser, &postFavoritesRestore},
    {"POST", "/soap", Access::kUser, &postSoap},
    {"GET", "/soap", Access::kPublic, nullptr},
    {"POST", "/api/v1/session", Access::kPublic, nullptr},
    {"GET", "/api/v1/session", Access::kPublic, nullptr},
    {"DELETE", "/api/v1/session", Access::kPublic, nullptr},
    {"GET", "/api/v1/openapi.json", Access::kPublic, nullptr},
    {"GET", "/healthz", Access::kPublic, nullptr},
    {"GET", "/metrics", Access::kPublic, nullptr},
};

}  // namespace

namespace {

// Whether `path` is the route path `pattern`, whose one segment "{n}" (if
// any) stands for any non-empty segment, given in `parameter`.
bool matchRoute(std::string_view pattern, std::string_view path, std::string& parameter) {
    const std::size_t brace = pattern.find("{n}");
    if (brace == std::string_view::npos) return pattern == path;
    const std::string_view before = pattern.substr(0, brace), after = pattern.substr(brace + 3);
    if (path.size() <= before.size() + after.size() || path.substr(0, before.size()) != before ||
        path.substr(path.size() - after.size()) != after)
        return false;
    const std::string_view segment = path.substr(before.size(), path.size() - before.size() - after.size());
    if (segment.find('/') != std::string_view::npos) return false;
    parameter = segment;
    return true;
}

// Adds "warning" to a JSON object answer.
void addWarning(HttpResponse& response, const std::string& warning) {
    if (response.body.empty() || response.body.front() != '{' || response.contentType != "application/json") return;
    JsonWriter w;
    w.beginObject().member("warning", warning).endObject();
    std::string member = w.str();  // {"warning":"..."}
    member.pop_back();
    response.body.insert(1, member.substr(1) + (response.body.size() > 2 ? "," : ""));
}

}  // namespace

FavoritesService::FavoritesService(const Settings& settings, catalog::ManagedCatalog& store)
    : m_settings(settings),
      m_store(store),
      m_catalog(store, m_metrics),
      m_readBack(m_catalog),
      m_accessLog(settings.accessLog),
      m_sessions(settings.sessionSeconds),
      m_credentials(settings.credentialCacheSeconds),
      m_throttle(settings.signinFailures, settings.signinWindowSeconds),
      m_dummyHash(host::hashPassword(randomHexId())),
      m_users(settings.workers, settings.maxUsers) {
    if (!settings.webDir.empty()) {
        namespace fs = std::filesystem;
        std::error_code ec;
        if (!fs::is_directory(settings.webDir, ec))
            throw std::runtime_error("--web-dir " + settings.webDir + " is not a directory");
        for (const auto& entry : fs::recursive_directory_iterator(settings.webDir)) {
            if (!entry.is_regular_file()) continue;
            std::ifstream in(entry.path(), std::ios::binary);
            std::ostringstream bytes;
            bytes << in.rdbuf();
            const std::string rel = "/" + fs::relative(entry.path(), settings.webDir).generic_string();
            m_files[rel] = {contentTypeFor(entry.path()), bytes.str()};
        }
    }
}

FavoritesService::~FavoritesService() = default;

void FavoritesService::handle(HttpRequest request, Responder respond) {
    auto x = std::make_shared<Exchange>(Exchange{std::move(request), std::move(respond), {}, {}, {}, {}, {}});
    try {
        const std::string& target = x->request.target;
        const std::size_t q = target.find('?');
        x->path = target.substr(0, q);
        if (q != std::string::npos) x->query = target.substr(q + 1);

        const Route* route = nullptr;
        std::string allow;
        for (const Route& r : kRoutes) {
            if (!matchRoute(r.path, x->path, x->pathParameter)) continue;
            if (x->request.method == r.method) route = &r;
            allow += (allow.empty() ? "" : ", ") + std::string(r.method);
        }
        if (!route) {
            if (!allow.empty()) {
                x->routeName = x->path;
                return finish(*x, serverErrorResponse(405, "methodNotAllowed",
                                                      x->request.method + " is not allowed here; use " + allow)
                                      .header("Allow", allow));
            }
            x->routeName = "static";
            if (x->request.method != "GET" && x->request.method != "HEAD")
                return finish(*x, serverErrorResponse(x->path.rfind("/api/", 0) == 0 ? 404 : 405,
                                                      x->path.rfind("/api/", 0) == 0 ? "notFound" : "methodNotAllowed",
                                                      "no such resource: " + x->path));
            return finish(*x, staticFile(*x));
        }
        x->routeName = route->path;
        if (route->access == Access::kPublic) return dispatchPublic(*route, std::move(x));
        authenticate(*route, std::move(x));
    } catch (...) {
        finish(*x, responseForCurrentException());
    }
}

void FavoritesService::dispatchPublic(const Route& route, std::shared_ptr<Exchange> x) {
    const std::string path = route.path;
    if (path == "/healthz") return finish(*x, m_stopping ? text(503, "stopping\n") : text(200, "ok\n"));
    if (path == "/metrics") return finish(*x, text(200, m_metrics.text(), "text/plain; version=0.0.4; charset=utf-8"));
    if (path == "/api/v1/openapi.json") return finish(*x, text(200, kOpenApiDocument, "application/json"));
    if (path == "/soap") {
        if (Query(x->query).get("wsdl")) return finish(*x, wsdlDocument(x->request.header("host")));
        return finish(*x, serverErrorResponse(400, "badRequest", "GET /soap?wsdl gives the service description"));
    }
    // The session routes.
    if (x->request.method == "POST") return signIn(std::move(x));
    if (x->request.method == "GET") return finish(*x, sessionAnswer(*x));
    finish(*x, signOut(*x));
}

void FavoritesService::authenticate(const Route& route, std::shared_ptr<Exchange> x) {
    const std::string_view authorization = x->request.header("authorization");
    if (!authorization.empty()) {
        const auto credentials = parseBasic(authorization);
        if (!credentials) return finish(*x, unauthorized("the Authorization header is not HTTP Basic credentials"));
        x->user = credentials->user;
        if (const long wait = m_throttle.retryAfterSeconds(credentials->user, x->request.peer); wait > 0)
            return finish(*x, serverErrorResponse(429, "tooManyRequests",
                                                  "Too many failed sign-ins; try again in " + std::to_string(wait) +
                                                      " seconds.")
                                  .header("Retry-After", std::to_string(wait)));
        if (auto identity = m_credentials.find(*credentials)) return actAs(route, std::move(x), *identity, false, "");
        // Argon2id takes tens of milliseconds: verify on a worker.
        m_users.runAnywhere([this, &route, x, credentials = *credentials]() mutable {
            try {
                const auto identity = verify(credentials);
                if (!identity) {
                    m_throttle.recordFailure(credentials.user, x->request.peer);
                    return finish(*x, unauthorized("wrong user name or password"));
                }
                m_credentials.remember(credentials, *identity);
                actAs(route, std::move(x), *identity, false, "");
            } catch (...) {
                finish(*x, responseForCurrentException());
            }
        });
        return;
    }
    const std::string id(cookieValue(x->request.header("cookie"), kSessionCookie));
    if (id.empty()) return finish(*x, unauthorized("sign in first (HTTP Basic or a session)"));
    const auto session = m_sessions.find(id);
    if (!session) return finish(*x, unauthorized("the session has ended; sign in again"));
    actAs(route, std::move(x), session->identity, true, session->csrfToken);
}

void FavoritesService::actAs(const Route& route, std::shared_ptr<Exchange> x, const Identity& identity,
                             bool viaCookie, const std::string& csrfToken) {
    x->user = identity.user;
    if (viaCookie && changesState(x->request.method)) {
        const std::string_view token = x->request.header("x-csrf-token");
        if (token.empty())
            return finish(*x, serverErrorResponse(403, "csrfTokenMissing",
                                                  "this request needs the X-CSRF-Token header of the session"));
        if (token.size() != csrfToken.size() || sodium_memcmp(token.data(), csrfToken.data(), token.size()) != 0)
            return finish(*x, serverErrorResponse(403, "csrfTokenMismatch",
                                                  "the X-CSRF-Token header does not belong to this session"));
    }
    auto query = std::make_shared<Query>(x->query);
    std::string acting = identity.user;
    if (const auto other = query->get("user"); other && *other != identity.user) {
        host::itemNameArgument(*other, "the parameter 'user'");  // a malformed name is 400
        if (!identity.administrator)
            return finish(*x, serverErrorResponse(403, "forbidden",
                                                  "only administrators may act for another user"));
        acting = *other;
    }
    if (acting != identity.user) x->user = identity.user + ">" + acting;
    // Requests that may write the user's favorites hold the store's write
    // lock of the favorites object across the whole operation, so that no
    // other server or process writes between the library's check of the
    // stored object and its write. Status requests only read; SOAP requests
    // are taken as writing.
    const bool writes = changesState(x->request.method) && route.handler != &postFavoritesStatus;
    auto work = [this, &route, x, query, writes](UserSlot& slot, bool fresh) {
        HttpResponse response;
        host::ReadBackCatalog::takeRefusal();  // nothing of an earlier request on this thread
        try {
            std::unique_ptr<catalog::WriteLock> lock;
            if (writes && !fresh) lock = m_store.lockForWriting(slot.favoritesPath());
            FavoritesManager& manager = fresh ? *slot.freshManager(Clock::duration::max())
                                              : slot.manager(m_store, m_readBack, lock != nullptr);
            Call call{x->request, *query, slot, manager, m_store, m_readBack, m_settings, x->pathParameter, fresh};
            response = route.handler(call);
            // Every handler run on the strand checked the store (and reloaded) on its way.
            if (!fresh && response.status < 300) slot.markInSync();
        } catch (...) {
            response = responseForCurrentException();
            const std::string refused = host::ReadBackCatalog::takeRefusal();
            if (!refused.empty())
                response = serverErrorResponse(
                    400, "unreadableFavorites",
                    "the favorites were left as they were: the change would store favorites that cannot be read "
                    "back (" + refused + ")");
        }
        // Stored favorites that do not load show as empty: say so with every
        // answer about them, errors included.
        if (!fresh && std::string_view(route.path).rfind("/api/v1/favorites", 0) == 0) {
            try {
                if (const std::string& problem = slot.storedProblem(m_store); !problem.empty())
                    addWarning(response, "the stored favorites cannot be read (" + problem +
                                             "), so they show as empty and a change would store over them; "
                                             "restore a readable version from the history");
            } catch (...) {
                // The answer stands without the warning.
            }
        }
        finish(*x, std::move(response));
    };
    // Status answers come from the index alone: with a manager recently in
    // step with the store they need no worker.
    if (route.handler == &postFavoritesStatus)
        return m_users.runReading(acting, Sessions::toDuration(m_settings.statusMaxAgeSeconds), std::move(work));
    m_users.runAs(acting, [work = std::move(work)](UserSlot& slot) { work(slot, false); });
}

std::optional<Identity> FavoritesService::verify(const BasicCredentials& credentials) {
    String name;
    try {
        name = String::fromUtf8(credentials.user);
    } catch (const Utf8Error&) {
        return std::nullopt;
    }
    std::string hash;
    if (catalog::ItemName::checkItemName(name, catalog::ItemName::kOnErrorReturn) == catalog::kItemNameValid)
        hash = m_store.passwordHash(name);
    // A user without a hash costs as much as one with a wrong password.
    const bool ok = host::verifyPassword(hash.empty() ? m_dummyHash : hash, credentials.password) && !hash.empty();
    if (!ok) return std::nullopt;
    return Identity{credentials.user, catalog::ManagedCatalog::isAdministrator(m_store.tokenFor(name))};
}

void FavoritesService::signIn(std::shared_ptr<Exchange> x) {
    if (m_stopping) return finish(*x, serverErrorResponse(503, "unavailable", "the server is stopping"));
    simdjson::dom::parser parser;
    simdjson::dom::element doc;
    std::string_view user, password;
    if (parser.parse(x->request.body).get(doc) != simdjson::SUCCESS || doc["user"].get(user) != simdjson::SUCCESS ||
        doc["password"].get(password) != simdjson::SUCCESS)
        return finish(*x, serverErrorResponse(400, "badRequest",
                                              "sign in with a JSON object {\"user\": NAME, \"password\": PASSWORD}"));
    BasicCredentials credentials{std::string(user), std::string(password)};
    x->user = credentials.user;
    if (const long wait = m_throttle.retryAfterSeconds(credentials.user, x->request.peer); wait > 0)
        return finish(*x, serverErrorResponse(429, "tooManyRequests",
                                              "Too many failed sign-ins; try again in " + std::to_string(wait) +
                                                  " seconds.")
                              .header("Retry-After", std::to_string(wait)));
    m_users.runAnywhere([this, x, credentials = std::move(credentials)] {
        try {
            const auto identity = verify(credentials);
            if (!identity) {
                m_throttle.recordFailure(credentials.user, x->request.peer);
                return finish(*x, serverErrorResponse(401, "unauthorized", "wrong user name or password"));
            }
            Session session;
            const std::string id = m_sessions.start(*identity, &session);
            JsonWriter w;
            w.beginObject().member("user", identity->user).member("administrator", identity->administrator);
            w.member("csrfToken", session.csrfToken)
                .member("expiresIn", static_cast<std::int64_t>(m_sessions.lifetimeSeconds()))
                .endObject();
            HttpResponse r;
            r.body = w.str();
            std::string cookie = std::string(kSessionCookie) + "=" + id +
                                 "; HttpOnly; SameSite=Strict; Path=/; Max-Age=" +
                                 std::to_string(static_cast<std::int64_t>(m_sessions.lifetimeSeconds()));
            if (x->request.secure) cookie += "; Secure";
            r.header("Set-Cookie", cookie);
            r.header("Cache-Control", "no-store");
            finish(*x, std::move(r));
        } catch (...) {
            finish(*x, responseForCurrentException());
        }
    });
}

HttpResponse FavoritesService::sessionAnswer(const Exchange& x) {
    const std::string id(cookieValue(x.request.header("cookie"), kSessionCookie));
    const auto session = id.empty() ? std::nullopt : m_sessions.find(id);
    if (!session) return serverErrorResponse(401, "unauthorized", "not signed in");
    const auto left = std::chrono::duration_cast<std::chrono::seconds>(session->expires - Clock::now()).count();
    JsonWriter w;
    w.beginObject().member("user", session->identity.user).member("administrator", session->identity.administrator);
    w.member("csrfToken", session->csrfToken).member("expiresIn", static_cast<std::int64_t>(left)).endObject();
    HttpResponse r;
    r.body = w.str();
    r.header("Cache-Control", "no-store");
    return r;
}

HttpResponse FavoritesService::signOut(const Exchange& x) {
    const std::string id(cookieValue(x.request.header("cookie"), kSessionCookie));
    const auto session = id.empty() ? std::nullopt : m_sessions.find(id);
    if (!session) return serverErrorResponse(401, "unauthorized", "not signed in");
    const std::string_view token = x.request.header("x-csrf-token");
    if (token.empty())
        return serverErrorResponse(403, "csrfTokenMissing", "this request needs the X-CSRF-Token header of the session");
    if (token != session->csrfToken)
        return serverErrorResponse(403, "csrfTokenMismatch", "the X-CSRF-Token header does not belong to this session");
    m_sessions.end(id);
    HttpResponse r;
    r.status = 204;
    r.contentType.clear();
    r.header("Set-Cookie", std::string(kSessionCookie) + "=; HttpOnly; SameSite=Strict; Path=/; Max-Age=0");
    return r;
}

HttpResponse FavoritesService::staticFile(const Exchange& x) const {
    std::string path = x.path == "/" ? "/index.html" : x.path;
    const auto decoded = percentDecode(path);
    auto it = decoded ? m_files.find(*decoded) : m_files.end();
    if (it == m_files.end()) return serverErrorResponse(404, "notFound", "no such resource: " + x.path);
    HttpResponse r = text(200, it->second.second, it->second.first.c_str());
    r.header("Cache-Control", "no-cache");
    r.header("X-Content-Type-Options", "nosniff");
    if (it->first == "/index.html")
        r.header("Content-Security-Policy",
                 "default-src 'self'; img-src 'self' data:; style-src 'self'; frame-ancestors 'none'");
    if (x.request.method == "HEAD") r.body.clear();
    return r;
}

void FavoritesService::finish(Exchange& x, HttpResponse response) {
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - x.start).count();
    m_metrics.countRequest(x.routeName, response.status, seconds);
    m_accessLog.write(x.request.peer, x.user, x.request.method, x.request.target, response.status,
                      response.body.size(), seconds);
    x.respond(std::move(response));
}

}  // namespace kiv::server
