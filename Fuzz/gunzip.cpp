// Request bodies come back through the development gateway and tests: any bytes must
// decompress, or come back as they are, without a crash.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/GzipCodec.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    (void)kt::GzipCodec::gunzippedData(input);
    if (auto zipped = kt::GzipCodec::gzippedData(input); zipped && !kt::GzipCodec::isGzippedData(input)) {
        auto back = kt::GzipCodec::gunzippedData(*zipped);
        if (!back || *back != input) __builtin_trap();  // the round trip must be exact
    }
    return 0;
}
