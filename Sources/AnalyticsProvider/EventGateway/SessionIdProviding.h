#pragma once
// The role that hands out the current analytics session id.

#include "KTAnalytics/Platform/UUID.h"

namespace kt {

class SessionIdProviding {
public:
    virtual ~SessionIdProviding() = default;
    SessionIdProviding() = default;
    SessionIdProviding(const SessionIdProviding&) = delete;
    SessionIdProviding& operator=(const SessionIdProviding&) = delete;

    /// The current session id; never absent (one is created when needed, which is why
    /// this is not const).
    virtual UUID getSessionId() = 0;
};

}  // namespace kt
