// `ktanalytics replay FILE`: see ReplayCommand.h.

#include "Commands/ReplayCommand.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iostream>
#include <istream>
#include <mutex>

#include "KTAnalytics/AnalyticsProvider/APAnalyticsController.h"
#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "KTAnalytics/AnalyticsProvider/APEventNames.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/APEventGatewayAnalyticsProvider.h"
#include "Commands/Commands.h"
#include "Commands/Playback.h"
#include "KTAnalytics/KTFoundation/KTLogger.h"
#include "KTAnalytics/Platform/JSONSerialization.h"
#include "KTAnalytics/Segment/Client/SEGAnalytics.h"
#include "KTAnalytics/TrackingArchitecture/EventSender.h"
#include "KTAnalytics/TrackingArchitecture/Plan/PlanCall.h"

namespace kt::tool {

namespace {

// Without a client id the pipeline registers no user agent either, and uploads would go
// without a "User-Agent"; the tool therefore always has one.
constexpr std::int64_t kDefaultClientId = 1;
constexpr auto kProgressInterval = std::chrono::seconds(1);

std::unordered_set<std::string> toSet(const std::vector<std::string>& names) {
    return {names.begin(), names.end()};
}

}  // namespace

std::optional<ReplayLine> parseReplayLine(std::string_view text, const std::unordered_set<std::string>& supportedNames,
                                          std::string& problem) {
    auto json = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (json.is_discarded()) {
        problem = "not valid JSON";
        return std::nullopt;
    }
    if (!json.is_object()) {
        problem = "not a JSON object";
        return std::nullopt;
    }
    const auto name = json.find("name");
    if (name == json.end() || !name->is_string()) {
        problem = "no \"name\" string";
        return std::nullopt;
    }
    ReplayLine line;
    line.name = name->get<std::string>();
    if (supportedNames.count(line.name) == 0) {
        problem = "unsupported event name \"" + line.name + "\"";
        return std::nullopt;
    }
    if (const auto attributes = json.find("attributes"); attributes != json.end() && !attributes->is_null()) {
        if (!attributes->is_object()) {
            problem = "\"attributes\" is not an object";
            return std::nullopt;
        }
        line.attributes = std::move(*attributes);
    }
    return line;
}

std::optional<TrackingLine> parseTrackingLine(std::string_view text, std::string& problem) {
    problem.clear();
    // Converting a value walks it recursively: a hostile depth is refused from the text,
    // before anything parses it. The line's own object and its "properties" (or "traits",
    // "args") add two levels.
    if (jsonTextNestsDeeperThan(text, SEGAnalytics::kMaximumNesting + 2)) {
        problem = "nested more than " + std::to_string(SEGAnalytics::kMaximumNesting) + " levels";
        return std::nullopt;
    }
    // Ordered, so that properties keep the line's order.
    auto json = nlohmann::ordered_json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (!json.is_object()) return std::nullopt;
    const auto track = json.find("track"), identify = json.find("identify"), plan = json.find("plan");
    const int kinds = (track != json.end()) + (identify != json.end()) + (plan != json.end());
    if (kinds == 0) return std::nullopt;
    const auto fail = [&problem](std::string reason) -> std::optional<TrackingLine> {
        problem = std::move(reason);
        return std::nullopt;
    };
    if (kinds > 1) return fail("more than one of \"track\", \"identify\" and \"plan\"");
    // Each form: its key, what that key holds, and the key of its values.
    using Kind = TrackingLine::Kind;
    const auto [key, kind, meaning, valuesKey] =
        plan != json.end()       ? std::tuple{plan, Kind::plan, "an operation name", "args"}
        : identify != json.end() ? std::tuple{identify, Kind::identify, "a user id", "traits"}
                                 : std::tuple{track, Kind::track, "an event name", "properties"};
    if (!key->is_string() || key->get_ref<const std::string&>().empty())
        return fail("\"" + key.key() + "\" is not " + meaning);
    TrackingLine line;
    line.kind = kind;
    line.name = key->get<std::string>();
    const auto values = json.find(valuesKey);
    const bool hasValues = values != json.end() && !values->is_null();
    if (hasValues && !values->is_object()) return fail("\"" + std::string(valuesKey) + "\" is not an object");
    if (kind != Kind::track) {
        if (hasValues) line.traits = AttributeValue(*values);
        return line;
    }
    if (auto version = json.find("version"); version != json.end()) {
        if (!version->is_number_integer() || version->get<std::int64_t>() < 1)
            return fail("\"version\" is not a positive integer");
        line.version = version->get<std::int64_t>();
    }
    if (hasValues)
        for (auto& [name, value] : values->items())
            line.properties.emplace_back(name, value.is_null() ? std::nullopt
                                                               : std::optional<AttributeValue>(AttributeValue(value)));
    if (auto thirdParties = json.find("thirdParties"); thirdParties != json.end() && !thirdParties->is_null()) {
        if (!thirdParties->is_array()) return fail("\"thirdParties\" is not a list of names");
        for (const auto& name : *thirdParties) {
            if (!name.is_string()) return fail("\"thirdParties\" is not a list of names");
            line.thirdParties.push_back(name.get<std::string>());
        }
    }
    return line;
}

ReplayTagging tagReplayLines(std::istream& input, const std::unordered_set<std::string>& supportedNames,
                             const std::unordered_set<std::string>& gatewayNames,
                             const std::function<void(const std::shared_ptr<const APEventDescripting>&)>& tag,
                             std::ostream& diagnostics, std::uint64_t progressEvery,
                             const std::function<std::optional<std::string>(TrackingLine&&)>& send) {
    ReplayTagging result;
    std::string text;
    std::uint64_t number = 0;
    while (std::getline(input, text)) {
        ++number;
        if (!text.empty() && text.back() == '\r') text.pop_back();
        if (text.find_first_not_of(" \t") == std::string::npos) continue;
        ++result.lines;
        std::string problem;
        // Only lines that mention a tracking key pay for the second, ordered parse.
        if (text.find("\"track\"") != std::string::npos || text.find("\"identify\"") != std::string::npos ||
            text.find("\"plan\"") != std::string::npos) {
            auto trackingLine = parseTrackingLine(text, problem);
            if (trackingLine && !send) problem = "tracking-plan lines are not sent here";
            if (trackingLine && send) {
                if (auto refused = send(std::move(*trackingLine)))
                    problem = std::move(*refused);
                else
                    ++result.tracked;
            }
            if (!problem.empty()) {
                diagnostics << "line " << number << ": " << problem << ", skipped\n";
                ++result.skipped;
            }
            if (trackingLine || !problem.empty()) {
                if (progressEvery != 0 && result.lines % progressEvery == 0)
                    diagnostics << "replay: " << result.lines << " lines read, " << result.tagged << " tagged\n"
                                << std::flush;
                continue;
            }
        }
        auto line = parseReplayLine(text, supportedNames, problem);
        if (!line) {
            diagnostics << "line " << number << ": " << problem << ", skipped\n";
            ++result.skipped;
        } else {
            if (gatewayNames.count(line->name) == 0) ++result.notForGateway;
            tag(APEvent::make(std::move(line->name), std::move(line->attributes)));
            ++result.tagged;
        }
        if (progressEvery != 0 && result.lines % progressEvery == 0)
            diagnostics << "replay: " << result.lines << " lines read, " << result.tagged << " tagged\n" << std::flush;
    }
    return result;
}

namespace {

nlohmann::ordered_json reasonsJSON(const std::map<std::string, std::uint64_t>& byReason) {
    nlohmann::ordered_json reasons = nlohmann::ordered_json::object();
    for (const auto& [reason, count] : byReason) reasons[reason] = count;
    return reasons;
}

}  // namespace

std::string replaySummaryJSON(const ReplaySummary& summary) {
    nlohmann::ordered_json json;
    json["tagged"] = summary.tagged;
    json["delivered"] = summary.delivered;
    json["dropped"] = summary.dropped;
    nlohmann::ordered_json reasons = nlohmann::ordered_json::object();
    for (std::size_t i = 0; i < kEventDropReasonCount; ++i)
        reasons[std::string(eventDropReasonKey(static_cast<APEventDropReason>(i)))] = summary.droppedByReason.counts[i];
    json["dropped_by_reason"] = std::move(reasons);
    json["waiting"] = summary.waiting;
    json["batches"] = summary.batches;
    json["skipped"] = summary.skipped;
    json["not_for_gateway"] = summary.notForGateway;
    json["promoted"] = nlohmann::ordered_json{{"fired", summary.promotedFired},
                                              {"restored", summary.promotedRestored},
                                              {"delivered", summary.promotedDelivered},
                                              {"dropped", summary.promotedDropped()},
                                              {"dropped_by_reason", reasonsJSON(summary.promotedDroppedByReason)},
                                              {"waiting", summary.promotedWaiting}};
    auto tokens = nlohmann::ordered_json::array();
    for (const auto& [token, count] : summary.attributionTokens)
        tokens.push_back(nlohmann::ordered_json{{"token", token}, {"count", count}});
    json["attribution_tokens"] = std::move(tokens);
    json["product_analytics"] = nlohmann::ordered_json{{"tracked", summary.messagesTracked},
                                                       {"delivered", summary.messagesDelivered},
                                                       {"dropped", summary.messagesDropped()},
                                                       {"dropped_by_reason", reasonsJSON(summary.messagesDroppedByReason)},
                                                       {"waiting", summary.messagesWaiting}};
    return json.dump();
}

std::vector<std::pair<std::string, std::uint64_t>> countedInOrder(const std::vector<std::string>& tokens) {
    std::vector<std::pair<std::string, std::uint64_t>> counted;
    for (const auto& token : tokens) {
        auto it = std::find_if(counted.begin(), counted.end(), [&](const auto& entry) { return entry.first == token; });
        if (it == counted.end())
            counted.emplace_back(token, 1);
        else
            ++it->second;
    }
    return counted;
}

std::optional<AnalyticsStackConfiguration> replayConfiguration(const ReplayOptions& options, const KTEnvironment& base,
                                                               std::string& error) {
    AnalyticsStackConfiguration configuration;
    auto& environment = configuration.environment;
    environment = base;
    if (!options.gateway.empty()) environment.eventGatewayBaseURL = options.gateway;
    environment.minimumBatchSize = options.minBatch;
    if (options.clientId) environment.clientId = options.clientId;
    if (!environment.clientId) environment.clientId = kDefaultClientId;
    if (options.userAgent) environment.userAgent = *options.userAgent;
    configuration.stateDirectory = options.stateDir;
    configuration.token = options.token;
    if (!configuration.token && !options.tokenFile.empty()) {
        std::ifstream file(options.tokenFile);
        std::string line;
        if (!file || !std::getline(file, line)) {
            error = "cannot read the token file " + options.tokenFile;
            return std::nullopt;
        }
        if (!line.empty() && line.back() == '\r') line.pop_back();
        configuration.token = std::move(line);
    }
    configuration.userUrn = options.userUrn;
    configuration.alpha = options.alpha;
    environment.segmentWriteKey = options.writeKey;
    configuration.segmentAPIHost = options.apiHost;
    if (!std::isfinite(options.timeoutSeconds) || options.timeoutSeconds < 0) {
        error = "the time-out must be a number of seconds, 0 or more";
        return std::nullopt;
    }
    if (!std::isfinite(options.retryPauseSeconds) || options.retryPauseSeconds < 0 ||
        options.retryPauseSeconds > 3600) {
        error = "the retry pause must be a number of seconds from 0 to 3600";
        return std::nullopt;
    }
    configuration.firstRetryPause =
        std::chrono::milliseconds(static_cast<std::int64_t>(options.retryPauseSeconds * 1000.0));
    configuration.longestRetryPause = std::max(configuration.firstRetryPause, configuration.longestRetryPause);
    if (auto problem = AnalyticsStack::validate(configuration); !problem.empty()) {
        error = std::move(problem);
        return std::nullopt;
    }
    return configuration;
}

ReplaySummary replay(std::istream& input, AnalyticsStack& stack,
                     const std::function<void(const std::shared_ptr<const APEventDescripting>&)>& controllerTag,
                     std::chrono::milliseconds timeout, std::ostream& diagnostics) {
    const auto supported = toSet(stack.eventNames()->supportedEventNames());
    const auto gateway = stack.gatewayProvider()->trackedEvents();
    const auto& sender = stack.eventSender();
    const auto tagging = tagReplayLines(input, supported, *gateway, controllerTag, diagnostics, 1000,
                                        [&sender](TrackingLine&& line) -> std::optional<std::string> {
                                            switch (line.kind) {
                                            case TrackingLine::Kind::identify:
                                                sender->identify(line.name, line.traits);
                                                break;
                                            case TrackingLine::Kind::track:
                                                sender->send(std::move(line.name), line.version,
                                                             std::move(line.properties), std::move(line.thirdParties));
                                                break;
                                            case TrackingLine::Kind::plan:
                                                if (auto error = tracking::callOperation(*sender, line.name, line.traits))
                                                    return error->message;
                                                break;
                                            }
                                            return std::nullopt;
                                        });

    // The flush is queued behind the events just tagged, so it sees all of them stored.
    stack.flush();
    // At the time-out, the answers to what is in flight are still worth a short wait: a
    // delivered batch left on disk would be sent again by the next run.
    if (!stack.waitUntilDelivered(timeout)) stack.waitUntilIdle(stack.configuration().shutdownTimeout);

    const auto upload = stack.statistics().upload;
    ReplaySummary summary;
    summary.tagged = tagging.tagged;
    summary.delivered = upload.delivered;
    summary.dropped = upload.dropped();
    summary.droppedByReason = upload.droppedByReason;
    summary.waiting = upload.waiting;
    summary.batches = upload.batchesSent;
    summary.skipped = tagging.skipped;
    summary.notForGateway = tagging.notForGateway;
    const auto requests = stack.statistics().reliableRequests;
    summary.promotedFired = requests.fired;
    summary.promotedDelivered = requests.delivered;
    summary.promotedRestored = requests.restored;
    summary.promotedWaiting = requests.waiting;
    summary.promotedDroppedByReason = requests.droppedByReason;
    const auto messages = stack.statistics().segment;
    summary.messagesTracked = tagging.tracked;
    summary.messagesDelivered = messages.delivered;
    summary.messagesWaiting = messages.waiting;
    summary.messagesDroppedByReason = messages.droppedByReason;
    return summary;
}

int runReplay(const ReplayOptions& options, std::ostream& out, std::ostream& err) {
    std::ifstream input(options.file);
    if (!input) {
        err << "ktanalytics replay: cannot read " << options.file << ": " << std::strerror(errno) << '\n';
        return kReplayCannotStart;
    }
    std::string error;
    const auto environment = KTEnvironment::fromEnvironmentVariables(KTEnvironment{}, error);
    // The command line is visible to every local user (/proc/<pid>/cmdline); the
    // environment and a file are not.
    ReplayOptions withToken = options;
    if (!withToken.token && withToken.tokenFile.empty())
        if (const char* token = std::getenv("KTANALYTICS_TOKEN"); token && *token) withToken.token = token;
    if (!environment) {
        err << "ktanalytics replay: " << error << '\n';
        return kReplayCannotStart;
    }
    auto configuration = replayConfiguration(withToken, *environment, error);
    if (!configuration) {
        err << "ktanalytics replay: " << error << '\n';
        return kReplayCannotStart;
    }
    // Standard output carries the summary alone.
    configuration->console = &err;
    configuration->logger = makeSpdlogLogger(environment->logLevel, "ktanalytics-replay");
    auto lastProgress = std::make_shared<std::chrono::steady_clock::time_point>();
    const auto printProgress = [&err](const AnalyticsStackStatistics& s) {
        err << "replay: " << s.upload.delivered << " delivered, " << s.upload.dropped() << " dropped, "
            << s.upload.waiting << " waiting (" << s.upload.inFlight << " in flight), " << s.upload.batchesSent
            << " batches\n"
            << std::flush;
    };
    configuration->progress = [printProgress, lastProgress](const AnalyticsStackStatistics& s) {
        const auto now = std::chrono::steady_clock::now();
        if (now - *lastProgress < kProgressInterval) return;
        *lastProgress = now;
        printProgress(s);
    };

    // Likes, follows and plays in the file reach the attribution emitter; no player plays here.
    auto tokens = std::make_shared<TokenRecorder>();
    configuration->playbackService = std::make_shared<ScriptedPlaybackService>();
    configuration->attributionDelegate = tokens;

    auto stack = AnalyticsStack::start(std::move(*configuration), &error);
    if (!stack) {
        err << "ktanalytics replay: " << error << '\n';
        return kReplayCannotStart;
    }
    const auto timeout = std::chrono::milliseconds(static_cast<std::int64_t>(options.timeoutSeconds * 1000.0));
    auto summary = replay(
        input, *stack, [&stack](const std::shared_ptr<const APEventDescripting>& event) { stack->tagEvent(event); },
        timeout, err);
    summary.attributionTokens = countedInOrder(tokens->tokens());
    // The last line comes after the answers in flight, so it agrees with the summary.
    printProgress(stack->statistics());

    if (summary.notForGateway != 0)
        err << "replay: " << summary.notForGateway
            << " events have names outside the gateway's vocabulary: tagged, but not sent to the gateway\n";
    if (summary.waiting != 0)
        err << "replay: " << summary.waiting << " events still waiting after " << options.timeoutSeconds
            << " s; they stay in the state folder for the next run\n";
    if (summary.dropped != 0)
        err << "replay: " << summary.dropped << " events were dropped without delivery (see dropped_by_reason)\n";
    if (summary.promotedWaiting != 0)
        err << "replay: " << summary.promotedWaiting << " promoted requests still waiting; they stay for the next run\n";
    if (summary.promotedDropped() != 0)
        err << "replay: " << summary.promotedDropped()
            << " promoted requests were dropped (see promoted.dropped_by_reason)\n";
    if (summary.messagesWaiting != 0)
        err << "replay: " << summary.messagesWaiting
            << " product-analytics messages still waiting; they stay in the state folder for the next run\n";
    if (summary.messagesDropped() != 0)
        err << "replay: " << summary.messagesDropped()
            << " product-analytics messages were dropped (see product_analytics.dropped_by_reason)\n";
    out << replaySummaryJSON(summary) << std::endl;
    return replayExitCode(summary);
}

namespace {

std::uint64_t total(const std::map<std::string, std::uint64_t>& byReason) {
    std::uint64_t sum = 0;
    for (const auto& [reason, count] : byReason) sum += count;
    return sum;
}

}  // namespace

std::uint64_t ReplaySummary::promotedDropped() const { return total(promotedDroppedByReason); }

std::uint64_t ReplaySummary::messagesDropped() const { return total(messagesDroppedByReason); }

int replayExitCode(const ReplaySummary& summary) {
    if (summary.waiting != 0 || summary.promotedWaiting != 0 || summary.messagesWaiting != 0)
        return kReplayStillWaiting;
    if (summary.dropped != 0 || summary.promotedDropped() != 0 || summary.messagesDropped() != 0) return kReplayDropped;
    return kReplayDelivered;
}

void registerReplayCommand(CLI::App& app, int& exitCode) {
    auto options = std::make_shared<ReplayOptions>();
    CLI::App* command = app.add_subcommand(
        "replay", "Tag the events of a JSON-lines file through the gateway pipeline and wait for their delivery");
    command->add_option("FILE", options->file,
                        "One JSON object per line: {\"name\": ..., \"attributes\": {...}}, or a tracking-plan line "
                        "{\"track\": ..., \"version\": N, \"properties\": {...}, \"thirdParties\": [...]}, "
                        "{\"identify\": ..., \"traits\": {...}} or {\"plan\": OPERATION, \"args\": {...}}")
        ->required();
    command->add_option("--gateway", options->gateway, "Base URL of the event gateway (default: KTANALYTICS_GATEWAY_URL)");
    command->add_option("--state-dir", options->stateDir, "Folder for every file the run keeps (event queue, user defaults)");
    command->add_option("--min-batch", options->minBatch, "Waiting events that trigger an upload")
        ->check(CLI::Range(std::size_t{1}, std::size_t{1'000'000}))
        ->capture_default_str();
    command->add_option("--client-id", options->clientId, "Numeric client id (default: KTANALYTICS_CLIENT_ID or 1)");
    command->add_option("--user-agent", options->userAgent, "User-Agent of the uploads");
    command->add_option("--user-urn", options->userUrn, "URN of the signed-in user, e.g. quillarbor:users:7");
    command->add_option("--token", options->token,
                        "OAuth token of the signed-in user (sent as a bearer token); prefer --token-file or "
                        "KTANALYTICS_TOKEN, which other local users cannot read");
    command->add_option("--token-file", options->tokenFile, "File whose first line is the OAuth token");
    command->add_option("--timeout", options->timeoutSeconds, "Seconds to wait for delivery")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    command->add_option("--retry-pause", options->retryPauseSeconds,
                        "Seconds before flushing again after a failed upload (then three times longer each time)")
        ->check(CLI::Range(0.0, 3600.0))
        ->capture_default_str();
    command->add_flag("--alpha", options->alpha, "Behave as an alpha build: one event per upload, rejections reported");
    command->add_option("--write-key", options->writeKey, "Write key of the product-analytics client")
        ->capture_default_str();
    command->add_option("--api-host", options->apiHost,
                        "API URL of the product-analytics client (default https://api.segment.io/v1); its uploads "
                        "keep this host name and are re-addressed to the gateway's host");
    command->callback([options, &exitCode] { exitCode = runReplay(*options, std::cout, std::cerr); });
}

}  // namespace kt::tool
