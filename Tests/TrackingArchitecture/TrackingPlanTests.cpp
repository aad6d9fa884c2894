// The tracking plan end to end: every operation on both roads (typed and by name) against
// the plan's table, its enumerations, and the faults of calls by name; and widget launch
// URLs, reported as "Widget Item Opened" and cleaned of their markers.

#include <gtest/gtest.h>

#include <limits>
#include <map>

#include "Support/RecordingBroker.h"
#include "Support/RecordingLogger.h"
#include "KTAnalytics/TrackingArchitecture/EventSender.h"
#include "KTAnalytics/TrackingArchitecture/Plan/PlanCall.h"
#include "KTAnalytics/TrackingArchitecture/Plan/TrackingPlanCatalogue.h"
#include "KTAnalytics/TrackingArchitecture/Widget/WidgetAnalyticsHandler.h"

namespace kt {
namespace {

using tracking::PlanOperation;
using tracking::PropertyKind;

using testing::RecordingBroker;

struct Recorded {
    std::shared_ptr<RecordingBroker> broker = std::make_shared<RecordingBroker>();
    EventSender sender{broker};
};

/// Hands the typed operations their arguments, read from the same JSON object that the
/// call by name is given.
class ArgumentValues {
public:
    explicit ArgumentValues(const AttributeValue& arguments) : arguments_(arguments) {}

    std::string string(const char* key) const { return arguments_.at(key).get<std::string>(); }
    bool boolean(const char* key) const { return arguments_.at(key).get<bool>(); }
    PlanNumber number(const char* key) const {
        const auto& value = arguments_.at(key);
        return value.is_number_float() ? PlanNumber(value.get<double>()) : PlanNumber(value.get<std::int64_t>());
    }
    AttributeValue map(const char* key) const { return arguments_.at(key); }
    AttributeValue maps(const char* key) const { return arguments_.at(key); }
    AttributeValue strings(const char* key) const { return arguments_.at(key); }
    Urn urn(const char* key) const { return Urn::parse(string(key)).value(); }
    std::vector<Urn> urns(const char* key) const {
        std::vector<Urn> urns;
        for (const auto& text : arguments_.at(key)) urns.push_back(Urn::parse(text.get<std::string>()).value());
        return urns;
    }
    template <class E>
    E enumeration(const char* key) const {
        return static_cast<E>(arguments_.at(key).get<std::int64_t>());
    }

    std::optional<std::string> optionalString(const char* key) const { return given(key, &ArgumentValues::string); }
    std::optional<bool> optionalBoolean(const char* key) const { return given(key, &ArgumentValues::boolean); }
    std::optional<PlanNumber> optionalNumber(const char* key) const { return given(key, &ArgumentValues::number); }
    std::optional<AttributeValue> optionalMap(const char* key) const { return given(key, &ArgumentValues::map); }
    std::optional<AttributeValue> optionalMaps(const char* key) const { return given(key, &ArgumentValues::maps); }
    std::optional<AttributeValue> optionalStrings(const char* key) const { return given(key, &ArgumentValues::strings); }
    std::optional<Urn> optionalUrn(const char* key) const { return given(key, &ArgumentValues::urn); }
    std::optional<std::vector<Urn>> optionalUrns(const char* key) const { return given(key, &ArgumentValues::urns); }
    template <class E>
    std::optional<E> optionalEnumeration(const char* key) const {
        return given(key, &ArgumentValues::enumeration<E>);
    }

private:
    template <class T>
    std::optional<T> given(const char* key, T (ArgumentValues::*read)(const char*) const) const {
        if (!arguments_.contains(key) || arguments_.at(key).is_null()) return std::nullopt;
        return (this->*read)(key);
    }
    const AttributeValue& arguments_;
};

using TypedCall = void (*)(EventSending&, const ArgumentValues&);
const std::map<std::string_view, TypedCall> kTypedCalls = {
#include "KTAnalytics/TrackingArchitecture/Plan/TrackingPlanTypedCalls.inc"
};

enum class Optionals { given, null, leftOut };

/// Arguments for every property of an operation, each value telling its key and position
/// apart from the others, and the event the table says they make.
std::pair<AttributeValue, TrackingEvent> argumentsAndEvent(const PlanOperation& operation, Optionals optionals) {
    auto arguments = AttributeValue::object();
    TrackingEvent event{std::string(operation.event), operation.version, TrackingProperties{},
                        std::vector<std::string>(operation.thirdParties.begin(), operation.thirdParties.end())};
    std::int64_t position = 0;
    for (const auto& property : operation.properties) {
        const std::string key(property.key);
        AttributeValue argument, sent;
        switch (property.kind) {
            case PropertyKind::string: argument = sent = key + "-text"; break;
            case PropertyKind::boolean: argument = sent = position % 2 == 0; break;
            // Fractions too: a number is sent as given.
            case PropertyKind::number: argument = sent = position % 2 ? AttributeValue(1000.5 + position) : AttributeValue(1000 + position);
                break;
            case PropertyKind::map: argument = sent = {{"from", key}, {"nested", {{"n", position}}}}; break;
            case PropertyKind::maps: argument = sent = AttributeValue::array({{{"item", key}}, {{"item", 2}}}); break;
            case PropertyKind::strings: argument = sent = {key, "second"}; break;
            case PropertyKind::urn: argument = sent = "quillarbor:tracks:" + key; break;
            case PropertyKind::urns:
                argument = sent = {"quillarbor:tracks:" + key + "-1", "quillarbor:playlists:" + key + "-2"};
                break;
            case PropertyKind::enumeration: {
                const auto& strings = tracking::findPlanEnumeration(property.enumeration)->descriptions;
                const auto raw = (position + 1) % std::int64_t(strings.size());
                argument = raw;
                sent = std::string(strings[raw]);
                break;
            }
        }
        ++position;
        if (property.optional && optionals != Optionals::given) {
            if (optionals == Optionals::null) arguments[key] = nullptr;
            event.properties->emplace_back(key, std::nullopt);
            continue;
        }
        arguments[key] = argument;
        event.properties->emplace_back(key, sent);
    }
    return {arguments, event};
}

TEST(TrackingPlan, EveryOperationSendsTheTablesEventOnTheTypedRoadAndByName) {
    ASSERT_EQ(tracking::planOperations().size(), 206u);
    ASSERT_EQ(kTypedCalls.size(), 206u);
    for (const auto& operation : tracking::planOperations()) {
        for (auto optionals : {Optionals::given, Optionals::null, Optionals::leftOut}) {
            SCOPED_TRACE(std::string(operation.name) + " optionals " + std::to_string(int(optionals)));
            const auto [arguments, expected] = argumentsAndEvent(operation, optionals);
            Recorded typed, byName;
            kTypedCalls.at(operation.name)(typed.sender, ArgumentValues(arguments));
            const auto error = tracking::callOperation(byName.sender, operation.name, arguments);
            EXPECT_FALSE(error) << error->message;
            EXPECT_EQ(typed.broker->events, std::vector{expected});
            EXPECT_EQ(byName.broker->events, std::vector{expected});
        }
    }
}

// In code, a raw value outside the cases can only be a programming error (by name it is
// bad data: see the faults below).
TEST(TrackingPlanDeathTest, DuplicateKeysAndRawValuesOutsideTheCasesStopTheProcessOnTheTypedRoad) {
    Recorded r;
    EXPECT_DEATH(r.sender.send("Track Liked", 1, {{"track_urn", "a"}, {"ui_component_name", "b"}, {"track_urn", "c"}}),
                 "Duplicate property key 'track_urn'");
    EXPECT_DEATH(r.sender.adRequested(AdRequestedAdComponent{}, std::nullopt, static_cast<AdRequestedPlacement>(7), 1, 2,
                                      std::nullopt),
                 "AdRequestedPlacement has no case with raw value 7");
    EXPECT_DEATH(description(static_cast<TracksAddedToPlayQueueFrom>(-1)),
                 "TracksAddedToPlayQueueFrom has no case with raw value -1");
}

// One table for both roads: a number given to the typed operation in code, and the same
// number given by name as JSON, are each sent as that JSON.
TEST(TrackingPlan, NumbersAreSentAsGivenIntegersExactAndFractionsKept) {
    const std::pair<PlanNumber, const char*> cases[] = {
        {std::int64_t{2}, "2"}, {2.5, "2.5"}, {2.0, "2.0"}, {-0.25, "-0.25"}, {std::int64_t{-7}, "-7"},
        {std::int64_t{0}, "0"},
        // Past 2^53 a double would round (9007199254740992).
        {std::int64_t{9007199254740993}, "9007199254740993"},
        {std::numeric_limits<std::int64_t>::max(), "9223372036854775807"},
        {std::numeric_limits<std::uint64_t>::max(), "18446744073709551615"},
    };
    for (const auto& [typed, text] : cases) {
        SCOPED_TRACE(text);
        Recorded r;
        r.sender.adRequested(AdRequestedAdComponent{}, typed, AdRequestedPlacement{}, typed, typed, std::nullopt);
        const auto n = AttributeValue::parse(text);
        ASSERT_FALSE(tracking::callOperation(r.sender, "adRequested", {{"ad_component", 0}, {"last_ad_timer", n},
                                                                       {"placement", 0}, {"timestamp", n}, {"ad_capacity", n}}));
        ASSERT_EQ(r.broker->events.size(), 2u);
        // last_ad_timer (optional), timestamp and ad_capacity.
        for (const auto& event : r.broker->events)
            for (std::size_t i : {1, 3, 4}) EXPECT_EQ((*event.properties)[i].second.value().dump(), text);
    }
}

template <class E>
std::vector<std::string> checkEnumeration() {
    std::vector<std::string> strings;
    const auto count = PlanEnumerationTraits<E>::caseCount;
    for (std::int64_t raw = 0; raw < count; ++raw) {
        const auto value = fromRawValue<E>(raw);
        EXPECT_TRUE(value && rawValue(*value) == raw) << PlanEnumerationTraits<E>::name << " " << raw;
        strings.emplace_back(description(static_cast<E>(raw)));
    }
    EXPECT_EQ(fromRawValue<E>(count), std::nullopt) << PlanEnumerationTraits<E>::name;
    EXPECT_EQ(fromRawValue<E>(-1), std::nullopt) << PlanEnumerationTraits<E>::name;
    return strings;
}

TEST(TrackingPlan, EnumerationsDescribeTheirCasesByRawValueFromTheTable) {
    const std::map<std::string_view, std::vector<std::string> (*)()> checks = {
#include "KTAnalytics/TrackingArchitecture/Plan/TrackingPlanEnumerationRows.inc"
    };
    ASSERT_EQ(tracking::planEnumerations().size(), 126u);
    ASSERT_EQ(checks.size(), 126u);
    for (const auto& enumeration : tracking::planEnumerations()) {
        SCOPED_TRACE(std::string(enumeration.name));
        EXPECT_EQ(checks.at(enumeration.name)(),
                  std::vector<std::string>(enumeration.descriptions.begin(), enumeration.descriptions.end()));
    }

    using Strings = std::vector<std::string>;
    const std::map<std::string_view, Strings> given = {
        {"AdRequestedPlacement",
         {"app_launch", "mid_queue", "play_start", "playlist_page", "queue_start", "track_page", "unknown"}},
        {"TracksAddedToPlayQueueFrom", {"autoplay", "next_up", "fetch_more", "play_next", "play_last"}},
        {"FirstFansButtonClickedButtonType", {"CTA", "Decline", "Link"}},
        {"CustomShareStartedSocialTarget", {"Facebook", "Instagram", "Snapchat"}},
        {"ProductViewedUpsellType",
         {"audio-ad", "inline", "inline-feature", "interstitial-ad", "not_set", "overlay", "plan-picker",
          "simple-paywall"}},
        {"WidgetItemOpenedWidgetFamily",
         {"accessoryCircular", "accessoryInline", "accessoryRectangular", "none", "systemExtraLarge", "systemLarge",
          "systemMedium", "systemSmall"}},
        {"AccountInformationConfirmedMethod", {"apple", "email", "facebook", "google"}},
        {"AuthenticationMethodSelectedMethod", {"apple", "email", "facebook", "google"}},
    };
    for (const auto& [name, strings] : given) EXPECT_EQ(checks.at(name)(), strings) << name;
}

TEST(TrackingPlan, CallsByNameWithFaultyArgumentsSendNothingAndNameTheFault) {
    const AttributeValue account = {{"is_new_connect", true}, {"signin_to_signup", false}, {"signup_method", "email"}};
    const auto with = [](AttributeValue arguments, const char* key, AttributeValue value) {
        arguments[key] = std::move(value);
        return arguments;
    };
    const auto without = [](AttributeValue arguments, const char* key) {
        arguments.erase(key);
        return arguments;
    };
    const AttributeValue queue = {{"from", 1}, {"track_urns", {"quillarbor:tracks:1"}}};
    const AttributeValue deletion = {{"reasons", {"too many ads"}}};
    const AttributeValue opportunity = {{"app_state", 0}, {"intended_ad_timer", 30}, {"placement", 1},
                                        {"timestamp", 5}, {"ads_in_opportunity", AttributeValue::array()},
                                        {"ads_presented", AttributeValue::array()}};
    struct Case {
        const char* operation;
        AttributeValue arguments;
        const char* key;
        const char* message;
    } cases[] = {
        {"accountCreated", account, "", "unknown operation 'accountCreated'"},
        {"accountCreationSucceeded", without(account, "signup_method"), "signup_method",
         "'accountCreationSucceeded' needs the argument 'signup_method'"},
        {"accountCreationSucceeded", with(account, "signup_method", nullptr), "signup_method", "needs the argument"},
        {"accountCreationSucceeded", with(account, "is_new_connect", "yes"), "is_new_connect", "is not a boolean"},
        {"accountCreationSucceeded", with(account, "signupMethod", "email"), "signupMethod",
         "'accountCreationSucceeded' has no argument 'signupMethod'"},
        {"accountCreationSucceeded", with(account, "referrer_properties", {1, 2}), "referrer_properties", "is not a map"},
        {"accountCreationSucceeded", AttributeValue::array({1}), "", "are not a JSON object"},
        {"accountInformationConfirmed", {{"client_id", "7"}, {"method", 0}}, "client_id", "is not a number"},
        {"accountInformationConfirmed", {{"client_id", true}, {"method", 0}}, "client_id", "is not a number"},
        {"accountInformationConfirmed", {{"client_id", 7}, {"method", "email"}}, "method", "is not an integer"},
        {"accountInformationConfirmed", {{"client_id", 7}, {"method", 1.0}}, "method", "is not an integer"},
        // Data that names no case is refused, not fatal.
        {"adRequested", {{"ad_component", 0}, {"placement", 7}, {"timestamp", 1}, {"ad_capacity", 2}}, "placement",
         "'placement' of 'adRequested' is 7, and AdRequestedPlacement has no case with that raw value (0 to 6)"},
        {"tracksAddedToPlayQueue", with(queue, "from", -1), "from", "is -1, and TracksAddedToPlayQueueFrom has no case"},
        {"accountDeletionConfirmed", with(deletion, "reasons", {"ok", 3}), "reasons", "is not a list of strings"},
        {"adOpportunityPresented", with(opportunity, "ads_presented", {"ad"}), "ads_presented", "is not a list of maps"},
        {"trackLiked", {{"track_urn", "tracks:1"}}, "track_urn", "is not a urn: \"tracks:1\""},
        {"trackLiked", {{"track_urn", 1}}, "track_urn", "is not a urn"},
        {"trackLiked", {{"track_urn", "quillarbor:tracks:1"}, {"ui_component_urn", "nope"}}, "ui_component_urn",
         "is not a urn"},
        {"tracksAddedToPlayQueue", with(queue, "track_urns", {"quillarbor:tracks:1", "bad"}), "track_urns",
         "is not a list of urns"},
        {"tracksAddedToPlayQueue", with(queue, "track_urns", "quillarbor:tracks:1"), "track_urns", "is not a list of urns"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.operation) + " " + c.arguments.dump());
        Recorded r;
        const auto error = tracking::callOperation(r.sender, c.operation, c.arguments);
        ASSERT_TRUE(error);
        EXPECT_EQ(error->operation, c.operation);
        EXPECT_EQ(error->key, c.key);
        EXPECT_NE(error->message.find(c.message), std::string::npos) << error->message;
        EXPECT_TRUE(r.broker->events.empty());
    }
    // A call without arguments may pass null for its empty argument list.
    Recorded r;
    EXPECT_EQ(tracking::callOperation(r.sender, "appCacheCleared", nullptr), std::nullopt);
    EXPECT_EQ(r.broker->events.size(), 1u);
}

TEST(WidgetAnalyticsHandler, ReportsCompleteWidgetURLsAndReturnsThemWithoutTheMarkers) {
    const auto incomplete = [](const char* family, const char* kind) {
        return std::string("Could not get all required parameters to send `Widget Item Opened` event. `widgetFamily` "
                           "enum: `") + family + "`, widgetKind query item: `" + kind + "`";
    };
    const auto opened = [](const char* family, const char* kind) {
        return TrackingEvent{"Widget Item Opened", 2,
                             TrackingProperties{{"tap_type", "none"},
                                                {"widget_family", family},
                                                {"widget_kind", kind},
                                                {"widget_size", std::nullopt}},
                             {}};
    };
    using Lines = std::vector<std::pair<int, std::string>>;
    struct Case {
        std::string url;
        std::string returned;  // the URL itself when it does not match
        std::vector<TrackingEvent> events;
        std::optional<std::string> warning;  // logged before the match
    };
    const std::string base = "https://quillarbor.example/tracks/1";
    const Case cases[] = {
        {base + "?source=widget&widgetKind=nowPlaying&widgetFamily=systemSmall", base, {opened("systemSmall", "nowPlaying")}},
        {base + "?ref=home&source=widget&widgetFamily=accessoryInline&widgetKind=likedTracks&t=2", base + "?ref=home&t=2",
         {opened("accessoryInline", "likedTracks")}},
        // "none" is no family a widget has.
        {base + "?source=widget&widgetKind=nowPlaying&widgetFamily=none", base, {}, incomplete("nil", "nowPlaying")},
        {base + "?source=widget&widgetFamily=systemLarge&widgetKind=NowPlaying", base, {}, incomplete("systemLarge", "nil")},
        {base + "?source=push&widgetKind=nowPlaying&widgetFamily=systemSmall",
         base + "?source=push&widgetKind=nowPlaying&widgetFamily=systemSmall", {}},
        {base + "?source=Widget", base + "?source=Widget", {}},
        {base, base, {}},
        // An empty query before a fragment: Boost.URL 1.81 reads its items past the end.
        {base + "?#top", base + "?#top", {}},
        {"https://exa mple.com/?source=widget", "https://exa mple.com/?source=widget", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.url);
        auto broker = std::make_shared<RecordingBroker>();
        auto logger = std::make_shared<testing::RecordingLogger>();
        WidgetAnalyticsHandler handler(std::make_shared<EventSender>(broker), logger);
        EXPECT_EQ(handler.handle(c.url), c.returned);
        EXPECT_EQ(broker->events, c.events);
        Lines expected{{0, "checking URL `" + c.url + "`"}};
        if (c.warning) expected.emplace_back(2, *c.warning);
        expected.emplace_back(0, c.returned == c.url ? "URL does not match widget parameters. Returning original URL."
                                                     : "`" + c.url + "` Matched. Removed widget paramers and returning "
                                                       "cleaned URL `" + c.returned + "`");
        Lines logged;
        for (const auto& record : logger->records()) {
            logged.emplace_back(record.level, record.message);
            EXPECT_EQ(record.file, "Sources/TrackingArchitecture/Widget/WidgetAnalyticsHandler");
        }
        EXPECT_EQ(logged, expected);
    }
}

TEST(WidgetAnalyticsHandlerDeathTest, NeedsAnEventSender) {
    EXPECT_DEATH(WidgetAnalyticsHandler(nullptr), "Invalid parameter not satisfying: evenSender");
}

}  // namespace
}  // namespace kt
