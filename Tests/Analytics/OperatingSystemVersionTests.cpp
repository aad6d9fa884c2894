#include "Analytics/OperatingSystemVersion.h"

#include <fstream>
#include <regex>

#include <gtest/gtest.h>

namespace kt {
namespace {

TEST(OperatingSystemVersion, ReadsTheLeadingDottedNumbersOfAKernelRelease) {
    const std::pair<std::string, std::string> cases[] = {
        {"6.1.0-18-amd64", "6.1.0"},
        {"5.15.133.1-microsoft-standard-WSL2", "5.15.133"},
        {"6.8.12", "6.8.12"},
        {"6.8", "6.8.0"},
        {"6.8-rc3", "6.8.0"},
        {"6", "6.0.0"},
        {"4.19.0+", "4.19.0"},
        {"6.10rc1", "6.10.0"},
        {"", "0.0.0"},
        {"generic", "0.0.0"},
        {"6..1", "6.0.0"},
        {"6.-1.2", "6.0.0"},
        {"99999999999999999999999.2.3", "0.2.3"},
    };
    for (const auto& [release, version] : cases)
        EXPECT_EQ(OperatingSystemVersion::fromKernelRelease(release).string(), version) << release;
}

TEST(OperatingSystemVersion, CurrentIsTheRunningKernelsRelease) {
    // The kernel publishes its release here too; compare with it rather than with uname.
    std::ifstream file("/proc/sys/kernel/osrelease");
    std::string release;
    if (!std::getline(file, release))
        GTEST_SKIP() << "no /proc/sys/kernel/osrelease";
    std::smatch match;
    ASSERT_TRUE(std::regex_search(release, match, std::regex("^(\\d+)\\.(\\d+)"))) << release;

    auto current = OperatingSystemVersion::current();
    EXPECT_EQ(current.major, std::stoll(match[1]));
    EXPECT_EQ(current.minor, std::stoll(match[2]));
    EXPECT_TRUE(std::regex_match(current.string(), std::regex("\\d+\\.\\d+\\.\\d+"))) << current.string();
}

}  // namespace
}  // namespace kt
