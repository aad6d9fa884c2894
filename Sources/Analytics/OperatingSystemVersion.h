#pragma once
// The running system's version as major.minor.patch, taken from the kernel release.

#include <cstdint>
#include <string>
#include <string_view>

namespace kt {

struct OperatingSystemVersion {
    std::int64_t major = 0;
    std::int64_t minor = 0;
    std::int64_t patch = 0;

    /// "17.4.1"; a zero patch is written ("6.8.0").
    std::string string() const;

    /// Reads the leading dotted numbers of a kernel release: "6.1.0-18-amd64" is 6.1.0,
    /// "6.8" is 6.8.0, "5.15.133.1-microsoft" is 5.15.133. Missing or unreadable parts are
    /// 0. Pure, so it can be checked against any release text.
    static OperatingSystemVersion fromKernelRelease(std::string_view release);

    /// The version of the kernel this process runs on (`uname`); 0.0.0 if it cannot be read.
    static OperatingSystemVersion current();
};

}  // namespace kt
