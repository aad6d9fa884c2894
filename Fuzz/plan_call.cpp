// The plan's operations called by name take their arguments as data (replay files, scripts):
// "operation\n{json arguments}". Any arguments give an error and no event, or exactly the
// event the plan lists, each argument sent as the plan says.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "KTAnalytics/Platform/JSONSerialization.h"
#include "KTAnalytics/TrackingArchitecture/EventSender.h"
#include "KTAnalytics/TrackingArchitecture/Plan/PlanCall.h"
#include "KTAnalytics/TrackingArchitecture/Plan/TrackingPlanCatalogue.h"

#include "Support/RecordingBroker.h"

namespace {

// The value the plan says an argument is sent as.
bool sentAsPlanned(const kt::tracking::PlanProperty& property, const kt::AttributeValue& argument,
                   const kt::AttributeValue& sent) {
    using kt::tracking::PropertyKind;
    if (property.kind != PropertyKind::enumeration) return sent == argument;
    const auto* enumeration = kt::tracking::findPlanEnumeration(property.enumeration);
    if (enumeration == nullptr || !argument.is_number_integer()) return false;
    const auto raw = argument.get<std::int64_t>();
    return raw >= 0 && static_cast<std::size_t>(raw) < enumeration->descriptions.size() &&
           sent == std::string(enumeration->descriptions[static_cast<std::size_t>(raw)]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const auto newline = input.find('\n');
    if (newline == std::string_view::npos) return 0;
    const std::string_view operation = input.substr(0, newline), text = input.substr(newline + 1);
    // Callers refuse deep text before converting it, as the replay reader does.
    if (kt::jsonTextNestsDeeperThan(text, 256)) return 0;
    const auto arguments = kt::AttributeValue::parse(text, nullptr, /*allow_exceptions=*/false);
    if (arguments.is_discarded()) return 0;

    static const auto broker = std::make_shared<kt::testing::RecordingBroker>();
    static kt::EventSender sender(broker);
    broker->events.clear();
    const auto error = kt::tracking::callOperation(sender, operation, arguments);
    if (error) {
        if (!broker->events.empty() || error->message.empty()) __builtin_trap();
        return 0;
    }
    const auto* planned = kt::tracking::findPlanOperation(operation);
    if (planned == nullptr || broker->events.size() != 1) __builtin_trap();
    const kt::TrackingEvent& event = broker->events.front();
    if (event.name != planned->event || event.version != planned->version || !event.properties ||
        event.properties->size() != planned->properties.size() ||
        !std::equal(event.thirdParties.begin(), event.thirdParties.end(), planned->thirdParties.begin(),
                    planned->thirdParties.end()))
        __builtin_trap();
    for (std::size_t i = 0; i < planned->properties.size(); ++i) {
        const auto& property = planned->properties[i];
        const auto& [key, value] = (*event.properties)[i];
        if (key != property.key) __builtin_trap();
        const auto given = arguments.is_object() ? arguments.find(key) : arguments.end();
        const bool absent = !arguments.is_object() || given == arguments.end() || given->is_null();
        if (absent ? (value || !property.optional) : (!value || !sentAsPlanned(property, *given, *value)))
            __builtin_trap();
    }
    return 0;
}
