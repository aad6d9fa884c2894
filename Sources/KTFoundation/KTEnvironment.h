#pragma once
// Configuration of the SDK: where events go, who the client is, where state is kept and
// how the pipeline batches. A plain value, filled by the composition root from its
// configuration file, environment variables and flags.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kt {

/// The SDK's version, as it appears in the default user agent.
inline constexpr char kSDKVersion[] = "0.1.0";

enum class BuildEnvironment { production, beta, alpha, dev };

/// "production", "beta", "alpha", "dev".
std::string_view toString(BuildEnvironment environment);
/// Parses the names above, ignoring case; nullopt for anything else.
std::optional<BuildEnvironment> buildEnvironmentFromString(std::string_view text);

struct KTEnvironment {
    std::string applicationId = "ktanalytics";
    /// Base URL of the event gateway; uploads go to "<base>/v1/events".
    std::string eventGatewayBaseURL = "http://127.0.0.1:8080";
    std::optional<std::int64_t> clientId{};
    std::string userAgent = std::string("KTAnalytics/") + kSDKVersion + " (Linux)";
    /// When set, every file the SDK persists lives below this folder.
    std::optional<std::filesystem::path> stateDirectory{};
    std::size_t minimumBatchSize = 20;
    std::chrono::milliseconds flushInterval = std::chrono::seconds(60);
    bool shouldFlushAtRegularIntervals = true;
    bool shouldSendSentAt = false;
    BuildEnvironment buildEnvironment = BuildEnvironment::production;
    std::chrono::milliseconds requestTimeout = std::chrono::seconds(10);
    /// The logger's threshold: 0 debug, 1 info, 2 warnings, 3 errors.
    int logLevel = 2;
    /// Write key of the product-analytics client.
    std::string segmentWriteKey{};

    /// Looks up one variable by name; nullopt when it is not set.
    using VariableLookup = std::function<std::optional<std::string>(std::string_view name)>;

    /// `base` with the KTANALYTICS_* variables of the process environment applied (see
    /// `fromVariables`).
    static std::optional<KTEnvironment> fromEnvironmentVariables(const KTEnvironment& base, std::string& error);

    /// `base` with these variables applied, when set and not empty:
    /// KTANALYTICS_GATEWAY_URL (http or https URL), KTANALYTICS_CLIENT_ID (integer),
    /// KTANALYTICS_USER_AGENT, KTANALYTICS_STATE_DIR, KTANALYTICS_MIN_BATCH (integer >= 1),
    /// KTANALYTICS_BUILD (production, beta, alpha or dev), KTANALYTICS_LOG_LEVEL (0-3).
    /// A malformed value gives nullopt and a message naming the variable in `error`.
    static std::optional<KTEnvironment> fromVariables(const KTEnvironment& base, const VariableLookup& lookup,
                                                      std::string& error);

    /// stateDirectory/"cache" when a state folder is set; otherwise $XDG_CACHE_HOME (or
    /// ~/.cache)/applicationId.
    std::filesystem::path cachesDirectory() const;
    std::filesystem::path cachesDirectory(const VariableLookup& lookup) const;

    /// stateDirectory/"defaults.sqlite3" when a state folder is set; otherwise the
    /// standard user-defaults location of the application.
    std::filesystem::path userDefaultsPath() const;

    /// The environment the host installed at start (a default-configured one until then).
    static std::shared_ptr<const KTEnvironment> sharedInstance();
    static void setSharedInstance(KTEnvironment environment);
};

/// Answers whether this is an internal build, where the pipeline trades throughput for
/// diagnosability (one event per upload, invalid events reported).
class BuildEnvironmentDetecting {
public:
    virtual ~BuildEnvironmentDetecting() = default;
    BuildEnvironmentDetecting() = default;
    BuildEnvironmentDetecting(const BuildEnvironmentDetecting&) = delete;
    BuildEnvironmentDetecting& operator=(const BuildEnvironmentDetecting&) = delete;

    virtual bool isAlpha() const = 0;
};

/// `isAlpha` is true for alpha and dev builds only. Beta builds go to external testers and
/// behave like production.
class BuildEnvironmentDetector final : public BuildEnvironmentDetecting {
public:
    explicit BuildEnvironmentDetector(BuildEnvironment environment) : environment_(environment) {}

    bool isAlpha() const override {
        return environment_ == BuildEnvironment::alpha || environment_ == BuildEnvironment::dev;
    }
    BuildEnvironment buildEnvironment() const { return environment_; }

private:
    const BuildEnvironment environment_;
};

}  // namespace kt
