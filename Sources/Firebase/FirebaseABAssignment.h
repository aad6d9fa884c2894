#pragma once
// What an A/B experiment is to the rest of the system.
//
// An experiment is a small enumeration type whose cases are its variants; the type itself
// (never a value of it) carries the remote-config key of the experiment, an optional key of
// a numeric companion value and the names of its variants. Any type that satisfies
// `FirebaseABAssignment` works with the A/B manager; the catalogue in
// FirebaseABExperiments.h lists the experiments this library knows about.

#include <concepts>
#include <cstddef>
#include <functional>
#include <iterator>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <typeindex>
#include <vector>

namespace kt {

/// The requirements on an experiment type. The first three are type-level and may change at
/// run time (the host can re-point an experiment at another key), so they are functions.
template <class T>
concept FirebaseABAssignment = std::equality_comparable<T> && requires(const T& variant, std::string_view text) {
    { T::id() } -> std::convertible_to<std::string>;
    { T::remoteValueId() } -> std::convertible_to<std::optional<std::string>>;
    { T::allVariants() } -> std::convertible_to<std::vector<std::string>>;
    { T::allCases() } -> std::convertible_to<std::vector<T>>;
    { variant.rawValue() } -> std::convertible_to<std::string>;
    /// Whole-text, case-sensitive match against the raw values; absent for unknown text.
    { T::fromRawValue(text) } -> std::same_as<std::optional<T>>;
};

/// A type-level value that the host application may reassign while the process runs. It is
/// created on first use and never persisted; reads and writes may come from any thread.
template <class Value>
class TypeLevelValue {
public:
    explicit TypeLevelValue(Value initial) : value_(std::move(initial)) {}
    TypeLevelValue(const TypeLevelValue&) = delete;
    TypeLevelValue& operator=(const TypeLevelValue&) = delete;

    Value get() const {
        std::lock_guard lock(mutex_);
        return value_;
    }
    void set(Value value) {
        std::lock_guard lock(mutex_);
        value_ = std::move(value);
    }

private:
    mutable std::mutex mutex_;
    Value value_;
};

/// The enumeration half of an experiment type: string raw values, `allCases`, construction
/// from a raw value, equality and hashing by raw value. `Derived` declares an unscoped
/// `enum Case` whose enumerators run 0, 1, 2... in declaration order, and a `rawValues`
/// array indexed by case.
template <class Derived>
class ExperimentEnumeration {
public:
    std::string rawValue() const { return std::string(Derived::rawValues[index_]); }

    static std::optional<Derived> fromRawValue(std::string_view text) {
        for (std::size_t i = 0; i < std::size(Derived::rawValues); ++i)
            if (Derived::rawValues[i] == text) return Derived(static_cast<typename Derived::Case>(i));
        return std::nullopt;
    }

    static std::vector<Derived> allCases() {
        std::vector<Derived> cases;
        for (std::size_t i = 0; i < std::size(Derived::rawValues); ++i)
            cases.push_back(Derived(static_cast<typename Derived::Case>(i)));
        return cases;
    }

    /// The raw value of every case, in case order.
    static std::vector<std::string> caseRawValues() {
        return std::vector<std::string>(std::begin(Derived::rawValues), std::end(Derived::rawValues));
    }

    friend bool operator==(const Derived& a, const Derived& b) { return a.index_ == b.index_; }

protected:
    constexpr explicit ExperimentEnumeration(int index) : index_(index) {}

private:
    int index_;
};

/// One experiment type as a value, so that lists of different experiment types (the
/// catalogue, the argument of `updateAssignments`) can exist. Every read goes to the type,
/// so a reassigned `id` is seen at once.
class FirebaseABExperimentType {
public:
    template <FirebaseABAssignment T>
    static FirebaseABExperimentType of() {
        return FirebaseABExperimentType(
            std::type_index(typeid(T)), [] { return std::string(T::id()); },
            [] { return std::optional<std::string>(T::remoteValueId()); },
            [] { return std::vector<std::string>(T::allVariants()); },
            [](std::string_view text) { return T::fromRawValue(text).has_value(); });
    }

    std::string id() const { return id_(); }
    std::optional<std::string> remoteValueId() const { return remoteValueId_(); }
    std::vector<std::string> allVariants() const { return allVariants_(); }
    /// Whether `text` is the raw value of one of the type's cases.
    bool isRawValue(std::string_view text) const { return isRawValue_(text); }

    friend bool operator==(const FirebaseABExperimentType& a, const FirebaseABExperimentType& b) {
        return a.type_ == b.type_;
    }

private:
    FirebaseABExperimentType(std::type_index type, std::string (*id)(),
                             std::optional<std::string> (*remoteValueId)(),
                             std::vector<std::string> (*allVariants)(), bool (*isRawValue)(std::string_view))
        : type_(type), id_(id), remoteValueId_(remoteValueId), allVariants_(allVariants), isRawValue_(isRawValue) {}

    std::type_index type_;
    std::string (*id_)();
    std::optional<std::string> (*remoteValueId_)();
    std::vector<std::string> (*allVariants_)();
    bool (*isRawValue_)(std::string_view);
};

}  // namespace kt

/// Experiment values hash by raw value, like they compare.
template <class T>
    requires std::derived_from<T, kt::ExperimentEnumeration<T>>
struct std::hash<T> {
    std::size_t operator()(const T& value) const { return std::hash<std::string>()(value.rawValue()); }
};
