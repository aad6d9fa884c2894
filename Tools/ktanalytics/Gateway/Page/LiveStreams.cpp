#include "Gateway/Page/LiveStreams.h"

#include <algorithm>

#include <nlohmann/json.hpp>

namespace kt::gateway {

namespace {

using nlohmann::json;

// How long a browser waits before opening the stream again after it broke.
constexpr const char* kReconnect = "retry: 3000\n\n";

}  // namespace

std::string arrivalJSON(const Arrival& arrival) {
    json violations = json::array();
    for (const Violation& v : arrival.violations)
        violations.push_back({{"rule", v.rule}, {"key", v.key ? json(*v.key) : json(nullptr)}, {"detail", v.detail}});
    // Parsed and written again: a message is kept as sent, line breaks and all, and one line
    // of a server-sent event cannot hold those.
    json item = json::parse(arrival.json, nullptr, false);
    if (item.is_discarded()) item = arrival.json;
    return json{{"road", roadName(arrival.road)},
                {"received_at", arrival.receivedAt},
                {"name", arrival.name},
                {"user", arrival.user},
                {"client_id", arrival.clientId},
                {"item", std::move(item)},
                {"violations", std::move(violations)}}
        .dump(-1, ' ', false, json::error_handler_t::replace);
}

LiveStreams::LiveStreams(LiveLimits limits) : limits_(limits) {}

std::shared_ptr<LiveStreams::Stream> LiveStreams::open() {
    std::lock_guard lock(mutex_);
    if (streams_.size() >= limits_.maximumStreams) return nullptr;
    return streams_.emplace_back(std::make_shared<Stream>());
}

void LiveStreams::close(const std::shared_ptr<Stream>& stream) {
    std::lock_guard lock(mutex_);
    std::erase(streams_, stream);
}

std::size_t LiveStreams::openStreams() const {
    std::lock_guard lock(mutex_);
    return streams_.size();
}

void LiveStreams::publish(const Arrival& arrival) {
    {
        std::lock_guard lock(mutex_);
        if (streams_.empty()) return;
    }
    // Written once, shared by every stream's queue.
    const auto text = std::make_shared<const std::string>("event: arrival\ndata: " + arrivalJSON(arrival) + "\n\n");
    std::lock_guard lock(mutex_);
    for (const auto& stream : streams_) {
        Stream& s = *stream;
        s.queue.push_back(text);
        s.bytes += text->size();
        // The newest always stays, however large.
        while (s.queue.size() > 1 && (s.queue.size() > limits_.queueItems || s.bytes > limits_.queueBytes)) {
            s.bytes -= s.queue.front()->size();
            s.queue.pop_front();
            ++s.droppedUnsaid;
            ++s.droppedTotal;
        }
        s.wake.notify_one();
    }
}

std::string LiveStreams::next(Stream& stream) {
    std::unique_lock lock(mutex_);
    std::string text;
    if (!stream.started) {
        stream.started = true;
        text = kReconnect;
    } else {
        stream.wake.wait_for(lock, limits_.stopCheck, [&] { return !stream.queue.empty() || stream.droppedUnsaid > 0; });
    }
    if (stream.droppedUnsaid > 0) {
        text += "event: dropped\ndata: " +
                json{{"dropped", stream.droppedUnsaid}, {"total", stream.droppedTotal}}.dump() + "\n\n";
        stream.droppedUnsaid = 0;
    }
    std::vector<std::shared_ptr<const std::string>> taken(stream.queue.begin(), stream.queue.end());
    stream.queue.clear();
    stream.bytes = 0;
    const auto now = std::chrono::steady_clock::now();
    if (text.empty() && taken.empty() && now - stream.lastSent < limits_.heartbeat) return {};
    stream.lastSent = now;
    lock.unlock();
    for (const auto& t : taken) text += *t;
    return text.empty() ? ": still here\n\n" : text;
}

}  // namespace kt::gateway
