#pragma once
// Persistent property-list values (string, number, date, data, array, dictionary) in one
// SQLite database per application. Every write is durable when the call returns; all
// operations are safe from several threads. Reads are answered from memory: a write through
// any object of this process is seen by all of them at once, a write by another process
// within 100 ms.

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "KTAnalytics/Platform/AttributeValue.h"

namespace kt {

class UserDefaults {
public:
    /// Opens (creating if needed) the database at `path`. Fails fatally only when the file
    /// cannot be opened at all; see `open` for a non-fatal variant.
    explicit UserDefaults(const std::filesystem::path& path);
    ~UserDefaults();
    UserDefaults(const UserDefaults&) = delete;
    UserDefaults& operator=(const UserDefaults&) = delete;

    /// Opens the database, or returns null with `error` filled when it cannot.
    static std::shared_ptr<UserDefaults> open(const std::filesystem::path& path, std::string* error = nullptr);

    /// The standard location: $XDG_CONFIG_HOME (or ~/.config)/<applicationId>/defaults.sqlite3.
    static std::filesystem::path standardPath(const std::string& applicationId);

    std::optional<AttributeValue> object(const std::string& key) const;
    /// Stores the value; a JSON null value removes the key (like setting nil).
    void set(const AttributeValue& value, const std::string& key);
    void removeObject(const std::string& key);

    std::optional<std::string> string(const std::string& key) const;
    std::optional<double> number(const std::string& key) const;
    /// 0 when absent or not a number (the platform's integerForKey:).
    long long integer(const std::string& key) const;
    std::optional<Date> date(const std::string& key) const;
    /// A dictionary whose values are all strings; absent when the value is anything else.
    std::optional<std::map<std::string, std::string>> stringDictionary(const std::string& key) const;

    std::vector<std::string> keys(const std::string& prefix = "") const;
    /// Removes every key that starts with `prefix`.
    void removeKeysWithPrefix(const std::string& prefix);

private:
    struct Impl;
    explicit UserDefaults(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

}  // namespace kt
