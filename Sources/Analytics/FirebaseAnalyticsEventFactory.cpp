#include "KTAnalytics/Analytics/FirebaseAnalyticsEventFactory.h"

namespace kt {
namespace {

using Name = FirebaseAnalyticsEventName;

FirebaseAnalyticsEvent make(const Name& name) {
    return FirebaseAnalyticsEvent(name, value::dictionary(), true);
}

template <class Value>
FirebaseAnalyticsEvent make(const Name& name, const char* key, Value&& parameter) {
    AttributeDictionary parameters = value::dictionary();
    parameters[key] = std::forward<Value>(parameter);
    return FirebaseAnalyticsEvent(name, std::move(parameters), true);
}

}  // namespace

FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makeTrackLikeEvent() const { return make(Name::trackLike()); }
FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makeTrackUnlikeEvent() const { return make(Name::trackUnlike()); }
FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makePlaylistLikeEvent() const { return make(Name::playlistLike()); }
FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makePlaylistUnlikeEvent() const {
    return make(Name::playlistUnlike());
}

FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makeTrackRepostEvent(bool hasCaption) const {
    return make(Name::trackRepost(), "has_caption", hasCaption);
}
FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makeRepostAddCaptionEvent(bool hasCaption) const {
    return make(Name::repostAddCaption(), "has_caption", hasCaption);
}
FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makeTrackUnrepostEvent(bool hasCaption) const {
    return make(Name::trackUnrepost(), "has_caption", hasCaption);
}
FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makeTrackEditRepostEvent(bool hasCaption) const {
    return make(Name::trackEditRepost(), "has_caption", hasCaption);
}

FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makeTrackStartRepostEvent() const {
    return make(Name::trackStartRepost());
}
FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makePlaylistRepostEvent() const {
    return make(Name::playlistRepost());
}
FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makePlaylistUnrepostEvent() const {
    return make(Name::playlistUnrepost());
}
FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makeFollowEvent() const { return make(Name::follow()); }
FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makeUnfollowEvent() const { return make(Name::unfollow()); }

FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makeTrackShare() const { return make(Name::trackShare()); }
FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makePlaylistShare() const { return make(Name::playlistShare()); }
FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makeProfileShare() const { return make(Name::profileShare()); }

FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makeCommentEvent() const { return make(Name::comment()); }
FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makeUncommentEvent() const { return make(Name::uncomment()); }
FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makeViewComments() const { return make(Name::viewComments()); }

FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makeAppStartupTimeEvent(KTTime time) const {
    return make(Name::appStartupTime(), "time_in_millis", static_cast<std::int64_t>(time.milliseconds()));
}

FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makePlayCheckpoint(const std::string& screen) const {
    return make(Name::playCheckpoint(), "origin_screen", screen);
}

FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makeAdsCheckpoint(AdType adType) const {
    return make(Name::adPlayCheckpoint(), "ad_type", makeAnalyticsString(adType));
}

FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makeFirstTimeSignUpSuccess() const {
    return make(Name::firstTimeSignUpSuccess());
}

FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makeDarkMode(bool enabled) const {
    return make(Name::darkMode(), "enabled", enabled);
}

FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makeToggleRepeat(std::int64_t mode) const {
    return make(Name::toggleRepeat(), "mode", mode);
}
FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makeMinimisePlayer() const {
    return make(Name::minimisePlayer());
}

FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makeUIEvoPageView() const {
    return make(Name::uiEvoHomePageview());
}
FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makeLikedTracksPageView() const {
    return make(Name::likedTracksPageView());
}
FirebaseAnalyticsEvent FirebaseAnalyticsEventFactory::makeUploadsPageView() const {
    return make(Name::uploadsPageView());
}

}  // namespace kt
