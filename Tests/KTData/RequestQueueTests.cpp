#include "KTData/RequestQueue.h"

#include <gtest/gtest.h>

namespace kt {
namespace {

// Delivered ends a request, rejected drops it, failed keeps it for another attempt.
TEST(RequestQueueTests, requestResultForMapsEveryKindOfOutcome) {
    using enum RequestResult;
    const std::pair<long, RequestResult> table[] = {
        {200, delivered}, {204, delivered}, {299, delivered}, {400, rejected}, {404, rejected}, {413, rejected},
        {499, rejected},  {408, failed},    {429, failed},    {500, failed},   {503, failed},   {0, failed},
        {199, failed},    {301, failed},    {304, failed},    {600, failed},
    };
    for (const auto& [status, expected] : table) EXPECT_EQ(requestResultFor(status), expected) << "status " << status;
}

}  // namespace
}  // namespace kt
