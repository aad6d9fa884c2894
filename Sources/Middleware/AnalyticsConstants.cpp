#include "KTAnalytics/Middleware/AnalyticsConstants.h"

namespace kt {

std::optional<std::string> AnalyticsConstants::screenString(AnalyticsScreen screen) {
    switch (screen) {
        case AnalyticsScreen::stream: return "stream:main";
        case AnalyticsScreen::discovery: return "discovery:main";
        case AnalyticsScreen::search: return "search:main";
        case AnalyticsScreen::searchTracks: return "search:tracks";
        case AnalyticsScreen::searchPeople: return "search:people";
        case AnalyticsScreen::searchPlaylists: return "search:playlists";
        case AnalyticsScreen::player: return "tracks:main";
        case AnalyticsScreen::likes: return "collection:likes";
        case AnalyticsScreen::playlists: return "collection:playlists";
        case AnalyticsScreen::albums: return "collection:albums";
        case AnalyticsScreen::stations: return "collection:stations";
        case AnalyticsScreen::followers: return "users:followers";
        case AnalyticsScreen::following: return "users:following";
        case AnalyticsScreen::profile: return "you:main";
        case AnalyticsScreen::userProfile: return "users:main";
        case AnalyticsScreen::trackComments: return "tracks:comments";
        case AnalyticsScreen::playlistDetails: return "playlists:main";
        case AnalyticsScreen::notifications: return "notifications:main";
        case AnalyticsScreen::messages: return "messages:main";
        case AnalyticsScreen::settings: return "settings:main";
        case AnalyticsScreen::upsell: return "consumer-premium:main";
        case AnalyticsScreen::charts: return "charts:top";
        case AnalyticsScreen::uploads: return "you:uploads";
        case AnalyticsScreen::unknown:
        case AnalyticsScreen::legacyExplore:
        case AnalyticsScreen::onboardingWelcome: break;
    }
    return std::nullopt;
}

}  // namespace kt
