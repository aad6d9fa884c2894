#pragma once
// A name-spaced persistent key-value store.

#include <memory>
#include <optional>
#include <string>

#include "KTAnalytics/Platform/AttributeValue.h"

namespace kt {

class UserDefaults;

class KeyValueStoring {
public:
    virtual ~KeyValueStoring() = default;
    KeyValueStoring() = default;
    KeyValueStoring(const KeyValueStoring&) = delete;
    KeyValueStoring& operator=(const KeyValueStoring&) = delete;

    virtual std::optional<std::string> string(const std::string& key) const = 0;
    virtual std::optional<Date> date(const std::string& key) const = 0;
    virtual std::optional<double> number(const std::string& key) const = 0;
    /// Setting an absent value removes the key.
    virtual void setString(const std::optional<std::string>& value, const std::string& key) = 0;
    virtual void setDate(const std::optional<Date>& value, const std::string& key) = 0;
    virtual void setNumber(const std::optional<double>& value, const std::string& key) = 0;
    /// Removes every key of this name space.
    virtual void clear() = 0;
};

/// A view of user defaults under one name space: key "k" is stored as "<nameSpace>.k".
class UserDefaultsStore final : public KeyValueStoring {
public:
    UserDefaultsStore(std::shared_ptr<UserDefaults> defaults, std::string nameSpace);

    std::optional<std::string> string(const std::string& key) const override;
    std::optional<Date> date(const std::string& key) const override;
    std::optional<double> number(const std::string& key) const override;
    void setString(const std::optional<std::string>& value, const std::string& key) override;
    void setDate(const std::optional<Date>& value, const std::string& key) override;
    void setNumber(const std::optional<double>& value, const std::string& key) override;
    void clear() override;

    const std::string& nameSpace() const { return nameSpace_; }

private:
    std::string fullKey(const std::string& key) const;
    std::shared_ptr<UserDefaults> defaults_;
    std::string nameSpace_;
};

}  // namespace kt
