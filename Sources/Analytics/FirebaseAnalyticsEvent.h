#pragma once
// One Firebase event: a name, its parameters (strings, booleans, 64-bit integers) and
// whether the host's Firebase adapter should add its own user information. Immutable.

#include <string>

#include "KTAnalytics/Analytics/FirebaseAnalyticsEventName.h"
#include "KTAnalytics/Platform/AttributeValue.h"

namespace kt {

class FirebaseAnalyticsEvent {
public:
    /// An event with an empty name, no parameters, asking for extra user information.
    FirebaseAnalyticsEvent();
    /// `parameters` must be a dictionary; a null value counts as an empty one.
    explicit FirebaseAnalyticsEvent(const FirebaseAnalyticsEventName& name,
                                    AttributeDictionary parameters = value::dictionary(),
                                    bool shouldIncludeExtraUserInfo = true);

    const std::string& name() const { return name_; }
    const AttributeDictionary& parameters() const { return parameters_; }
    bool shouldIncludeExtraUserInfo() const { return shouldIncludeExtraUserInfo_; }

    /// "name: <name>, parameters: <dictionary>", the dictionary written as in
    /// `["key": value, ...]` (strings quoted, keys sorted) or `[:]` when empty.
    std::string description() const;

    /// Deliberately loose: equal names and the same *number* of parameters make two events
    /// equal; parameter keys, values and the extra-user-info flag are not compared. Callers
    /// that deduplicate events rely on this. Null is never equal.
    bool isEqual(const FirebaseAnalyticsEvent* other) const;

    friend bool operator==(const FirebaseAnalyticsEvent& lhs, const FirebaseAnalyticsEvent& rhs) {
        return lhs.isEqual(&rhs);
    }

private:
    std::string name_;
    AttributeDictionary parameters_;
    bool shouldIncludeExtraUserInfo_ = true;
};

}  // namespace kt
