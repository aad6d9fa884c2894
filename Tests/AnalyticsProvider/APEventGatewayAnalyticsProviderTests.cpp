#include "KTAnalytics/AnalyticsProvider/EventGateway/APEventGatewayAnalyticsProvider.h"

#include <functional>
#include <future>
#include <thread>
#include <tuple>

#include <gtest/gtest.h>

#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/APEventGatewayAnalyticsRecording.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/APEventGatewayEventTransformer.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/APEventGatewayEventTransforming.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventGatewayUploading.h"
#include "KTAnalytics/Platform/SerialQueue.h"

namespace kt {
namespace {

class FixedAttributesProvider final : public EventGatewayAttributesProviding {
public:
    explicit FixedAttributesProvider(AttributeDictionary base) : base_(std::move(base)) {}
    AttributeDictionary baseAttributesFor(const APEventDescripting& event) const override {
        asked.push_back(event.name());
        return base_;
    }
    mutable std::vector<std::string> asked;

private:
    AttributeDictionary base_;
};

// The base is read for every event, so its sources (the session id above all) see each one.
TEST(APEventGatewayEventTransformerTest, MergesTheBaseAttributesIntoACopy) {
    const std::vector<std::tuple<AttributeDictionary, std::optional<AttributeDictionary>, AttributeDictionary>> cases = {
        {{{"session_id", "S"}, {"ts", 5}},
         AttributeDictionary{{"resource", "track"}, {"resource_id", 12}, {"set", "p"}, {"x", {1, 2}}},
         {{"x", {1, 2}}, {"session_id", "S"}, {"ts", 5}}},
        {{{"user", "base-user"}, {"set", "from-base"}, {"resource_id", 1}},
         AttributeDictionary{{"user", "event-user"}, {"keep", nullptr}}, {{"user", "base-user"}, {"keep", nullptr}}},
        {{{"ts", 1}}, AttributeDictionary{{"resource", "r"}}, {{"ts", 1}}},
        {{{"session_id", "S"}}, std::nullopt, AttributeDictionary::object()},
    };
    for (const auto& [base, attributes, expected] : cases) {
        SCOPED_TRACE(base.dump());
        auto provider = std::make_shared<FixedAttributesProvider>(base);
        APEventGatewayEventTransformer transformer(provider);
        const auto input = APEvent::make("like", attributes);
        const auto output = std::dynamic_pointer_cast<const APEvent>(transformer.transform(*input));
        ASSERT_TRUE(output) << "the gateway uploads only APEvents";
        EXPECT_EQ(output->name(), "like");
        EXPECT_EQ(*output->attributes(), expected);
        EXPECT_EQ(transformer.transformedAttributesForEvent(*input).has_value(), attributes.has_value());
        EXPECT_EQ(provider->asked, (std::vector<std::string>{"like", "like"}));
        // The event handed in is shared with other providers and must not change.
        EXPECT_EQ(input->attributes() ? std::optional(*input->attributes()) : std::nullopt, attributes);
    }
    EXPECT_DEATH(APEventGatewayEventTransformer(nullptr), "Invalid parameter not satisfying: attributesProvider");
}

// What happened, in order, across the recorder and the uploader.
using Journal = std::vector<std::string>;

struct JournalingUploader final : APEventGatewayUploading {
    explicit JournalingUploader(Journal& journal) : journal(journal) {}
    void uploadEvent(const std::shared_ptr<const APEvent>& event) override {
        journal.push_back("upload " + event->name());
        uploaded.push_back(event);
    }
    void flush() override { journal.push_back("flush"); }
    void discardEvent(const APEventDescripting& event, APEventDropReason reason) override {
        journal.push_back("discard " + event.name() + " " + std::string(eventDropReasonKey(reason)));
    }
    void discardEventBeforeQueue(APEventDropReason reason) override {
        journal.push_back("discard before the queue " + std::string(eventDropReasonKey(reason)));
    }
    Journal& journal;
    std::vector<std::shared_ptr<const APEvent>> uploaded;
};

struct JournalingRecorder final : APEventGatewayAnalyticsRecording {
    explicit JournalingRecorder(Journal& journal) : journal(journal) {}
    bool recording() const override { return isRecording; }
    void recordEvent(const AttributeDictionary& event) override {
        journal.push_back("record " + event["event"].get<std::string>());
    }
    Journal& journal;
    bool isRecording = false;
};

// An event description that is not an APEvent.
struct ForeignEvent final : APEventDescripting {
    const std::string& name() const override { return name_; }
    const AttributeDictionary* attributes() const override { return nullptr; }
    std::string name_ = "pageview";
};

// Adds "transformed": true, or gives back nothing / a foreign event when told to.
struct ScriptedTransformer final : APEventGatewayEventTransforming {
    enum class Mode { transform, nothing, foreign };
    std::shared_ptr<const APEventDescripting> transform(const APEventDescripting& event) const override {
        if (onTransform) onTransform(event);
        if (mode == Mode::nothing) return nullptr;
        if (mode == Mode::foreign) return std::make_shared<ForeignEvent>();
        AttributeDictionary attributes = event.attributes() ? *event.attributes() : value::dictionary();
        attributes["transformed"] = true;
        return APEvent::make(event.name(), attributes);
    }
    Mode mode = Mode::transform;
    std::function<void(const APEventDescripting&)> onTransform;
};

class APEventGatewayAnalyticsProviderTests : public ::testing::Test {
protected:
    Journal journal;
    std::shared_ptr<JournalingUploader> uploader = std::make_shared<JournalingUploader>(journal);
    std::shared_ptr<JournalingRecorder> recorder = std::make_shared<JournalingRecorder>(journal);
    std::shared_ptr<ScriptedTransformer> transformer = std::make_shared<ScriptedTransformer>();
    std::shared_ptr<VirtualTimeSerialQueue> queue = std::make_shared<VirtualTimeSerialQueue>();
    std::shared_ptr<APEventGatewayAnalyticsProvider> provider =
        APEventGatewayAnalyticsProvider::make(uploader, transformer, recorder, queue);

    static std::shared_ptr<const APEvent> event(const std::string& name) {
        return APEvent::make(name, AttributeDictionary{{"page_name", "stream"}});
    }
};

TEST_F(APEventGatewayAnalyticsProviderTests, RecordsThenUploadsInTagOrder) {
    provider->tagEvent(event("like"));
    provider->tagEvent(event("pageview"));
    EXPECT_TRUE(journal.empty());
    queue->runUntilIdle();
    EXPECT_EQ(journal, (Journal{"upload like", "upload pageview"}));

    recorder->isRecording = true;
    provider->tagEvent(event("share"));
    provider->flush();
    EXPECT_EQ(journal.back(), "flush");
    queue->runUntilIdle();
    EXPECT_EQ(journal, (Journal{"upload like", "upload pageview", "flush", "record share", "upload share"}));
}

// A value nested far beyond the limit would overflow the stack in the transformer's copy
// or the compact encoder; it is counted as dropped before anything recurses into it,
// whichever way it travels.
TEST_F(APEventGatewayAnalyticsProviderTests, HostileNestingIsDiscardedBeforeTheTransformer) {
    AttributeValue deep = AttributeValue::array();
    for (int i = 0; i < 100000; ++i) {
        AttributeValue outer = AttributeValue::array();
        outer.push_back(std::move(deep));
        deep = std::move(outer);
    }
    const auto hostile = APEvent::make("like", AttributeDictionary{{"deep", std::move(deep)}});
    recorder->isRecording = true;
    provider->tagEvent(hostile);
    provider->tagEvent(event("pageview"));
    queue->runUntilIdle();
    EXPECT_EQ(journal, (Journal{"discard like too_deeply_nested", "record pageview", "upload pageview"}));
    journal.clear();
    recorder->isRecording = false;
    for (std::size_t i = 0; i < APEventGatewayAnalyticsProvider::kCompactAbove; ++i) provider->tagEvent(event("share"));
    provider->tagEvent(hostile);
    EXPECT_EQ(journal, (Journal{"discard before the queue too_deeply_nested"}));
    EXPECT_EQ(provider->pendingEvents(), APEventGatewayAnalyticsProvider::kCompactAbove);
}

// Past the compaction threshold events travel encoded; what reaches the uploader must be
// the same events, dates included, in tag order: also those tagged while the encoded ones
// are taken up, whether few or many wait by then, and before work queued after them.
TEST_F(APEventGatewayAnalyticsProviderTests, ABurstBeyondTheThresholdArrivesWholeAndInOrder) {
    const Date when = std::chrono::system_clock::time_point(std::chrono::milliseconds(1700000000123));
    const auto attributes = [&](std::size_t i) {
        return AttributeDictionary{{"n", i}, {"at", value::date(when)}, {"list", {1.5, "two", nullptr}}};
    };
    const std::size_t count = APEventGatewayAnalyticsProvider::kCompactAbove + 5;
    for (std::size_t i = 0; i < count; ++i) provider->tagEvent(APEvent::make("like", attributes(i)));
    EXPECT_EQ(provider->pendingEvents(), count);
    // While the first encoded event is taken up, four wait: a tag now must not pass them,
    // nor may the encoded ones that follow pass it.
    transformer->onTransform = [&](const APEventDescripting& event) {
        if (event.name() != "like" || (*event.attributes())["n"] != count - 5) return;
        for (std::size_t i = 0; i <= count; ++i) provider->tagEvent(APEvent::make("share", attributes(count + i)));
        queue->async([&] { journal.push_back("queued after them"); });
    };
    queue->runUntilIdle();
    EXPECT_EQ(provider->pendingEvents(), 0u);
    EXPECT_EQ(provider->peakPendingEvents(), 4 + (count + 1));  // the four waiting, then the tags
    Journal expectedJournal(count, "upload like");
    expectedJournal.insert(expectedJournal.end(), count + 1, "upload share");
    expectedJournal.push_back("queued after them");
    EXPECT_EQ(journal, expectedJournal);
    ASSERT_EQ(uploader->uploaded.size(), 2 * count + 1);
    for (std::size_t i = 0; i <= 2 * count; ++i) {
        auto expected = attributes(i);
        expected["transformed"] = true;
        ASSERT_EQ(*uploader->uploaded[i]->attributes(), expected) << i;
    }
}

// A queue shutting down runs the tasks it has but takes no new ones: the encoded events
// still waiting are taken up all the same.
TEST_F(APEventGatewayAnalyticsProviderTests, EncodedEventsWaitingAtShutdownAreAllTakenUp) {
    auto worker = std::make_shared<ThreadSerialQueue>("test.provider");
    auto threaded = APEventGatewayAnalyticsProvider::make(uploader, transformer, recorder, worker);
    std::promise<void> release;
    worker->async([opened = release.get_future().share()] { opened.wait(); });
    const std::size_t count = APEventGatewayAnalyticsProvider::kCompactAbove + 5;
    for (std::size_t i = 0; i < count; ++i) threaded->tagEvent(event("like"));
    std::thread stopper([&] { worker->shutdown(); });
    while (worker->accepting()) std::this_thread::yield();
    release.set_value();
    stopper.join();
    EXPECT_EQ(uploader->uploaded.size(), count);
    EXPECT_EQ(threaded->pendingEvents(), 0u);
}

TEST_F(APEventGatewayAnalyticsProviderTests, WhatIsNotTurnedIntoAGatewayEventOrIsLeftAtReleaseGoesNowhere) {
    recorder->isRecording = true;
    for (auto mode : {ScriptedTransformer::Mode::nothing, ScriptedTransformer::Mode::foreign}) {
        transformer->mode = mode;
        provider->tagEvent(event("like"));
        queue->runUntilIdle();
    }
    EXPECT_TRUE(journal.empty());

    transformer->mode = ScriptedTransformer::Mode::transform;
    provider->tagEvent(event("like"));
    provider->tagEvent(event("share"));
    provider.reset();
    EXPECT_EQ(queue->runUntilIdle(), 2u);
    EXPECT_TRUE(journal.empty());
}

TEST_F(APEventGatewayAnalyticsProviderTests, TracksTheTwentyNineGatewayNames) {
    EXPECT_EQ(*provider->trackedEvents(),
              (EventNameSet{"ad_request", "ad_delivery", "audio", "audio_performance", "audio_error",
                            "authentication::abort", "authentication::initiate", "clickthrough::companion_display",
                            "clickthrough::consumer_sub_ad", "clickthrough::interstitial", "clickthrough::video_ad",
                            "dismiss::consumer_sub_ad", "foreground", "impression", "like", "list_view_interaction",
                            "pageview", "rich_media_stream_error", "rich_media_stream", "rich_media_stream_performance",
                            "related_tracks", "repost", "search", "share", "share::prompt", "unlike", "unrepost",
                            "offline_sync", "click"}));
}

}  // namespace
}  // namespace kt
