#pragma once
// `ktanalytics replay FILE`: tags the events of a JSON-lines file through the real gateway
// pipeline, flushes, waits until the on-disk queue is empty (or the time-out) and prints
// one line of JSON with what became of them. The pieces are functions so that tests can
// run them in-process against their own stack and controller.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "KTAnalytics/Platform/AttributeValue.h"
#include "KTAnalytics/Setup/AnalyticsStack.h"
#include "KTAnalytics/TrackingArchitecture/TrackingEvent.h"

namespace kt {
class APEventDescripting;
}

namespace kt::tool {

struct ReplayOptions {
    std::string file;
    /// Empty: the environment's gateway (KTANALYTICS_GATEWAY_URL, or the default).
    std::string gateway;
    /// Empty: the environment's state folder (KTANALYTICS_STATE_DIR), or the standard locations.
    std::string stateDir;
    std::size_t minBatch = 20;
    std::optional<std::int64_t> clientId;
    std::optional<std::string> userAgent;
    std::optional<std::string> userUrn;
    std::optional<std::string> token;
    /// A file holding the token (its first line); used when `token` is not given.
    std::string tokenFile;
    double timeoutSeconds = 120.0;
    /// The first pause after a failed upload (see AnalyticsStackConfiguration).
    double retryPauseSeconds = 20.0;
    bool alpha = false;
    /// The product-analytics client's write key and API URL (empty: its default).
    std::string writeKey = "ktanalytics-development";
    std::string apiHost;
};

/// One line of the file, read and checked.
struct ReplayLine {
    std::string name;
    AttributeDictionary attributes = AttributeDictionary::object();
};

/// Reads one line: a JSON object with a string "name" among `supportedNames` and an
/// optional object "attributes". Nullopt with the reason in `problem` otherwise.
std::optional<ReplayLine> parseReplayLine(std::string_view text, const std::unordered_set<std::string>& supportedNames,
                                          std::string& problem);

/// A tracking-plan line: {"track": "Event Name", "version": N, "properties": {...},
/// "thirdParties": [...]}, {"identify": "user id", "traits": {...}} or an operation of the
/// plan called by name, {"plan": "operationName", "args": {...}}.
struct TrackingLine {
    enum class Kind { track, identify, plan };
    Kind kind = Kind::track;
    std::string name;  ///< the event name, the user id or the operation
    std::int64_t version = 1;
    TrackingProperties properties;  ///< in the line's order
    std::vector<std::string> thirdParties;
    AttributeValue traits = AttributeValue::object();  ///< an identify's traits, an operation's arguments
};

/// Reads a tracking-plan line. Nullopt with an empty `problem` when the line is no such line
/// (none of "track", "identify" and "plan" among its keys), with the reason when it is a bad one.
std::optional<TrackingLine> parseTrackingLine(std::string_view text, std::string& problem);

/// What tagging a file did.
struct ReplayTagging {
    std::uint64_t lines = 0;          ///< non-blank lines read
    std::uint64_t tagged = 0;         ///< events handed to the controller
    std::uint64_t tracked = 0;        ///< tracking-plan lines handed to the event sender
    std::uint64_t skipped = 0;        ///< lines reported and left out
    std::uint64_t notForGateway = 0;  ///< tagged, but outside the gateway's vocabulary
};

/// Reads `input` line by line and hands every good event line to `tag` as an event, and
/// every good tracking-plan line to `send`, which answers why it could not send it, if it
/// could not (when there is no `send`, such lines are bad lines).
/// Bad lines are reported on `diagnostics` as "line N: <reason>" and skipped; every
/// `progressEvery` lines a progress line goes there too (0: never).
ReplayTagging tagReplayLines(std::istream& input, const std::unordered_set<std::string>& supportedNames,
                             const std::unordered_set<std::string>& gatewayNames,
                             const std::function<void(const std::shared_ptr<const APEventDescripting>&)>& tag,
                             std::ostream& diagnostics, std::uint64_t progressEvery = 1000,
                             const std::function<std::optional<std::string>(TrackingLine&&)>& send = nullptr);

struct ReplaySummary {
    std::uint64_t tagged = 0;
    std::uint64_t delivered = 0;
    std::uint64_t dropped = 0;
    APEventDropCounts droppedByReason;
    /// Promoted tracking requests: handed over by this run, left waiting by an earlier one,
    /// delivered, still waiting, and removed without delivery by reason; fired + restored =
    /// delivered + dropped + waiting.
    std::uint64_t promotedFired = 0, promotedRestored = 0, promotedDelivered = 0, promotedWaiting = 0;
    std::map<std::string, std::uint64_t> promotedDroppedByReason;
    std::uint64_t promotedDropped() const;
    /// Each attribution token emitted, once, with how many times, in order of first emission.
    std::vector<std::pair<std::string, std::uint64_t>> attributionTokens;
    std::uint64_t waiting = 0;
    std::uint64_t batches = 0;
    std::uint64_t skipped = 0;
    std::uint64_t notForGateway = 0;
    /// Tracking-plan messages (track and identify lines) and what became of them.
    std::uint64_t messagesTracked = 0, messagesDelivered = 0, messagesWaiting = 0;
    std::map<std::string, std::uint64_t> messagesDroppedByReason;
    std::uint64_t messagesDropped() const;
};

/// {"tagged":..,"delivered":..,"dropped":..,"dropped_by_reason":{"failed_three_times":..,
/// ...},"waiting":..,"batches":..,"skipped":..,"not_for_gateway":..,"promoted":{"fired":..,
/// "restored":..,"delivered":..,"dropped":..,"dropped_by_reason":{..},"waiting":..},"attribution_tokens":[{"token":..,"count":..},...],"product_analytics":
/// {"tracked":..,"delivered":..,"dropped":..,"dropped_by_reason":{..},"waiting":..}} on one line.
std::string replaySummaryJSON(const ReplaySummary& summary);

/// Each distinct token once, with its count, in order of first appearance.
std::vector<std::pair<std::string, std::uint64_t>> countedInOrder(const std::vector<std::string>& tokens);

/// The stack configuration for the options over `base` (the environment with its variables
/// applied). Nullopt with the reason in `error` when an option is unusable.
std::optional<AnalyticsStackConfiguration> replayConfiguration(const ReplayOptions& options, const KTEnvironment& base,
                                                               std::string& error);

/// Tags `input` on `controllerTag` (tracking-plan lines on the stack's event sender), then
/// flushes `stack` and waits for it. The summary; nothing is printed but diagnostics and
/// progress.
ReplaySummary replay(std::istream& input, AnalyticsStack& stack,
                     const std::function<void(const std::shared_ptr<const APEventDescripting>&)>& controllerTag,
                     std::chrono::milliseconds timeout, std::ostream& diagnostics);

/// Exit codes of the command.
enum ReplayExit : int {
    kReplayDelivered = 0,    ///< every event handed to the gateway was delivered
    kReplayStillWaiting = 1, ///< the time-out came while events still waited (they stay on disk)
    kReplayCannotStart = 2,  ///< unreadable file, unusable options
    kReplayDropped = 3,      ///< nothing waits, but some events were dropped (see dropped_by_reason)
};

/// The exit code a summary calls for.
int replayExitCode(const ReplaySummary& summary);

/// The whole command; see ReplayExit.
int runReplay(const ReplayOptions& options, std::ostream& out, std::ostream& err);

}  // namespace kt::tool
