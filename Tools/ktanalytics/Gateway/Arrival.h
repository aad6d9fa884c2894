#pragma once
// What the gateway tells about each item it has stored: the value an arrival observer gets.

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kt::gateway {

/// The three roads items arrive by.
enum class Road {
    gatewayEvent,      // one element of a `POST /v1/events` upload
    productAnalytics,  // one message of a `POST .../batch`
    tracking,          // one `GET /track/...` request
};

/// "event", "message" or "tracking", as the gateway's JSON answers name the roads.
std::string_view roadName(Road road);

/// One rule of the tracking plan (or of the gateway events' vocabulary) an item breaks.
struct Violation {
    std::string rule;               // e.g. "unknown_key", "wrong_kind"
    std::optional<std::string> key;  // the property or attribute at fault; none for the item as a whole
    std::string detail;             // a sentence for a person
};

/// One stored item, as an arrival observer is told of it.
struct Arrival {
    Road road = Road::gatewayEvent;
    std::chrono::system_clock::time_point time;
    std::string receivedAt;  // `time` as stored: UTC, ISO 8601 with milliseconds
    /// A gateway event's `event`; a message's `event` when it is a track, else its `type`;
    /// a tracking request's path (without its query).
    std::string name;
    /// A gateway event's `user` attribute (else its `anonymous_id`); a message's `userId`
    /// (else its `anonymousId`); empty for a tracking request.
    std::string user;
    /// A gateway event's `client_id` attribute; a message's `context.kt.client_application_id`;
    /// as text, empty when there is none.
    std::string clientId;
    /// The item's whole JSON text: {"event", "version", "payload"} for a gateway event, the
    /// message as sent, or {"method", "target", "headers"} for a tracking request (headers with
    /// credentials masked).
    std::string json;
    /// The rules the item breaks, in the order found; empty when it keeps them all.
    std::vector<Violation> violations;
};

}  // namespace kt::gateway
