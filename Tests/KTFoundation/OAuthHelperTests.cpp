#include "KTFoundation/OAuthHelper.h"

#include <gtest/gtest.h>

namespace kt {
namespace {

TEST(OAuthHelperTests, AuthorizationValueUsesTheBearerScheme) {
    EXPECT_EQ(OAuthHelper::authHeaderForToken("2-29xxx-abc"), "Bearer 2-29xxx-abc");
}

}  // namespace
}  // namespace kt
