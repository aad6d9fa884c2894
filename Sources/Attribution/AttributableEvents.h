#pragma once
// The attribution milestones: the tokens the attribution service knows them by, and the
// roles that carry them from the emitters through the center to the host's delegate.

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kt {

/// The analytics emitter's milestones; the raw value of each is its token.
enum class AttributableEvent { like, follow, playlistPlay };

std::string_view attributableEventToken(AttributableEvent event);
/// The milestone of a token; nullopt for a token that is none of them.
std::optional<AttributableEvent> attributableEventFromToken(std::string_view token);

/// The playback emitter's tokens.
struct EventToken {
    static constexpr const char* playToken = "4b11wy";
    static constexpr const char* firstPlayToken = "52hk3r";
    static constexpr const char* fifthPlayToken = "ufnrob";
};

class AttributableEventEmitterDelegate {
public:
    virtual ~AttributableEventEmitterDelegate() = default;
    AttributableEventEmitterDelegate() = default;
    AttributableEventEmitterDelegate(const AttributableEventEmitterDelegate&) = delete;
    AttributableEventEmitterDelegate& operator=(const AttributableEventEmitterDelegate&) = delete;

    virtual void didEmitEventWithName(const std::string& token) = 0;
};

class AttributableEventEmitter {
public:
    virtual ~AttributableEventEmitter() = default;
    AttributableEventEmitter() = default;
    AttributableEventEmitter(const AttributableEventEmitter&) = delete;
    AttributableEventEmitter& operator=(const AttributableEventEmitter&) = delete;

    /// Held weakly.
    virtual void setDelegate(std::weak_ptr<AttributableEventEmitterDelegate> delegate) = 0;
};

/// Implemented by the host: forwards tokens to the attribution service.
class AttributableEventCenterDelegate {
public:
    virtual ~AttributableEventCenterDelegate() = default;
    AttributableEventCenterDelegate() = default;
    AttributableEventCenterDelegate(const AttributableEventCenterDelegate&) = delete;
    AttributableEventCenterDelegate& operator=(const AttributableEventCenterDelegate&) = delete;

    virtual void didTriggerEventWithName(const std::string& token) = 0;
};

}  // namespace kt
