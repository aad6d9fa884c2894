#include "KTAnalytics/KTFoundation/KTLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "KTAnalytics/KTFoundation/LogMacros.h"
#include "Support/RecordingLogger.h"

namespace kt {
namespace {

using ::testing::HasSubstr;

TEST(KTLoggerTests, LinesBelowTheThresholdAreNeitherFormattedNorRecorded) {
    auto logger = std::make_shared<testing::RecordingLogger>(2);
    int formatted = 0;  // the arguments are not even evaluated for a disabled line
    KT_LOG(logger, 1, "Sources/KTFoundation/Example", "-[Example run]", "value {}", ++formatted);
    EXPECT_EQ(formatted, 0);
    EXPECT_EQ(logger->count(), 0u);

    KT_LOG(logger, 2, "Sources/KTFoundation/Example", "-[Example run]", "value {}", ++formatted);
    EXPECT_EQ(formatted, 1);
    auto records = logger->records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].level, 2);
    EXPECT_EQ(records[0].file, "Sources/KTFoundation/Example");
    EXPECT_EQ(records[0].function, "-[Example run]");
    EXPECT_EQ(records[0].message, "value 1");
}

TEST(KTLoggerTests, SpdlogLoggerWritesFileLineAndFunctionAboveItsThreshold) {
    auto logger = makeSpdlogLogger(1, "kt-logger-test");
    EXPECT_TRUE(logger->isEnabled(1));

    ::testing::internal::CaptureStderr();
    logger->logWithLevel(0, "Sources/A/Quiet", 3, "-[Quiet op]", "not shown");
    logger->logWithLevel(2, "Sources/A/Loud", 42, "-[Loud op:]", "disk is full");
    logger->logWithLevel(3, "Sources/A/Loud", 43, "-[Loud op:]", "gave up");
    const std::string output = ::testing::internal::GetCapturedStderr();
    EXPECT_THAT(output, HasSubstr("warning] [Sources/A/Loud:42 -[Loud op:]] disk is full"));
    EXPECT_THAT(output, HasSubstr("error] [Sources/A/Loud:43 -[Loud op:]] gave up"));
    EXPECT_THAT(output, ::testing::Not(HasSubstr("not shown")));
}

}  // namespace
}  // namespace kt
