#pragma once
// The product-analytics client: speaks the public batch tracking API. Calls hand the
// message to the client's own worker and return; there the source middlewares run, the
// message is persisted under the state folder, batched and uploaded (gzip JSON) through
// the shared request queue, with retries and back-off.
//
// On disk: "<stateDirectory>/segment/queue.sqlite3" (owner-only), a SQLite table of the
// waiting messages as JSON plus the anonymous id and the user id. A message is committed
// there by the worker right after the middlewares and integrations have seen it: a process
// killed after `track` returned loses only the messages still in the worker's line, never
// one that was committed. That window is the worker's backlog: a single call is stored
// within about a hundred microseconds; a burst of thousands waits its turn. While it waits,
// a call is held as one compact record (its values encoded, not as trees) in a
// `CompactBacklog` of at most `maxBacklogBytes`: a call that does not fit is dropped on the
// caller's thread, counted as "backlog_full" and written to the queue's drops like every
// other drop. The caller never waits for the worker.
// Middlewares must call `next` before they return; a later call is ignored.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KTAnalytics/Platform/HTTPRequest.h"
#include "KTAnalytics/Segment/Client/SEGAnalyticsStatistics.h"
#include "KTAnalytics/Segment/Client/SEGPayload.h"
#include "KTAnalytics/Segment/SegmentAnalyticsProtocol.h"

namespace kt {

class KTLogger;
class RequestQueueing;
class SerialQueue;

/// The most bytes the calls waiting for the client's worker hold together (each counted as
/// its record plus `kSEGBacklogCallOverhead`). An ordinary tracking-plan call takes about
/// 240 bytes, so a 100,000-call burst (about 23 MiB) fits whole, and at the bound the process
/// stays under 64 MiB however long the burst. A longer line would only grow what a kill
/// loses: the queue on disk keeps at most `maxQueueSize` messages anyway.
inline constexpr std::size_t kSEGMaximumBacklogBytes = 32 * 1024 * 1024;
/// What one waiting call costs beyond its record: its task in the worker's line (the slot
/// and the captured reference).
inline constexpr std::size_t kSEGBacklogCallOverhead = 64;

struct SEGAnalyticsConfiguration {
    static SEGAnalyticsConfiguration configurationWithWriteKey(std::string writeKey);
    /// The API's base URL for a configured `apiHost`: https when it names no scheme, without
    /// trailing "/"; empty means the default.
    static std::string apiURL(std::string_view apiHost);

    std::string writeKey;
    /// The API's base URL; uploads go to "<apiHost>/batch". A value without a scheme is
    /// taken as https.
    std::string apiHost = "https://api.segment.io/v1";
    std::vector<std::shared_ptr<SEGMiddleware>> sourceMiddleware;
    /// Makes the request for an upload URL; its headers win over the client's.
    std::function<HTTPRequest(const std::string& url)> requestFactory;
    /// The uploads' "User-Agent"; empty: "ktanalytics/<version>".
    std::string userAgent;
    /// Upload once this many messages wait.
    std::size_t flushAt = 20;
    std::chrono::milliseconds flushInterval = std::chrono::seconds(30);
    /// When full, the oldest waiting message is dropped (counted as "queue_full").
    std::size_t maxQueueSize = 1000;
    /// The calls handed to the worker and not yet taken up hold at most this many bytes;
    /// past it a new call is dropped ("backlog_full").
    std::size_t maxBacklogBytes = kSEGMaximumBacklogBytes;
    /// Pause before the first retry of a failed batch, doubled per failure up to the longest
    /// (each spread by ±20 %).
    std::chrono::milliseconds firstRetryDelay = std::chrono::seconds(1);
    std::chrono::milliseconds longestRetryDelay = std::chrono::minutes(5);

    void use(std::shared_ptr<SEGIntegrationFactory> factory) { factories.push_back(std::move(factory)); }
    std::vector<std::shared_ptr<SEGIntegrationFactory>> factories;
};

/// What the client needs from the process around it.
struct SEGAnalyticsDependencies {
    /// Uploads go through it; its result code is the outcome (delivered, failed, rejected).
    std::shared_ptr<RequestQueueing> requestQueue;
    /// The queue and the anonymous id are kept below it (created owner-only).
    std::filesystem::path stateDirectory;
    /// May be null.
    std::shared_ptr<KTLogger> logger;
    /// The client's worker; null makes a thread of its own. Tests pass a virtual-time queue.
    std::shared_ptr<SerialQueue> worker;
    /// Called on the worker once an upload's answer has been counted, so that whoever waits
    /// for delivery looks at the statistics again at once. May be empty.
    std::function<void()> answerHandled;
};

class SEGAnalytics final : public SegmentAnalyticsProtocol {
public:
    /// A message whose JSON is longer is dropped ("too_large").
    static constexpr std::size_t kMaximumMessageBytes = 32 * 1024;
    /// The whole batch body as sent ({"batch": [...], "sentAt", "writeKey"}) is packed within
    /// this. The API takes batches of less than 500 KB and refuses a larger one as a whole
    /// (then dropped as "rejected"); a receiver that counts a KB as 1,000 bytes refuses at
    /// 500,000. Packing to 475,000, as the well-kept clients of the same API do, keeps a
    /// margin below that for what may be added to the body on its way.
    static constexpr std::size_t kMaximumBatchBytes = 475'000;
    /// Deepest nesting of properties, traits or options; a deeper call is dropped on the
    /// caller's thread ("too_deeply_nested") before anything walks it recursively.
    static constexpr std::size_t kMaximumNesting = 256;

    /// Reads (or creates) the anonymous id and the queue before it returns.
    SEGAnalytics(SEGAnalyticsConfiguration configuration, SEGAnalyticsDependencies dependencies);
    /// Stops the timer. A worker of the client's own is given a bounded wait to store what it
    /// was handed; the tasks handed to a caller's worker still store theirs when it runs them.
    ~SEGAnalytics() override;

    void identify(const std::string& userId, const std::optional<AttributeValue>& traits,
                  const std::optional<AttributeValue>& options) override;
    void track(const std::string& event, const std::optional<AttributeValue>& properties,
               const std::optional<AttributeValue>& options) override;
    std::string getAnonymousId() override;
    void flush() override;

    SEGAnalyticsStatistics statistics() const;
    const SEGAnalyticsConfiguration& configuration() const;

    /// The messages removed without delivery, by reason, summed over every run of a client
    /// on `stateDirectory` (as `SEGAnalyticsDependencies::stateDirectory`), a killed one
    /// included: each drop is written with the removal it counts. Empty when there is no
    /// queue; nullopt, with the reason in `error`, when it cannot be read, as while a client
    /// in another process holds it. For another process or after the client is gone.
    static std::optional<std::map<std::string, std::uint64_t>> recordedDrops(
        const std::filesystem::path& stateDirectory, std::string* error = nullptr);
    /// The messages waiting in the queue on `stateDirectory`, oldest first, as JSON; read as
    /// `recordedDrops` reads.
    static std::optional<std::vector<std::string>> storedMessages(const std::filesystem::path& stateDirectory,
                                                                  std::string* error = nullptr);

private:
    // Hands a call to the worker as one compact buffer, or counts it as dropped when its
    // values nest too deeply or the backlog is full.
    void handOver(bool identify, const std::string& name, const std::optional<AttributeValue>& values,
                  const std::optional<AttributeValue>& options);

    struct Impl;
    std::shared_ptr<Impl> impl_;
};

}  // namespace kt
