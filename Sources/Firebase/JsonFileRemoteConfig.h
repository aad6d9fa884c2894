#pragma once
// Remote config read once from a JSON file holding one object of key to text, for example
// {"dev_ab_price_test": "discountedPrice", "dev_offline_sync_grace_period_seconds_value": "3600"}.
// The tool and tests use it where an application would use its remote-config service.

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "KTAnalytics/Firebase/RemoteConfigProviding.h"

namespace kt {

class JsonFileRemoteConfig final : public RemoteConfigProviding {
public:
    JsonFileRemoteConfig() = delete;
    /// Remote config answering exactly `values`.
    explicit JsonFileRemoteConfig(std::map<std::string, std::string> values);

    /// Reads the file; null with `error` filled (when given) if the file cannot be read, is
    /// not JSON, is not an object, or holds a value that is not text.
    static std::shared_ptr<JsonFileRemoteConfig> load(const std::filesystem::path& path,
                                                      std::string* error = nullptr);

    std::set<std::string> keysWithPrefix(const std::string& prefix) const override;
    std::optional<std::string> valueFor(const std::string& key) const override;

    const std::map<std::string, std::string>& values() const { return values_; }

private:
    std::map<std::string, std::string> values_;
};

}  // namespace kt
