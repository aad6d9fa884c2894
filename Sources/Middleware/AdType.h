#pragma once
// The kinds of advertisement the player can present, and their analytics names.

#include <string>

#include "KTAnalytics/Platform/Fatal.h"

namespace kt {

enum class AdType : int {
    audioAd = 0,
    videoAd = 1,
    interstitial = 2,
    companionDisplay = 3,
};

/// The name analytics events carry for the ad type.
inline std::string makeAnalyticsString(AdType type) {
    switch (type) {
        case AdType::audioAd: return "audio_ad";
        case AdType::videoAd: return "video_ad";
        case AdType::interstitial: return "interstitial";
        case AdType::companionDisplay: return "companion_display";
    }
    fatalError("unexpected enum case 'AdType(rawValue: " + std::to_string(static_cast<int>(type)) + ")'");
}

}  // namespace kt
