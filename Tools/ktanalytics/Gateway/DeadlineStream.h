#pragma once
// A connection's socket as the gateway's HTTP server reads and writes it. Besides the silence
// allowed between two reads, a request as a whole must arrive before a deadline: a client that
// sends a byte now and then is never silent for long, yet must not hold a worker for ever.

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>

#include <httplib.h>

namespace kt::gateway {

class DeadlineStream final : public httplib::Stream {
public:
    using Clock = std::chrono::steady_clock;

    DeadlineStream(int socket, std::chrono::milliseconds silence, std::chrono::milliseconds writeTimeout);

    /// Waits for the first byte of the next request for at most `idle`, checking `stopping`
    /// every few milliseconds; true when one is there (or the peer closed, which the request
    /// read then finds).
    bool awaitRequest(std::chrono::milliseconds idle, const std::function<bool()>& stopping);
    /// Starts the time of one request: reads fail once `deadline` has passed.
    void startRequest(Clock::time_point deadline);
    bool pastDeadline() const { return pastDeadline_; }
    /// Whether anything was written since `startRequest`.
    bool answered() const { return written_ > 0; }

    bool is_readable() const override;
    bool is_writable() const override;
    ssize_t read(char* data, std::size_t size) override;
    ssize_t write(const char* data, std::size_t size) override;
    void get_remote_ip_and_port(std::string& ip, int& port) const override;
    void get_local_ip_and_port(std::string& ip, int& port) const override;
    int socket() const override { return socket_; }

private:
    // 1 ready, 0 timed out, -1 failed.
    int waitFor(short events, Clock::duration timeout) const;
    // Waits for bytes within the silence allowed and the request's deadline.
    bool readable() const;

    const int socket_;
    const std::chrono::milliseconds silence_;
    const std::chrono::milliseconds writeTimeout_;
    Clock::time_point deadline_ = Clock::time_point::max();
    mutable bool pastDeadline_ = false;
    std::size_t written_ = 0;
    char buffer_[16384];
    std::size_t offset_ = 0;
    std::size_t filled_ = 0;
};

}  // namespace kt::gateway
