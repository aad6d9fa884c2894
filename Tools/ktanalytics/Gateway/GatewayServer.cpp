#include "Gateway/GatewayServer.h"
#include "Gateway/DeadlineStream.h"

#include <condition_variable>
#include <list>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include <sys/socket.h>
#include <unistd.h>

namespace kt::gateway {

namespace {

constexpr std::chrono::seconds kWorkerIdleRetirement{10};

// The connection this worker thread serves.
thread_local const DeadlineStream* tConnection = nullptr;

// Runs each job (one connection) on an idle thread, or on a new one while fewer than
// `maximum` exist; beyond that jobs wait their turn. Threads idle for a while retire.
class ElasticThreadPool final : public httplib::TaskQueue {
public:
    explicit ElasticThreadPool(std::size_t maximum) : maximum_(maximum) {}
    ~ElasticThreadPool() override { shutdown(); }

    void enqueue(std::function<void()> job) override {
        std::list<std::thread> retired;
        {
            std::lock_guard lock(mutex_);
            jobs_.push_back(std::move(job));
            if (jobs_.size() > idle_ && workers_.size() < maximum_) {
                const auto self = workers_.emplace(workers_.end());
                try {
                    // The new thread takes the lock before touching `self`, so it sees it assigned.
                    *self = std::thread([this, self] { work(self); });
                } catch (const std::system_error&) {
                    // Out of threads: the job waits for one of those running.
                    workers_.erase(self);
                    wake_.notify_one();
                }
            } else {
                wake_.notify_one();
            }
            retired.swap(retired_);
        }
        for (std::thread& t : retired) t.join();
    }

    // Lets the queued jobs run, then waits for every thread.
    void shutdown() override {
        std::unique_lock lock(mutex_);
        stopping_ = true;
        wake_.notify_all();
        allRetired_.wait(lock, [this] { return workers_.empty(); });
        std::list<std::thread> retired;
        retired.swap(retired_);
        lock.unlock();
        for (std::thread& t : retired) t.join();
    }

private:
    void work(std::list<std::thread>::iterator self) {
        std::unique_lock lock(mutex_);
        for (;;) {
            ++idle_;
            wake_.wait_for(lock, kWorkerIdleRetirement, [this] { return !jobs_.empty() || stopping_; });
            --idle_;
            if (jobs_.empty()) break;
            std::function<void()> job = std::move(jobs_.front());
            jobs_.pop_front();
            lock.unlock();
            job();
            lock.lock();
        }
        // Someone else joins this thread: the next `enqueue` or `shutdown`.
        retired_.splice(retired_.end(), workers_, self);
        if (workers_.empty()) allRetired_.notify_all();
    }

    const std::size_t maximum_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable allRetired_;
    std::list<std::function<void()>> jobs_;
    std::list<std::thread> workers_;
    std::list<std::thread> retired_;
    std::size_t idle_ = 0;
    bool stopping_ = false;
};

}  // namespace

bool requestPastDeadline() { return tConnection != nullptr && tConnection->pastDeadline(); }

HTTPServer::HTTPServer(std::size_t maximumWorkers) {
    new_task_queue = [maximumWorkers] { return new ElasticThreadPool(maximumWorkers); };
}

bool HTTPServer::process_and_close_socket(socket_t sock) {
    DeadlineStream stream(sock, std::chrono::seconds(read_timeout_sec_), std::chrono::seconds(write_timeout_sec_));
    tConnection = &stream;
    bool ok = false;
    for (std::size_t left = keep_alive_max_count_; left > 0; --left) {
        if (!stream.awaitRequest(std::chrono::seconds(keep_alive_timeout_sec_),
                                 [this] { return svr_sock_ == INVALID_SOCKET; }))
            break;
        stream.startRequest(DeadlineStream::Clock::now() + requestDeadline);
        bool closed = false;
        ok = process_request(stream, left == 1, closed, nullptr);
        if (stream.pastDeadline()) {
            // Cut off before a request line httplib could answer: answered here.
            const bool answered = stream.answered();
            if (!answered) {
                const std::string body = R"({"error":"the request did not arrive in time"})";
                const std::string text = "HTTP/1.1 408 Request Timeout\r\nConnection: close\r\n"
                                         "Content-Type: application/json\r\nContent-Length: " +
                                         std::to_string(body.size()) + "\r\n\r\n" + body;
                stream.write(text.data(), text.size());
            }
            if (pastDeadline) pastDeadline(answered);
            ok = false;
        }
        if (!ok || closed) break;
    }
    tConnection = nullptr;
    ::shutdown(sock, SHUT_RDWR);
    ::close(sock);
    return ok;
}

}  // namespace kt::gateway
