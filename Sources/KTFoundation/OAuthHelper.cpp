#include "KTAnalytics/KTFoundation/OAuthHelper.h"

namespace kt {

std::string OAuthHelper::authHeaderForToken(std::string_view token) {
    std::string header = "Bearer ";
    header.append(token);
    return header;
}

}  // namespace kt
