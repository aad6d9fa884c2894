// Widget launch URLs arrive from outside the application. Any URL gives back either itself
// or a parseable URL without the widget's query items, and at most one "Widget Item Opened",
// only for a URL that carries source=widget.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <boost/url/parse.hpp>
#include <boost/url/url_view.hpp>

#include "KTAnalytics/TrackingArchitecture/EventSender.h"
#include "KTAnalytics/TrackingArchitecture/Widget/WidgetAnalyticsHandler.h"

#include "Support/RecordingBroker.h"

namespace {

// An empty query is left alone: Boost.URL 1.81 iterates "?#" past its end.
bool fromWidget(const boost::urls::url_view& url) {
    if (url.encoded_query().empty()) return false;
    for (const auto& param : url.params())
        if (param.key == "source" && param.has_value && param.value == "widget") return true;
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string url(reinterpret_cast<const char*>(data), size);
    static const auto broker = std::make_shared<kt::testing::RecordingBroker>();
    static const kt::WidgetAnalyticsHandler handler(std::make_shared<kt::EventSender>(broker));
    broker->events.clear();
    const std::string handled = handler.handle(url);

    const auto given = boost::urls::parse_uri_reference(url);
    const bool marked = given && given->has_query() && fromWidget(*given);
    if (broker->events.size() > (marked ? 1u : 0u)) __builtin_trap();
    if (!broker->events.empty() && broker->events.front().name != "Widget Item Opened") __builtin_trap();
    if (handled == url) return 0;
    if (!marked) __builtin_trap();
    const auto cleaned = boost::urls::parse_uri_reference(handled);
    if (!cleaned) __builtin_trap();
    if (!cleaned->encoded_query().empty())
        for (const auto& param : cleaned->params())
            if (param.key == "source" || param.key == "widgetKind" || param.key == "widgetFamily") __builtin_trap();
    return 0;
}
