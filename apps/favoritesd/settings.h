// The server's settings: every limit and timeout in one place, with its
// default. main.cpp fills them from the command line and the config file.
#pragma once

#include <cstddef>
#include <string>

namespace kiv::server {

struct Settings {
    std::string catalog = "catalog.db";   // the catalog file
    std::string listenHost = "127.0.0.1";
    unsigned short listenPort = 8080;      // 0 picks a free port
    std::string webDir;                    // the page's files (empty: no page)
    std::string accessLog = "-";           // a file, "-" for standard error, "off"
    std::string tlsCertificate;            // PEM certificate chain: speak TLS (with tlsKey)
    std::string tlsKey;                    // PEM private key

    unsigned ioThreads = 2;                // threads that run the HTTP connections
    unsigned workers = 8;                  // threads that call the library and the catalog
    std::size_t maxUsers = 1000;           // managers kept in memory
    unsigned historyVersions = 20;         // earlier versions kept per favorites object

    std::size_t maxHeaderBytes = 16 * 1024;
    std::size_t maxBodyBytes = 16 * 1024 * 1024;
    double requestTimeoutSeconds = 30;     // to receive one whole request
    double idleTimeoutSeconds = 60;        // between requests on a keep-alive connection
    std::size_t maxConnections = 10000;
    double shutdownTimeoutSeconds = 10;    // for requests in flight after SIGTERM

    double sessionSeconds = 8 * 3600;      // lifetime of a sign-in session
    double credentialCacheSeconds = 60;    // how long a verified Basic password is remembered
    unsigned signinFailures = 5;           // failed sign-ins per name or address ...
    double signinWindowSeconds = 300;      // ... within this window before 429

    std::size_t maxStatusPaths = 10000;    // paths in one status request
    // A status request is answered on the I/O thread from the user's index
    // when the manager was in step with the store less than this long ago;
    // otherwise it goes to the worker pool, which checks the store first.
    double statusMaxAgeSeconds = 1.0;
};

}  // namespace kiv::server
