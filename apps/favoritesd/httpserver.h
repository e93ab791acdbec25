// HttpServer: HTTP/1.1 over TCP with Boost.Beast and C++20 coroutines.
//
// Plain TCP, or TLS when the settings name a certificate and key. A few I/O
// threads run every connection (an idle keep-alive connection costs
// no thread). Each parsed request goes to the RequestHandler, which answers
// through its Responder from any thread; the connection waits for that answer
// without blocking its thread. Limits: header and body size (431 and 413),
// the time to receive a whole request and the idle time between requests
// (the connection is closed), and the number of open connections (further
// ones are closed at once).
//
// stop() (from any thread) stops accepting, closes idle connections, lets
// requests in flight be answered and closes their connections afterwards;
// connections still open at the shutdown deadline are closed. run() returns
// when every connection is gone.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "http.h"
#include "settings.h"

namespace kiv::server {

class HttpServer {
public:
    HttpServer(const Settings& settings, RequestHandler& handler);
    ~HttpServer();

    // Binds and listens (and loads the TLS certificate and key); the bound
    // port (useful with port 0). Raises std::runtime_error when the address
    // cannot be bound or the certificate or key cannot be used.
    unsigned short listen();
    // Runs the I/O threads until stop() has completed; calls onStop once
    // SIGTERM or SIGINT arrived (before connections are drained).
    void run(const std::function<void()>& onStop);
    void stop();

    std::size_t openConnections() const noexcept;

    struct Impl;

private:
    std::unique_ptr<Impl> m_impl;
};

}  // namespace kiv::server
