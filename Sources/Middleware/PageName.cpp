#include "KTAnalytics/Middleware/PageName.h"

namespace kt {

std::string_view rawValue(PageName page) {
    switch (page) {
        case PageName::stream: return "stream:main";
        case PageName::discover: return "discovery:main";
        case PageName::search: return "search:main";
        case PageName::searchResults: return "search:everything";
        case PageName::collection: return "collection:overview";
        case PageName::likes: return "collection:likes";
        case PageName::playlists: return "collection:playlists";
        case PageName::trackPage: return "tracks:main";
        case PageName::playlistPage: return "playlists:main";
        case PageName::userProfile: return "users:main";
        case PageName::player: return "tracks:player";
        case PageName::settings: return "settings:main";
        case PageName::upgrade: return "consumer-premium:main";
        case PageName::onboarding: return "onboarding:main";
    }
    return "unknown";
}

}  // namespace kt
