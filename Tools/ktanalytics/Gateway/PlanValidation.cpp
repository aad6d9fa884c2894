#include "Gateway/PlanValidation.h"

#include <algorithm>
#include <string>
#include <unordered_map>

#include <nlohmann/json.hpp>

#include "KTAnalytics/AnalyticsProvider/APEventNames.h"
#include "KTAnalytics/KTFoundation/Urn.h"
#include "KTAnalytics/TrackingArchitecture/Plan/TrackingPlanCatalogue.h"

namespace kt::gateway {

namespace {

using nlohmann::json;
using tracking::PlanOperation;
using tracking::PlanProperty;
using tracking::PropertyKind;

const PlanOperation* operationForEvent(std::string_view event) {
    static const auto byEvent = [] {
        std::unordered_map<std::string_view, const PlanOperation*> index;
        for (const PlanOperation& operation : tracking::planOperations()) index.emplace(operation.event, &operation);
        return index;
    }();
    const auto it = byEvent.find(event);
    return it == byEvent.end() ? nullptr : it->second;
}

bool isUrn(const json& value) { return value.is_string() && Urn::parse(value.get_ref<const std::string&>()); }

template <class Each>
bool isListOf(const json& value, Each each) {
    return value.is_array() && std::all_of(value.begin(), value.end(), each);
}

bool hasKind(const json& value, PropertyKind kind) {
    switch (kind) {
        case PropertyKind::string:
        case PropertyKind::enumeration: return value.is_string();
        case PropertyKind::boolean: return value.is_boolean();
        case PropertyKind::number: return value.is_number();
        case PropertyKind::map: return value.is_object();
        case PropertyKind::maps: return isListOf(value, [](const json& v) { return v.is_object(); });
        case PropertyKind::strings: return isListOf(value, [](const json& v) { return v.is_string(); });
        case PropertyKind::urn: return isUrn(value);
        case PropertyKind::urns: return isListOf(value, isUrn);
    }
    return false;
}

std::string kindName(const PlanProperty& property) {
    switch (property.kind) {
        case PropertyKind::string: return "a string";
        case PropertyKind::enumeration: return "a string of " + std::string(property.enumeration);
        case PropertyKind::boolean: return "a boolean";
        case PropertyKind::number: return "a number";
        case PropertyKind::map: return "a map";
        case PropertyKind::maps: return "a list of maps";
        case PropertyKind::strings: return "a list of strings";
        case PropertyKind::urn: return "a urn";
        case PropertyKind::urns: return "a list of urns";
    }
    return "";
}

std::string text(const json& value) { return value.dump(-1, ' ', false, json::error_handler_t::replace); }

Violation violation(std::string_view rule, std::optional<std::string> key, std::string detail) {
    return Violation{std::string(rule), std::move(key), std::move(detail)};
}

const json& member(const json& object, const char* key) {
    static const json nothing;
    if (!object.is_object()) return nothing;
    const auto it = object.find(key);
    return it == object.end() ? nothing : *it;
}

// The checks of one present value: its kind, then an enumeration's case.
void checkValue(const PlanProperty& property, const json& value, std::vector<Violation>& found) {
    const std::string key(property.key);
    if (value.is_null()) {
        if (!property.optional) found.push_back(violation(rule::wrongKind, key, key + " is null but required: " + kindName(property)));
        return;
    }
    if (!hasKind(value, property.kind)) {
        found.push_back(violation(rule::wrongKind, key, key + " is " + text(value) + ", not " + kindName(property)));
        return;
    }
    if (property.kind != PropertyKind::enumeration) return;
    const auto* enumeration = tracking::findPlanEnumeration(property.enumeration);
    if (enumeration == nullptr) return;
    const auto& cases = enumeration->descriptions;
    if (std::find(cases.begin(), cases.end(), value.get_ref<const std::string&>()) == cases.end())
        found.push_back(violation(rule::notACase, key,
                                  key + " is " + text(value) + ", not a case of " + std::string(property.enumeration)));
}

}  // namespace

std::vector<Violation> messageViolations(const json& message) {
    std::vector<Violation> found;
    if (member(message, "type") != "track") return found;
    const json& event = member(message, "event");
    const std::string name = event.is_string() ? event.get<std::string>() : text(event);
    const PlanOperation* operation = event.is_string() ? operationForEvent(name) : nullptr;
    if (operation == nullptr) {
        found.push_back(violation(rule::unknownEvent, std::nullopt, "\"" + name + "\" is not an event of the tracking plan"));
        return found;
    }
    const json& version = member(member(member(message, "context"), "protocols"), "event_version");
    if (!version.is_number_integer() || version.get<std::int64_t>() != operation->version)
        found.push_back(violation(rule::wrongVersion, std::nullopt,
                                  "event_version is " + text(version) + ", the plan's is " +
                                      std::to_string(operation->version)));
    const json& properties = member(message, "properties");
    for (const PlanProperty& property : operation->properties) {
        const std::string key(property.key);
        const json& value = member(properties, key.c_str());
        if (!properties.is_object() || !properties.contains(key))
            found.push_back(violation(rule::missingKey, key,
                                      key + " is absent" + (property.optional ? " (optional values are sent as null)" : "")));
        else
            checkValue(property, value, found);
    }
    if (properties.is_object())
        for (const auto& [key, value] : properties.items()) {
            const bool listed = std::any_of(operation->properties.begin(), operation->properties.end(),
                                            [&key = key](const PlanProperty& p) { return p.key == key; });
            // The broker's own key: a map of integrations the event is addressed to, sent along.
            if (!listed && key != "providers")
                found.push_back(violation(rule::unknownKey, key, key + " is not a property of " + std::string(operation->name)));
        }
    return found;
}

std::vector<Violation> gatewayEventViolations(const json& element) {
    static const APEventNames names;
    std::vector<Violation> found;
    const json& event = member(element, "event");
    const std::string name = event.is_string() ? event.get<std::string>() : text(event);
    const auto& supported = names.supportedEventNames();
    if (std::find(supported.begin(), supported.end(), name) == supported.end())
        found.push_back(violation(rule::unsupportedEvent, std::nullopt, "\"" + name + "\" is not a supported event name"));
    const json& payload = member(element, "payload");
    // The attributes the SDK sets on every event whatever its state; the others (client,
    // user, anonymous and analytics ids, variants) are left out while unknown.
    std::vector<std::string> always{"session_id", "connection_type", "ts"};
    if (name == "audio") always.push_back("vpn");
    for (const std::string& key : always)
        if (!payload.is_object() || !payload.contains(key))
            found.push_back(violation(rule::missingBaseAttribute, key, key + " is absent"));
    return found;
}

}  // namespace kt::gateway
