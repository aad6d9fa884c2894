#pragma once
// Work handed from callers' threads to one worker as byte records, oldest first, bounded by
// the bytes it holds. Records are packed into blocks mapped from the system, and a block
// goes back to the system as soon as the worker has read it: a drained burst leaves nothing
// resident behind. (Records held one allocation each would come from the callers' heap
// arena and be freed on the worker, whose own allocations reuse some of those chunks, so
// that the pages of a drained backlog stayed resident.)
//
// Callers never wait for the worker: `push` holds a mutex only to copy the record in.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

namespace kt {

class CompactBacklog {
public:
    /// `limit`: the most bytes held, counting each record's bytes plus `itemOverhead` (what
    /// else one waiting record costs its owner: the task that will take it up, say).
    CompactBacklog(std::size_t limit, std::size_t itemOverhead);
    ~CompactBacklog();
    CompactBacklog(const CompactBacklog&) = delete;
    CompactBacklog& operator=(const CompactBacklog&) = delete;

    /// Any thread: whether a record of `size` bytes would fit now. A hint, so that a record
    /// that cannot fit is refused before it is built.
    bool wouldFit(std::size_t size) const;
    /// Any thread: appends a copy of the record; false, keeping nothing, when it would pass
    /// the limit (or the system refuses a block).
    bool push(const std::uint8_t* data, std::size_t size);
    bool push(const std::vector<std::uint8_t>& record) { return push(record.data(), record.size()); }
    /// The same, for a worker that reads until `pop` finds nothing: `startReader` is set when
    /// no reader was under way, and the caller must then start one.
    bool push(const std::vector<std::uint8_t>& record, bool& startReader);
    /// The worker: moves the oldest record into `record`; false when there is none, which
    /// also ends the reader under way.
    bool pop(std::vector<std::uint8_t>& record);
    /// Any thread: no record waits and no reader is under way, so an item handed over
    /// another way now cannot overtake one handed over here.
    bool idle() const { return !reading_.load(std::memory_order_acquire); }

    /// Bytes counted against the limit now.
    std::size_t bytes() const { return bytes_.load(std::memory_order_relaxed); }
    std::size_t limit() const { return limit_; }

private:
    struct Block {
        std::uint8_t* data;
        std::size_t size;
        std::size_t readAt = 0, writeAt = 0;
    };
    static void release(Block& block);
    bool pushLocked(const std::uint8_t* data, std::size_t size);

    const std::size_t limit_;
    const std::size_t itemOverhead_;
    std::atomic<std::size_t> bytes_{0};  // written under mutex_, read anywhere
    std::atomic<bool> reading_{false};   // written under mutex_, read anywhere
    std::mutex mutex_;
    std::deque<Block> blocks_;  // guarded by mutex_; the oldest first
};

}  // namespace kt
