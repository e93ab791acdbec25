// Requests and responses as the server's handlers see them: plain values,
// with nothing of the HTTP library in them. httpserver.cpp converts between
// these and the wire.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kiv::server {

struct HttpRequest {
    std::string method;   // "GET", "POST", ...
    std::string target;   // path and query as sent
    std::vector<std::pair<std::string, std::string>> headers;  // names in lower case
    std::string body;
    std::string peer;     // the client's address
    bool secure = false;  // received over TLS

    // The first header of that (lower-case) name; empty when absent.
    std::string_view header(std::string_view name) const {
        for (const auto& [n, v] : headers)
            if (n == name) return v;
        return {};
    }
    bool hasHeader(std::string_view name) const {
        for (const auto& h : headers)
            if (h.first == name) return true;
        return false;
    }
};

struct HttpResponse {
    int status = 200;
    std::string contentType = "application/json";
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    bool close = false;  // close the connection after this response

    HttpResponse& header(std::string name, std::string value) {
        headers.emplace_back(std::move(name), std::move(value));
        return *this;
    }
};

// Completes one request. Call it once, from any thread. A responder that is
// destroyed without having been called answers 500, so that no connection
// waits forever for a handler that failed.
class Responder {
public:
    using Sink = std::function<void(HttpResponse)>;
    explicit Responder(Sink sink) : m_state(std::make_shared<State>(std::move(sink))) {}
    void operator()(HttpResponse response) const { m_state->send(std::move(response)); }

private:
    struct State {
        explicit State(Sink s) : sink(std::move(s)) {}
        ~State();
        void send(HttpResponse response);
        Sink sink;
        bool sent = false;
    };
    std::shared_ptr<State> m_state;
};

// What the HTTP layer hands every parsed request to. Called on an I/O
// thread: it must not block.
class RequestHandler {
public:
    virtual ~RequestHandler() = default;
    virtual void handle(HttpRequest request, Responder respond) = 0;
};

}  // namespace kiv::server
