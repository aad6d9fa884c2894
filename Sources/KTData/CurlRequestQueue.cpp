#include "KTAnalytics/KTData/CurlRequestQueue.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <deque>
#include <mutex>
#include <optional>
#include <random>
#include <thread>
#include <unordered_map>

#include <boost/url/parse.hpp>
#include <boost/url/url_view.hpp>
#include <curl/curl.h>

#include "KTAnalytics/KTFoundation/ConnectivityStateDetecting.h"
#include "KTAnalytics/KTFoundation/LogMacros.h"
#include "KTAnalytics/Platform/Backoff.h"
#include "KTAnalytics/Platform/Fatal.h"

namespace kt {

namespace {

constexpr const char* kFile = "Sources/KTData/CurlRequestQueue";
// An idle worker sleeps this long at most; a posted request wakes it at once.
constexpr int kIdleWaitMs = 60'000;
// While transfers run, curl shortens the wait to its own timers; this only caps it.
constexpr int kBusyWaitMs = 1'000;
// Hops a request that follows redirects may take before the chain counts as a failure.
constexpr long kMaximumRedirects = 5;

void initializeCurlOnce() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

bool isLoopbackHost(const std::string& baseURL) {
    if (baseURL.empty()) return false;
    auto parsed = boost::urls::parse_uri(baseURL);
    if (!parsed) return false;
    const boost::urls::url_view& url = *parsed;
    switch (url.host_type()) {
    case boost::urls::host_type::ipv4: return url.host_ipv4_address().is_loopback();
    case boost::urls::host_type::ipv6: return url.host_ipv6_address().is_loopback();
    case boost::urls::host_type::name: {
        std::string host = url.host();
        std::transform(host.begin(), host.end(), host.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        return host == "localhost" || host.ends_with(".localhost");
    }
    default: return false;
    }
}

std::size_t discardBody(char*, std::size_t size, std::size_t count, void*) { return size * count; }

struct Pending {
    HTTPRequest request;
    RequestQueueing::ResultCallback callback;
    std::string origin;
};

// One transfer in flight. The request stays here because curl reads its URL and body
// in place for as long as the transfer runs.
struct Transfer {
    HTTPRequest request;
    RequestQueueing::ResultCallback callback;
    std::string origin;
    std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
    CURL* easy = nullptr;
    curl_slist* headers = nullptr;
    char error[CURL_ERROR_SIZE] = {};

    Transfer() = default;
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;
    ~Transfer() {
        if (easy != nullptr) curl_easy_cleanup(easy);
        curl_slist_free_all(headers);
    }
};

}  // namespace

struct CurlRequestQueue::Impl {
    const Configuration configuration;
    const std::shared_ptr<ConnectivityStateDetecting> connectivity;
    const std::shared_ptr<KTLogger> logger;
    const bool baseIsLoopback;
    CURLM* multi = nullptr;

    std::mutex mutex;
    std::deque<Pending> posted;   // guarded by mutex: accepted, not yet seen by the worker
    std::deque<Pending> refused;  // guarded by mutex: posted after shutdown began
    bool stopping = false;        // guarded by mutex

    std::atomic<std::uint64_t> requestsSent{0};
    std::atomic<std::uint64_t> bytesSent{0};
    std::atomic<std::uint64_t> delivered{0};
    std::atomic<std::uint64_t> failed{0};
    std::atomic<std::uint64_t> rejected{0};
    std::atomic<std::uint64_t> notSent{0};
    std::atomic<std::uint64_t> pausesBegun{0};

    // The pause of each origin that failed and has not answered since.
    struct Pause {
        int failures = 0;
        std::chrono::steady_clock::time_point began{};
        std::chrono::steady_clock::time_point until{};
    };
    mutable std::mutex pauseMutex;
    std::unordered_map<std::string, Pause> pauses;  // guarded by pauseMutex
    std::minstd_rand jitter{std::random_device{}()};  // guarded by pauseMutex

    std::thread worker;

    Impl(Configuration c, std::shared_ptr<ConnectivityStateDetecting> d, std::shared_ptr<KTLogger> l)
        : configuration(std::move(c)),
          connectivity(std::move(d)),
          logger(l ? std::move(l) : KTLogger::null()),
          baseIsLoopback(isLoopbackHost(configuration.baseURL)) {}

    // Worker-owned state.
    std::deque<Pending> waiting;
    std::unordered_map<CURL*, std::unique_ptr<Transfer>> running;

    void run();
    // Starts what may start now; the earliest end of a pause holding a waiting request.
    std::optional<std::chrono::steady_clock::time_point> startWaiting();
    bool start(Pending pending);
    void finish(Transfer& transfer, CURLcode code);
    void complete(RequestQueueing::ResultCallback& callback, long status);
    void complete(RequestQueueing::ResultCallback& callback, RequestResult result);
    std::optional<std::chrono::steady_clock::time_point> pausedUntil(const std::string& origin) const;
    void notePauseOutcome(const std::string& origin, std::chrono::steady_clock::time_point started,
                          RequestResult result, std::chrono::seconds retryAfter);
    bool drainCompleted();
    void abortEverything();
};

CurlRequestQueue::CurlRequestQueue(Configuration configuration,
                                   std::shared_ptr<ConnectivityStateDetecting> connectivity,
                                   std::shared_ptr<KTLogger> logger)
    : impl_(std::make_unique<Impl>(std::move(configuration), std::move(connectivity), std::move(logger))) {
    KT_PARAMETER_ASSERT(impl_->configuration.maximumConcurrentRequests > 0);
    initializeCurlOnce();
    impl_->multi = curl_multi_init();
    KT_EXPECT_NOT_NIL(impl_->multi, "curl_multi_init()");
    // Keep enough idle connections around for every concurrent transfer to reuse one.
    curl_multi_setopt(impl_->multi, CURLMOPT_MAXCONNECTS,
                      static_cast<long>(impl_->configuration.maximumConcurrentRequests));
    impl_->worker = std::thread([impl = impl_.get()] { impl->run(); });
}

CurlRequestQueue::~CurlRequestQueue() {
    {
        std::lock_guard lock(impl_->mutex);
        impl_->stopping = true;
    }
    curl_multi_wakeup(impl_->multi);
    impl_->worker.join();
    curl_multi_cleanup(impl_->multi);
}

bool CurlRequestQueue::isNetworkReachable() const {
    if (impl_->baseIsLoopback || !impl_->connectivity) return true;
    return impl_->connectivity->isNetworkReachable();
}

void CurlRequestQueue::sendRequest(HTTPRequest request, ResultCallback resultCallback) {
    std::string origin = requestOrigin(request.url);
    {
        std::lock_guard lock(impl_->mutex);
        (impl_->stopping ? impl_->refused : impl_->posted)
            .push_back(Pending{std::move(request), std::move(resultCallback), std::move(origin)});
    }
    curl_multi_wakeup(impl_->multi);
}

std::chrono::milliseconds CurlRequestQueue::pauseRemaining(const std::string& url) const {
    const auto until = impl_->pausedUntil(requestOrigin(url));
    if (!until) return std::chrono::milliseconds::zero();
    // Rounded up: a caller that waits this long finds the pause over.
    return std::chrono::ceil<std::chrono::milliseconds>(*until - std::chrono::steady_clock::now());
}

CurlRequestQueue::Statistics CurlRequestQueue::statistics() const {
    return Statistics{impl_->requestsSent.load(), impl_->bytesSent.load(), impl_->delivered.load(),
                      impl_->failed.load(),       impl_->rejected.load(),  impl_->notSent.load(),
                      impl_->pausesBegun.load()};
}

std::optional<std::chrono::steady_clock::time_point> CurlRequestQueue::Impl::pausedUntil(
    const std::string& origin) const {
    std::lock_guard lock(pauseMutex);
    auto it = pauses.find(origin);
    if (it == pauses.end() || it->second.until <= std::chrono::steady_clock::now()) return std::nullopt;
    return it->second.until;
}

void CurlRequestQueue::Impl::notePauseOutcome(const std::string& origin, std::chrono::steady_clock::time_point started,
                                              RequestResult result, std::chrono::seconds retryAfter) {
    if (result == RequestResult::notSent) return;
    std::lock_guard lock(pauseMutex);
    if (result != RequestResult::failed) {
        // The server answered: whatever made it fail has passed.
        pauses.erase(origin);
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    auto& pause = pauses[origin];
    // Requests that were already under way when a pause began fail with it, however long
    // they take to fail; only an attempt made after a pause (or the first failure) lengthens
    // the next one.
    if (started < pause.began || pause.until > now) return;
    auto length = jitteredBackoff(configuration.firstFailurePause, configuration.failurePauseGrowth,
                                  configuration.longestFailurePause, ++pause.failures, jitter);
    length = std::max(length, std::min(std::chrono::duration_cast<std::chrono::milliseconds>(retryAfter),
                                       configuration.longestFailurePause));
    pause.began = now;
    pause.until = now + length;
    pausesBegun.fetch_add(1, std::memory_order_relaxed);
    KT_LOG(logger, 2, kFile, "-[CurlRequestQueue sendRequest:resultCallback:]",
           "{} failed {} time(s) in a row; nothing more goes there for {} ms", origin, pause.failures, length.count());
}

std::optional<std::chrono::steady_clock::time_point> CurlRequestQueue::Impl::startWaiting() {
    std::optional<std::chrono::steady_clock::time_point> earliest;
    for (auto it = waiting.begin(); it != waiting.end() && running.size() < configuration.maximumConcurrentRequests;) {
        if (auto until = pausedUntil(it->origin)) {
            earliest = earliest ? std::min(*earliest, *until) : *until;
            ++it;
            continue;
        }
        Pending next = std::move(*it);
        it = waiting.erase(it);
        start(std::move(next));
    }
    return earliest;
}

const CurlRequestQueue::Configuration& CurlRequestQueue::configuration() const { return impl_->configuration; }

void CurlRequestQueue::Impl::run() {
    std::optional<std::chrono::steady_clock::time_point> deadline;
    for (;;) {
        bool stop = false;
        std::deque<Pending> refusedNow;
        {
            std::lock_guard lock(mutex);
            for (auto& p : posted) waiting.push_back(std::move(p));
            posted.clear();
            refusedNow.swap(refused);
            stop = stopping;
        }
        for (auto& p : refusedNow) complete(p.callback, RequestResult::notSent);
        if (stop && !deadline) deadline = std::chrono::steady_clock::now() + configuration.shutdownTimeout;

        const auto heldUntil = startWaiting();

        int stillRunning = 0;
        curl_multi_perform(multi, &stillRunning);
        const bool answered = drainCompleted();

        if (stop) {
            bool nothingLeft;
            {
                std::lock_guard lock(mutex);
                nothingLeft = posted.empty() && refused.empty();
            }
            // With nothing running, whatever still waits is held by a pause: it is answered
            // as not sent rather than kept until the deadline.
            if ((nothingLeft && running.empty()) || std::chrono::steady_clock::now() >= *deadline)
                break;
        }
        // Freed slots are refilled before sleeping (an answer may also have ended a pause).
        if (answered && !waiting.empty()) continue;

        int waitMs = running.empty() ? kIdleWaitMs : kBusyWaitMs;
        if (heldUntil) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(*heldUntil - std::chrono::steady_clock::now());
            waitMs = std::clamp(static_cast<int>(left.count()), 0, waitMs);
        }
        if (deadline) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(*deadline - std::chrono::steady_clock::now());
            waitMs = std::clamp(static_cast<int>(left.count()) + 1, 0, waitMs);
        }
        curl_multi_poll(multi, nullptr, 0, waitMs, nullptr);
    }
    abortEverything();
}

bool CurlRequestQueue::Impl::start(Pending pending) {
    auto transfer = std::make_unique<Transfer>();
    transfer->request = std::move(pending.request);
    transfer->callback = std::move(pending.callback);
    transfer->origin = std::move(pending.origin);
    transfer->easy = curl_easy_init();
    if (transfer->easy == nullptr) {
        KT_LOG(logger, 3, kFile, "-[CurlRequestQueue sendRequest:resultCallback:]", "curl_easy_init failed for {}",
               transfer->request.url);
        complete(transfer->callback, 0);
        return false;
    }
    CURL* easy = transfer->easy;
    const HTTPRequest& request = transfer->request;
    curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(configuration.connectTimeout.count()));
    curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, static_cast<long>(configuration.totalTimeout.count()));
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &discardBody);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer->error);
    curl_easy_setopt(easy, CURLOPT_PRIVATE, transfer.get());
    if (request.followsRedirects) {
        // The final answer decides; a loop or a longer chain ends as CURLE_TOO_MANY_REDIRECTS,
        // an ordinary failure. Credentials never travel to another host: libcurl keeps a
        // custom Authorization or Cookie header to the first host and port unless
        // CURLOPT_UNRESTRICTED_AUTH says otherwise (never set here), and without a cookie
        // file its cookie engine is off, so no cookie a hop sets comes back either.
        curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
        curl_easy_setopt(easy, CURLOPT_MAXREDIRS, kMaximumRedirects);
        curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    }

    if (request.method == "POST") {
        curl_easy_setopt(easy, CURLOPT_POST, 1L);
    } else if (request.method != "GET") {
        curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    }
    if (!request.body.empty() || request.method == "POST") {
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.body.data());
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
    }
    for (const auto& [name, value] : request.headers)
        transfer->headers = curl_slist_append(transfer->headers, (name + ": " + value).c_str());
    // A round trip for "100 Continue" buys nothing for bodies this size.
    transfer->headers = curl_slist_append(transfer->headers, "Expect:");
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, transfer->headers);

    if (curl_multi_add_handle(multi, easy) != CURLM_OK) {
        KT_LOG(logger, 3, kFile, "-[CurlRequestQueue sendRequest:resultCallback:]", "could not start {}", request.url);
        complete(transfer->callback, 0);
        return false;
    }
    running.emplace(easy, std::move(transfer));
    return true;
}

bool CurlRequestQueue::Impl::drainCompleted() {
    bool any = false;
    int left = 0;
    while (CURLMsg* message = curl_multi_info_read(multi, &left)) {
        if (message->msg != CURLMSG_DONE) continue;
        CURL* easy = message->easy_handle;
        const CURLcode code = message->data.result;
        auto it = running.find(easy);
        if (it == running.end()) continue;
        std::unique_ptr<Transfer> transfer = std::move(it->second);
        running.erase(it);
        curl_multi_remove_handle(multi, easy);
        finish(*transfer, code);
        any = true;
    }
    return any;
}

void CurlRequestQueue::Impl::finish(Transfer& transfer, CURLcode code) {
    long status = 0;
    curl_off_t retryAfter = 0;
    if (code == CURLE_OK) {
        curl_easy_getinfo(transfer.easy, CURLINFO_RESPONSE_CODE, &status);
        curl_easy_getinfo(transfer.easy, CURLINFO_RETRY_AFTER, &retryAfter);
        requestsSent.fetch_add(1, std::memory_order_relaxed);
        bytesSent.fetch_add(transfer.request.body.size(), std::memory_order_relaxed);
        KT_LOG(logger, 0, kFile, "-[CurlRequestQueue sendRequest:resultCallback:]", "{} {} answered {}",
               transfer.request.method, transfer.request.url, status);
    } else {
        KT_LOG(logger, 2, kFile, "-[CurlRequestQueue sendRequest:resultCallback:]", "{} {} failed: {}",
               transfer.request.method, transfer.request.url,
               transfer.error[0] != '\0' ? transfer.error : curl_easy_strerror(code));
    }
    // Before the callback: a sender that asks at once must see the pause.
    notePauseOutcome(transfer.origin, transfer.started, requestResultFor(status), std::chrono::seconds(std::max<curl_off_t>(retryAfter, 0)));
    complete(transfer.callback, status);
}

void CurlRequestQueue::Impl::complete(RequestQueueing::ResultCallback& callback, long status) {
    complete(callback, requestResultFor(status));
}

void CurlRequestQueue::Impl::complete(RequestQueueing::ResultCallback& callback, RequestResult result) {
    switch (result) {
    case RequestResult::delivered: delivered.fetch_add(1, std::memory_order_relaxed); break;
    case RequestResult::notSent: notSent.fetch_add(1, std::memory_order_relaxed); break;
    case RequestResult::failed: failed.fetch_add(1, std::memory_order_relaxed); break;
    case RequestResult::rejected: rejected.fetch_add(1, std::memory_order_relaxed); break;
    }
    if (!callback) return;
    // The worker must outlive any one caller's mistake: a throwing callback is logged.
    try {
        callback(static_cast<int>(result));
    } catch (const std::exception& e) {
        KT_LOG(logger, 3, kFile, "-[CurlRequestQueue sendRequest:resultCallback:]", "result callback threw: {}",
               e.what());
    } catch (...) {
        KT_LOG(logger, 3, kFile, "-[CurlRequestQueue sendRequest:resultCallback:]", "result callback threw");
    }
}

void CurlRequestQueue::Impl::abortEverything() {
    for (auto& [easy, transfer] : running) {
        curl_multi_remove_handle(multi, easy);
        KT_LOG(logger, 2, kFile, "-[CurlRequestQueue dealloc]", "aborted {} {} at shutdown", transfer->request.method,
               transfer->request.url);
        // Cut off, not answered: whether it arrived is unknown, and no attempt is spent on it.
        complete(transfer->callback, RequestResult::notSent);
    }
    running.clear();
    // Callbacks may post again; whatever arrives now is refused, until nothing is left.
    for (;;) {
        std::deque<Pending> rest;
        {
            std::lock_guard lock(mutex);
            for (auto& p : posted) waiting.push_back(std::move(p));
            posted.clear();
            for (auto& p : refused) waiting.push_back(std::move(p));
            refused.clear();
            rest.swap(waiting);
        }
        if (rest.empty()) break;
        for (auto& p : rest) complete(p.callback, RequestResult::notSent);
    }
}

}  // namespace kt
