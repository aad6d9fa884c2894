#include "Analytics/OperatingSystemVersion.h"

#include <fstream>
#include <regex>

#include <gtest/gtest.h>

namespace kt {
namespace {

TEST(OperatingSystemVersion, ReadsTheLeadingDottedNumbersOfAKernelRelease) {
    EXPECT_EQ(OperatingSystemVersion::fromKernelRelease("6.1.0-18-amd64").string(), "6.1.0");
    EXPECT_EQ(OperatingSystemVersion::fromKernelRelease("6.8-rc3").string(), "6.8.0");
    EXPECT_EQ(OperatingSystemVersion::fromKernelRelease("generic").string(), "0.0.0");
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
