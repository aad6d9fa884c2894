#pragma once
// An upload's body as received: held within a budget shared by every connection, and
// inflated within a limit.

#include <cstddef>
#include <mutex>
#include <string>
#include <utility>

namespace kt::gateway {

// Bytes of request bodies held in memory at once, across connections.
class BodyBudget {
public:
    explicit BodyBudget(std::size_t limit) : limit_(limit) {}
    bool take(std::size_t bytes) {
        std::lock_guard lock(mutex_);
        if (bytes > limit_ - held_) return false;
        held_ += bytes;
        return true;
    }
    void give(std::size_t bytes) {
        std::lock_guard lock(mutex_);
        held_ -= bytes;
    }

private:
    const std::size_t limit_;
    std::mutex mutex_;
    std::size_t held_ = 0;  // guarded by mutex_
};

// One body as received, its bytes taken from the budget while it is held.
class HeldBody {
public:
    explicit HeldBody(BodyBudget& budget) : budget_(budget) {}
    ~HeldBody() { release(); }
    HeldBody(const HeldBody&) = delete;
    HeldBody& operator=(const HeldBody&) = delete;

    bool append(const char* data, std::size_t size) {
        if (!budget_.take(size)) return false;
        held_ += size;
        text_.append(data, size);
        return true;
    }
    void release() {
        std::string().swap(text_);
        budget_.give(std::exchange(held_, 0));
    }
    const std::string& text() const { return text_; }

private:
    BodyBudget& budget_;
    std::size_t held_ = 0;
    std::string text_;
};

enum class Inflated { complete, notGzip, tooLarge };

// Gzip only: a zlib or raw deflate stream is refused even though inflate (window bits 47,
// gzip or zlib by header) would take a zlib one. Trailing bytes after the stream are refused.
// Inflating stops as soon as the output passes `maximum`.
Inflated gunzip(const std::string& body, std::size_t maximum, std::string& out);

bool startsLikeGzip(const std::string& body);

}  // namespace kt::gateway
