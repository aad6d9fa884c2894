#pragma once
// The form of the "Authorization" header for the user's OAuth token.

#include <string>
#include <string_view>

namespace kt {

class OAuthHelper {
public:
    OAuthHelper() = delete;

    /// "Bearer <token>".
    static std::string authHeaderForToken(std::string_view token);
};

}  // namespace kt
