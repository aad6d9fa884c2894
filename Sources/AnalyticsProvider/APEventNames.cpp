#include "KTAnalytics/AnalyticsProvider/APEventNames.h"

namespace kt {

namespace {
const std::vector<std::string>& allNames() {
    static const std::vector<std::string> names{
        "ad_request",
        "ad_delivery",
        "audio",
        "audio_error",
        "audio_performance",
        "audiocopy_click",
        "auth_prompt",
        "authentication::initiate",
        "authentication::abort",
        "clickthrough::companion_display",
        "clickthrough::consumer_sub_ad",
        "clickthrough::interstitial",
        "clickthrough::video_ad",
        "clickthrough::app_install",
        "close_tour",
        "dismiss::consumer_sub_ad",
        "follow",
        "foreground",
        "forgot_password",
        "impression",
        "like",
        "list_view_interaction",
        "navigation",
        "offline_sync",
        "pageview",
        "play_control",
        "promoted_event",
        "rich_media_stream_error",
        "rich_media_stream",
        "rich_media_stream_performance",
        "related_tracks",
        "repost",
        "search",
        "share",
        "share::prompt",
        "sign_in",
        "sign_up",
        "unfollow",
        "unlike",
        "unrepost",
        "click",
    };
    return names;
}
}  // namespace

const std::vector<std::string>& APEventNames::supportedEventNames() const { return allNames(); }

}  // namespace kt
