#include "KTAnalytics/Firebase/RemoteConfigProviding.h"

#include "KTAnalytics/Firebase/Detail/WholeTextNumber.h"

namespace kt {

std::optional<long> RemoteConfigProviding::integer(const std::string& key) const {
    auto text = valueFor(key);
    if (!text || text->empty()) return std::nullopt;
    return detail::parseWholeTextInteger(*text);
}

}  // namespace kt
