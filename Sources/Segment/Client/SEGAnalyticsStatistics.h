#pragma once
// What the product-analytics client reports, apart from the client.

#include <cstdint>
#include <map>
#include <string>

namespace kt {

/// Every reason a message can be removed without delivery, as `droppedByReason` keys it.
inline constexpr const char* kSEGDropReasons[] = {"queue_full",    "too_large", "rejected", "dropped_by_middleware",
                                                  "not_persisted", "corrupted", "too_deeply_nested"};

}  // namespace kt
