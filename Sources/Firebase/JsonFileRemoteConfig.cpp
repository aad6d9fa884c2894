#include "KTAnalytics/Firebase/JsonFileRemoteConfig.h"

#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

namespace kt {

namespace {

std::shared_ptr<JsonFileRemoteConfig> fail(std::string* error, std::string message) {
    if (error) *error = std::move(message);
    return nullptr;
}

}  // namespace

JsonFileRemoteConfig::JsonFileRemoteConfig(std::map<std::string, std::string> values) : values_(std::move(values)) {}

std::shared_ptr<JsonFileRemoteConfig> JsonFileRemoteConfig::load(const std::filesystem::path& path,
                                                                 std::string* error) {
    std::error_code ignored;
    if (!std::filesystem::exists(path, ignored))
        return fail(error, "remote config file " + path.string() + " does not exist");
    if (std::filesystem::is_directory(path, ignored))
        return fail(error, "remote config file " + path.string() + " is a directory");
    std::ifstream file(path, std::ios::binary);
    if (!file) return fail(error, "cannot open remote config file " + path.string());
    std::ostringstream text;
    text << file.rdbuf();
    if (file.bad()) return fail(error, "cannot read remote config file " + path.string());

    const auto json = nlohmann::json::parse(text.str(), nullptr, /*allow_exceptions=*/false);
    if (json.is_discarded())
        return fail(error, "remote config file " + path.string() + " is not valid JSON");
    if (!json.is_object())
        return fail(error, "remote config file " + path.string() +
                               " must hold one JSON object of key to text, not " + json.type_name());

    std::map<std::string, std::string> values;
    for (const auto& [key, value] : json.items()) {
        if (!value.is_string())
            return fail(error, "remote config file " + path.string() + ": the value of \"" + key +
                                   "\" must be text, not " + value.type_name());
        values.emplace(key, value.get<std::string>());
    }
    return std::make_shared<JsonFileRemoteConfig>(std::move(values));
}

std::set<std::string> JsonFileRemoteConfig::keysWithPrefix(const std::string& prefix) const {
    std::set<std::string> keys;
    for (auto it = values_.lower_bound(prefix); it != values_.end() && it->first.starts_with(prefix); ++it)
        keys.insert(it->first);
    return keys;
}

std::optional<std::string> JsonFileRemoteConfig::valueFor(const std::string& key) const {
    auto it = values_.find(key);
    if (it == values_.end()) return std::nullopt;
    return it->second;
}

}  // namespace kt
