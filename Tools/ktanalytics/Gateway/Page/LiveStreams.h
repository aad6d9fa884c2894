#pragma once
// The live page's streams: each open page gets a bounded queue of what arrived, filled by the
// store's arrival observer and emptied, as server-sent events, by the worker serving that page.

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Gateway/Arrival.h"

namespace kt::gateway {

struct LiveLimits {
    /// Pages streaming at once; each holds a server worker for as long as it is open, so
    /// the bound keeps pages from taking the workers uploads need. One more is answered 503.
    std::size_t maximumStreams = 8;
    /// What a page that reads slowly may have waiting; past either bound its oldest items
    /// are dropped, and the stream says how many.
    std::size_t queueItems = 1000;
    std::size_t queueBytes = std::size_t{16} << 20;
    /// Longest a stream waits for news before handing back to the server, which then checks
    /// whether it is stopping: a stop ends every stream within about this.
    std::chrono::milliseconds stopCheck{100};
    /// A stream with nothing to say writes a comment this often, so that a page gone away
    /// is noticed (the write fails) and its slot freed.
    std::chrono::milliseconds heartbeat{5000};
};

/// One item as the page takes it: {"road", "received_at", "name", "user", "client_id",
/// "item" (the whole item as JSON), "violations": [{"rule", "key", "detail"}]}.
std::string arrivalJSON(const Arrival& arrival);

class LiveStreams {
public:
    class Stream;

    explicit LiveStreams(LiveLimits limits = {});
    LiveStreams(const LiveStreams&) = delete;
    LiveStreams& operator=(const LiveStreams&) = delete;

    /// A new stream, or null when `maximumStreams` are open.
    std::shared_ptr<Stream> open();
    /// Ends `stream`: nothing more is queued for it and its slot is free again.
    void close(const std::shared_ptr<Stream>& stream);
    std::size_t openStreams() const;

    /// Queues the arrival on every open stream, as one "arrival" event.
    void publish(const Arrival& arrival);

    /// The text to send next on `stream`, waiting up to `stopCheck` for some: a "dropped"
    /// event ({"dropped": N, "total": T}) when items were dropped since the last call, then
    /// the waiting events; a heartbeat comment when the stream has been quiet for
    /// `heartbeat`; else empty. The first call also sets the browser's reconnection delay.
    std::string next(Stream& stream);

    const LiveLimits& limits() const { return limits_; }

private:
    const LiveLimits limits_;
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<Stream>> streams_;  // guarded by mutex_
};

class LiveStreams::Stream {
private:
    friend class LiveStreams;
    // All guarded by the owning LiveStreams' mutex.
    std::condition_variable wake;
    std::deque<std::shared_ptr<const std::string>> queue;
    std::size_t bytes = 0;
    std::uint64_t droppedUnsaid = 0;
    std::uint64_t droppedTotal = 0;
    bool started = false;
    std::chrono::steady_clock::time_point lastSent = std::chrono::steady_clock::now();
};

}  // namespace kt::gateway
