#include "KTFoundation/KTLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "KTFoundation/LogMacros.h"
#include "Support/RecordingLogger.h"

namespace kt {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

// Counts how often it is formatted, to prove that disabled lines cost no formatting.
struct Expensive {
    int* formatted;
};

}  // namespace
}  // namespace kt

template <>
struct fmt::formatter<kt::Expensive> : fmt::formatter<std::string_view> {
    auto format(const kt::Expensive& value, format_context& context) const {
        ++*value.formatted;
        return fmt::formatter<std::string_view>::format("expensive", context);
    }
};

namespace kt {
namespace {

TEST(KTLoggerTests, LinesBelowTheThresholdAreNeitherFormattedNorRecorded) {
    auto logger = std::make_shared<testing::RecordingLogger>(2);
    int formatted = 0;
    KT_LOG(logger, 1, "Sources/KTFoundation/Example", "-[Example run]", "value {}", Expensive{&formatted});
    EXPECT_EQ(formatted, 0);
    EXPECT_EQ(logger->count(), 0u);

    KT_LOG(logger, 2, "Sources/KTFoundation/Example", "-[Example run]", "value {}", Expensive{&formatted});
    EXPECT_EQ(formatted, 1);
    auto records = logger->records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].level, 2);
    EXPECT_EQ(records[0].file, "Sources/KTFoundation/Example");
    EXPECT_EQ(records[0].function, "-[Example run]");
    EXPECT_EQ(records[0].message, "value expensive");
}

TEST(KTLoggerTests, SpdlogLoggerWritesFileLineAndFunctionAboveItsThreshold) {
    auto logger = makeSpdlogLogger(1, "kt-logger-test");
    EXPECT_FALSE(logger->isEnabled(0));
    EXPECT_TRUE(logger->isEnabled(1));
    EXPECT_TRUE(logger->isEnabled(3));

    ::testing::internal::CaptureStderr();
    logger->logWithLevel(0, "Sources/A/Quiet", 3, "-[Quiet op]", "not shown");
    logger->logWithLevel(2, "Sources/A/Loud", 42, "-[Loud op:]", "disk is full");
    logger->logWithLevel(3, "Sources/A/Loud", 43, "-[Loud op:]", "gave up");
    std::string output = ::testing::internal::GetCapturedStderr();

    EXPECT_THAT(output, HasSubstr("[Sources/A/Loud:42 -[Loud op:]] disk is full"));
    EXPECT_THAT(output, HasSubstr("[Sources/A/Loud:43 -[Loud op:]] gave up"));
    EXPECT_THAT(output, HasSubstr("warning"));
    EXPECT_THAT(output, HasSubstr("error"));
    EXPECT_THAT(output, Not(HasSubstr("not shown")));
}

}  // namespace
}  // namespace kt
