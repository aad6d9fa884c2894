#include "KTAnalytics/Platform/CompactBacklog.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <utility>

namespace kt {

namespace {

// Large enough that mapping is rare, small enough that a drained part returns soon. Only
// the pages written become resident.
constexpr std::size_t kBlockBytes = 1024 * 1024;
using Length = std::uint32_t;  // each record's header

}  // namespace

CompactBacklog::CompactBacklog(std::size_t limit, std::size_t itemOverhead)
    : limit_(limit), itemOverhead_(itemOverhead) {}

CompactBacklog::~CompactBacklog() {
    for (auto& block : blocks_) release(block);
}

void CompactBacklog::release(Block& block) { ::munmap(block.data, block.size); }

bool CompactBacklog::wouldFit(std::size_t size) const {
    const std::size_t cost = itemOverhead_ + sizeof(Length) + size;
    const std::size_t now = bytes_.load(std::memory_order_relaxed);
    return now <= limit_ && cost <= limit_ - now;
}

bool CompactBacklog::push(const std::vector<std::uint8_t>& record, bool& startReader) {
    std::lock_guard lock(mutex_);
    if (!pushLocked(record.data(), record.size())) return false;
    startReader = !reading_.load(std::memory_order_relaxed);
    reading_.store(true, std::memory_order_release);
    return true;
}

bool CompactBacklog::push(const std::uint8_t* data, std::size_t size) {
    std::lock_guard lock(mutex_);
    return pushLocked(data, size);
}

bool CompactBacklog::pushLocked(const std::uint8_t* data, std::size_t size) {
    if (size > UINT32_MAX) return false;
    const std::size_t needed = sizeof(Length) + size;
    const std::size_t cost = itemOverhead_ + needed;
    const std::size_t now = bytes_.load(std::memory_order_relaxed);
    if (now > limit_ || cost > limit_ - now) return false;
    if (blocks_.empty() || blocks_.back().size - blocks_.back().writeAt < needed) {
        const std::size_t page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
        const std::size_t blockSize = needed <= kBlockBytes ? kBlockBytes : (needed + page - 1) / page * page;
        void* mapped = ::mmap(nullptr, blockSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (mapped == MAP_FAILED) return false;
        blocks_.push_back({static_cast<std::uint8_t*>(mapped), blockSize});
    }
    Block& block = blocks_.back();
    const Length length = static_cast<Length>(size);
    std::memcpy(block.data + block.writeAt, &length, sizeof length);
    if (size > 0) std::memcpy(block.data + block.writeAt + sizeof length, data, size);
    block.writeAt += needed;
    bytes_.store(now + cost, std::memory_order_relaxed);
    return true;
}

bool CompactBacklog::pop(std::vector<std::uint8_t>& record) {
    Block drained{nullptr, 0};
    {
        std::lock_guard lock(mutex_);
        if (blocks_.empty() || blocks_.front().readAt == blocks_.front().writeAt) {
            reading_.store(false, std::memory_order_release);
            return false;
        }
        Block& block = blocks_.front();
        Length length;
        std::memcpy(&length, block.data + block.readAt, sizeof length);
        const std::uint8_t* at = block.data + block.readAt + sizeof length;
        record.assign(at, at + length);
        block.readAt += sizeof length + length;
        bytes_.store(bytes_.load(std::memory_order_relaxed) - (itemOverhead_ + sizeof length + length),
                     std::memory_order_relaxed);
        // A block read to its end goes back at once; the one records are still written into
        // (the last) starts over, so that its pages are written again rather than new ones.
        if (block.readAt == block.writeAt) {
            if (blocks_.size() > 1) {
                drained = block;
                blocks_.pop_front();
            } else {
                block.readAt = block.writeAt = 0;
            }
        }
    }
    if (drained.data) release(drained);
    return true;
}

}  // namespace kt
