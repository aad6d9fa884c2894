// Every rule of the gateway's checks, each with an item that breaks it and one that keeps it.

#include "Gateway/PlanValidation.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "KTAnalytics/TrackingArchitecture/Plan/TrackingPlanCatalogue.h"

namespace kt::gateway {
namespace {

using nlohmann::json;
using Found = std::vector<std::pair<std::string, json>>;  // rule, key (null for none)

json track(const std::string& event, std::int64_t version, json properties) {
    return json{{"type", "track"}, {"messageId", "m"}, {"anonymousId", "a"}, {"event", event},
                {"properties", std::move(properties)}, {"context", {{"protocols", {{"event_version", version}}}}}};
}

// "Account Information Confirmed" v1: client_id number, method an enumeration.
json confirmed(json properties) { return track("Account Information Confirmed", 1, std::move(properties)); }
// "Action Screen Opened" v1: object_urn urn, then two optional keys (a string and a urn).
json opened(json urn, json name = nullptr) {
    return track("Action Screen Opened", 1, {{"object_urn", std::move(urn)}, {"ui_component_name", std::move(name)},
                                             {"ui_component_urn", nullptr}});
}
json event(const std::string& name, json payload) {
    return json{{"event", name}, {"version", "v1.27.36"}, {"payload", std::move(payload)}};
}

TEST(PlanValidation, eachRuleHasAnItemThatBreaksItAndOneThatKeepsIt) {
    const std::string method(tracking::findPlanEnumeration("AccountInformationConfirmedMethod")->descriptions[0]);
    const json base{{"session_id", "s"}, {"connection_type", "wifi"}, {"ts", 1}};
    auto with = [](json object, const std::string& key, json value) {
        object[key] = std::move(value);
        return object;
    };
    auto without = [](json object, const std::string& key) {
        object.erase(key);
        return object;
    };
    const json kept = confirmed({{"client_id", 7}, {"method", method}});
    const struct {
        std::string rule;
        json item;
        Found found;
        bool gatewayEvent = false;
    } cases[] = {
        {"kept", kept, {}},
        {"unknown_event", with(kept, "event", "Account Information Confirmd"), {{"unknown_event", nullptr}}},
        {"wrong_version", track("Account Information Confirmed", 2, kept["properties"]), {{"wrong_version", nullptr}}},
        {"wrong_version: absent", without(kept, "context"), {{"wrong_version", nullptr}}},
        {"missing_key", confirmed({{"client_id", 7}}), {{"missing_key", "method"}}},
        {"missing_key: an optional key left out", without(opened("quillarbor:tracks:1"), "properties") , {{"missing_key", "object_urn"}, {"missing_key", "ui_component_name"}, {"missing_key", "ui_component_urn"}}},
        {"kept: optional keys sent as null", opened("quillarbor:tracks:1"), {}},
        {"kept: optional key given", opened("quillarbor:tracks:1", "header"), {}},
        {"unknown_key", confirmed({{"client_id", 7}, {"method", method}, {"extra", 1}, {"providers", {{"Firebase", true}}}}),
         {{"unknown_key", "extra"}}},
        {"wrong_kind: a string for a number", confirmed({{"client_id", "7"}, {"method", method}}),
         {{"wrong_kind", "client_id"}}},
        {"wrong_kind: null where required", confirmed({{"client_id", nullptr}, {"method", method}}),
         {{"wrong_kind", "client_id"}}},
        {"wrong_kind: not a urn", opened("tracks/1"), {{"wrong_kind", "object_urn"}}},
        {"wrong_kind: a number for an optional string", opened("quillarbor:tracks:1", 3),
         {{"wrong_kind", "ui_component_name"}}},
        {"wrong_kind: a list of strings", track("Account Deletion Confirmed", 1, {{"reasons", {"a", 1}}}),
         {{"wrong_kind", "reasons"}}},
        {"kept: a list of strings", track("Account Deletion Confirmed", 1, {{"reasons", {"a"}}}), {}},
        {"not_a_case", confirmed({{"client_id", 7}, {"method", method + "!"}}), {{"not_a_case", "method"}}},
        {"kept: an identify is not in the plan",
         json{{"type", "identify"}, {"messageId", "i"}, {"userId", "u"}, {"traits", {{"x", 1}}}}, {}},
        {"unsupported_event", event("play", base), {{"unsupported_event", nullptr}}, true},
        {"kept: a supported event with its base attributes", event("impression", base), {}, true},
        {"missing_base_attribute", event("impression", without(base, "ts")), {{"missing_base_attribute", "ts"}}, true},
        {"missing_base_attribute: vpn on audio", event("audio", base), {{"missing_base_attribute", "vpn"}}, true},
        {"kept: audio with vpn", event("audio", with(base, "vpn", false)), {}, true},
    };
    for (const auto& c : cases) {
        Found found;
        for (const Violation& v : c.gatewayEvent ? gatewayEventViolations(c.item) : messageViolations(c.item)) {
            found.emplace_back(v.rule, v.key ? json(*v.key) : json(nullptr));
            EXPECT_FALSE(v.detail.empty()) << c.rule;
        }
        EXPECT_EQ(found, c.found) << c.rule;
    }
}

}  // namespace
}  // namespace kt::gateway
