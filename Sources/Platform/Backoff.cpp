#include "KTAnalytics/Platform/Backoff.h"

#include <algorithm>
#include <cstdint>

namespace kt {

std::chrono::milliseconds jitteredBackoff(std::chrono::milliseconds first, int growth, std::chrono::milliseconds longest,
                                          int retry, std::minstd_rand& random) {
    auto pause = first;
    for (int i = 1; i < retry && pause < longest; ++i) pause *= growth;
    pause = std::min(pause, longest);
    std::uniform_real_distribution<double> spread(0.8, 1.2);
    return std::chrono::milliseconds(static_cast<std::int64_t>(static_cast<double>(pause.count()) * spread(random)));
}

}  // namespace kt
