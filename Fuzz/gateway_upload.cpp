// The development gateway's /v1/events and /v1/batch take any bytes from the network. The
// first byte of an input picks the road, the Content-Encoding header and whether the rest is
// gzipped (by the SDK's own codec) before it arrives; the rest is the body. The body goes the
// way the upload handler takes it (GatewayEndpoints.cpp, decode()): inflated within the raw
// limit, refused when too deep, read into items, and each item checked against the plan.
// What is read is kept as the reader promises: each JSON field as dump() writes it parsed.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <strings.h>
#include <nlohmann/json.hpp>

#include "Gateway/DevelopmentGateway.h"
#include "Gateway/PlanValidation.h"
#include "Gateway/UploadBody.h"
#include "Gateway/UploadReader.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/GzipCodec.h"
#include "KTAnalytics/Platform/JSONSerialization.h"

namespace {

using nlohmann::json;
namespace gw = kt::gateway;

constexpr const char* kEncodings[] = {"", "gzip", "GZIP", "identity", "deflate", "br", "gzip, br", "x-gzip"};

// A JSON field as stored must be what dump() writes of it parsed.
void mustBeCanonical(std::string_view field) {
    const json parsed = json::parse(field, nullptr, /*allow_exceptions=*/false);
    if (parsed.is_discarded() || parsed.dump(-1, ' ', false, json::error_handler_t::replace) != field) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::uint8_t pick = data[0];
    const bool batch = pick & 1;
    const std::string encoding = kEncodings[(pick >> 1) & 7];
    std::string body(reinterpret_cast<const char*>(data + 1), size - 1);
    if (pick & 0x80) {
        auto zipped = kt::GzipCodec::gzippedData(body);
        if (!zipped) return 0;
        body = std::move(*zipped);
    }

    // The handler's road: an events upload is always gzip, a batch when its header or first
    // bytes say so; any other encoding but identity is refused.
    const gw::GatewayConfiguration configuration;
    std::string raw;
    if (!batch || strcasecmp(encoding.c_str(), "gzip") == 0 || gw::startsLikeGzip(body)) {
        const auto inflated = gw::gunzip(body, configuration.maxRawBytes, raw);
        if (inflated == gw::Inflated::tooLarge && raw.size() <= configuration.maxRawBytes) __builtin_trap();
        if (inflated != gw::Inflated::complete) return 0;
    } else if (!encoding.empty() && strcasecmp(encoding.c_str(), "identity") != 0) {
        return 0;
    } else {
        raw = std::move(body);
    }
    if (kt::jsonTextNestsDeeperThan(raw, gw::kMaximumNesting)) return 0;
    const gw::UploadItems items = batch ? gw::readBatchUpload(raw) : gw::readEventsUpload(raw);
    if (!items.taken()) {
        if (!items.notJSON && items.why.empty()) __builtin_trap();
        return 0;
    }

    const std::size_t fields = batch ? std::size_t{gw::messageFieldCount} : std::size_t{gw::eventFieldCount};
    if (items.fieldsPerItem != fields || items.ends.size() % fields != 0) __builtin_trap();
    for (std::size_t i = 0; i + 1 < items.ends.size(); ++i)
        if (items.ends[i] > items.ends[i + 1]) __builtin_trap();
    if (!items.ends.empty() && items.ends.back() != items.texts.size()) __builtin_trap();
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (batch) {
            for (auto field : {gw::messageWhole, gw::messageKt, gw::messageIntegrations})
                mustBeCanonical(items.field(i, field));
            (void)gw::messageViolations(json::parse(items.field(i, gw::messageWhole), nullptr, false));
        } else {
            mustBeCanonical(items.field(i, gw::eventPayload));
            const json element{{"event", items.field(i, gw::eventName)},
                               {"payload", json::parse(items.field(i, gw::eventPayload), nullptr, false)}};
            (void)gw::gatewayEventViolations(element);
        }
    }
    return 0;
}
