#pragma once
// One persistent dictionary of experiment assignments, mirrored in user defaults under one
// key. Keys are experiment ids or companion-value keys; values are variant raw values or
// the raw remote text.

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace kt {

class UserDefaults;

class FirebaseABAssignmentStoring {
public:
    FirebaseABAssignmentStoring() = default;
    virtual ~FirebaseABAssignmentStoring() = default;
    FirebaseABAssignmentStoring(const FirebaseABAssignmentStoring&) = delete;
    FirebaseABAssignmentStoring& operator=(const FirebaseABAssignmentStoring&) = delete;

    /// Removes the key from user defaults. The entries in memory stay.
    virtual void reset() = 0;
    /// The entry for `key`, if any.
    virtual std::optional<std::string> operator[](const std::string& key) const = 0;
    /// Stores the value (absent removes the entry), then writes the whole dictionary back.
    virtual void set(const std::string& key, std::optional<std::string> value) = 0;
    /// Lets `change` edit the entry in place, then writes the whole dictionary back.
    virtual void modify(const std::string& key, const std::function<void(std::optional<std::string>&)>& change) = 0;
};

class FirebaseABAssignmentStore final : public FirebaseABAssignmentStoring {
public:
    FirebaseABAssignmentStore() = delete;
    /// Starts from the dictionary stored under `key` when it is one of strings to strings
    /// (and writes it straight back); anything else there is ignored until the first change
    /// overwrites it.
    FirebaseABAssignmentStore(std::shared_ptr<UserDefaults> userDefaults, std::string key);

    void reset() override;
    std::optional<std::string> operator[](const std::string& key) const override;
    void set(const std::string& key, std::optional<std::string> value) override;
    void modify(const std::string& key, const std::function<void(std::optional<std::string>&)>& change) override;

    const std::string& key() const { return key_; }
    const std::map<std::string, std::string>& assignments() const { return assignments_; }

private:
    void writeBack();

    std::shared_ptr<UserDefaults> userDefaults_;
    std::string key_;
    std::map<std::string, std::string> assignments_;
};

}  // namespace kt
