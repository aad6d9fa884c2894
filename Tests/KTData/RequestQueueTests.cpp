#include "KTData/RequestQueue.h"

#include <gtest/gtest.h>

namespace kt {
namespace {

TEST(RequestQueueTests, requestResultForMapsEveryKindOfOutcome) {
    const struct {
        long status;
        RequestResult expected;
    } table[] = {
        {200, RequestResult::delivered}, {204, RequestResult::delivered}, {299, RequestResult::delivered},
        {400, RequestResult::rejected},  {404, RequestResult::rejected},  {413, RequestResult::rejected},
        {499, RequestResult::rejected},  {408, RequestResult::failed},    {429, RequestResult::failed},
        {500, RequestResult::failed},    {503, RequestResult::failed},    {0, RequestResult::failed},
        {199, RequestResult::failed},    {301, RequestResult::failed},    {304, RequestResult::failed},
        {600, RequestResult::failed},
    };
    for (const auto& row : table)
        EXPECT_EQ(requestResultFor(row.status), row.expected) << "status " << row.status;
}

}  // namespace
}  // namespace kt
