#include "Analytics/OperatingSystemVersion.h"

#include <gtest/gtest.h>

namespace kt {
namespace {

TEST(OperatingSystemVersion, ReadsTheLeadingDottedNumbersOfAKernelRelease) {
    EXPECT_EQ(OperatingSystemVersion::fromKernelRelease("6.1.0-18-amd64").string(), "6.1.0");
    EXPECT_EQ(OperatingSystemVersion::fromKernelRelease("6.8-rc3").string(), "6.8.0");
    EXPECT_EQ(OperatingSystemVersion::fromKernelRelease("generic").string(), "0.0.0");
}

}  // namespace
}  // namespace kt
