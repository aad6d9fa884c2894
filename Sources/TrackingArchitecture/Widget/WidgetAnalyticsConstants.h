#pragma once
// The query items that mark a URL as opened from a home-screen widget; the widget side
// builds its URLs with them, and WidgetAnalyticsHandler recognises and removes them.

#include <string_view>

namespace kt::WidgetAnalyticsConstants {

namespace ParameterKeys {
inline constexpr std::string_view source = "source";
inline constexpr std::string_view widgetKind = "widgetKind";
inline constexpr std::string_view widgetFamily = "widgetFamily";
}  // namespace ParameterKeys

struct QueryItem {
    std::string_view name;
    std::string_view value;
};

/// "source=widget": present on every URL a widget opens.
inline constexpr QueryItem sourceQueryItem{ParameterKeys::source, "widget"};

}  // namespace kt::WidgetAnalyticsConstants
