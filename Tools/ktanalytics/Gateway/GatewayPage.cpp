#include "Gateway/GatewayPage.h"
#include "Gateway/GatewayStore.h"
#include "Gateway/Page/PageAssets.h"

#include <charconv>
#include <memory>
#include <string>

namespace kt::gateway {

namespace {

constexpr std::size_t kDefaultRecent = 200;
constexpr std::size_t kMaximumRecent = 1000;
// What a page refused a stream is told to wait before trying again.
constexpr const char* kStreamRetryAfterSeconds = "5";

void answerError(httplib::Response& response, int status, const std::string& why) {
    response.status = status;
    response.set_content(R"({"error":")" + why + R"("})", "application/json");
}

}  // namespace

void registerPageRoutes(httplib::Server& server, GatewayStore& store, LiveLimits limits) {
    const auto streams = std::make_shared<LiveStreams>(limits);
    store.addArrivalObserver([streams](const Arrival& arrival) { streams->publish(arrival); });

    for (const PageAsset& asset : pageAssets()) {
        server.Get(std::string(asset.path), [&asset](const httplib::Request&, httplib::Response& response) {
            response.set_content(reinterpret_cast<const char*>(asset.bytes.data()), asset.bytes.size(),
                                 std::string(asset.contentType).c_str());
            response.set_header("Cache-Control", "no-cache");
        });
    }

    server.Get("/live", [streams](const httplib::Request&, httplib::Response& response) {
        auto stream = streams->open();
        if (!stream) {
            response.set_header("Retry-After", kStreamRetryAfterSeconds);
            return answerError(response, 503,
                               "already " + std::to_string(streams->limits().maximumStreams) +
                                   " live pages open; close one and reload");
        }
        response.set_header("Cache-Control", "no-store");
        // Returning after each wait hands back to httplib, which ends the stream once the
        // server stops; a failed write (the page went away) ends it too.
        response.set_chunked_content_provider(
            "text/event-stream",
            [streams, stream](std::size_t, httplib::DataSink& sink) {
                const std::string text = streams->next(*stream);
                return text.empty() || sink.write(text.data(), text.size());
            },
            // Called however the answer ends, sent or not.
            [streams, stream](bool) { streams->close(stream); });
    });

    server.Get("/live/recent", [&store](const httplib::Request& request, httplib::Response& response) {
        std::size_t limit = kDefaultRecent;
        if (request.has_param("limit")) {
            const std::string text = request.get_param_value("limit");
            const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), limit);
            if (ec != std::errc() || end != text.data() + text.size() || text.empty() || limit > kMaximumRecent)
                return answerError(response, 400, "limit must be an integer from 0 to " + std::to_string(kMaximumRecent));
        }
        std::string body = "[";
        for (const Arrival& arrival : store.lastArrivals(limit)) {
            if (body.size() > 1) body += ',';
            body += arrivalJSON(arrival);
        }
        response.set_content(body + "]", "application/json");
    });
}

}  // namespace kt::gateway
