#include "KTAnalytics/KTFoundation/Urn.h"

#include <algorithm>

namespace kt {

namespace {

constexpr std::string_view kScheme = "quillarbor";

bool isCollectionCharacter(char c) {
    return (c >= 'a' && c <= 'z') || c == '-';
}

// Blanks and control characters never occur in an id and would break the log and wire
// forms that carry URNs.
bool isIdentifierCharacter(char c) {
    auto u = static_cast<unsigned char>(c);
    return u > 0x20 && u != 0x7F;
}

}  // namespace

// The identifier is everything after the collection, colons included: composite ids such
// as "quillarbor:system-playlists:daily:42" keep their inner structure intact.
std::optional<Urn> Urn::parse(std::string_view text) {
    if (text.size() <= kScheme.size() + 1 || text.substr(0, kScheme.size()) != kScheme ||
        text[kScheme.size()] != ':')
        return std::nullopt;

    std::string_view rest = text.substr(kScheme.size() + 1);
    auto colon = rest.find(':');
    if (colon == std::string_view::npos)
        return std::nullopt;
    std::string_view collection = rest.substr(0, colon);
    std::string_view identifier = rest.substr(colon + 1);

    if (collection.empty() || !std::all_of(collection.begin(), collection.end(), isCollectionCharacter))
        return std::nullopt;
    if (identifier.empty() || !std::all_of(identifier.begin(), identifier.end(), isIdentifierCharacter))
        return std::nullopt;

    Urn urn;
    urn.text_ = std::string(text);
    urn.collection_ = std::string(collection);
    urn.identifier_ = std::string(identifier);
    return urn;
}

}  // namespace kt
