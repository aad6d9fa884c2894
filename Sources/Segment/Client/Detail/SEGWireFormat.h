#pragma once
// Pure helpers behind the client's messages and requests: the text forms the batch API
// expects, and the machine facts the context reports. No I/O but what is named.

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace kt::segment {

/// "2026-11-23T21:38:07.123Z".
std::string iso8601(std::chrono::system_clock::time_point when);

/// Standard base64 with padding.
std::string base64(std::string_view bytes);

/// "<apiHost>/batch"; a host without a scheme is taken as https, a trailing "/" is not doubled.
std::string batchURL(std::string_view apiHost);

/// A POSIX locale ("en_US.UTF-8", "de_DE@euro") as a language tag ("en-US"); "en-US" for an
/// absent, "C" or "POSIX" locale. LC_ALL wins over LANG, as for the C library.
std::string localeTag(const char* lcAll, const char* lang);

/// The IANA name of the time zone from TZ (":Europe/Paris", a zoneinfo path, a name),
/// else the first line of `etcTimezone`, else the target of the `etcLocaltime` link;
/// "UTC" when none gives a name.
std::string timezoneName(const char* tz, const std::string& etcTimezone, const std::string& etcLocaltime);

}  // namespace kt::segment
