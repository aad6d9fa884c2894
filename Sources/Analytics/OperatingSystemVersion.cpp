#include "KTAnalytics/Analytics/OperatingSystemVersion.h"

#include <sys/utsname.h>

#include <charconv>

namespace kt {

std::string OperatingSystemVersion::string() const {
    return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch);
}

OperatingSystemVersion OperatingSystemVersion::fromKernelRelease(std::string_view release) {
    std::int64_t parts[3] = {0, 0, 0};
    const char* cursor = release.data();
    const char* end = release.data() + release.size();
    for (int index = 0; index < 3; ++index) {
        if (index > 0) {
            if (cursor == end || *cursor != '.')
                break;
            ++cursor;
        }
        if (cursor == end || *cursor < '0' || *cursor > '9')
            break;  // no digits here: this and the later parts stay 0
        std::int64_t number = 0;
        auto [next, ec] = std::from_chars(cursor, end, number);
        // A number too long for 64 bits counts as unreadable; skip its digits all the same.
        parts[index] = ec == std::errc() ? number : 0;
        cursor = next;
    }
    return {parts[0], parts[1], parts[2]};
}

OperatingSystemVersion OperatingSystemVersion::current() {
    utsname names{};
    if (uname(&names) != 0)
        return {};
    return fromKernelRelease(names.release);
}

}  // namespace kt
