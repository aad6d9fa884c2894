#pragma once
// Screens of the application, as analytics names them.

#include <string_view>

namespace kt {

enum class PageName {
    stream,
    discover,
    search,
    searchResults,
    collection,
    likes,
    playlists,
    trackPage,
    playlistPage,
    userProfile,
    player,
    settings,
    upgrade,
    onboarding,
};

/// The raw string stored under "page_name", e.g. "stream:main".
std::string_view rawValue(PageName page);

}  // namespace kt
