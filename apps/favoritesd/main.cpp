// favoritesd: the web server that hosts the favorites library for many users,
// with a REST API (docs/rest-api.md), sign-in and the page. See
// `favoritesd --help` and README.md.
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "httpserver.h"
#include "storeopen.h"
#include "textinput.h"
#include "service.h"
#include "settings.h"

namespace {

using kiv::server::Settings;

// Lets the server hold as many connections as the hard limit allows.
void raiseOpenFileLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

void parseListen(const std::string& text, Settings& s) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon + 1 == text.size())
        throw CLI::ValidationError("--listen", "give HOST:PORT, such as 127.0.0.1:8080 (port 0 picks a free one)");
    std::string host = text.substr(0, colon);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    const std::string port = text.substr(colon + 1);
    char* end = nullptr;
    const long p = std::strtol(port.c_str(), &end, 10);
    if (*end != '\0' || p < 0 || p > 65535) throw CLI::ValidationError("--listen", "the port must be 0 to 65535");
    s.listenHost = host.empty() ? "0.0.0.0" : host;
    s.listenPort = static_cast<unsigned short>(p);
}

int run(int argc, char** argv) {
    Settings s;
    std::string listen = "127.0.0.1:8080";
    std::string dataDir;
#ifdef KIV_DEFAULT_WEB_DIR
    s.webDir = KIV_DEFAULT_WEB_DIR;
#endif
    CLI::App app("favoritesd: serves users' favorites over HTTP (REST API under /api/v1, the page at /).\n"
                 "Stops on SIGTERM or SIGINT, letting requests in flight finish.",
                 "favoritesd");
    app.set_config("--config", "", "Read these options from a file of 'key = value' lines (keys as the long options)");
    app.add_option("--catalog", s.catalog, "The catalog: a file, or a PostgreSQL catalog as a postgresql:// connection URI (it must exist; see 'favorites catalog init')")
        ->envname("KIV_CATALOG")
        ->capture_default_str();
    app.add_option("--listen", listen, "HOST:PORT to listen on; port 0 picks a free one")->capture_default_str();
    app.add_option("--data-dir", dataDir, "Directory with schemas/ and messages/ (default: $KIV_DATA_DIR, else built in)");
    app.add_option("--web-dir", s.webDir, "Directory of the page's files (empty: serve no page)")->capture_default_str();
    app.add_option("--tls-cert", s.tlsCertificate, "PEM certificate chain: serve HTTPS (needs --tls-key)");
    app.add_option("--tls-key", s.tlsKey, "PEM private key of --tls-cert");
    app.add_option("--access-log", s.accessLog, "Access log: a file, - for standard error, or off")->capture_default_str();
    app.add_option("--io-threads", s.ioThreads, "Threads that run the connections")
        ->check(CLI::Range(1u, 64u))
        ->capture_default_str();
    app.add_option("--workers", s.workers, "Threads that call the library and the catalog")
        ->check(CLI::Range(1u, 256u))
        ->capture_default_str();
    app.add_option("--keep-versions", s.historyVersions,
                   "Earlier versions kept of each user's favorites, for undo and restore (0 keeps none)")
        ->capture_default_str();
    app.add_option("--max-users", s.maxUsers, "Users whose favorites are kept in memory")
        ->check(CLI::Range(std::size_t{1}, std::size_t{10000000}))
        ->capture_default_str();
    app.add_option("--max-header", s.maxHeaderBytes, "Largest request header in bytes (431 above)")
        ->check(CLI::Range(std::size_t{256}, std::size_t{1} << 20))
        ->capture_default_str();
    app.add_option("--max-body", s.maxBodyBytes, "Largest request body in bytes (413 above)")
        ->check(CLI::Range(std::size_t{0}, std::size_t{1} << 30))
        ->capture_default_str();
    app.add_option("--request-timeout", s.requestTimeoutSeconds, "Seconds to receive a whole request")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_option("--idle-timeout", s.idleTimeoutSeconds, "Seconds a keep-alive connection may wait for its next request")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_option("--max-connections", s.maxConnections, "Open connections at most (more are closed at once)")
        ->check(CLI::Range(std::size_t{1}, std::size_t{1000000}))
        ->capture_default_str();
    app.add_option("--shutdown-timeout", s.shutdownTimeoutSeconds, "Seconds requests in flight get after SIGTERM")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    app.add_option("--session-seconds", s.sessionSeconds, "Lifetime of a sign-in session")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_option("--credential-cache-seconds", s.credentialCacheSeconds,
                   "How long verified Basic credentials are remembered (0: never)")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    app.add_option("--signin-failures", s.signinFailures,
                   "Failed sign-ins per user name or address before further attempts wait (0: no limit)")
        ->capture_default_str();
    app.add_option("--signin-window-seconds", s.signinWindowSeconds, "The window those failures are counted in")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_option("--status-max-age", s.statusMaxAgeSeconds,
                   "Seconds a user's favorites may go unchecked against the store before a status request "
                   "checks them (0: always check)")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    app.set_version_flag("--version", "favoritesd 1.0");

    try {
        app.parse(argc, argv);
        parseListen(listen, s);
    } catch (const CLI::ParseError& e) {
        const int rc = app.exit(e);
        return rc == 0 ? 0 : 2;
    }
    if (!dataDir.empty()) setenv("KIV_DATA_DIR", dataDir.c_str(), 1);
    raiseOpenFileLimit();

    try {
        // Every worker may hold a connection, and each request that writes
        // a user's favorites holds one more for the user's write lock.
        const std::unique_ptr<kiv::catalog::ManagedCatalog> store =
            kiv::host::openStore(s.catalog, false, static_cast<int>(s.workers) + 2);
        kiv::host::keepFavoritesHistory(*store, s.historyVersions);
        kiv::server::FavoritesService service(s, *store);
        kiv::server::HttpServer server(s, service);
        service.metrics().setGauges([&service] { return service.users().managersCached(); },
                                    [&server] { return server.openConnections(); });
        const unsigned short port = server.listen();
        const bool v6 = s.listenHost.find(':') != std::string::npos;
        std::cout << "listening on " << (s.tlsCertificate.empty() ? "http" : "https") << "://" << (v6 ? "[" + s.listenHost + "]" : s.listenHost) << ":" << port
                  << std::endl;
        server.run([&service] { service.beginStop(); });
        // Every connection is gone; let the work already given finish before
        // the catalog closes.
        service.stopWorkers();
        std::cerr << "favoritesd: stopped" << std::endl;
        return 0;
    } catch (const kiv::catalog::CatalogException& e) {
        std::cerr << "favoritesd: " << kiv::host::terminalText(kiv::host::catalogFailureText(e, s.catalog)) << "\n";
        return 3;
    } catch (const std::exception& e) {
        std::cerr << "favoritesd: " << e.what() << "\n";
        return 1;
    }
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (...) {
        std::fputs("favoritesd: internal error\n", stderr);
        return 1;
    }
}
