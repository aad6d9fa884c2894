#pragma once
// The event factory seen by one screen at a time: each interface holds only the
// operations that a feature needs, so a screen depends on no more of the vocabulary.
// Every operation returns a new event that asks for extra user information.

#include <cstdint>

#include "KTAnalytics/Analytics/FirebaseAnalyticsEvent.h"
#include "KTAnalytics/KTFoundation/DependencyRegistry.h"
#include "KTAnalytics/KTFoundation/KTTime.h"
#include "KTAnalytics/Middleware/AdType.h"

namespace kt {

/// Profile screen.
class FirebaseAnalyticsProfileEventManufacturing {
public:
    virtual ~FirebaseAnalyticsProfileEventManufacturing() = default;
    FirebaseAnalyticsProfileEventManufacturing() = default;
    FirebaseAnalyticsProfileEventManufacturing(const FirebaseAnalyticsProfileEventManufacturing&) = delete;
    FirebaseAnalyticsProfileEventManufacturing& operator=(const FirebaseAnalyticsProfileEventManufacturing&) = delete;

    virtual FirebaseAnalyticsEvent makeProfileShare() const = 0;
};

/// Likes, reposts and follows.
class FirebaseAnalyticsEngagementEventsManufacturing {
public:
    virtual ~FirebaseAnalyticsEngagementEventsManufacturing() = default;
    FirebaseAnalyticsEngagementEventsManufacturing() = default;
    FirebaseAnalyticsEngagementEventsManufacturing(const FirebaseAnalyticsEngagementEventsManufacturing&) = delete;
    FirebaseAnalyticsEngagementEventsManufacturing& operator=(const FirebaseAnalyticsEngagementEventsManufacturing&) = delete;

    virtual FirebaseAnalyticsEvent makeTrackLikeEvent() const = 0;
    virtual FirebaseAnalyticsEvent makeTrackUnlikeEvent() const = 0;
    virtual FirebaseAnalyticsEvent makePlaylistLikeEvent() const = 0;
    virtual FirebaseAnalyticsEvent makePlaylistUnlikeEvent() const = 0;
    virtual FirebaseAnalyticsEvent makeTrackRepostEvent(bool hasCaption) const = 0;
    virtual FirebaseAnalyticsEvent makeRepostAddCaptionEvent(bool hasCaption) const = 0;
    virtual FirebaseAnalyticsEvent makeTrackUnrepostEvent(bool hasCaption) const = 0;
    virtual FirebaseAnalyticsEvent makeTrackEditRepostEvent(bool hasCaption) const = 0;
    virtual FirebaseAnalyticsEvent makeTrackStartRepostEvent() const = 0;
    virtual FirebaseAnalyticsEvent makePlaylistRepostEvent() const = 0;
    virtual FirebaseAnalyticsEvent makePlaylistUnrepostEvent() const = 0;
    virtual FirebaseAnalyticsEvent makeFollowEvent() const = 0;
    virtual FirebaseAnalyticsEvent makeUnfollowEvent() const = 0;
};

/// Application start-up.
class FirebaseStartupTimeEventsManufacturing {
public:
    virtual ~FirebaseStartupTimeEventsManufacturing() = default;
    FirebaseStartupTimeEventsManufacturing() = default;
    FirebaseStartupTimeEventsManufacturing(const FirebaseStartupTimeEventsManufacturing&) = delete;
    FirebaseStartupTimeEventsManufacturing& operator=(const FirebaseStartupTimeEventsManufacturing&) = delete;

    virtual FirebaseAnalyticsEvent makeAppStartupTimeEvent(KTTime time) const = 0;
};

/// Advertising.
class FirebaseAdsEventsManufacturing {
public:
    virtual ~FirebaseAdsEventsManufacturing() = default;
    FirebaseAdsEventsManufacturing() = default;
    FirebaseAdsEventsManufacturing(const FirebaseAdsEventsManufacturing&) = delete;
    FirebaseAdsEventsManufacturing& operator=(const FirebaseAdsEventsManufacturing&) = delete;

    virtual FirebaseAnalyticsEvent makeAdsCheckpoint(AdType adType) const = 0;
};

/// Settings screen.
class FirebaseSettingsEventsManufacturing {
public:
    virtual ~FirebaseSettingsEventsManufacturing() = default;
    FirebaseSettingsEventsManufacturing() = default;
    FirebaseSettingsEventsManufacturing(const FirebaseSettingsEventsManufacturing&) = delete;
    FirebaseSettingsEventsManufacturing& operator=(const FirebaseSettingsEventsManufacturing&) = delete;

    virtual FirebaseAnalyticsEvent makeDarkMode(bool enabled) const = 0;
};

/// Comments.
class FirebaseAnalyticsCommentsEventsManufacturing {
public:
    virtual ~FirebaseAnalyticsCommentsEventsManufacturing() = default;
    FirebaseAnalyticsCommentsEventsManufacturing() = default;
    FirebaseAnalyticsCommentsEventsManufacturing(const FirebaseAnalyticsCommentsEventsManufacturing&) = delete;
    FirebaseAnalyticsCommentsEventsManufacturing& operator=(const FirebaseAnalyticsCommentsEventsManufacturing&) = delete;

    virtual FirebaseAnalyticsEvent makeCommentEvent() const = 0;
    virtual FirebaseAnalyticsEvent makeUncommentEvent() const = 0;
    virtual FirebaseAnalyticsEvent makeViewComments() const = 0;
};

/// Player.
class FirebaseAnalyticsPlayerEventsManufacturing {
public:
    virtual ~FirebaseAnalyticsPlayerEventsManufacturing() = default;
    FirebaseAnalyticsPlayerEventsManufacturing() = default;
    FirebaseAnalyticsPlayerEventsManufacturing(const FirebaseAnalyticsPlayerEventsManufacturing&) = delete;
    FirebaseAnalyticsPlayerEventsManufacturing& operator=(const FirebaseAnalyticsPlayerEventsManufacturing&) = delete;

    virtual FirebaseAnalyticsEvent makeToggleRepeat(std::int64_t mode) const = 0;
    virtual FirebaseAnalyticsEvent makeMinimisePlayer() const = 0;
};

/// Discovery (home).
class FirebaseAnalyticsDiscoveryEventsManufacturing {
public:
    virtual ~FirebaseAnalyticsDiscoveryEventsManufacturing() = default;
    FirebaseAnalyticsDiscoveryEventsManufacturing() = default;
    FirebaseAnalyticsDiscoveryEventsManufacturing(const FirebaseAnalyticsDiscoveryEventsManufacturing&) = delete;
    FirebaseAnalyticsDiscoveryEventsManufacturing& operator=(const FirebaseAnalyticsDiscoveryEventsManufacturing&) = delete;

    virtual FirebaseAnalyticsEvent makeUIEvoPageView() const = 0;
};

/// Library screens of the redesign.
class FirebaseAnalyticsBrindleEventsManufacturing {
public:
    virtual ~FirebaseAnalyticsBrindleEventsManufacturing() = default;
    FirebaseAnalyticsBrindleEventsManufacturing() = default;
    FirebaseAnalyticsBrindleEventsManufacturing(const FirebaseAnalyticsBrindleEventsManufacturing&) = delete;
    FirebaseAnalyticsBrindleEventsManufacturing& operator=(const FirebaseAnalyticsBrindleEventsManufacturing&) = delete;

    virtual FirebaseAnalyticsEvent makeLikedTracksPageView() const = 0;
    virtual FirebaseAnalyticsEvent makeUploadsPageView() const = 0;
};

namespace DependencyKeys {
/// Absent until the host registers its factory.
inline constexpr DependencyKey<FirebaseAnalyticsBrindleEventsManufacturing> firebaseAnalyticsFactory{"firebaseAnalyticsFactory"};
}  // namespace DependencyKeys

}  // namespace kt
