#pragma once
// The Firebase event vocabulary: one shared constant per event name. Events built by the
// factory use these; code that builds an event of its own (the upsell funnel, share
// sheets) should take its name from here too, so that every name is written down once.

#include <string>

namespace kt {

class FirebaseAnalyticsEventName {
public:
    explicit FirebaseAnalyticsEventName(std::string name) : name_(std::move(name)) {}

    const std::string& name() const { return name_; }
    friend bool operator==(const FirebaseAnalyticsEventName&, const FirebaseAnalyticsEventName&) = default;

    // Each constant is created once, on first use, and is safe to use from any thread.
    static const FirebaseAnalyticsEventName& trackLike();
    static const FirebaseAnalyticsEventName& trackUnlike();
    static const FirebaseAnalyticsEventName& playlistLike();
    static const FirebaseAnalyticsEventName& playlistUnlike();
    static const FirebaseAnalyticsEventName& follow();
    static const FirebaseAnalyticsEventName& unfollow();
    static const FirebaseAnalyticsEventName& trackRepost();
    static const FirebaseAnalyticsEventName& repostAddCaption();
    static const FirebaseAnalyticsEventName& trackUnrepost();
    static const FirebaseAnalyticsEventName& trackEditRepost();
    static const FirebaseAnalyticsEventName& trackStartRepost();
    static const FirebaseAnalyticsEventName& playlistRepost();
    static const FirebaseAnalyticsEventName& playlistUnrepost();
    static const FirebaseAnalyticsEventName& trackShare();
    static const FirebaseAnalyticsEventName& playlistShare();
    static const FirebaseAnalyticsEventName& profileShare();
    static const FirebaseAnalyticsEventName& comment();
    static const FirebaseAnalyticsEventName& uncomment();
    static const FirebaseAnalyticsEventName& appStartupTime();
    static const FirebaseAnalyticsEventName& playCheckpoint();
    static const FirebaseAnalyticsEventName& playSessionTrigger();
    static const FirebaseAnalyticsEventName& adPlayCheckpoint();
    static const FirebaseAnalyticsEventName& darkMode();
    static const FirebaseAnalyticsEventName& share();
    static const FirebaseAnalyticsEventName& viewComments();
    static const FirebaseAnalyticsEventName& toggleRepeat();
    static const FirebaseAnalyticsEventName& minimisePlayer();
    static const FirebaseAnalyticsEventName& systemShareSheetShown();
    static const FirebaseAnalyticsEventName& uiEvoHomePageview();
    /// Named after the liked-tracks screen; the string carries the redesign's codename.
    static const FirebaseAnalyticsEventName& likedTracksPageView();
    static const FirebaseAnalyticsEventName& uploadsPageView();
    static const FirebaseAnalyticsEventName& upgradeButtonTapped();
    static const FirebaseAnalyticsEventName& homeUpsellClicked();
    static const FirebaseAnalyticsEventName& purchasePlanViewed();
    static const FirebaseAnalyticsEventName& purchasePlanSelected();
    static const FirebaseAnalyticsEventName& purchaseSuccessful();
    static const FirebaseAnalyticsEventName& upsellDismiss();
    static const FirebaseAnalyticsEventName& upsellDisappearAfterFirstSignUp();
    static const FirebaseAnalyticsEventName& firstTimeSignUpSuccess();
    static const FirebaseAnalyticsEventName& upsellExperimentVariantBaseline();
    static const FirebaseAnalyticsEventName& upsellExperimentVariantA();
    static const FirebaseAnalyticsEventName& upsellExperimentVariantB();
    static const FirebaseAnalyticsEventName& upsellExperimentVariantC();
    static const FirebaseAnalyticsEventName& upsellExperimentVariantD();

private:
    std::string name_;
};

}  // namespace kt
