#include "KTAnalytics/KTFoundation/KTEnvironment.h"

#include <charconv>
#include <cstdlib>
#include <mutex>
#include <vector>

#include <pwd.h>
#include <unistd.h>

#include "KTAnalytics/Platform/UserDefaults.h"

namespace kt {

namespace {

std::optional<std::string> processVariable(std::string_view name) {
    const char* value = std::getenv(std::string(name).c_str());
    if (!value)
        return std::nullopt;
    return std::string(value);
}

std::string lowercased(std::string_view text) {
    std::string result(text);
    for (char& c : result)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return result;
}

// The whole text must be the number: "12abc", " 12" and "" are refused.
template <class Integer>
std::optional<Integer> parseInteger(std::string_view text) {
    Integer value{};
    auto [end, status] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (status != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

std::string badValue(std::string_view variable, std::string_view expected, std::string_view value) {
    return std::string(variable) + ": expected " + std::string(expected) + ", got \"" + std::string(value) + "\"";
}

std::filesystem::path homeDirectory(const KTEnvironment::VariableLookup& lookup) {
    if (auto home = lookup("HOME"); home && !home->empty())
        return *home;
    // No HOME (a service or a stripped environment): ask the password database.
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* result = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &result) == 0 && result && result->pw_dir)
        return result->pw_dir;
    return std::filesystem::temp_directory_path();
}

}  // namespace

std::string_view toString(BuildEnvironment environment) {
    switch (environment) {
    case BuildEnvironment::production: return "production";
    case BuildEnvironment::beta: return "beta";
    case BuildEnvironment::alpha: return "alpha";
    case BuildEnvironment::dev: return "dev";
    }
    return "production";
}

std::optional<BuildEnvironment> buildEnvironmentFromString(std::string_view text) {
    std::string name = lowercased(text);
    for (auto candidate : {BuildEnvironment::production, BuildEnvironment::beta, BuildEnvironment::alpha,
                           BuildEnvironment::dev})
        if (name == toString(candidate))
            return candidate;
    return std::nullopt;
}

std::optional<KTEnvironment> KTEnvironment::fromEnvironmentVariables(const KTEnvironment& base, std::string& error) {
    return fromVariables(base, processVariable, error);
}

std::optional<KTEnvironment> KTEnvironment::fromVariables(const KTEnvironment& base, const VariableLookup& lookup,
                                                          std::string& error) {
    KTEnvironment result = base;
    // An empty variable counts as unset, so that `VAR= command` can switch an override off.
    auto read = [&](std::string_view name) -> std::optional<std::string> {
        auto value = lookup(name);
        if (!value || value->empty())
            return std::nullopt;
        return value;
    };

    if (auto url = read("KTANALYTICS_GATEWAY_URL")) {
        std::string scheme = lowercased(url->substr(0, url->find(':')));
        bool hasHost = url->find("://") != std::string::npos && url->size() > url->find("://") + 3;
        if ((scheme != "http" && scheme != "https") || !hasHost) {
            error = badValue("KTANALYTICS_GATEWAY_URL", "an http or https URL", *url);
            return std::nullopt;
        }
        result.eventGatewayBaseURL = *url;
    }
    if (auto text = read("KTANALYTICS_CLIENT_ID")) {
        auto clientId = parseInteger<std::int64_t>(*text);
        if (!clientId) {
            error = badValue("KTANALYTICS_CLIENT_ID", "an integer", *text);
            return std::nullopt;
        }
        result.clientId = *clientId;
    }
    if (auto userAgent = read("KTANALYTICS_USER_AGENT"))
        result.userAgent = *userAgent;
    if (auto directory = read("KTANALYTICS_STATE_DIR"))
        result.stateDirectory = std::filesystem::path(*directory);
    if (auto text = read("KTANALYTICS_MIN_BATCH")) {
        auto size = parseInteger<std::size_t>(*text);
        if (!size || *size == 0) {
            error = badValue("KTANALYTICS_MIN_BATCH", "a positive integer", *text);
            return std::nullopt;
        }
        result.minimumBatchSize = *size;
    }
    if (auto text = read("KTANALYTICS_BUILD")) {
        auto build = buildEnvironmentFromString(*text);
        if (!build) {
            error = badValue("KTANALYTICS_BUILD", "one of production, beta, alpha, dev", *text);
            return std::nullopt;
        }
        result.buildEnvironment = *build;
    }
    if (auto text = read("KTANALYTICS_LOG_LEVEL")) {
        auto level = parseInteger<int>(*text);
        if (!level || *level < 0 || *level > 3) {
            error = badValue("KTANALYTICS_LOG_LEVEL", "a level from 0 to 3", *text);
            return std::nullopt;
        }
        result.logLevel = *level;
    }
    return result;
}

std::filesystem::path KTEnvironment::cachesDirectory() const {
    return cachesDirectory(processVariable);
}

std::filesystem::path KTEnvironment::cachesDirectory(const VariableLookup& lookup) const {
    if (stateDirectory)
        return *stateDirectory / "cache";
    // Relative values of XDG_CACHE_HOME are invalid and must be ignored.
    if (auto xdg = lookup("XDG_CACHE_HOME"); xdg && !xdg->empty() && std::filesystem::path(*xdg).is_absolute())
        return std::filesystem::path(*xdg) / applicationId;
    return homeDirectory(lookup) / ".cache" / applicationId;
}

std::filesystem::path KTEnvironment::userDefaultsPath() const {
    if (stateDirectory)
        return *stateDirectory / "defaults.sqlite3";
    return UserDefaults::standardPath(applicationId);
}

namespace {

std::mutex& sharedMutex() {
    static std::mutex mutex;
    return mutex;
}

std::shared_ptr<const KTEnvironment>& sharedSlot() {
    static std::shared_ptr<const KTEnvironment> environment = std::make_shared<const KTEnvironment>();
    return environment;
}

}  // namespace

std::shared_ptr<const KTEnvironment> KTEnvironment::sharedInstance() {
    std::lock_guard lock(sharedMutex());
    return sharedSlot();
}

void KTEnvironment::setSharedInstance(KTEnvironment environment) {
    auto replacement = std::make_shared<const KTEnvironment>(std::move(environment));
    std::lock_guard lock(sharedMutex());
    sharedSlot() = std::move(replacement);
}

}  // namespace kt
