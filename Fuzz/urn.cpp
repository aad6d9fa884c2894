// Urns come from links, server answers and a person's --user-urn: any text gives a urn whose
// parts put back together are the text, or nothing.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "KTAnalytics/KTFoundation/Urn.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto urn = kt::Urn::parse(text);
    if (!urn) return 0;
    const auto& collection = urn->collection();
    const auto& identifier = urn->identifier();
    if (urn->stringValue() != text || "quillarbor:" + collection + ":" + identifier != text) __builtin_trap();
    if (collection.empty() || identifier.empty() ||
        !std::all_of(collection.begin(), collection.end(), [](char c) { return (c >= 'a' && c <= 'z') || c == '-'; }) ||
        std::any_of(identifier.begin(), identifier.end(), [](char c) { return static_cast<unsigned char>(c) <= 0x20 || c == 0x7f; }))
        __builtin_trap();
    // A urn written out reads back as itself.
    if (kt::Urn::parse(urn->stringValue()) != urn) __builtin_trap();
    return 0;
}
