#pragma once
// Entity identifiers of the service: "quillarbor:<collection>:<id>", for example
// "quillarbor:tracks:123" or "quillarbor:system-playlists:abc".

#include <optional>
#include <string>
#include <string_view>

namespace kt {

class Urn {
public:
    /// Fails (nullopt) on anything but "quillarbor:<collection>:<id>" with a non-empty
    /// collection of lower-case letters and hyphens and a non-empty id without blanks.
    static std::optional<Urn> parse(std::string_view text);

    const std::string& collection() const { return collection_; }
    /// The part after the collection: "123" for "quillarbor:tracks:123".
    const std::string& identifier() const { return identifier_; }
    /// The whole text.
    const std::string& stringValue() const { return text_; }
    const std::string& analyticsString() const { return text_; }
    bool isSystemPlaylist() const { return collection_ == "system-playlists"; }
    bool isTrack() const { return collection_ == "tracks"; }
    bool isUser() const { return collection_ == "users"; }
    bool isPlaylist() const { return collection_ == "playlists"; }

    bool operator==(const Urn& other) const { return text_ == other.text_; }

private:
    Urn() = default;
    std::string text_;
    std::string collection_;
    std::string identifier_;
};

}  // namespace kt
