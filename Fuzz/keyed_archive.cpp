// Event files are read back from disk: any bytes must give an object or an error.
#include <cstddef>
#include <cstdint>

#include "KTAnalytics/Platform/KeyedArchive.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::set<std::string> allowed{"APEvent", "APSerializedEvent", "string", "number", "dictionary", "array"};
    std::string error;
    auto coder = kt::KeyedUnarchiver::fromBytes(kt::Bytes(data, data + size), allowed, &error);
    if (coder) {
        (void)coder->decodeString("_name");
        (void)coder->decodeValue("_attributes");
        if (auto nested = coder->decodeObject("_event")) (void)nested->decodeValue("_attributes");
    }
    return 0;
}
