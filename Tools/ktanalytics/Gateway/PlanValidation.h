#pragma once
// The checks of what arrives against what the SDK is built to send: product-analytics
// messages against the tracking plan (the table the SDK's operations are generated from),
// gateway events against the supported names and the base attributes every event carries.
// Pure functions of one item, so they are tested without a server.

#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "Gateway/Arrival.h"

namespace kt::gateway {

/// Rule keys, as /stats and /violations name them.
namespace rule {
inline constexpr std::string_view unknownEvent = "unknown_event";            // a track's event is not in the plan
inline constexpr std::string_view wrongVersion = "wrong_version";            // context.protocols.event_version differs
inline constexpr std::string_view missingKey = "missing_key";                // a plan key absent from properties
inline constexpr std::string_view unknownKey = "unknown_key";                // a key the plan does not list
inline constexpr std::string_view wrongKind = "wrong_kind";                  // a value of the wrong kind
inline constexpr std::string_view notACase = "not_a_case";                   // an enumeration string of no case
inline constexpr std::string_view unsupportedEvent = "unsupported_event";    // a gateway event of no supported name
inline constexpr std::string_view missingBaseAttribute = "missing_base_attribute";
}  // namespace rule

/// The rules a batch message breaks, in the plan's key order (keys the plan does not list
/// last). Only tracks are checked: the plan lists no identify (nor any other type), so those
/// break none. Every key of the plan must be present, since the SDK sends an optional value
/// it was not given as null; null is the right kind only for an optional value.
std::vector<Violation> messageViolations(const nlohmann::json& message);

/// The rules an element of a gateway upload ({"event", "version", "payload"}) breaks: a name
/// outside the supported ones, and each base attribute the SDK always sets (session_id,
/// connection_type, ts, and vpn on "audio") missing from its payload.
std::vector<Violation> gatewayEventViolations(const nlohmann::json& element);

}  // namespace kt::gateway
