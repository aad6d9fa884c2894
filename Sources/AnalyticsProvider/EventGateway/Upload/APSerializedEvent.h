#pragma once
// The in-memory handle of one stored gateway event: the event and the path of its file.

#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>

#include "KTAnalytics/AnalyticsProvider/APEvent.h"

namespace kt {

class KeyedArchiver;
class KeyedUnarchiver;

class APSerializedEvent {
public:
    static constexpr const char* kClassName = "APSerializedEvent";

    /// Both are required ("Invalid parameter not satisfying: event" / "eventURL").
    APSerializedEvent(std::shared_ptr<const APEvent> event, std::filesystem::path eventURL);
    APSerializedEvent() = delete;

    const std::shared_ptr<const APEvent>& event() const { return event_; }
    /// The event's file.
    const std::filesystem::path& eventURL() const { return eventURL_; }

    /// Equal events and equal paths.
    bool operator==(const APSerializedEvent& other) const;
    /// Hash of the event's name XOR hash of the path (computed once: the handle is immutable).
    std::size_t hash() const { return hash_; }
    /// "<APSerializedEvent: self.event=..., self.eventURL=file://...>".
    std::string description() const;

    /// Archive fields "_event" (the nested event) and "_eventURL" (a file URL).
    void encodeWithCoder(KeyedArchiver& coder) const;
    static std::optional<APSerializedEvent> decode(const KeyedUnarchiver& coder);

private:
    std::shared_ptr<const APEvent> event_;
    std::filesystem::path eventURL_;
    std::size_t hash_ = 0;
};

struct APSerializedEventHash {
    std::size_t operator()(const APSerializedEvent& e) const { return e.hash(); }
};

using APSerializedEventSet = std::unordered_set<APSerializedEvent, APSerializedEventHash>;

/// "{(<APSerializedEvent: ...>, ...)}" for log lines.
template <class Collection>
std::string describeSerializedEvents(const Collection& events) {
    std::string text = "{(";
    bool first = true;
    for (const auto& e : events) {
        if (!first) text += ", ";
        first = false;
        text += e.description();
    }
    return text + ")}";
}

}  // namespace kt
