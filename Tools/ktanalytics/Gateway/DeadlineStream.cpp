#include "Gateway/DeadlineStream.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

namespace kt::gateway {

namespace {

// How often a connection waiting for its next request checks whether the server stops.
constexpr auto kStopCheck = std::chrono::milliseconds(50);

void addressOf(const sockaddr_storage& address, std::string& ip, int& port) {
    char text[INET6_ADDRSTRLEN] = "";
    if (address.ss_family == AF_INET) {
        const auto& v4 = reinterpret_cast<const sockaddr_in&>(address);
        inet_ntop(AF_INET, &v4.sin_addr, text, sizeof text);
        port = ntohs(v4.sin_port);
    } else if (address.ss_family == AF_INET6) {
        const auto& v6 = reinterpret_cast<const sockaddr_in6&>(address);
        inet_ntop(AF_INET6, &v6.sin6_addr, text, sizeof text);
        port = ntohs(v6.sin6_port);
    }
    ip = text;
}

}  // namespace

DeadlineStream::DeadlineStream(int socket, std::chrono::milliseconds silence, std::chrono::milliseconds writeTimeout)
    : socket_(socket), silence_(silence), writeTimeout_(writeTimeout) {}

bool DeadlineStream::awaitRequest(std::chrono::milliseconds idle, const std::function<bool()>& stopping) {
    const auto until = Clock::now() + idle;
    while (!stopping()) {
        if (offset_ < filled_) return true;
        const auto left = until - Clock::now();
        if (left <= Clock::duration::zero()) return false;
        const int ready = waitFor(POLLIN, std::min<Clock::duration>(left, kStopCheck));
        if (ready != 0) return ready > 0;
    }
    return false;
}

void DeadlineStream::startRequest(Clock::time_point deadline) {
    deadline_ = deadline;
    pastDeadline_ = false;
    written_ = 0;
}

int DeadlineStream::waitFor(short events, Clock::duration timeout) const {
    // Rounded up, so that a wait never ends just before the time it waits for.
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(std::max(timeout, Clock::duration::zero()));
    pollfd descriptor{.fd = socket_, .events = events, .revents = 0};
    for (;;) {
        const int ready = ::poll(&descriptor, 1, static_cast<int>(std::min<std::int64_t>(ms.count(), INT32_MAX)));
        if (ready >= 0) return ready > 0 ? 1 : 0;
        if (errno != EINTR) return -1;
    }
}

bool DeadlineStream::readable() const {
    const auto now = Clock::now();
    if (now >= deadline_) {
        pastDeadline_ = true;
        return false;
    }
    const auto left = deadline_ - now;
    const int ready = waitFor(POLLIN, std::min<Clock::duration>(silence_, left));
    if (ready == 0 && Clock::now() >= deadline_) pastDeadline_ = true;
    return ready > 0;
}

bool DeadlineStream::is_readable() const { return offset_ < filled_ || readable(); }

bool DeadlineStream::is_writable() const { return waitFor(POLLOUT, writeTimeout_) > 0; }

ssize_t DeadlineStream::read(char* data, std::size_t size) {
    if (offset_ == filled_) {
        if (!readable()) return -1;
        ssize_t received;
        do {
            received = ::recv(socket_, buffer_, sizeof buffer_, 0);
        } while (received < 0 && errno == EINTR);
        if (received <= 0) return received;
        offset_ = 0;
        filled_ = static_cast<std::size_t>(received);
    }
    const std::size_t taken = std::min(size, filled_ - offset_);
    std::memcpy(data, buffer_ + offset_, taken);
    offset_ += taken;
    return static_cast<ssize_t>(taken);
}

ssize_t DeadlineStream::write(const char* data, std::size_t size) {
    // httplib writes headers and body with one call each and does not retry a short write,
    // so all of it goes out here or the write fails.
    std::size_t sent = 0;
    while (sent < size) {
        if (!is_writable()) return -1;
        // MSG_NOSIGNAL: a client gone away is an error here, not a SIGPIPE for the process.
        const ssize_t n = ::send(socket_, data + sent, size - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return -1;
        sent += static_cast<std::size_t>(n);
    }
    written_ += sent;
    return static_cast<ssize_t>(sent);
}

void DeadlineStream::get_remote_ip_and_port(std::string& ip, int& port) const {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (::getpeername(socket_, reinterpret_cast<sockaddr*>(&address), &length) == 0) addressOf(address, ip, port);
}

void DeadlineStream::get_local_ip_and_port(std::string& ip, int& port) const {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length) == 0) addressOf(address, ip, port);
}

}  // namespace kt::gateway
