#pragma once
// Internal-build switches: the developer menu and the beta programme enrolment.

namespace kt {

class DevMenuFeatureStatusProvider {
public:
    virtual ~DevMenuFeatureStatusProvider() = default;
    DevMenuFeatureStatusProvider() = default;
    DevMenuFeatureStatusProvider(const DevMenuFeatureStatusProvider&) = delete;
    DevMenuFeatureStatusProvider& operator=(const DevMenuFeatureStatusProvider&) = delete;

    virtual bool isDevelopmentMenuEnabled() const = 0;
    virtual bool isEnrolledInBetaProgram() const = 0;
};

}  // namespace kt
