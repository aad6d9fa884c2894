#pragma once
// The live page's files, embedded into the binary at build time (see Page.cmake), so the
// gateway serves its page with nothing else installed.

#include <span>
#include <string_view>

namespace kt::gateway {

struct PageAsset {
    std::string_view path;         // as served: "/", "/page.css", ...
    std::string_view contentType;
    std::span<const unsigned char> bytes;
};

/// Every file of the page; generated.
std::span<const PageAsset> pageAssets();

}  // namespace kt::gateway
