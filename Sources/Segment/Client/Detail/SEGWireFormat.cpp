#include "KTAnalytics/Segment/Client/Detail/SEGWireFormat.h"

#include "KTAnalytics/Segment/Client/SEGAnalytics.h"

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>

namespace kt::segment {

std::string iso8601(std::chrono::system_clock::time_point when) {
    const auto ms = std::chrono::floor<std::chrono::milliseconds>(when.time_since_epoch()).count();
    const std::time_t seconds = static_cast<std::time_t>(ms >= 0 ? ms / 1000 : (ms - 999) / 1000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[64];  // room for any int the compiler can imagine
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900, utc.tm_mon + 1,
                  utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, static_cast<int>(ms - seconds * 1000LL));
    return text;
}

std::string base64(std::string_view bytes) {
    static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t n = std::min<std::size_t>(3, bytes.size() - i);
        std::uint32_t chunk = 0;
        for (std::size_t k = 0; k < 3; ++k)
            chunk = (chunk << 8) | (k < n ? static_cast<unsigned char>(bytes[i + k]) : 0u);
        for (std::size_t k = 0; k < 4; ++k) out += k <= n ? kAlphabet[(chunk >> (18 - 6 * k)) & 63] : '=';
    }
    return out;
}

std::string batchURL(std::string_view apiHost) { return SEGAnalyticsConfiguration::apiURL(apiHost) + "/batch"; }

std::string localeTag(const char* lcAll, const char* lang) {
    std::string locale = lcAll && *lcAll ? lcAll : (lang && *lang ? lang : "");
    locale = locale.substr(0, locale.find_first_of(".@"));
    if (locale.empty() || locale == "C" || locale == "POSIX") return "en-US";
    for (char& c : locale)
        if (c == '_') c = '-';
    return locale;
}

namespace {

// "/usr/share/zoneinfo/Europe/Paris" is "Europe/Paris"; a path outside zoneinfo names nothing.
std::optional<std::string> zoneFromPath(const std::string& path) {
    constexpr std::string_view kMarker = "zoneinfo/";
    const auto at = path.find(kMarker);
    if (at == std::string::npos) return std::nullopt;
    std::string name = path.substr(at + kMarker.size());
    // "posix/" and "right/" are variants of the same zones.
    for (std::string_view variant : {"posix/", "right/"})
        if (name.starts_with(variant)) name.erase(0, variant.size());
    if (name.empty()) return std::nullopt;
    return name;
}

}  // namespace

std::string timezoneName(const char* tz, const std::string& etcTimezone, const std::string& etcLocaltime) {
    if (tz && *tz) {
        std::string value = tz[0] == ':' ? tz + 1 : tz;
        if (value.starts_with("/")) {
            if (auto zone = zoneFromPath(value)) return *zone;
        } else if (!value.empty()) {
            return value;
        }
    }
    std::ifstream file(etcTimezone);
    std::string line;
    if (file && std::getline(file, line)) {
        while (!line.empty() && (line.back() == ' ' || line.back() == '\r')) line.pop_back();
        if (!line.empty()) return line;
    }
    std::error_code error;
    const auto target = std::filesystem::read_symlink(etcLocaltime, error);
    if (!error)
        if (auto zone = zoneFromPath(target.string())) return *zone;
    return "UTC";
}

}  // namespace kt::segment
