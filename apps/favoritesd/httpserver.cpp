// The one translation unit that knows Boost.Beast: connections, parsing,
// limits, timeouts and the orderly stop. Everything else sees HttpRequest and
// HttpResponse (http.h).
#include "httpserver.h"

#include <boost/asio.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>

#include <chrono>
#include <csignal>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <vector>

#include "errors.h"
#include "qz/platform/threads.h"

namespace kiv::server {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;
using asio::awaitable;
using asio::use_awaitable;

namespace {

constexpr auto kAsTuple = asio::as_tuple(use_awaitable);

std::chrono::steady_clock::duration seconds(double s) {
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(s));
}

using PlainStream = beast::tcp_stream;
using TlsStream = beast::ssl_stream<beast::tcp_stream>;

// One accepted connection. Its socket is used only on its own strand.
struct ConnectionBase {
    virtual ~ConnectionBase() = default;
    virtual void close() = 0;
    virtual asio::any_io_executor executor() = 0;
    bool busy = false;  // a request is being read, handled or answered
};

template <class Stream>
struct Connection final : ConnectionBase {
    explicit Connection(tcp::socket s) : stream(std::move(s)) {}
    Connection(tcp::socket s, asio::ssl::context& tls) : stream(std::move(s), tls) {}
    Stream stream;

    beast::tcp_stream& lowest() { return beast::get_lowest_layer(stream); }
    void close() override {
        beast::error_code ec;
        lowest().socket().shutdown(tcp::socket::shutdown_both, ec);
        lowest().socket().close(ec);
    }
    asio::any_io_executor executor() override { return stream.get_executor(); }
};

HttpRequest toRequest(http::request<http::string_body>&& in, const std::string& peer) {
    HttpRequest r;
    r.method = std::string(in.method_string());
    r.target = std::string(in.target());
    r.headers.reserve(8);
    for (const auto& field : in) {
        std::string name(field.name_string());
        for (char& c : name)
            if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        r.headers.emplace_back(std::move(name), std::string(field.value()));
    }
    r.body = std::move(in.body());
    r.peer = peer;
    return r;
}

http::response<http::string_body> toWire(HttpResponse&& in, unsigned version, bool keepAlive) {
    http::response<http::string_body> res{static_cast<http::status>(in.status), version};
    if (!in.contentType.empty()) res.set(http::field::content_type, in.contentType);
    for (auto& [name, value] : in.headers) res.insert(name, value);
    res.body() = std::move(in.body);
    res.keep_alive(keepAlive);
    res.prepare_payload();
    return res;
}

}  // namespace

struct HttpServer::Impl {
    Impl(const Settings& s, RequestHandler& h) : settings(s), handler(h) {}

    Settings settings;
    RequestHandler& handler;
    asio::io_context ioc{static_cast<int>(settings.ioThreads)};
    std::unique_ptr<asio::ssl::context> tls;  // set when the server speaks TLS
    tcp::acceptor acceptor{ioc};
    asio::strand<asio::io_context::executor_type> control = asio::make_strand(ioc);
    asio::signal_set signals{control, SIGINT, SIGTERM};
    asio::steady_timer deadline{control};
    std::function<void()> onStop;

    std::atomic<bool> stopping{false};
    threads::Mutex mutex;
    std::set<std::shared_ptr<ConnectionBase>> live KIV_GUARDED_BY(mutex);

    std::size_t connectionCount() {
        threads::MutexLock lock(mutex);
        return live.size();
    }

    void forget(const std::shared_ptr<ConnectionBase>& conn) {
        bool last = false;
        {
            threads::MutexLock lock(mutex);
            live.erase(conn);
            last = live.empty();
        }
        // The last connection gone while stopping: nothing to wait for.
        if (last && stopping) asio::post(control, [this] { deadline.cancel(); });
    }

    // Closes the connections that match, each on its own strand.
    template <class Pred>
    void closeConnections(Pred pred) {
        std::vector<std::shared_ptr<ConnectionBase>> all;
        {
            threads::MutexLock lock(mutex);
            all.assign(live.begin(), live.end());
        }
        for (auto& c : all)
            asio::post(c->executor(), [c, pred] {
                if (pred(*c)) c->close();
            });
    }

    // Runs on the control strand.
    void beginStop() {
        if (stopping.exchange(true)) return;
        beast::error_code ec;
        acceptor.close(ec);
        signals.cancel(ec);
        closeConnections([](const ConnectionBase& c) { return !c.busy; });
        if (connectionCount() == 0) return;
        deadline.expires_after(seconds(settings.shutdownTimeoutSeconds));
        deadline.async_wait([this](beast::error_code e) {
            if (!e) closeConnections([](const ConnectionBase&) { return true; });
        });
    }

    void waitForSignal() {
        signals.async_wait([this](beast::error_code ec, int) {
            if (ec) return;
            if (onStop) onStop();
            beginStop();
        });
    }

    awaitable<void> acceptLoop() {
        asio::steady_timer pause(ioc);
        for (;;) {
            tcp::socket socket(asio::make_strand(ioc));
            auto [ec] = co_await acceptor.async_accept(socket, kAsTuple);
            if (stopping) co_return;
            if (ec) {
                if (ec == asio::error::operation_aborted) co_return;
                // Out of descriptors or a passing failure: breathe, then go on.
                pause.expires_after(std::chrono::milliseconds(50));
                co_await pause.async_wait(kAsTuple);
                continue;
            }
            if (tls)
                start(std::make_shared<Connection<TlsStream>>(std::move(socket), *tls));
            else
                start(std::make_shared<Connection<PlainStream>>(std::move(socket)));
        }
    }

    template <class Stream>
    void start(std::shared_ptr<Connection<Stream>> conn) {
        {
            threads::MutexLock lock(mutex);
            if (live.size() >= settings.maxConnections) {
                conn->close();
                return;
            }
            live.insert(conn);
        }
        asio::co_spawn(conn->stream.get_executor(), session(conn), asio::detached);
    }

    // Hands the request to the handler; the awaitable completes with its
    // answer, which may come from any thread and is delivered on `ex`. Not a
    // coroutine itself: the request travels as an argument of the initiation
    // (g++ 12 miscompiles a by-value class parameter moved into a lambda
    // capture inside a coroutine).
    template <class Executor>
    auto dispatch(std::shared_ptr<HttpRequest> request, Executor ex) {
        return asio::async_initiate<const asio::use_awaitable_t<>&, void(HttpResponse)>(
            [this, ex](auto completion, std::shared_ptr<HttpRequest> req) {
                auto shared = std::make_shared<decltype(completion)>(std::move(completion));
                handler.handle(std::move(*req), Responder([shared, ex](HttpResponse response) {
                                   asio::post(ex, [shared, response = std::move(response)]() mutable {
                                       (*shared)(std::move(response));
                                   });
                               }));
            },
            use_awaitable, std::move(request));
    }

    template <class Stream>
    awaitable<void> write(Connection<Stream>& c, HttpResponse&& response, unsigned version, bool keepAlive) {
        auto res = toWire(std::move(response), version, keepAlive);
        c.lowest().expires_after(seconds(settings.requestTimeoutSeconds));
        co_await http::async_write(c.stream, res, kAsTuple);
    }

    template <class Stream>
    awaitable<void> session(std::shared_ptr<Connection<Stream>> conn) {
        Connection<Stream>& c = *conn;
        constexpr bool secure = std::is_same_v<Stream, TlsStream>;
        std::string peer;
        {
            beast::error_code ec;
            const auto ep = c.lowest().socket().remote_endpoint(ec);
            if (!ec) peer = ep.address().to_string();
        }
        bool open = true;
        if constexpr (secure) {
            // The handshake counts as receiving the first request.
            c.lowest().expires_after(seconds(settings.requestTimeoutSeconds));
            auto [ec] = co_await c.stream.async_handshake(asio::ssl::stream_base::server, kAsTuple);
            open = !ec;
        }
        beast::flat_buffer buffer;
        while (open) {
            // Between requests: wait for the first byte within the idle timeout.
            if (buffer.size() == 0) {
                c.lowest().expires_after(seconds(settings.idleTimeoutSeconds));
                auto [ec, n] = co_await c.stream.async_read_some(buffer.prepare(4096), kAsTuple);
                if (ec) break;
                buffer.commit(n);
            }
            c.busy = true;
            // The whole request must arrive within the request timeout.
            http::request_parser<http::string_body> parser;
            parser.header_limit(static_cast<std::uint32_t>(settings.maxHeaderBytes));
            parser.body_limit(settings.maxBodyBytes);
            c.lowest().expires_after(seconds(settings.requestTimeoutSeconds));
            auto [hec, hn] = co_await http::async_read_header(c.stream, buffer, parser, kAsTuple);
            beast::error_code ec = hec;
            if (!ec && parser.get()[http::field::expect] == "100-continue" && !parser.is_done()) {
                http::response<http::empty_body> cont{http::status::continue_, parser.get().version()};
                auto [wec, wn] = co_await http::async_write(c.stream, cont, kAsTuple);
                ec = wec;
            }
            if (!ec && !parser.is_done()) {
                auto [bec, bn] = co_await http::async_read(c.stream, buffer, parser, kAsTuple);
                ec = bec;
            }
            if (ec) {
                const unsigned version = parser.is_header_done() ? parser.get().version() : 11;
                if (ec == http::error::header_limit)
                    co_await write(c, serverErrorResponse(431, "headerTooLarge",
                                                          "the request header is larger than " +
                                                              std::to_string(settings.maxHeaderBytes) + " bytes"),
                                   version, false);
                else if (ec == http::error::body_limit)
                    co_await write(c, serverErrorResponse(413, "payloadTooLarge",
                                                          "the request body is larger than " +
                                                              std::to_string(settings.maxBodyBytes) + " bytes"),
                                   version, false);
                else if (ec.category() == beast::error_code(http::error::end_of_stream).category() && ec != http::error::end_of_stream &&
                         ec != http::error::partial_message)
                    co_await write(c, serverErrorResponse(400, "badRequest", "malformed HTTP request: " + ec.message()),
                                   version, false);
                break;  // timeouts, resets and a client gone: just close
            }
            c.lowest().expires_never();  // the handler's time is not the client's
            auto& req = parser.get();
            const unsigned version = req.version();
            const bool wantsKeepAlive = req.keep_alive();
            auto request = std::make_shared<HttpRequest>(toRequest(std::move(req), peer));
            request->secure = secure;
            HttpResponse response = co_await dispatch(std::move(request), c.stream.get_executor());
            const bool keepAlive = wantsKeepAlive && !response.close && !stopping;
            co_await write(c, std::move(response), version, keepAlive);
            c.busy = false;
            if (!keepAlive || !c.lowest().socket().is_open()) break;
        }
        c.close();
        forget(conn);
    }
};

HttpServer::HttpServer(const Settings& settings, RequestHandler& handler)
    : m_impl(std::make_unique<Impl>(settings, handler)) {}

HttpServer::~HttpServer() = default;

unsigned short HttpServer::listen() {
    Impl& i = *m_impl;
    beast::error_code ec;
    const auto address = asio::ip::make_address(i.settings.listenHost, ec);
    if (ec) throw std::runtime_error("--listen: '" + i.settings.listenHost + "' is not an IP address");
    const tcp::endpoint endpoint(address, i.settings.listenPort);
    i.acceptor.open(endpoint.protocol(), ec);
    if (!ec) i.acceptor.set_option(asio::socket_base::reuse_address(true), ec);
    if (!ec) i.acceptor.bind(endpoint, ec);
    if (!ec) i.acceptor.listen(asio::socket_base::max_listen_connections, ec);
    if (ec)
        throw std::runtime_error("cannot listen on " + i.settings.listenHost + ":" +
                                 std::to_string(i.settings.listenPort) + ": " + ec.message());
    if (!i.settings.tlsCertificate.empty() || !i.settings.tlsKey.empty()) {
        if (i.settings.tlsCertificate.empty() || i.settings.tlsKey.empty())
            throw std::runtime_error("TLS needs both --tls-cert and --tls-key");
        auto tls = std::make_unique<asio::ssl::context>(asio::ssl::context::tls_server);
        tls->set_options(asio::ssl::context::default_workarounds | asio::ssl::context::no_sslv2 |
                         asio::ssl::context::no_sslv3 | asio::ssl::context::no_tlsv1 |
                         asio::ssl::context::no_tlsv1_1 | asio::ssl::context::single_dh_use);
        tls->use_certificate_chain_file(i.settings.tlsCertificate, ec);
        if (ec) throw std::runtime_error("--tls-cert " + i.settings.tlsCertificate + ": " + ec.message());
        tls->use_private_key_file(i.settings.tlsKey, asio::ssl::context::pem, ec);
        if (ec) throw std::runtime_error("--tls-key " + i.settings.tlsKey + ": " + ec.message());
        i.tls = std::move(tls);
    }
    return i.acceptor.local_endpoint().port();
}

void HttpServer::run(const std::function<void()>& onStop) {
    Impl& i = *m_impl;
    i.onStop = onStop;
    asio::post(i.control, [&i] { i.waitForSignal(); });
    asio::co_spawn(i.ioc, i.acceptLoop(), asio::detached);
    std::vector<std::thread> threads;
    for (unsigned n = 1; n < i.settings.ioThreads; ++n) threads.emplace_back([&i] { i.ioc.run(); });
    i.ioc.run();
    for (auto& t : threads) t.join();
}

void HttpServer::stop() {
    asio::post(m_impl->control, [this] { m_impl->beginStop(); });
}

std::size_t HttpServer::openConnections() const noexcept {
    try {
        return m_impl->connectionCount();
    } catch (...) {
        return 0;
    }
}

}  // namespace kiv::server
