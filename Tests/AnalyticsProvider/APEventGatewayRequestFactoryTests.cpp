#include "AnalyticsProvider/EventGateway/Upload/APEventGatewayRequestFactory.h"

#include <chrono>
#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "AnalyticsProvider/EventGateway/AnalyticsAttributeRegistry.h"
#include "AnalyticsProvider/EventGateway/Upload/GzipCodec.h"
#include "KTFoundation/CredentialStore.h"
#include "KTFoundation/DependencyRegistry.h"

namespace kt {
namespace {

using namespace std::chrono;
using Events = APEventGatewayRequestFactory::Events;

// 2024-05-01T09:30:00.125Z
const Date kSentAt = Date(milliseconds(1714555800125));

class APEventGatewayRequestFactoryTests : public ::testing::Test {
protected:
    APEventGatewayRequestFactoryTests() {
        registry->registerClientId(42, "KTAnalyticsTests/1.0 (Linux)");
    }

    APEventGatewayRequestFactory factory(bool shouldSendSentAt, std::string baseURL = "http://127.0.0.1:8080") {
        return APEventGatewayRequestFactory(std::move(baseURL), registry, JSONSafeSerialization(), keychain, {},
                                            shouldSendSentAt, [] { return kSentAt; });
    }

    static AttributeValue decodedBody(const HTTPRequest& request) {
        auto json = GzipCodec::gunzippedData(request.body);
        return AttributeValue::parse(*json);
    }

    DependencyRegistry dependencies;
    std::shared_ptr<AnalyticsAttributeRegistry> registry = std::make_shared<AnalyticsAttributeRegistry>(dependencies);
    std::shared_ptr<InMemoryCredentialStore> keychain = std::make_shared<InMemoryCredentialStore>();
    Events batch{APEvent::make("pageview", AttributeDictionary{{"page_name", "stream:main"}, {"n", 1}}),
                 APEvent::make("like", AttributeDictionary{{"track_urn", "quillarbor:tracks:1"}}),
                 APEvent::make("click", value::dictionary())};
};

TEST_F(APEventGatewayRequestFactoryTests, HeadersInOrderWithCredential) {
    keychain->setCredential("token-123");
    auto request = factory(false).requestForEvents(batch);
    ASSERT_TRUE(request);
    EXPECT_EQ(request->url, "http://127.0.0.1:8080/v1/events");
    EXPECT_EQ(request->method, "POST");
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"User-Agent", "KTAnalyticsTests/1.0 (Linux)"},
        {"Content-Type", "application/json"},
        {"Content-Encoding", "gzip"},
        {"Authorization", "Bearer token-123"},
    };
    EXPECT_EQ(request->headers, expected);
}

TEST_F(APEventGatewayRequestFactoryTests, SignedOutRequestHasNoAuthorization) {
    auto request = factory(false).requestForEvents(batch);
    ASSERT_TRUE(request);
    EXPECT_EQ(request->value("Authorization"), nullptr);
    EXPECT_EQ(request->headers.size(), 3u);
    EXPECT_TRUE(GzipCodec::isGzippedData(request->body));
}

TEST_F(APEventGatewayRequestFactoryTests, WithoutAUserAgentTheHeaderIsLeftOut) {
    DependencyRegistry otherDependencies;
    auto unregistered = std::make_shared<AnalyticsAttributeRegistry>(otherDependencies);
    APEventGatewayRequestFactory bare("http://h", unregistered, JSONSafeSerialization(), nullptr, {}, false);
    auto request = bare.requestForEvents(batch);
    ASSERT_TRUE(request);
    EXPECT_EQ(request->value("User-Agent"), nullptr);
    EXPECT_EQ(*request->value("Content-Type"), "application/json");
}

TEST_F(APEventGatewayRequestFactoryTests, BareArrayBodyIsTheGatewayDictionariesInOrder) {
    std::size_t rawSize = 0;
    auto request = factory(false).requestForEvents(batch, nullptr, &rawSize);
    ASSERT_TRUE(request);
    AttributeValue expected = AttributeValue::array();
    for (const auto& e : batch) expected.push_back(e->eventGatewayDictionary());
    EXPECT_EQ(decodedBody(*request), expected);
    EXPECT_EQ(rawSize, GzipCodec::gunzippedData(request->body)->size());
    EXPECT_EQ(decodedBody(*request)[0]["version"], "v1.27.36");
}

TEST_F(APEventGatewayRequestFactoryTests, TimeStampedBodyHasExactlyEventsAndSentAt) {
    auto request = factory(true).requestForEvents(batch);
    ASSERT_TRUE(request);
    AttributeValue body = decodedBody(*request);
    ASSERT_TRUE(body.is_object());
    EXPECT_EQ(body.size(), 2u);
    EXPECT_EQ(body["sent_at"], "2024-05-01T09:30:00.125Z");
    ASSERT_EQ(body["events"].size(), 3u);
    EXPECT_EQ(body["events"][0]["event"], "pageview");
    EXPECT_EQ(body["events"][1]["event"], "like");
    EXPECT_EQ(body["events"][2]["payload"], value::dictionary());
}

TEST_F(APEventGatewayRequestFactoryTests, CallerSuppliedDateFormatterIsUsed) {
    APEventGatewayRequestFactory custom("http://h", registry, JSONSafeSerialization(), keychain,
                                        [](Date d) { return std::to_string(duration_cast<seconds>(d.time_since_epoch()).count()); },
                                        true, [] { return kSentAt; });
    EXPECT_EQ(decodedBody(*custom.requestForEvents(batch))["sent_at"], "1714555800");
}

TEST_F(APEventGatewayRequestFactoryTests, PathIsAppendedToAnyBase) {
    EXPECT_EQ(factory(false, "http://h:8080/").requestForEvents(batch)->url, "http://h:8080/v1/events");
    EXPECT_EQ(factory(false, "https://h/api").requestForEvents(batch)->url, "https://h/api/v1/events");
    EXPECT_EQ(factory(false, "https://h/api/?x=1").requestForEvents(batch)->url, "https://h/api/v1/events?x=1");
}

TEST_F(APEventGatewayRequestFactoryTests, UnrepresentableValuesGiveNoRequestAndAnError) {
    const std::vector<AttributeValue> bad = {
        std::numeric_limits<double>::quiet_NaN(),
        std::numeric_limits<double>::infinity(),
        value::date(kSentAt),
        std::string("\xff\xfe broken"),
    };
    for (const auto& value : bad) {
        Events events = batch;
        events.push_back(APEvent::make("pageview", AttributeDictionary{{"bad", value}}));
        std::string error;
        EXPECT_EQ(factory(false).requestForEvents(events, &error), std::nullopt);
        EXPECT_FALSE(error.empty());
        error.clear();
        EXPECT_EQ(factory(true).requestForEvents(events, &error), std::nullopt);
        EXPECT_FALSE(error.empty());
    }
}

TEST_F(APEventGatewayRequestFactoryTests, EmptyBatchIsAProgrammingError) {
    auto f = factory(false);
    EXPECT_DEATH(f.requestForEvents({}), "Invalid parameter not satisfying: \\[events count\\] > 0");
}

TEST(APEventGatewayRequestFactoryDateTests, DefaultFormatIsUtcWithMilliseconds) {
    auto format = APEventGatewayRequestFactory::iso8601DateFormatter();
    EXPECT_EQ(format(kSentAt), "2024-05-01T09:30:00.125Z");
    EXPECT_EQ(format(Date(milliseconds(0))), "1970-01-01T00:00:00.000Z");
}

}  // namespace
}  // namespace kt
