#pragma once
// The one place where the Firebase event vocabulary is written down. Stateless: every
// operation returns a new event with a fixed name and at most one parameter, ready for
// `FirebaseAnalyticsLogging::log`. Arguments are passed through unchecked.

#include <string>

#include "KTAnalytics/Analytics/FirebaseAnalyticsEventManufacturing.h"

namespace kt {

class FirebaseAnalyticsEventFactory final : public FirebaseAnalyticsProfileEventManufacturing,
                                            public FirebaseAnalyticsEngagementEventsManufacturing,
                                            public FirebaseStartupTimeEventsManufacturing,
                                            public FirebaseAdsEventsManufacturing,
                                            public FirebaseSettingsEventsManufacturing,
                                            public FirebaseAnalyticsCommentsEventsManufacturing,
                                            public FirebaseAnalyticsPlayerEventsManufacturing,
                                            public FirebaseAnalyticsDiscoveryEventsManufacturing,
                                            public FirebaseAnalyticsBrindleEventsManufacturing {
public:
    FirebaseAnalyticsEventFactory() = default;

    // Engagement.
    FirebaseAnalyticsEvent makeTrackLikeEvent() const override;
    FirebaseAnalyticsEvent makeTrackUnlikeEvent() const override;
    FirebaseAnalyticsEvent makePlaylistLikeEvent() const override;
    FirebaseAnalyticsEvent makePlaylistUnlikeEvent() const override;
    /// "has_caption" is always present, false included.
    FirebaseAnalyticsEvent makeTrackRepostEvent(bool hasCaption) const override;
    FirebaseAnalyticsEvent makeRepostAddCaptionEvent(bool hasCaption) const override;
    FirebaseAnalyticsEvent makeTrackUnrepostEvent(bool hasCaption) const override;
    FirebaseAnalyticsEvent makeTrackEditRepostEvent(bool hasCaption) const override;
    FirebaseAnalyticsEvent makeTrackStartRepostEvent() const override;
    FirebaseAnalyticsEvent makePlaylistRepostEvent() const override;
    FirebaseAnalyticsEvent makePlaylistUnrepostEvent() const override;
    FirebaseAnalyticsEvent makeFollowEvent() const override;
    FirebaseAnalyticsEvent makeUnfollowEvent() const override;

    // Sharing; only the profile share belongs to an interface.
    FirebaseAnalyticsEvent makeTrackShare() const;
    FirebaseAnalyticsEvent makePlaylistShare() const;
    FirebaseAnalyticsEvent makeProfileShare() const override;

    // Comments.
    FirebaseAnalyticsEvent makeCommentEvent() const override;
    FirebaseAnalyticsEvent makeUncommentEvent() const override;
    FirebaseAnalyticsEvent makeViewComments() const override;

    /// "time_in_millis": the whole milliseconds of `time`, as a 64-bit integer.
    FirebaseAnalyticsEvent makeAppStartupTimeEvent(KTTime time) const override;
    /// "origin_screen": `screen` as given, empty text included.
    FirebaseAnalyticsEvent makePlayCheckpoint(const std::string& screen) const;
    /// "ad_type": the ad type's analytics string.
    FirebaseAnalyticsEvent makeAdsCheckpoint(AdType adType) const override;
    FirebaseAnalyticsEvent makeFirstTimeSignUpSuccess() const;
    /// "enabled": the setting's new state.
    FirebaseAnalyticsEvent makeDarkMode(bool enabled) const override;

    // Player.
    /// "mode": the repeat mode as given.
    FirebaseAnalyticsEvent makeToggleRepeat(std::int64_t mode) const override;
    FirebaseAnalyticsEvent makeMinimisePlayer() const override;

    // Page views.
    FirebaseAnalyticsEvent makeUIEvoPageView() const override;
    FirebaseAnalyticsEvent makeLikedTracksPageView() const override;
    FirebaseAnalyticsEvent makeUploadsPageView() const override;
};

}  // namespace kt
