#include "Gateway/DevelopmentGateway.h"
#include "Gateway/GatewayEndpoints.h"
#include "Gateway/GatewayStore.h"

#include <atomic>
#include <limits>
#include <mutex>
#include <thread>
#include <utility>

#include <malloc.h>

namespace kt::gateway {

namespace {

constexpr int kListenBacklog = 1024;
constexpr int kLargeBlock = 1 << 20;

}  // namespace

// The facade over the gateway's parts: the store of what arrives, and the endpoints that
// take it in over HTTP.
struct DevelopmentGateway::Impl {
    const Configuration configuration;
    ErrorNote errors;
    GatewayStore store;
    GatewayEndpoints endpoints;
    std::thread thread;
    int boundPort = 0;
    bool started = false;
    bool everStarted = false;
    std::atomic<bool> loopReturned{false};
    std::mutex observerMutex;
    std::size_t observer = 0;  // the store's id of the observer set here; guarded by observerMutex

    explicit Impl(Configuration c)
        : configuration(std::move(c)),
          store(configuration.dbPath, configuration.maxListingBytes, errors),
          endpoints(configuration, store, errors) {}

    HTTPServer& server() { return endpoints.server(); }
};

DevelopmentGateway::DevelopmentGateway(Configuration configuration)
    : impl_(std::make_unique<Impl>(std::move(configuration))) {}

DevelopmentGateway::~DevelopmentGateway() { stop(); }

bool DevelopmentGateway::start() {
    Impl& d = *impl_;
    if (d.started) return true;
    if (d.everStarted) {
        d.errors.set("a stopped gateway does not start again; make a new one");
        return false;
    }
    if (!d.store.isOpen() && !d.store.open()) return false;
    // glibc takes blocks below a threshold from its heaps, one per worker thread, and raises
    // that threshold to the largest block freed; the top of a thread's heap is then kept
    // however much of it is free (malloc_trim does not shrink it), so each worker that once
    // decoded a large upload would keep tens of MiB. A fixed threshold serves the large
    // buffers of decoding from mappings of their own, returned as soon as they are freed.
    static std::once_flag largeBlocksMapped;
    std::call_once(largeBlocksMapped, [] { mallopt(M_MMAP_THRESHOLD, kLargeBlock); });
    d.endpoints.install();
    const Configuration& c = d.configuration;
    if (c.port == 0) {
        d.boundPort = d.server().bind_to_any_port(c.host);
        if (d.boundPort < 0) {
            d.errors.set("cannot bind " + c.host);
            return false;
        }
    } else {
        if (!d.server().bind_to_port(c.host, c.port)) {
            d.errors.set("cannot bind " + c.host + ":" + std::to_string(c.port));
            return false;
        }
        d.boundPort = c.port;
    }
    // The socket listens from here on; connections wait in the backlog until the loop runs.
    if (!d.server().widenBacklog(kListenBacklog)) d.endpoints.logLine("note: the listen backlog stays at httplib's 5");
    d.everStarted = true;
    d.thread = std::thread([&d] {
        d.server().listen_after_bind();
        d.loopReturned = true;
    });
    // `stop` is lost on a server that has not entered its loop yet, so wait for that.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!d.server().is_running() && !d.loopReturned && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    d.started = true;
    if (!d.server().is_running()) {
        stop();
        d.errors.set("the server did not start on " + baseURL());
        return false;
    }
    d.endpoints.logLine("listening on " + baseURL());
    return true;
}

void DevelopmentGateway::stop() {
    Impl& d = *impl_;
    if (!d.started) return;
    d.server().stop();
    if (d.thread.joinable()) d.thread.join();
    d.started = false;
}

int DevelopmentGateway::port() const { return impl_->boundPort; }

std::string DevelopmentGateway::baseURL() const {
    const std::string& host = impl_->configuration.host;
    const bool ipv6 = host.find(':') != std::string::npos;
    return "http://" + (ipv6 ? "[" + host + "]" : host) + ":" + std::to_string(impl_->boundPort);
}

GatewayStatistics DevelopmentGateway::stats() const { return impl_->store.statistics(); }

std::vector<StoredEvent> DevelopmentGateway::lastEvents(std::size_t limit) const {
    return impl_->store.lastEvents(limit, std::numeric_limits<std::size_t>::max());
}

std::vector<StoredMessage> DevelopmentGateway::lastMessages(std::size_t limit) const {
    return impl_->store.lastMessages(limit, std::numeric_limits<std::size_t>::max());
}

std::vector<StoredTrackingRequest> DevelopmentGateway::lastTrackingRequests(std::size_t limit) const {
    return impl_->store.lastTrackingRequests(limit);
}

std::string DevelopmentGateway::lastError() const { return impl_->errors.get(); }

void DevelopmentGateway::setArrivalObserver(std::function<void(const Arrival&)> observer) {
    Impl& d = *impl_;
    std::lock_guard lock(d.observerMutex);
    if (d.observer != 0) d.store.removeArrivalObserver(d.observer);
    d.observer = observer ? d.store.addArrivalObserver(std::move(observer)) : 0;
}

}  // namespace kt::gateway
