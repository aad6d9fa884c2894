#pragma once
// The application's screens, as analytics knows them: an integer identifier each, and the
// page name events carry for it. Some identifiers are kept for screens that no longer
// report a page name.

#include <optional>
#include <string>

namespace kt {

enum class AnalyticsScreen : int {
    unknown = 0,
    stream = 1,
    discovery,
    search,
    searchTracks,
    searchPeople,
    searchPlaylists,
    player,
    likes,
    playlists,
    albums,
    stations,
    followers,
    following,
    profile,
    userProfile,
    trackComments,
    playlistDetails,
    notifications,
    messages,
    settings,
    upsell,
    charts,
    uploads,
    // Screens kept for old builds' identifiers; they report no page name.
    legacyExplore,
    onboardingWelcome,
};

class AnalyticsConstants {
public:
    AnalyticsConstants() = delete;
    /// The page name of a screen; nullopt for a screen that has none.
    static std::optional<std::string> screenString(AnalyticsScreen screen);
};

}  // namespace kt
