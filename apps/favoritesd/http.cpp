#include "http.h"

#include "errors.h"

namespace kiv::server {

Responder::State::~State() {
    if (!sent && sink) sink(serverErrorResponse(500, "internalError", "the request was dropped without an answer"));
}

void Responder::State::send(HttpResponse response) {
    if (sent) return;
    sent = true;
    sink(std::move(response));
}

}  // namespace kiv::server
