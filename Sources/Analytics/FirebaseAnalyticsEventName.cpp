#include "KTAnalytics/Analytics/FirebaseAnalyticsEventName.h"

namespace kt {

#define KT_FIREBASE_EVENT_NAME(constant, text)                                   \
    const FirebaseAnalyticsEventName& FirebaseAnalyticsEventName::constant() {   \
        static const FirebaseAnalyticsEventName value{text};                     \
        return value;                                                            \
    }

KT_FIREBASE_EVENT_NAME(trackLike, "track_like")
KT_FIREBASE_EVENT_NAME(trackUnlike, "track_unlike")
KT_FIREBASE_EVENT_NAME(playlistLike, "playlist_like")
KT_FIREBASE_EVENT_NAME(playlistUnlike, "playlist_unlike")
KT_FIREBASE_EVENT_NAME(follow, "follow")
KT_FIREBASE_EVENT_NAME(unfollow, "unfollow")
KT_FIREBASE_EVENT_NAME(trackRepost, "track_repost")
KT_FIREBASE_EVENT_NAME(repostAddCaption, "repost_add_caption")
KT_FIREBASE_EVENT_NAME(trackUnrepost, "track_unrepost")
KT_FIREBASE_EVENT_NAME(trackEditRepost, "track_edit_repost")
KT_FIREBASE_EVENT_NAME(trackStartRepost, "track_start_repost")
KT_FIREBASE_EVENT_NAME(playlistRepost, "playlist_repost")
KT_FIREBASE_EVENT_NAME(playlistUnrepost, "playlist_unrepost")
KT_FIREBASE_EVENT_NAME(trackShare, "track_share")
KT_FIREBASE_EVENT_NAME(playlistShare, "playlist_share")
KT_FIREBASE_EVENT_NAME(profileShare, "profile_share")
KT_FIREBASE_EVENT_NAME(comment, "comment")
KT_FIREBASE_EVENT_NAME(uncomment, "uncomment")
KT_FIREBASE_EVENT_NAME(appStartupTime, "app_startup_time")
KT_FIREBASE_EVENT_NAME(playCheckpoint, "play_checkpoint")
KT_FIREBASE_EVENT_NAME(playSessionTrigger, "play_session_trigger")
KT_FIREBASE_EVENT_NAME(adPlayCheckpoint, "ad_play_checkpoint")
KT_FIREBASE_EVENT_NAME(darkMode, "dark_mode")
KT_FIREBASE_EVENT_NAME(share, "share")
KT_FIREBASE_EVENT_NAME(viewComments, "view_comments")
KT_FIREBASE_EVENT_NAME(toggleRepeat, "toggle_repeat")
KT_FIREBASE_EVENT_NAME(minimisePlayer, "minimise_player")
KT_FIREBASE_EVENT_NAME(systemShareSheetShown, "system_share_sheet_shown")
KT_FIREBASE_EVENT_NAME(uiEvoHomePageview, "ui_evo_home_pageview")
KT_FIREBASE_EVENT_NAME(likedTracksPageView, "brindle_likes_pageview")
KT_FIREBASE_EVENT_NAME(uploadsPageView, "uploads_pageview")
KT_FIREBASE_EVENT_NAME(upgradeButtonTapped, "upgrade_button_tapped")
KT_FIREBASE_EVENT_NAME(homeUpsellClicked, "home_upsell_clicked")
KT_FIREBASE_EVENT_NAME(purchasePlanViewed, "purchase_plan_viewed")
KT_FIREBASE_EVENT_NAME(purchasePlanSelected, "purchase_plan_selected")
KT_FIREBASE_EVENT_NAME(purchaseSuccessful, "purchase_successful")
KT_FIREBASE_EVENT_NAME(upsellDismiss, "upsell_dismiss")
KT_FIREBASE_EVENT_NAME(upsellDisappearAfterFirstSignUp, "upsell_disappear_after_first_sign_up")
KT_FIREBASE_EVENT_NAME(firstTimeSignUpSuccess, "first_time_sign_up_success")
KT_FIREBASE_EVENT_NAME(upsellExperimentVariantBaseline, "upsell_experiment_variant_baseline")
KT_FIREBASE_EVENT_NAME(upsellExperimentVariantA, "upsell_experiment_variant_a")
KT_FIREBASE_EVENT_NAME(upsellExperimentVariantB, "upsell_experiment_variant_b")
KT_FIREBASE_EVENT_NAME(upsellExperimentVariantC, "upsell_experiment_variant_c")
KT_FIREBASE_EVENT_NAME(upsellExperimentVariantD, "upsell_experiment_variant_d")

#undef KT_FIREBASE_EVENT_NAME

}  // namespace kt
