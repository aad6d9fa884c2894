#include "KTAnalytics/TrackingArchitecture/Widget/WidgetAnalyticsHandler.h"

#include <algorithm>
#include <optional>

#include <boost/url/parse.hpp>
#include <boost/url/url.hpp>

#include "KTAnalytics/KTFoundation/LogMacros.h"
#include "KTAnalytics/Platform/Fatal.h"
#include "KTAnalytics/TrackingArchitecture/Widget/WidgetAnalyticsConstants.h"

namespace kt {

namespace {

constexpr const char* kFile = "Sources/TrackingArchitecture/Widget/WidgetAnalyticsHandler";
constexpr const char* kHandle = "handle(_:)";

namespace Constants = WidgetAnalyticsConstants;

std::optional<std::string> queryValue(boost::urls::url_view url, std::string_view name) {
    for (const auto& param : url.params())
        if (param.key == name) return param.has_value ? std::optional(param.value) : std::nullopt;
    return std::nullopt;
}

/// The case whose string equals `text`, trying raw values in order and skipping `skipped`.
template <class E>
std::optional<E> caseNamed(const std::optional<std::string>& text, std::optional<E> skipped = std::nullopt) {
    if (!text) return std::nullopt;
    for (std::int64_t raw = 0; raw < PlanEnumerationTraits<E>::caseCount; ++raw) {
        const auto value = static_cast<E>(raw);
        if (value != skipped && description(value) == *text) return value;
    }
    return std::nullopt;
}

template <class E>
std::string describedOrNil(const std::optional<E>& value) {
    return value ? std::string(description(*value)) : "nil";
}

}  // namespace

WidgetAnalyticsHandler::WidgetAnalyticsHandler(std::shared_ptr<EventSending> eventSender,
                                               std::shared_ptr<KTLogger> logger)
    : evenSender(std::move(eventSender)), logger_(logger ? std::move(logger) : KTLogger::null()) {
    KT_PARAMETER_ASSERT(evenSender);
}

std::string WidgetAnalyticsHandler::handle(const std::string& url) const {
    KT_LOG(logger_, 0, kFile, kHandle, "checking URL `{}`", url);
    auto parsed = boost::urls::parse_uri_reference(url);
    const auto isSource = [](const auto& param) {
        return param.key == Constants::sourceQueryItem.name && param.has_value &&
               param.value == Constants::sourceQueryItem.value;
    };
    // Boost.URL 1.81 iterates an empty query that a fragment follows ("?#") past its end; such
    // a query holds no widget items anyway.
    if (!parsed || parsed->encoded_query().empty() || parsed->params().empty() ||
        std::none_of(parsed->params().begin(), parsed->params().end(), isSource)) {
        KT_LOG(logger_, 0, kFile, kHandle, "URL does not match widget parameters. Returning original URL.");
        return url;
    }
    boost::urls::url components(*parsed);

    // "none" names no family a widget can have, so a URL carrying it is incomplete.
    const auto family = caseNamed<WidgetItemOpenedWidgetFamily>(queryValue(*parsed, Constants::ParameterKeys::widgetFamily),
                                                               WidgetItemOpenedWidgetFamily::none);
    const auto kind = caseNamed<WidgetItemOpenedWidgetKind>(queryValue(*parsed, Constants::ParameterKeys::widgetKind));
    if (family && kind) {
        evenSender->widgetItemOpened(WidgetItemOpenedTapType::none, *family, *kind, std::nullopt);
    } else {
        KT_LOG(logger_, 2, kFile, kHandle,
               "Could not get all required parameters to send `Widget Item Opened` event. `widgetFamily` enum: `{}`, "
               "widgetKind query item: `{}`",
               describedOrNil(family), describedOrNil(kind));
    }

    auto params = components.params();
    for (auto it = params.begin(); it != params.end();) {
        const auto key = (*it).key;
        if (key == Constants::ParameterKeys::source || key == Constants::ParameterKeys::widgetKind ||
            key == Constants::ParameterKeys::widgetFamily)
            it = params.erase(it);
        else
            ++it;
    }
    // A URL left with no query items loses its "?" too, as a link the application builds would.
    if (params.empty()) components.remove_query();
    const std::string cleaned(components.buffer());
    if (!boost::urls::parse_uri_reference(cleaned)) return url;
    KT_LOG(logger_, 0, kFile, kHandle, "`{}` Matched. Removed widget paramers and returning cleaned URL `{}`", url,
           cleaned);
    return cleaned;
}

}  // namespace kt
