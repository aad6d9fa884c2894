#pragma once
// The listening session the demo plays: a deterministic mix of the events a listener's
// day produces (screens, plays with their pauses, likes, reposts, shares, searches, ads).

#include <cstdint>
#include <memory>
#include <vector>

#include "KTAnalytics/Middleware/APEventDescripting.h"

namespace kt::tool {

/// `count` events of the gateway vocabulary, the same for the same seed.
std::vector<std::shared_ptr<const APEventDescripting>> makeDemoSession(std::size_t count, std::uint64_t seed);

}  // namespace kt::tool
