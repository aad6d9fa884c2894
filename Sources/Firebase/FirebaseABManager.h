#pragma once
// Which variant of an experiment this installation is in. Remote config answers are copied
// into user defaults, so they survive restarts and serve before the next fetch; a developer
// override (from the experiments menu) always wins over them.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "KTAnalytics/Firebase/FirebaseABAssignment.h"
#include "KTAnalytics/Firebase/FirebaseABAssignmentStore.h"
#include "KTAnalytics/Firebase/RemoteConfigProviding.h"

namespace kt {

class UserDefaults;

class FirebaseABManaging {
public:
    FirebaseABManaging() = default;
    virtual ~FirebaseABManaging() = default;
    FirebaseABManaging(const FirebaseABManaging&) = delete;
    FirebaseABManaging& operator=(const FirebaseABManaging&) = delete;

    /// Copies remote config's answers for the experiments' ids and companion-value keys into
    /// the persisted remote assignments, as text, unvalidated. A key remote config does not
    /// answer keeps its earlier value.
    virtual void updateAssignments(const RemoteConfigProviding& remoteConfig,
                                   const std::vector<FirebaseABExperimentType>& experiments) = 0;

    /// The raw value of the assigned variant: the override when there is one, else the
    /// remote assignment. Absent when that text names no variant of the experiment (an
    /// invalid override hides a valid remote value).
    virtual std::optional<std::string> assignment(const FirebaseABExperimentType& experiment) const = 0;

    /// The remote companion value of the experiment as a number. Overrides are not consulted.
    virtual std::optional<double> assignmentDoubleValue(const FirebaseABExperimentType& experiment) const = 0;

    /// The assigned variant of experiment type T.
    template <FirebaseABAssignment T>
    std::optional<T> assignment() const {
        auto raw = assignment(FirebaseABExperimentType::of<T>());
        if (!raw) return std::nullopt;
        return T::fromRawValue(*raw);
    }

    template <FirebaseABAssignment T>
    std::optional<double> assignmentDoubleValue() const {
        return assignmentDoubleValue(FirebaseABExperimentType::of<T>());
    }
};

/// What the developer menu needs: overrides by key.
class FirebaseABAssignmentOverriding {
public:
    FirebaseABAssignmentOverriding() = default;
    virtual ~FirebaseABAssignmentOverriding() = default;
    FirebaseABAssignmentOverriding(const FirebaseABAssignmentOverriding&) = delete;
    FirebaseABAssignmentOverriding& operator=(const FirebaseABAssignmentOverriding&) = delete;

    virtual std::optional<std::string> overriddenValue(const std::string& key) const = 0;
    /// Sets the override (absent clears it); persisted at once.
    virtual void setOverride(const std::optional<std::string>& value, const std::string& key) = 0;
};

class FirebaseABManager;

/// For the host application's composition root; this library neither implements nor calls it.
class FirebaseABManagerMaking {
public:
    FirebaseABManagerMaking() = default;
    virtual ~FirebaseABManagerMaking() = default;
    FirebaseABManagerMaking(const FirebaseABManagerMaking&) = delete;
    FirebaseABManagerMaking& operator=(const FirebaseABManagerMaking&) = delete;

    virtual std::shared_ptr<FirebaseABManager> makeFirebaseABManager(std::shared_ptr<UserDefaults> userDefaults) = 0;
};

/// Meant to be used from one thread at a time; it takes no locks.
class FirebaseABManager final : public FirebaseABManaging, public FirebaseABAssignmentOverriding {
public:
    static constexpr const char* remoteAssignmentsKey = "com.Quillarbor.FirebaseABTestingManager.remoteAssignments";
    static constexpr const char* overriddenAssignmentsKey = "com.Quillarbor.FirebaseABTestingManager.localAssignments";

    FirebaseABManager() = delete;
    explicit FirebaseABManager(std::shared_ptr<UserDefaults> userDefaults);

    using FirebaseABManaging::assignment;
    using FirebaseABManaging::assignmentDoubleValue;

    void updateAssignments(const RemoteConfigProviding& remoteConfig,
                           const std::vector<FirebaseABExperimentType>& experiments) override;
    std::optional<std::string> assignment(const FirebaseABExperimentType& experiment) const override;
    std::optional<double> assignmentDoubleValue(const FirebaseABExperimentType& experiment) const override;

    std::optional<std::string> overriddenValue(const std::string& key) const override;
    void setOverride(const std::optional<std::string>& value, const std::string& key) override;

private:
    std::unique_ptr<FirebaseABAssignmentStoring> remoteAssignmentsStore_;
    std::unique_ptr<FirebaseABAssignmentStoring> overriddenAssignmentsStore_;
};

}  // namespace kt
