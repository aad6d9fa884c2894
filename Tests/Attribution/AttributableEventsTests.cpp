#include <gtest/gtest.h>

#include "KTAnalytics/AnalyticsProvider/APAnalyticsController.h"
#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "KTAnalytics/AnalyticsProvider/APEventNames.h"
#include "KTAnalytics/Attribution/AttributableEventCenter.h"
#include "KTAnalytics/Attribution/AttributableEventEmitters.h"
#include "KTAnalytics/KTFoundation/KeyValueStoring.h"
#include "KTAnalytics/Platform/UserDefaults.h"
#include "Support/RecordingUploader.h"
#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

using Tokens = std::vector<std::string>;

class RecordingDelegate final : public AttributableEventCenterDelegate {
public:
    void didTriggerEventWithName(const std::string& token) override { tokens.push_back(token); }
    Tokens tokens;
};

class ScriptedPlayer final : public PlaybackServicing {
public:
    void setDelegate(std::weak_ptr<PlaybackServiceDelegating> d) override { delegate = std::move(d); }
    void play(const std::string& urn, PlayQueueItemType type, std::initializer_list<double> progress) {
        auto d = delegate.lock();
        ASSERT_TRUE(d);
        d->currentPlayQueueItemDidChangeToItem(PlayQueueItem{*Urn::parse(urn), type});
        for (double seconds : progress) d->progressDidChangeToDuration(seconds);
    }
    std::weak_ptr<PlaybackServiceDelegating> delegate;
};

class AttributableEventsTests : public ::testing::Test {
protected:
    std::shared_ptr<AttributableEventCenter> makeCenter() {
        auto center = AttributableEventCenter::make(player, controller, UserDefaults::open(directory / "defaults"));
        center->setDelegate(delegate);
        return center;
    }
    void tag(const std::string& name, AttributeDictionary attributes = AttributeDictionary::object()) {
        controller->tagEvent(APEvent::make(name, std::move(attributes)));
    }

    static std::shared_ptr<APAnalyticsController> newController() {
        return std::make_shared<APAnalyticsController>(std::make_shared<testing::RecordingUploader>(),
                                                       std::make_shared<APEventNames>(), nullptr);
    }

    testing::TemporaryDirectory directory{"kt-attribution"};
    std::shared_ptr<APAnalyticsController> controller = newController();
    std::shared_ptr<ScriptedPlayer> player = std::make_shared<ScriptedPlayer>();
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
};

// The analytics emitter, reached through the controller it registered with.
TEST_F(AttributableEventsTests, LikesFollowsFromClicksAndPlaysInANewSystemPlaylistEmitTheirTokens) {
    auto center = makeCenter();
    const auto play = [](const char* playlist) {
        return AttributeDictionary{{"action", "play"}, {"in_playlist", playlist}};
    };
    tag("like");
    tag("click", {{"click_name", "follow::add"}});
    tag("click", {{"click_name", "follow::remove"}});
    tag("click");
    tag("audio", play("quillarbor:system-playlists:daily"));
    tag("audio", play("quillarbor:system-playlists:daily"));  // same playlist: nothing
    tag("audio", {{"action", "pause"}, {"in_playlist", "quillarbor:system-playlists:weekly"}});
    tag("audio", play("quillarbor:playlists:42"));  // remembered, but not a system playlist
    tag("audio", play("not a urn"));
    tag("audio", play("quillarbor:system-playlists:weekly"));
    EXPECT_EQ(delegate->tokens, (Tokens{"k4tq7v", "31x905", "pqdse2", "pqdse2"}));
    EXPECT_EQ(attributableEventFromToken("31x905"), AttributableEvent::follow);
    EXPECT_EQ(attributableEventFromToken("zzzzzz"), std::nullopt);
}

TEST_F(AttributableEventsTests, CountedPlaysEmitEveryPlayAndTheFirstAndFifthEver) {
    auto center = makeCenter();
    player->play("quillarbor:tracks:1", PlayQueueItemType::track, {4.9});
    EXPECT_TRUE(delegate->tokens.empty());
    player->play("quillarbor:tracks:1", PlayQueueItemType::track, {5.1, 30.0});  // same URN: not re-armed
    EXPECT_EQ(delegate->tokens, (Tokens{"4b11wy", "52hk3r"}));
    player->play("quillarbor:tracks:ad", PlayQueueItemType::ad, {10.0});  // ads never count
    for (int track = 2; track <= 6; ++track)
        player->play("quillarbor:tracks:" + std::to_string(track), PlayQueueItemType::track, {5.5, 6.0});
    EXPECT_EQ(delegate->tokens, (Tokens{"4b11wy", "52hk3r", "4b11wy", "4b11wy", "4b11wy", "4b11wy", "ufnrob", "4b11wy"}));
}

// Without a delegate nothing is forwarded, yet the stored count advances.
TEST_F(AttributableEventsTests, TheCountAdvancesWithoutADelegate) {
    {
        auto center = AttributableEventCenter::make(player, controller, UserDefaults::open(directory / "defaults"));
        for (int track = 1; track <= 4; ++track)
            player->play("quillarbor:tracks:" + std::to_string(track), PlayQueueItemType::track, {6.0});
    }
    EXPECT_EQ(UserDefaultsStore(UserDefaults::open(directory / "defaults"), "attributableEventCenter")
                  .number("playTrackCount"),
              4.0);
}

TEST_F(AttributableEventsTests, ACountThatCannotGrowStopsTheProcess) {
    auto center = makeCenter();
    UserDefaultsStore(UserDefaults::open(directory / "defaults"), "attributableEventCenter")
        .setNumber(static_cast<double>(std::numeric_limits<std::uint64_t>::max()), "playTrackCount");
    EXPECT_DEATH(player->play("quillarbor:tracks:1", PlayQueueItemType::track, {6.0}), "cannot grow");
}

}  // namespace
}  // namespace kt
