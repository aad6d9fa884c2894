#pragma once
// The development event gateway: a real HTTP server (loopback by default) that takes the
// gateway uploads and the product-analytics batches, checks their shape, keeps them in SQLite, prints them live and can
// answer a share of them with a failure, so retries can be watched for real.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Gateway/Arrival.h"

namespace kt::gateway {

/// A request that takes longer than this to arrive is not a slow uploader but one holding a
/// worker: an upload at its 8 MiB limit arrives in well under a second on any link the
/// gateway serves, and the 2 s silence rule alone lets a byte a second through for ever.
inline constexpr std::chrono::seconds kDefaultRequestDeadline{10};
/// Eight bodies at the default 8 MiB limit. Uploads are decoded one at a time, each in at most
/// about three times its inflated size (32 MiB at most), so memory stays within some 200 MiB
/// whatever the number of connections.
inline constexpr std::size_t kDefaultHeldBodyBudget = std::size_t{64} << 20;

struct GatewayConfiguration {
    std::string host = "127.0.0.1";
    /// 0 picks a free port; `port()` tells which after `start`.
    int port = 0;
    /// SQLite file of everything received; empty keeps it in memory for this run only.
    std::string dbPath;
    /// Share of uploads and tracking requests answered with `failStatus` and not stored.
    double failRate = 0.0;
    int failStatus = 503;
    /// Seeds the failure draw; without one every run draws differently.
    std::optional<std::uint64_t> seed;
    /// Added before answering each upload or tracking request.
    std::chrono::milliseconds delay{0};
    /// Where the "listening on" line and one line per request go; null prints nothing.
    std::ostream* log = nullptr;
    /// Largest request body taken, as received; a larger one is answered 413.
    std::size_t maxBodyBytes = std::size_t{8} << 20;
    /// Largest upload after gunzip; inflating stops once it is passed and the upload is
    /// answered 413.
    std::size_t maxRawBytes = std::size_t{32} << 20;
    /// `GET /events` lists older events only while the stored payloads and headers listed so
    /// far stay within this; the newest event is always listed.
    std::size_t maxListingBytes = std::size_t{64} << 20;
    /// Time a request (headers and body) may take to arrive in full; past it the request is
    /// answered 408 and its connection closed.
    std::chrono::milliseconds requestDeadline = kDefaultRequestDeadline;
    /// Request bodies held in memory at once, across connections, while they arrive or wait
    /// for their turn to be decoded; an upload that would pass it is answered 503 with
    /// Retry-After. Never less than `maxBodyBytes`, so a body alone is always taken.
    std::size_t heldBodyBudgetBytes = kDefaultHeldBodyBudget;
    /// Refuses (400, naming the item and the rule) an upload or batch any of whose items breaks
    /// a rule of the tracking plan or of the gateway events (see PlanValidation.h); without it
    /// such items are stored all the same. Either way their violations are counted and listed.
    bool strict = false;
};

/// Deepest JSON nesting an upload may have, counting its outer array or object; deeper
/// bodies are answered 400 without being parsed.
inline constexpr std::size_t kMaximumNesting = 256;
/// Largest `limit` of `GET /events`; a larger one is answered 400.
inline constexpr std::size_t kMaximumEventsLimit = 1000;

/// Counts since `start`. An upload is a `POST /v1/events` and a batch a `POST /v1/batch`,
/// whatever their outcome.
struct GatewayStatistics {
    std::uint64_t requests = 0;
    std::uint64_t events = 0;
    std::uint64_t bytesCompressed = 0;  // bodies of accepted uploads and batches, as received
    std::uint64_t bytesRaw = 0;         // the same bodies after gunzip
    std::uint64_t failuresInjected = 0;
    std::uint64_t rejected = 0;         // uploads and batches answered 400 or 413
    /// Requests not received in full within `requestDeadline` (answered 408, closed).
    std::uint64_t pastDeadline = 0;
    /// Uploads and batches answered 503 because their body did not fit `heldBodyBudgetBytes`.
    std::uint64_t overMemoryBudget = 0;
    std::uint64_t batchRequests = 0;
    std::uint64_t messages = 0;
    /// Messages whose `messageId` was already stored (they are stored again all the same).
    std::uint64_t duplicateMessages = 0;
    std::uint64_t trackingRequests = 0;
    /// Tracking requests by the first two segments of their path ("/track/impression").
    std::map<std::string, std::uint64_t> trackingByPrefix;
    /// Violations found, stored or refused, by rule ("unknown_key"); rules never broken are absent.
    std::map<std::string, std::uint64_t> violations;
};

/// One stored tracking request. `headers` is a JSON text (object), credentials masked.
struct StoredTrackingRequest {
    std::string method;
    std::string target;  // path and query, as sent
    std::string headers;
    std::string receivedAt;
};

/// One stored element of an upload. `payload` and `headers` are JSON texts (objects).
/// Credentials (`Authorization`, `Proxy-Authorization`, `Cookie`) are kept only as
/// "present", never with their values.
struct StoredEvent {
    std::string event;
    std::string version;
    std::string payload;
    std::string headers;
    std::string receivedAt;  // UTC, ISO 8601 with milliseconds
};

/// One stored message of a batch. `kt` is the JSON text of the message's `context.kt`,
/// `integrations` that of its `integrations` (both "null" when absent), `message` the whole
/// message and `headers` the request's headers (an object, credentials masked).
struct StoredMessage {
    std::string messageId;
    std::string type;
    std::string name;  // the `event` of a track, the `userId` of an identify, else empty
    std::string kt;
    std::string integrations;
    std::string message;
    std::string headers;
    std::string authorization;  // "<scheme> present" when the request had one, else empty
    bool gzip = false;          // whether the body came gzip-compressed
    std::string receivedAt;
};

/// Endpoints: `POST /v1/events` (gzip JSON: a bare array of {"event", "version",
/// "payload"} elements, or {"events": [...], "sent_at": "..."}), `POST /v1/batch` (the
/// product-analytics batch: gzip or plain JSON {"batch": [messages], "sentAt", "writeKey"},
/// answered {"success": true} or {"success": false, "error": "..."}), `GET /stats`,
/// `GET /events?limit=N`, `GET /messages?limit=N`, `GET /tracking?limit=N`,
/// `GET /violations?limit=N` (newest first), `POST /reset` (forgets everything held), and
/// `GET /track/...` for promoted tracking URLs.
class DevelopmentGateway {
public:
    using Configuration = GatewayConfiguration;

    explicit DevelopmentGateway(Configuration configuration);
    DevelopmentGateway() = delete;
    ~DevelopmentGateway();
    DevelopmentGateway(const DevelopmentGateway&) = delete;
    DevelopmentGateway& operator=(const DevelopmentGateway&) = delete;

    /// Opens the database, binds and starts serving; false (with the reason in
    /// `lastError`) when the database cannot be opened or the address cannot be bound.
    bool start();
    /// Stops serving and waits for the server thread. Idempotent; the database stays
    /// readable through `lastEvents`.
    void stop();

    int port() const;
    /// "http://<host>:<port>", without a trailing slash.
    std::string baseURL() const;
    GatewayStatistics stats() const;
    /// The last `limit` stored events, oldest first.
    std::vector<StoredEvent> lastEvents(std::size_t limit) const;
    /// The last `limit` stored batch messages, oldest first.
    std::vector<StoredMessage> lastMessages(std::size_t limit) const;
    /// The last `limit` tracking requests, oldest first.
    std::vector<StoredTrackingRequest> lastTrackingRequests(std::size_t limit) const;
    std::string lastError() const;

    /// Calls `observer` for every item the gateway stores (each element of an upload, each
    /// message of a batch, each tracking request), once it is stored and counted, with an
    /// Arrival describing it; items refused are never told. It runs on the server thread
    /// that stored the item, after that request's storage and before its answer, and may run
    /// on several threads at once: it must be thread-safe and quick, and may call this
    /// gateway's `stats` and `last...` (not `stop`). The items of one request are told in
    /// order. Setting another replaces it; an empty function removes it. May be set before
    /// `start` or while serving.
    void setArrivalObserver(std::function<void(const Arrival&)> observer);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace kt::gateway
