#pragma once
// An HTTP request value: URL, method, ordered header fields, body, and whether redirects are followed.

#include <string>
#include <utility>
#include <vector>

namespace kt {

struct HTTPRequest {
    std::string url;
    std::string method = "GET";
    /// Header fields in the order they were set; setting an existing name replaces it in place.
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    /// Whether an answer that redirects (3xx with a Location) is followed to its target, where
    /// the final answer decides. Only for requests that carry no credentials, such as tracking
    /// pixels; uploads never follow, so their credentials cannot travel to another host.
    bool followsRedirects = false;

    void setValue(const std::string& value, const std::string& field) {
        for (auto& [name, v] : headers) {
            if (equalsIgnoringCase(name, field)) {
                v = value;
                return;
            }
        }
        headers.emplace_back(field, value);
    }
    /// The value of a header field (case-insensitive), or null.
    const std::string* value(const std::string& field) const {
        for (const auto& [name, v] : headers)
            if (equalsIgnoringCase(name, field)) return &v;
        return nullptr;
    }
    bool operator==(const HTTPRequest&) const = default;

private:
    static bool equalsIgnoringCase(const std::string& a, const std::string& b) {
        if (a.size() != b.size()) return false;
        for (std::size_t i = 0; i < a.size(); ++i) {
            char x = a[i], y = b[i];
            if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
            if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
            if (x != y) return false;
        }
        return true;
    }
};

}  // namespace kt
