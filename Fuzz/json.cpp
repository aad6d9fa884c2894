// JSON from files and the network: parsing never crashes, and whatever parses either
// serialises again or is refused with an error, never written as a silent null.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "KTAnalytics/Platform/JSONSerialization.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kt::JSONSafeSerialization json;
    std::string error;
    auto value = json.JSONObjectWithData(std::string_view(reinterpret_cast<const char*>(data), size), &error);
    if (value) {
        auto text = json.dataWithJSONObject(*value, &error);
        if (text && !json.JSONObjectWithData(*text, &error)) __builtin_trap();
    }
    return 0;
}
