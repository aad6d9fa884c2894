#pragma once
// Whether a listener is signed in right now.

namespace kt {

class AuthenticationStatusProviding {
public:
    virtual ~AuthenticationStatusProviding() = default;
    AuthenticationStatusProviding() = default;
    AuthenticationStatusProviding(const AuthenticationStatusProviding&) = delete;
    AuthenticationStatusProviding& operator=(const AuthenticationStatusProviding&) = delete;

    virtual bool isAuthenticated() const = 0;
};

}  // namespace kt
