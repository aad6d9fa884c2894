#include "KTAnalytics/Segment/Client/SEGAnalytics.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <deque>
#include <mutex>
#include <random>
#include <utility>
#include <vector>

#include "KTAnalytics/Analytics/OperatingSystemVersion.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/GzipCodec.h"
#include "KTAnalytics/KTData/RequestQueue.h"
#include "KTAnalytics/KTFoundation/KTEnvironment.h"
#include "KTAnalytics/KTFoundation/LogMacros.h"
#include "KTAnalytics/Platform/Backoff.h"
#include "KTAnalytics/Platform/CompactBacklog.h"
#include "KTAnalytics/Platform/JSONSerialization.h"
#include "KTAnalytics/Platform/SerialQueue.h"
#include "KTAnalytics/Platform/UUID.h"
#include "KTAnalytics/Segment/Client/Detail/SEGCallRecord.h"
#include "KTAnalytics/Segment/Client/Detail/SEGMessageStore.h"
#include "KTAnalytics/Segment/Client/Detail/SEGWireFormat.h"

namespace kt {

namespace {

constexpr const char* kFile = "Sources/Segment/Client/SEGAnalytics";
constexpr const char* kAnonymousIdKey = "anonymousId";
constexpr const char* kUserIdKey = "userId";
// How long destruction waits for the client's own worker to persist what it was handed.
constexpr auto kShutdownWait = std::chrono::seconds(5);
// Rows deleted per transaction.
constexpr std::size_t kDeletionChunk = 64;

using Clock = std::chrono::system_clock;

AttributeValue member(const std::optional<AttributeValue>& options, const char* key) {
    if (options && options->is_object())
        if (auto it = options->find(key); it != options->end() && it->is_object()) return *it;
    return AttributeValue::object();
}

// A device-mode integration takes a message its key enables, or one that does not name it
// while "All" is not switched off. A non-boolean value (settings for the integration)
// enables it.
bool integrationEnabled(const AttributeValue& integrations, const std::string& key) {
    if (!integrations.is_object()) return true;
    if (auto it = integrations.find(key); it != integrations.end()) return !it->is_boolean() || it->get<bool>();
    auto all = integrations.find("All");
    return all == integrations.end() || !all->is_boolean() || all->get<bool>();
}

AttributeValue baseContext() {
    return {{"library", {{"name", "ktanalytics"}, {"version", kSDKVersion}}},
            {"os", {{"name", "Linux"}, {"version", OperatingSystemVersion::current().string()}}},
            {"locale", segment::localeTag(std::getenv("LC_ALL"), std::getenv("LANG"))},
            {"timezone", segment::timezoneName(std::getenv("TZ"), "/etc/timezone", "/etc/localtime")}};
}

}  // namespace

std::string SEGAnalyticsConfiguration::apiURL(std::string_view apiHost) {
    std::string url = apiHost.empty() ? SEGAnalyticsConfiguration{}.apiHost : std::string(apiHost);
    if (url.find("://") == std::string::npos) url = "https://" + url;
    while (!url.empty() && url.back() == '/') url.pop_back();
    return url;
}

SEGAnalyticsConfiguration SEGAnalyticsConfiguration::configurationWithWriteKey(std::string writeKey) {
    SEGAnalyticsConfiguration configuration;
    configuration.writeKey = std::move(writeKey);
    return configuration;
}

struct SEGAnalytics::Impl : std::enable_shared_from_this<Impl> {
    struct Row {
        std::int64_t id;
        std::size_t bytes;
    };
    using Drops = segment::SEGMessageStore::Drops;

    const SEGAnalyticsConfiguration configuration;
    const std::shared_ptr<RequestQueueing> requestQueue;
    const std::shared_ptr<KTLogger> logger;
    const std::shared_ptr<SerialQueue> worker;
    const std::function<void()> answerHandled;
    const std::shared_ptr<ThreadSerialQueue> ownWorker;  // the same queue when the client made it
    const std::string url;
    const AttributeValue context;
    std::string anonymousId;  // fixed once the constructor returns

    std::atomic<bool> closed{false};     // no more uploads or timers
    std::atomic<bool> abandoned{false};  // destruction gave up waiting: skip what is left
    std::atomic<std::uint64_t> tracked{0};
    std::atomic<std::uint64_t> handled{0};  // calls the worker has finished with (stored or dropped)

    mutable std::mutex countsMutex;
    SEGAnalyticsStatistics counts;  // guarded by countsMutex (but `tracked`)
    // Drops counted on callers' threads, not yet handed to the worker to write; guarded by
    // countsMutex, as is whether a task to write them is on its way.
    Drops refusedUnwritten;
    bool refusedWriteScheduled = false;
    // The calls waiting for the worker, as records (see `CallRecord`); one task takes up one.
    CompactBacklog backlog;
    std::vector<std::uint8_t> takenUp;  // the worker's

    // The worker's alone from here on (the constructor's before its first task).
    std::unique_ptr<segment::SEGMessageStore> store;
    std::optional<std::string> userId;
    std::vector<std::pair<std::string, std::shared_ptr<SEGIntegration>>> integrations;
    std::deque<Row> rows;           // waiting messages, oldest first
    std::size_t inFlight = 0;       // the first `inFlight` rows are in the batch being sent
    bool backingOff = false;        // a retry is scheduled; uploads wait for it
    bool waitingForRoad = false;    // the request queue holds the origin back; a wake-up is set
    std::string lastURL;            // of the batch in flight
    bool sendEverything = false;    // a flush, the timer or a retry asked for all that waits
    int failures = 0;               // consecutive failed attempts of the batch
    std::minstd_rand jitter{std::random_device{}()};
    // The last store or deletion failed: failures are logged once per run of them.
    bool storeFailing = false, deleteFailing = false;
    // Drops not yet in the queue's "drops" table (the disk refused them): added with the
    // next write that succeeds.
    Drops unrecorded;
    // Rows done with (delivered, rejected, unreadable) and not yet deleted, each with the
    // drop reason its deletion records (none when delivered): never sent again; those the
    // disk refused are deleted by a later write.
    struct Done {
        std::int64_t id;
        const char* reason;
    };
    std::deque<Done> undeleted;

    Impl(SEGAnalyticsConfiguration c, SEGAnalyticsDependencies d, std::shared_ptr<ThreadSerialQueue> own)
        : configuration(std::move(c)),
          requestQueue(std::move(d.requestQueue)),
          logger(d.logger ? std::move(d.logger) : KTLogger::null()),
          worker(own ? own : std::move(d.worker)),
          answerHandled(std::move(d.answerHandled)),
          ownWorker(std::move(own)),
          url(segment::batchURL(configuration.apiHost)),
          context(baseContext()),
          backlog(configuration.maxBacklogBytes, kSEGBacklogCallOverhead) {}

    ~Impl() {
        for (const auto& [reason, n] : refusedUnwritten) unrecorded[reason] += n;
        // Best effort: what stays undeleted is sent again by the next run. Drops go with
        // the deletions, or on their own when there are none.
        if (store) {
            retryDeletions();
            recordDrops();
        }
    }

    // --- counts -------------------------------------------------------------------------

    // For this run's statistics; the disk's count is written with the removal.
    void countDrop(const char* reason, std::uint64_t n = 1) {
        std::lock_guard lock(countsMutex);
        counts.droppedByReason[reason] += n;
        counts.waiting = rows.size();
    }

    // A message dropped with no row to remove: counted on disk at once, or with the next
    // write that succeeds.
    void drop(const char* reason, std::uint64_t n = 1) {
        countDrop(reason, n);
        unrecorded[reason] += n;
        recordDrops();
    }

    void recordDrops() {
        if (store && !unrecorded.empty() && store->remove({}, unrecorded)) unrecorded.clear();
    }

    // A call dropped on the caller's thread: counted at once, and written to the queue's drops
    // by one urgent task per run of them, so that a burst adds nothing else to the worker's
    // line. Counted as handed over and handled at once, so that waiting stays exact.
    void refuse(const char* reason) {
        tracked.fetch_add(1, std::memory_order_relaxed);
        bool schedule = false;
        {
            std::lock_guard lock(countsMutex);
            ++counts.droppedByReason[reason];
            ++refusedUnwritten[reason];
            schedule = !std::exchange(refusedWriteScheduled, true);
        }
        handled.fetch_add(1, std::memory_order_release);
        if (schedule) worker->asyncUrgent([self = shared_from_this()] { self->writeRefused(); });
    }

    void writeRefused() {
        Drops refused;
        {
            std::lock_guard lock(countsMutex);
            refused.swap(refusedUnwritten);
            refusedWriteScheduled = false;
        }
        if (auto full = refused.find("backlog_full"); full != refused.end())
            KT_LOG(logger, 2, kFile, "-[SEGAnalytics enqueue:]", "{} messages dropped: the worker's backlog was full",
                   full->second);
        for (const auto& [reason, n] : refused) unrecorded[reason] += n;
        recordDrops();
    }

    static Drops merged(Drops a, const Drops& b) {
        for (const auto& [reason, n] : b) a[reason] += n;
        return a;
    }

    // Logs the first failure of a run of them, and the recovery.
    bool written(bool ok, bool& failing, const char* what) {
        if (ok == !failing) return ok;
        failing = !ok;
        if (ok)
            KT_LOG(logger, 2, kFile, "-[SEGAnalytics queuePayload:]", "{} again", what);
        else
            KT_LOG(logger, 3, kFile, "-[SEGAnalytics queuePayload:]", "{} no longer: {}", what, store->lastError());
        return ok;
    }
    bool deleted(bool ok) { return written(ok, deleteFailing, "messages done with are deleted"); }

    // Deletes rows done with, each chunk in one transaction with its drops: small
    // transactions fit in what a full disk has left. False while the disk still refuses.
    bool retryDeletions() {
        bool removed = false;
        while (!undeleted.empty()) {
            const std::size_t n = std::min<std::size_t>(undeleted.size(), kDeletionChunk);
            std::vector<std::int64_t> ids;
            Drops drops = unrecorded;
            for (std::size_t i = 0; i < n; ++i) {
                ids.push_back(undeleted[i].id);
                if (undeleted[i].reason) ++drops[undeleted[i].reason];
            }
            if (!deleted(store->remove(ids, drops))) break;
            unrecorded.clear();
            undeleted.erase(undeleted.begin(), undeleted.begin() + static_cast<std::ptrdiff_t>(n));
            removed = true;
        }
        if (removed) store->compact();
        return undeleted.empty();
    }

    void removeDone(const std::vector<std::int64_t>& ids, const char* reason) {
        for (std::int64_t id : ids) undeleted.push_back({id, reason});
        retryDeletions();
    }

    void publishWaiting() {
        std::lock_guard lock(countsMutex);
        counts.waiting = rows.size();
    }

    // --- start --------------------------------------------------------------------------

    void open(const std::filesystem::path& folder) {
        std::string error;
        store = segment::SEGMessageStore::open(folder, &error);
        if (!store) {
            KT_LOG(logger, 3, kFile, "-[SEGAnalytics init]", "cannot open the queue in {}: {}; messages will not be kept",
                   folder.string(), error);
        } else {
            if (auto saved = store->value(kAnonymousIdKey)) anonymousId = *saved;
            userId = store->value(kUserIdKey);
            // Counted now, so that what waits shows at once; read and checked on the worker.
            for (const auto& [id, bytes] : store->sizes()) rows.push_back({id, bytes});
            publishWaiting();
        }
        if (anonymousId.empty()) {
            anonymousId = UUID::random().uuidString();
            if (store && !store->setValue(kAnonymousIdKey, anonymousId))
                KT_LOG(logger, 3, kFile, "-[SEGAnalytics init]", "cannot keep the anonymous id: {}", store->lastError());
        }
    }

    // Rows from an earlier process are read as untrusted: one that is not a JSON object, or
    // too large to send, would spoil every batch it joined. Its first task, so the worker
    // reads them, not the thread that makes the client.
    void removeUnreadableRows() {
        if (!store || rows.empty()) return;
        const JSONSafeSerialization json;
        std::vector<std::int64_t> bad;  // in id order, as the rows are
        for (auto& [id, text] : store->all()) {
            auto value = text.size() <= kMaximumMessageBytes ? json.JSONObjectWithData(text) : std::nullopt;
            if (!value || !value->is_object()) bad.push_back(id);
        }
        if (bad.empty()) return;
        std::erase_if(rows, [&](const Row& row) { return std::binary_search(bad.begin(), bad.end(), row.id); });
        KT_LOG(logger, 2, kFile, "-[SEGAnalytics init]", "{} unreadable queued messages removed", bad.size());
        countDrop("corrupted", bad.size());
        removeDone(bad, "corrupted");
    }

    void start(std::vector<std::pair<std::string, std::shared_ptr<SEGIntegration>>> made) {
        removeUnreadableRows();
        integrations = std::move(made);
        scheduleTimer();
        // What an earlier process left is sent now rather than after the first interval.
        sendEverything = !rows.empty();
        maybeUpload();
    }

    void scheduleTimer() {
        if (configuration.flushInterval <= std::chrono::milliseconds::zero()) return;
        worker->asyncAfter(configuration.flushInterval, [weak = weak_from_this()] {
            auto self = weak.lock();
            if (!self || self->closed) return;
            if (self->store) self->retryDeletions();
            self->sendEverything = true;
            self->maybeUpload();
            self->scheduleTimer();
        });
    }

    // --- messages -----------------------------------------------------------------------

    void track(std::string event, std::optional<AttributeValue> properties, std::optional<AttributeValue> options,
               Clock::time_point at) {
        if (abandoned) return;
        auto payload = std::make_shared<SEGTrackPayload>(std::move(event), std::move(properties),
                                                         contextWith(options), member(options, "integrations"));
        stamp(*payload, at);
        process(std::move(payload));
    }

    void identify(std::string user, std::optional<AttributeValue> traits, std::optional<AttributeValue> options,
                  Clock::time_point at) {
        if (abandoned) return;
        if (userId != user) {
            userId = user;
            if (store && !store->setValue(kUserIdKey, user))
                KT_LOG(logger, 3, kFile, "-[SEGAnalytics identify:]", "cannot keep the user id: {}", store->lastError());
        }
        auto payload = std::make_shared<SEGIdentifyPayload>(std::move(user), anonymousId, std::move(traits),
                                                            contextWith(options), member(options, "integrations"));
        stamp(*payload, at);
        process(std::move(payload));
    }

    AttributeValue contextWith(const std::optional<AttributeValue>& options) const {
        AttributeValue merged = context;
        merged.update(member(options, "context"), true);
        return merged;
    }

    static void stamp(SEGPayload& payload, Clock::time_point at) {
        payload.messageId = UUID::random().uuidString();
        payload.timestamp = segment::iso8601(at);
    }

    // The middleware chain runs synchronously: a `next` called after its middleware returned
    // finds the chain closed and is ignored (the message was already counted as dropped).
    struct Chain {
        std::atomic<bool> open{true};
        std::optional<SEGContext> result;
    };

    void process(std::shared_ptr<const SEGPayload> payload) {
        const std::string messageId = payload->messageId;
        auto chain = std::make_shared<Chain>();
        std::function<void(std::size_t, SEGContext)> step = [&](std::size_t index, SEGContext current) {
            current.payload = keepingIdentity(std::move(current.payload), messageId);
            if (index == configuration.sourceMiddleware.size() || !current.payload) {
                chain->result = std::move(current);
                return;
            }
            auto called = std::make_shared<bool>(false);
            configuration.sourceMiddleware[index]->context(
                std::move(current), [&step, chain, called, index, this](SEGContext next) {
                    if (!chain->open) {
                        KT_LOG(logger, 2, kFile, "-[SEGAnalytics run:]", "a middleware answered too late; ignored");
                        return;
                    }
                    if (std::exchange(*called, true)) return;
                    step(index + 1, std::move(next));
                });
        };
        step(0, SEGContext{std::move(payload)});
        chain->open = false;
        if (!chain->result || !chain->result->payload) {
            drop("dropped_by_middleware");
            return;
        }
        deliver(*chain->result->payload);
    }

    // A middleware that rebuilt the payload and lost its id gets the original one back: the
    // id is what lets the server drop a message sent twice.
    static std::shared_ptr<const SEGPayload> keepingIdentity(std::shared_ptr<const SEGPayload> payload,
                                                             const std::string& messageId) {
        if (!payload || !payload->messageId.empty()) return payload;
        std::shared_ptr<SEGPayload> copy;
        if (const auto* t = dynamic_cast<const SEGTrackPayload*>(payload.get()))
            copy = std::make_shared<SEGTrackPayload>(*t);
        else if (const auto* i = dynamic_cast<const SEGIdentifyPayload*>(payload.get()))
            copy = std::make_shared<SEGIdentifyPayload>(*i);
        else
            return payload;
        copy->messageId = messageId;
        return copy;
    }

    void deliver(const SEGPayload& payload) {
        const auto* trackPayload = dynamic_cast<const SEGTrackPayload*>(&payload);
        const auto* identifyPayload = dynamic_cast<const SEGIdentifyPayload*>(&payload);
        if (!trackPayload && !identifyPayload) {
            drop("dropped_by_middleware");
            return;
        }
        for (const auto& [key, integration] : integrations) {
            if (!integration || !integrationEnabled(payload.integrations, key)) continue;
            if (trackPayload)
                integration->track(*trackPayload);
            else
                integration->identify(*identifyPayload);
        }
        persist(trackPayload ? messageJSON(*trackPayload) : messageJSON(*identifyPayload));
    }

    AttributeValue messageJSON(const SEGTrackPayload& p) const {
        AttributeValue m = common(p, "track");
        m["event"] = p.event;
        m["properties"] = p.properties.value_or(AttributeValue::object());
        m["anonymousId"] = anonymousId;
        if (userId) m["userId"] = *userId;
        return m;
    }

    AttributeValue messageJSON(const SEGIdentifyPayload& p) const {
        AttributeValue m = common(p, "identify");
        m["traits"] = p.traits.value_or(AttributeValue::object());
        m["anonymousId"] = p.anonymousId.value_or(anonymousId);
        if (auto user = p.userId ? p.userId : userId) m["userId"] = *user;
        return m;
    }

    static AttributeValue common(const SEGPayload& p, const char* type) {
        return {{"type", type},
                {"context", p.context},
                {"integrations", p.integrations},
                {"messageId", p.messageId},
                {"timestamp", p.timestamp}};
    }

    void persist(const AttributeValue& message) {
        std::string error;
        auto text = JSONSafeSerialization().dataWithJSONObject(message, &error);
        if (!text) {
            KT_LOG(logger, 3, kFile, "-[SEGAnalytics queuePayload:]", "message not kept, it is not JSON: {}", error);
            drop("not_persisted");
            return;
        }
        if (text->size() > kMaximumMessageBytes) {
            KT_LOG(logger, 2, kFile, "-[SEGAnalytics queuePayload:]", "message of {} bytes dropped (at most {})",
                   text->size(), kMaximumMessageBytes);
            drop("too_large");
            return;
        }
        if (!store) {
            drop("not_persisted");
            return;
        }
        // Rows done with go first: they hold the space a new one needs.
        if (!retryDeletions()) {
            drop("not_persisted");
            return;
        }
        if (rows.size() >= configuration.maxQueueSize && !makeRoom()) return;
        auto id = store->insert(*text, unrecorded);
        if (!written(id.has_value(), storeFailing, "messages are stored")) {
            drop("not_persisted");
            return;
        }
        unrecorded.clear();
        rows.push_back({*id, text->size()});
        {
            std::lock_guard lock(countsMutex);
            ++counts.persisted;
            counts.waiting = rows.size();
        }
        maybeUpload();
    }

    // The oldest message not in flight gives way, counted on disk in the transaction that
    // deletes it. When every waiting message is in the batch being sent, the new one is the
    // one dropped. False when the new message is not to be stored; a deletion the disk
    // refused leaves the queue as it was and counts the new message as not persisted.
    bool makeRoom() {
        if (inFlight >= rows.size()) {
            KT_LOG(logger, 2, kFile, "-[SEGAnalytics queuePayload:]", "queue full; new message dropped");
            drop("queue_full");
            return false;
        }
        while (rows.size() >= configuration.maxQueueSize && inFlight < rows.size()) {
            if (!deleted(store->remove({rows[inFlight].id}, merged(unrecorded, {{"queue_full", 1}})))) {
                drop("not_persisted");
                return false;
            }
            unrecorded.clear();
            rows.erase(rows.begin() + static_cast<std::ptrdiff_t>(inFlight));
            countDrop("queue_full");
        }
        return rows.size() < configuration.maxQueueSize;
    }

    // --- upload -------------------------------------------------------------------------

    void maybeUpload() {
        if (closed || inFlight > 0 || backingOff || waitingForRoad || rows.empty() || !store) return;
        if (!sendEverything && rows.size() < configuration.flushAt) return;
        HTTPRequest request = configuration.requestFactory ? configuration.requestFactory(url) : HTTPRequest{};
        if (request.url.empty()) request.url = url;
        // The request queue holds a failing origin back: no attempt is spent meanwhile.
        if (const auto pause = requestQueue->pauseRemaining(request.url); pause > std::chrono::milliseconds::zero()) {
            waitForRoad(pause);
            return;
        }
        sendBatch(std::move(request));
    }

    void waitForRoad(std::chrono::milliseconds pause) {
        waitingForRoad = true;
        worker->asyncAfter(pause, [weak = weak_from_this()] {
            auto self = weak.lock();
            if (!self) return;
            self->waitingForRoad = false;
            self->maybeUpload();
        });
    }

    void sendBatch(HTTPRequest request) {
        const std::string head = R"({"batch":[)";
        const std::string tail =
            R"(],"sentAt":")" + segment::iso8601(Clock::now()) + R"(","writeKey":)" +
            AttributeValue(configuration.writeKey).dump(-1, ' ', false, AttributeValue::error_handler_t::replace) + "}";
        // Oldest first, until the next message would take the body past the limit: the
        // envelope (with the write key and "sentAt") counts, not only the messages.
        std::size_t size = head.size() + tail.size(), count = 0;
        for (const Row& row : rows) {
            const std::size_t added = row.bytes + (count > 0 ? 1 : 0);
            if (count > 0 && size + added > kMaximumBatchBytes) break;
            size += added;
            ++count;
        }
        auto stored = store->range(rows.front().id, rows[count - 1].id);
        std::string body;
        body.reserve(size);
        body += head;
        // Only the rows counted: one done with whose deletion failed may lie in the range.
        const auto batchEnd = rows.begin() + static_cast<std::ptrdiff_t>(count);
        bool first = true;
        for (const auto& [id, text] : stored) {
            if (!std::binary_search(rows.begin(), batchEnd, Row{id, 0},
                                    [](const Row& a, const Row& b) { return a.id < b.id; }))
                continue;
            if (!std::exchange(first, false)) body += ',';
            body += text;
        }
        body += tail;
        if (count == rows.size()) sendEverything = false;
        inFlight = count;

        auto gzipped = GzipCodec::gzippedData(body);
        request.method = "POST";
        request.body = gzipped ? std::move(*gzipped) : std::move(body);
        const std::pair<const char*, std::string> headers[] = {
            {"Content-Type", "application/json"},
            {"Content-Encoding", gzipped ? "gzip" : "identity"},
            {"Authorization", "Basic " + segment::base64(configuration.writeKey + ":")},
            {"User-Agent", configuration.userAgent.empty() ? std::string("ktanalytics/") + kSDKVersion
                                                           : configuration.userAgent},
        };
        for (const auto& [field, value] : headers)
            if (!request.value(field)) request.setValue(value, field);
        {
            std::lock_guard lock(countsMutex);
            ++counts.batchesSent;
            counts.bytesSent += request.body.size();
        }
        lastURL = request.url;
        requestQueue->sendRequest(std::move(request), [weak = weak_from_this()](int code) {
            if (auto self = weak.lock()) self->worker->asyncUrgent([self, code] { self->answer(code); });
        });
    }

    void answer(int code) {
        handleAnswer(code);
        if (answerHandled) answerHandled();
    }

    void handleAnswer(int code) {
        const std::size_t count = std::exchange(inFlight, 0);
        if (count == 0) return;
        if (code == static_cast<int>(RequestResult::delivered) || code == static_cast<int>(RequestResult::rejected)) {
            failures = 0;
            std::vector<std::int64_t> ids;
            for (std::size_t i = 0; i < count; ++i) ids.push_back(rows[i].id);
            rows.erase(rows.begin(), rows.begin() + static_cast<std::ptrdiff_t>(count));
            const bool delivered = code == static_cast<int>(RequestResult::delivered);
            removeDone(ids, delivered ? nullptr : "rejected");
            if (delivered) {
                std::lock_guard lock(countsMutex);
                counts.delivered += count;
                counts.waiting = rows.size();
            } else {
                KT_LOG(logger, 3, kFile, "-[SEGAnalytics endpointDidRespond:]",
                       "batch of {} messages rejected by the server; dropped", count);
                countDrop("rejected", count);
            }
            maybeUpload();
            return;
        }
        if (code == static_cast<int>(RequestResult::notSent)) {
            // No attempt was spent: the batch waits for the road, its back-off unchanged.
            sendEverything = true;
            const auto pause = requestQueue->pauseRemaining(lastURL);
            waitForRoad(pause > std::chrono::milliseconds::zero() ? pause : configuration.firstRetryDelay);
            return;
        }
        // Anything else is worth another try: the batch stays, and so does its order.
        ++failures;
        {
            std::lock_guard lock(countsMutex);
            ++counts.retries;
        }
        backingOff = true;
        const auto pause = jitteredBackoff(configuration.firstRetryDelay, 2, configuration.longestRetryDelay, failures,
                                           jitter);
        KT_LOG(logger, 1, kFile, "-[SEGAnalytics endpointDidRespond:]", "upload failed; retry {} in {} ms", failures,
               pause.count());
        worker->asyncAfter(pause, [weak = weak_from_this()] {
            auto self = weak.lock();
            if (!self) return;
            self->backingOff = false;
            self->sendEverything = true;
            self->maybeUpload();
        });
    }

    void flush() {
        if (abandoned) return;
        for (const auto& [key, integration] : integrations)
            if (integration) integration->flush();
        sendEverything = true;
        maybeUpload();
    }
};

SEGAnalytics::SEGAnalytics(SEGAnalyticsConfiguration configuration, SEGAnalyticsDependencies dependencies) {
    std::shared_ptr<ThreadSerialQueue> own;
    if (!dependencies.worker) own = std::make_shared<ThreadSerialQueue>("ktanalytics.segment");
    const auto folder = dependencies.stateDirectory / "segment";
    impl_ = std::make_shared<Impl>(std::move(configuration), std::move(dependencies), std::move(own));
    impl_->open(folder);
    // Integrations may call back into this client while they are made; they join the
    // worker's state in its first task, so nothing else touches the list meanwhile.
    std::vector<std::pair<std::string, std::shared_ptr<SEGIntegration>>> made;
    for (const auto& factory : impl_->configuration.factories)
        if (factory) made.emplace_back(factory->key(), factory->createWithSettings(AttributeValue::object(), *this));
    impl_->worker->async([impl = impl_, made = std::move(made)]() mutable { impl->start(std::move(made)); });
}

SEGAnalytics::~SEGAnalytics() {
    impl_->closed = true;
    if (impl_->ownWorker) {
        if (!impl_->ownWorker->drain(kShutdownWait)) {
            impl_->abandoned = true;
            const auto lost = impl_->tracked.load() - impl_->handled.load();
            KT_LOG(impl_->logger, 3, kFile, "-[SEGAnalytics dealloc]",
                   "the worker did not finish in time; {} messages not yet stored are lost", lost);
        }
        impl_->ownWorker->shutdown();
    }
    // With a worker of the caller's, the tasks already handed to it keep the state alive
    // and still store their messages when it runs them.
}

namespace {
// A thread's encoding buffer is kept for its next call, unless a large one grew it.
constexpr std::size_t kKeptBufferBytes = 64 * 1024;
}  // namespace

void SEGAnalytics::handOver(bool identify, const std::string& name, const std::optional<AttributeValue>& values,
                            const std::optional<AttributeValue>& options) {
    Impl& impl = *impl_;
    thread_local std::vector<std::uint8_t> record;
    // The encoder refuses a hostile depth before it recurses that deep.
    const bool encoded = segment::CallRecord::encode(record, identify, name, values, options, kMaximumNesting);
    const bool kept = encoded && impl.backlog.push(record);
    if (record.capacity() > kKeptBufferBytes) std::vector<std::uint8_t>().swap(record);
    if (!encoded) {
        impl.refuse("too_deeply_nested");
        KT_LOG(impl.logger, 2, kFile, "-[SEGAnalytics enqueue:]", "message nested more than {} levels dropped",
               kMaximumNesting);
        return;
    }
    if (!kept) return impl.refuse("backlog_full");
    // It counts as waiting until the worker has finished with it.
    impl.tracked.fetch_add(1, std::memory_order_relaxed);
    impl.worker->async([impl = impl_] {
        if (impl->backlog.pop(impl->takenUp)) {  // one record per task
            const segment::CallRecord call(impl->takenUp);
            if (call.identify())
                impl->identify(call.name(), call.values(), call.options(), call.at());
            else
                impl->track(call.name(), call.values(), call.options(), call.at());
            if (impl->takenUp.capacity() > kKeptBufferBytes) std::vector<std::uint8_t>().swap(impl->takenUp);
        }
        impl->handled.fetch_add(1, std::memory_order_release);
    });
}

void SEGAnalytics::identify(const std::string& userId, const std::optional<AttributeValue>& traits,
                            const std::optional<AttributeValue>& options) {
    handOver(true, userId, traits, options);
}

void SEGAnalytics::track(const std::string& event, const std::optional<AttributeValue>& properties,
                         const std::optional<AttributeValue>& options) {
    handOver(false, event, properties, options);
}

std::string SEGAnalytics::getAnonymousId() { return impl_->anonymousId; }

void SEGAnalytics::flush() {
    impl_->worker->async([impl = impl_] { impl->flush(); });
}

SEGAnalyticsStatistics SEGAnalytics::statistics() const {
    // Handled first: every call it counts is already in `tracked`.
    const auto handled = impl_->handled.load(std::memory_order_acquire);
    std::lock_guard lock(impl_->countsMutex);
    SEGAnalyticsStatistics copy = impl_->counts;
    copy.tracked = impl_->tracked.load(std::memory_order_acquire);
    // Calls still on their way to the queue wait too.
    copy.waiting += copy.tracked - handled;
    copy.backlogBytes = impl_->backlog.bytes();
    return copy;
}

const SEGAnalyticsConfiguration& SEGAnalytics::configuration() const { return impl_->configuration; }

std::optional<std::map<std::string, std::uint64_t>> SEGAnalytics::recordedDrops(
    const std::filesystem::path& stateDirectory, std::string* error) {
    return segment::SEGMessageStore::recordedDrops(stateDirectory / "segment", error);
}

std::optional<std::vector<std::string>> SEGAnalytics::storedMessages(const std::filesystem::path& stateDirectory,
                                                                     std::string* error) {
    return segment::SEGMessageStore::storedMessages(stateDirectory / "segment", error);
}

}  // namespace kt
