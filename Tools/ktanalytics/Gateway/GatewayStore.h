#pragma once
// What the gateway holds: the SQLite store of everything received, the counts since start,
// the listings served from them, and the arrival observer told of each stored item.

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Gateway/Arrival.h"
#include "Gateway/DevelopmentGateway.h"
#include "Gateway/UploadReader.h"

struct sqlite3;

namespace kt::gateway {

/// The last error of the gateway, from whichever part met it.
class ErrorNote {
public:
    void set(std::string text) {
        std::lock_guard lock(mutex_);
        text_ = std::move(text);
    }
    std::string get() const {
        std::lock_guard lock(mutex_);
        return text_;
    }

private:
    mutable std::mutex mutex_;
    std::string text_;
};

/// An accepted body's sizes, counted with what it held.
struct ReceivedBody {
    std::size_t received = 0;  // bytes as sent
    std::size_t raw = 0;       // after gunzip
    bool gzip = false;
};

class GatewayStore {
public:
    /// `dbPath` empty keeps everything in memory. Listings served over HTTP stop once they
    /// pass `maxListingBytes` (the newest item is always listed).
    GatewayStore(std::string dbPath, std::size_t maxListingBytes, ErrorNote& errors);
    ~GatewayStore();
    GatewayStore(const GatewayStore&) = delete;
    GatewayStore& operator=(const GatewayStore&) = delete;

    /// Opens (or creates) the database; false with the reason noted when it cannot.
    bool open();
    bool isOpen() const;

    // Each stores its items in one transaction with their violations (`violations[i]` those of
    // item i; missing or empty when it breaks no rule), counts them and then tells the arrival
    // observers of each, in order. False (nothing counted, the reason noted) when storing failed.
    /// A gateway event's violations are listed under the id "event-<its row id>".
    bool storeEvents(const UploadItems& elements, const std::string& headers, const ReceivedBody& body,
                     const std::vector<std::vector<Violation>>& violations);
    /// `duplicates` is set to the messages whose id was already stored, earlier in this batch included.
    bool storeMessages(const UploadItems& messages, const std::string& headers, const std::string& authorization,
                       const ReceivedBody& body, const std::vector<std::vector<Violation>>& violations,
                       std::size_t& duplicates);

    /// The violations of one item that was refused, not stored (a strict gateway's).
    struct RefusedItem {
        std::string id;     // a message's messageId; "event-<index in its upload>" for a gateway event
        std::string event;  // the event's (or the track's) name
        std::vector<Violation> violations;
    };
    /// Counts and lists the violations of refused items, marked refused.
    bool recordRefused(Road road, const std::vector<RefusedItem>& items);
    /// Forgets every stored item, violation and count, as a new gateway would start.
    bool reset();
    /// `target` is the path and query as sent, `path` the path alone, decoded, and `headers` a
    /// JSON object with credentials masked.
    bool storeTrackingRequest(const std::string& method, const std::string& target, const std::string& path,
                              const std::string& headers);

    /// Changes the counts under their lock, for what the endpoints count themselves.
    void count(const std::function<void(GatewayStatistics&)>& change);
    GatewayStatistics statistics() const;

    // Newest `limit`, oldest first; events and messages stop once their texts pass `byteBudget`
    // (the newest is always taken).
    std::vector<StoredEvent> lastEvents(std::size_t limit, std::size_t byteBudget) const;
    std::vector<StoredMessage> lastMessages(std::size_t limit, std::size_t byteBudget) const;
    std::vector<StoredTrackingRequest> lastTrackingRequests(std::size_t limit) const;
    /// The newest `limit` stored items of all three roads, newest first, as arrival
    /// observers were told of them (violations included); for the live page.
    std::vector<Arrival> lastArrivals(std::size_t limit) const;

    // The JSON texts of `GET /stats`, `/events`, `/messages` and `/tracking`.
    std::string statisticsJSON() const;
    std::string eventsListingJSON(std::size_t limit) const;
    std::string messagesListingJSON(std::size_t limit) const;
    std::string trackingListingJSON(std::size_t limit) const;
    /// Newest first: {"messageId", "event", "rule", "key" (or null), "road", "detail",
    /// "refused", "received_at"}.
    std::string violationsListingJSON(std::size_t limit) const;

    /// Adds an observer called for every stored item, after it is stored, on the thread that
    /// stored it (see DevelopmentGateway::setArrivalObserver); answers its id for removal. Every
    /// observer added is called, in the order added.
    std::size_t addArrivalObserver(std::function<void(const Arrival&)> observer);
    /// Once it returns, the observer is called no more (unless it is running at that moment).
    void removeArrivalObserver(std::size_t id);

private:
    bool exec(const char* sql);
    // Commits when `ok`, else rolls back; true when committed. Under dbMutex_.
    bool endTransaction(bool ok);
    // Inserts the rows of one item's violations; under dbMutex_, in a transaction.
    bool insertViolations(const std::string& id, std::string_view event, Road road,
                          const std::vector<Violation>& violations, const std::string& receivedAt, bool refused);
    void countViolations(const std::vector<std::vector<Violation>>& violations);
    void tell(const std::vector<Arrival>& arrivals) const;
    bool observed() const;

    const std::string dbPath_;
    const std::size_t maxListingBytes_;
    ErrorNote& errors_;

    mutable std::mutex dbMutex_;
    sqlite3* db_ = nullptr;  // guarded by dbMutex_

    mutable std::mutex stateMutex_;
    GatewayStatistics statistics_;  // guarded by stateMutex_

    mutable std::mutex observerMutex_;
    using Observer = std::function<void(const Arrival&)>;
    std::vector<std::pair<std::size_t, std::shared_ptr<const Observer>>> observers_;  // guarded by observerMutex_
    std::size_t nextObserver_ = 1;                                                     // guarded by observerMutex_
};

/// A time as the gateway stores it: UTC, ISO 8601 with milliseconds.
std::string utcText(std::chrono::system_clock::time_point time);
/// `Authorization`, `Proxy-Authorization` and `Cookie`, in any case: kept only as "present".
bool isCredential(const std::string& header);

}  // namespace kt::gateway
