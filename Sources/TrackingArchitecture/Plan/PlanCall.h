#pragma once
// The tracking plan's operations called by name, for callers that hold their arguments as
// data (scripts, replays, bindings): each argument is converted and the typed operation
// is called, so both roads send the same event.

#include <optional>
#include <string>
#include <string_view>

#include "KTAnalytics/Platform/AttributeValue.h"

namespace kt {
class EventSending;
}

namespace kt::tracking {

struct PlanCallError {
    std::string operation;
    /// The argument at fault; empty when the fault is the operation itself.
    std::string key;
    std::string message;
};

/// Calls `operation` on `sender` with `arguments`, a JSON object keyed by the event's
/// property keys: strings and booleans as such, numbers as sent (an integer stays an
/// integer, a fraction a fraction), urns as their text, lists and maps as JSON,
/// enumerations as raw values. An optional argument may be missing or null. An unknown
/// operation, a missing required argument, an unknown key, a value of the wrong kind, an
/// unparseable urn or an enumeration's raw value outside its cases is an error, and nothing
/// is sent: the arguments are data, so a bad one is reported, never fatal.
std::optional<PlanCallError> callOperation(EventSending& sender, std::string_view operation,
                                           const AttributeValue& arguments);

}  // namespace kt::tracking
