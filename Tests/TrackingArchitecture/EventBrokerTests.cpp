// The broker's nulls and integrations map, and the sender's road to it.

#include <gtest/gtest.h>

#include "KTAnalytics/TrackingArchitecture/EventBroker.h"
#include "KTAnalytics/TrackingArchitecture/EventSender.h"

namespace kt {
namespace {

struct RecordingWrapper final : SegmentWrapping {
    struct Call {
        std::string kind, name;
        std::int64_t version = 0;
        std::optional<AttributeValue> values;
        SegmentIntegrations integrations;
        bool operator==(const Call&) const = default;
    };
    std::vector<Call> calls;
    int flushes = 0;
    void track(const std::string& name, std::int64_t version, const std::optional<AttributeValue>& properties,
               const SegmentIntegrations& integrations) override {
        calls.push_back({"track", name, version, properties, integrations});
    }
    void identify(const std::string& userId, const std::optional<AttributeValue>& traits,
                  const SegmentIntegrations& integrations) override {
        calls.push_back({"identify", userId, 0, traits, integrations});
    }
    void flush() override { ++flushes; }
};

TEST(EventBroker, SendsAbsentValuesAsNullAndDecidesTheIntegrationsMapInOrder) {
    const AttributeValue providers = {{"Firebase", true}, {"Other", true}, {"MoEngage", false}};
    struct Case {
        const char* name;
        std::optional<TrackingProperties> properties;
        std::vector<std::string> thirdParties;
        std::optional<AttributeValue> sent;
        SegmentIntegrations integrations;
    } cases[] = {
        {"absent values", TrackingProperties{{"a", std::nullopt}, {"b", AttributeValue("x")}}, {},
         AttributeValue{{"a", nullptr}, {"b", "x"}}, {{"All", false}}},
        {"no map at all", std::nullopt, {}, std::nullopt, {{"All", false}}},
        {"one third party", TrackingProperties{}, {"mo-engage"}, AttributeValue::object(),
         {{"MoEngage", true}, {"All", false}}},
        {"unknown and repeated names", TrackingProperties{}, {"mo-engage", "unknown", "braze", "mo-engage"},
         AttributeValue::object(), {{"MoEngage", true}, {"Appboy", true}, {"All", false}}},
        {"providers kept in properties", TrackingProperties{{"providers", providers}}, {},
         AttributeValue{{"providers", providers}}, {{"Firebase", true}, {"MoEngage", false}, {"All", false}}},
        {"third parties win over providers", TrackingProperties{{"providers", providers}}, {"braze"},
         AttributeValue{{"providers", providers}}, {{"Appboy", true}, {"All", false}}},
        {"providers that are not booleans", TrackingProperties{{"providers", AttributeValue{{"Firebase", "yes"}}}}, {},
         AttributeValue{{"providers", {{"Firebase", "yes"}}}}, {{"All", false}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto wrapper = std::make_shared<RecordingWrapper>();
        EventBroker(wrapper).track(TrackingEvent{"Account Creation Succeeded", 2, c.properties, c.thirdParties});
        EXPECT_EQ(wrapper->calls, (std::vector<RecordingWrapper::Call>{
                                      {"track", "Account Creation Succeeded", 2, c.sent, c.integrations}}));
    }
}

TEST(EventSender, IdentifiesWithNoIntegrationAndFlushesThroughTheBroker) {
    auto wrapper = std::make_shared<RecordingWrapper>();
    EventSender sender(std::make_shared<EventBroker>(wrapper));
    sender.identify("u1", AttributeValue{{"plan", nullptr}, {"age", 30}});
    sender.flush();
    EXPECT_EQ(wrapper->calls, (std::vector<RecordingWrapper::Call>{
                                  {"identify", "u1", 0, AttributeValue{{"plan", nullptr}, {"age", 30}}, {{"All", false}}}}));
    EXPECT_EQ(wrapper->flushes, 1);
}

}  // namespace
}  // namespace kt
