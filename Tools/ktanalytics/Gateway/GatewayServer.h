#pragma once
// The HTTP server under the gateway: httplib's, with each connection served on a thread of
// its own (up to a bound) and a deadline on each request as a whole.

#include <chrono>
#include <cstddef>
#include <functional>

#include <httplib.h>

namespace kt::gateway {

class HTTPServer final : public httplib::Server {
public:
    /// Serves connections on up to `maximumWorkers` threads; idle ones retire.
    explicit HTTPServer(std::size_t maximumWorkers);

    // httplib listens with a backlog of 5 and has no setting for it. Linux takes a new
    // backlog when listen is called again on a listening socket.
    bool widenBacklog(int backlog) { return ::listen(svr_sock_, backlog) == 0; }

    // Both set before the server listens.
    std::chrono::milliseconds requestDeadline{};
    // Told of each request past its deadline, and whether it was answered.
    std::function<void(bool answered)> pastDeadline;

private:
    // httplib's own connection loop bounds each read of a request but not the request as a
    // whole, so a client sending a byte a second holds its worker for ever. This loop is
    // httplib's, served by a stream that also fails reads once the request's deadline passes.
    bool process_and_close_socket(socket_t sock) override;
};

/// Whether the request the calling worker thread serves has passed its deadline, for
/// handlers to tell a body cut off by it from one that could not be read.
bool requestPastDeadline();

}  // namespace kt::gateway
