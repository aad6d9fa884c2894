// `ktanalytics replay`: the line reader in-process, and the built tool against a
// development gateway started in this process; and `ktanalytics queue`, the listing of what
// a state folder's on-disk queue holds.

#include "Commands/QueueCommand.h"
#include "Commands/ReplayCommand.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "KTAnalytics/AnalyticsProvider/APEventNames.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventSerializer.h"
#include "KTAnalytics/Setup/AnalyticsStack.h"
#include "Support/RunningGateway.h"
#include "Support/TemporaryDirectory.h"
#include "Tool/ToolProcess.h"

namespace kt::tool {
namespace {
namespace fs = std::filesystem;
using nlohmann::json;
using ::kt::testing::startGateway;

std::unordered_set<std::string> supportedNames() {
    APEventNames names;
    return {names.supportedEventNames().begin(), names.supportedEventNames().end()};
}

// ---- the line reader

TEST(ReplayLineTests, acceptsASupportedNameWithOptionalAttributesAndRefusesTheRestWithAReason) {
    const auto supported = supportedNames();
    const struct {
        const char* text;
        json attributes;     // when accepted
        const char* reason;  // when refused
    } cases[] = {
        {R"({"name": "like", "attributes": {"a": [1, "x"], "b": null}})", {{"a", {1, "x"}}, {"b", nullptr}}, ""},
        {R"({"name": "like"})", json::object(), ""},
        {R"({"name": "like", "attributes": null})", json::object(), ""},
        {R"({"name": "like")", nullptr, "not valid JSON"},
        {R"(["like"])", nullptr, "not a JSON object"},
        {R"({"attributes": {}})", nullptr, "no \"name\" string"},
        {R"({"name": 3})", nullptr, "no \"name\" string"},
        // Names are exact and case-sensitive: tagging this one would stop the process.
        {R"({"name": "Like"})", nullptr, "unsupported event name \"Like\""},
        {R"({"name": "like", "attributes": [1]})", nullptr, "\"attributes\" is not an object"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        std::string problem;
        const auto line = parseReplayLine(c.text, supported, problem);
        EXPECT_EQ(problem, c.reason);
        ASSERT_EQ(line.has_value(), *c.reason == '\0');
        if (!line) continue;
        EXPECT_EQ(line->name, "like");
        EXPECT_EQ(line->attributes, c.attributes);
    }
}

TEST(ReplayLineTests, tagsGoodLinesInOrderAndReportsBadOnesByTheirLineNumber) {
    std::istringstream input(
        "{\"name\": \"like\", \"attributes\": {\"n\": 1}}\r\n"
        "\n"
        "garbage\n"
        "   \n"
        "{\"name\": \"follow\"}\n"
        "{\"name\": \"nope\"}\n"
        "{\"name\": \"pageview\", \"attributes\": {\"n\": 2}}");
    std::vector<std::string> tagged;
    std::ostringstream diagnostics;
    const auto result = tagReplayLines(
        input, supportedNames(), {"like", "pageview"},
        [&](const std::shared_ptr<const APEventDescripting>& event) { tagged.push_back(event->name()); }, diagnostics,
        2);

    EXPECT_EQ(tagged, (std::vector<std::string>{"like", "follow", "pageview"}));
    EXPECT_EQ(std::tuple(result.lines, result.tagged, result.tracked, result.skipped, result.notForGateway),
              std::tuple(5u, 3u, 0u, 2u, 1u));
    // Progress every two lines read.
    EXPECT_EQ(diagnostics.str(), "line 3: not valid JSON, skipped\nreplay: 2 lines read, 1 tagged\n"
                                 "line 6: unsupported event name \"nope\", skipped\nreplay: 4 lines read, 2 tagged\n");
}

TEST(ReplayLineTests, theSummaryIsOneLineWithTheCountsInAFixedOrder) {
    ReplaySummary summary{.tagged = 5, .delivered = 3, .dropped = 1, .waiting = 1, .batches = 2, .skipped = 4,
                          .notForGateway = 0, .messagesTracked = 6, .messagesDelivered = 3, .messagesWaiting = 1,
                          .messagesDroppedByReason = {{"too_large", 1}, {"rejected", 1}}};
    summary.droppedByReason.counts[static_cast<std::size_t>(APEventDropReason::unreadable)] = 1;
    EXPECT_EQ(replaySummaryJSON(summary),
              R"({"tagged":5,"delivered":3,"dropped":1,"dropped_by_reason":{"failed_three_times":0,"rejected":0,)"
              R"("not_representable":0,"unreadable":1,"retry_count_lost":0,"too_deeply_nested":0,"not_stored":0,)"
              R"("queue_full":0,"backlog_full":0},)"
              R"("waiting":1,"batches":2,"skipped":4,"not_for_gateway":0,)"
              R"("promoted":{"fired":0,"restored":0,"delivered":0,"dropped":0,"dropped_by_reason":{},"waiting":0},)"
              R"("attribution_tokens":[],)"
              R"("product_analytics":{"tracked":6,"delivered":3,"dropped":2,)"
              R"("dropped_by_reason":{"rejected":1,"too_large":1},"waiting":1}})");
    // Messages count for the exit code as events do.
    summary.waiting = 0;
    summary.dropped = 0;
    EXPECT_EQ(replayExitCode(summary), kReplayStillWaiting);
    summary.messagesWaiting = 0;
    EXPECT_EQ(replayExitCode(summary), kReplayDropped);
}

TEST(ReplayLineTests, readsTrackingPlanLinesWithTheirPropertiesInOrder) {
    // A hostile depth is refused before anything walks it recursively.
    const std::string deep = R"({"track": "A", "properties": {"a": )" + std::string(100'000, '[') +
                             std::string(100'000, ']') + "}}";
    const auto fields = [](const TrackingLine& l) {
        return std::tuple(int(l.kind), l.name, l.version, l.properties, l.thirdParties, l.traits);
    };
    struct Case {
        const char* text;
        const char* problem;
        TrackingLine line = {};  // when read
    } cases[] = {
        {R"({"track": "Track Liked", "version": 2, "properties": {"z": 1, "a": null, "m": [1]},)"
         R"( "thirdParties": ["mo-engage"]})", "",
         {.name = "Track Liked", .version = 2,
          .properties = {{"z", AttributeValue(1)}, {"a", std::nullopt}, {"m", AttributeValue({1})}},
          .thirdParties = {"mo-engage"}}},
        {R"({"identify": "u-1", "traits": {"plan": "go"}})", "",
         {.kind = TrackingLine::Kind::identify, .name = "u-1", .traits = {{"plan", "go"}}}},
        {R"({"name": "track"})", "not a tracking line"},
        {R"({"track": "", "version": 1})", "\"track\" is not an event name"},
        {R"({"track": "A", "version": 0})", "\"version\" is not a positive integer"},
        {R"({"track": "A", "version": "2"})", "\"version\" is not a positive integer"},
        {R"({"track": "A", "properties": [1]})", "\"properties\" is not an object"},
        {R"({"track": "A", "thirdParties": ["x", 1]})", "\"thirdParties\" is not a list of names"},
        {R"({"identify": 7})", "\"identify\" is not a user id"},
        {R"({"identify": "u", "traits": "x"})", "\"traits\" is not an object"},
        {R"({"identify": "u", "track": "A"})", "more than one of \"track\", \"identify\" and \"plan\""},
        {R"({"plan": "trackLiked", "args": [1]})", "\"args\" is not an object"},
        {R"({"plan": 3})", "\"plan\" is not an operation name"},
        {deep.c_str(), "nested more than 256 levels"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        std::string problem;
        const auto line = parseTrackingLine(c.text, problem);
        EXPECT_EQ(line ? "" : problem.empty() ? "not a tracking line" : problem, std::string(c.problem));
        if (line) {
            EXPECT_EQ(fields(*line), fields(c.line));
        }
    }
}

TEST(QueueCommandTests, listsEachStoredEventWithItsRetryCountAndLeavesUndecodableFilesInPlace) {
    ::kt::testing::TemporaryDirectory directory{"kt-queue"};
    const fs::path state = directory / "state";
    std::ostringstream out;
    std::string error;
    EXPECT_EQ(listStoredEvents(state, true, out, error), std::nullopt);
    EXPECT_NE(error.find("is not a folder"), std::string::npos) << error;
    fs::create_directories(state);
    EXPECT_EQ(listStoredEvents(state, true, out, error), 0u) << "a state folder without a queue holds nothing";
    EXPECT_EQ(out.str(), "0\n");

    const fs::path events = AnalyticsStack::eventsDirectory(state);
    fs::create_directories(events);
    APEventSerializer store(events, nullptr);
    const auto liked = store.serializeEvent(APEvent::make("like", AttributeDictionary{{"track", "quillarbor:tracks:9"}}));
    const auto viewed = store.serializeEvent(APEvent::make("pageview", AttributeDictionary::object()));
    ASSERT_TRUE(liked && viewed);
    store.increaseRetryCount(*liked);
    store.increaseRetryCount(*liked);
    const fs::path garbage = events / "ffffffffffffffffffffffffffffffffffffffff.event";
    std::ofstream(garbage) << "not an archive";
    std::ofstream(events / "notes.txt") << "not an event";

    out.str("");
    EXPECT_EQ(listStoredEvents(state, false, out, error), 3u) << error;
    std::multiset<json> entries;  // in no particular order
    std::istringstream lines(out.str());
    for (std::string line; std::getline(lines, line);) entries.insert(json::parse(line));
    EXPECT_EQ(entries, (std::multiset<json>{
                           json{{"file", liked->eventURL().filename().native()}, {"event", "like"}, {"retry_count", 2},
                                {"attributes", {{"track", "quillarbor:tracks:9"}}}},
                           json{{"file", viewed->eventURL().filename().native()}, {"event", "pageview"},
                                {"retry_count", 0}, {"attributes", json::object()}},
                           json{{"file", garbage.filename().native()}, {"error", "cannot be decoded"},
                                {"retry_count", 0}},
                       }));
    EXPECT_TRUE(fs::exists(garbage)) << "looking is not touching";

    out.str("");
    EXPECT_EQ(listStoredEvents(state, true, out, error), 3u);
    EXPECT_EQ(out.str(), "3\n");
}

// ---- the tool

json summaryOf(const testing::ToolRun& run) {
    // Exactly one line on standard output.
    EXPECT_EQ(std::count(run.out.begin(), run.out.end(), '\n'), 1) << run.out;
    return json::parse(run.out, nullptr, false);
}

// The like token, counted: what the summary gives for `count` likes.
json likeTokens(int count) { return json::array({{{"token", "k4tq7v"}, {"count", count}}}); }

json summary(int tagged, int delivered, int waiting, int batches, int skipped = 0, int notForGateway = 0,
             int failedThreeTimes = 0, json tokens = json::array(), int messages = 0) {
    return {{"tagged", tagged},   {"delivered", delivered}, {"dropped", failedThreeTimes},
            {"dropped_by_reason",
             {{"failed_three_times", failedThreeTimes}, {"rejected", 0}, {"not_representable", 0}, {"unreadable", 0},
              {"retry_count_lost", 0}, {"too_deeply_nested", 0}, {"not_stored", 0}, {"queue_full", 0},
              {"backlog_full", 0}}},
            {"waiting", waiting}, {"batches", batches},     {"skipped", skipped}, {"not_for_gateway", notForGateway},
            {"promoted",
             {{"fired", 0}, {"restored", 0}, {"delivered", 0}, {"dropped", 0}, {"dropped_by_reason", json::object()},
              {"waiting", 0}}},
            {"attribution_tokens", tokens},
            {"product_analytics",
             {{"tracked", messages}, {"delivered", messages}, {"dropped", 0}, {"dropped_by_reason", json::object()},
              {"waiting", 0}}}};
}

class ReplayToolTests : public ::testing::Test {
protected:
    static std::string unreachable() { return "http://127.0.0.1:" + std::to_string(::kt::testing::closedPort()); }

    testing::ToolRun replay(const std::vector<std::string>& lines, const std::string& gateway,
                            const std::vector<std::string>& options) {
        const fs::path file = directory / ("lines-" + std::to_string(files_++) + ".jsonl");
        std::ofstream out(file);
        for (const auto& line : lines) out << line << '\n';
        out.close();
        std::vector<std::string> arguments{"replay", file.native(), "--gateway", gateway, "--state-dir", state.native()};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return testing::runTool(arguments, directory.path());
    }
    testing::ToolRun queue(const std::vector<std::string>& options = {}) {
        std::vector<std::string> arguments{"queue", "--state-dir", state.native()};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return testing::runTool(arguments, directory.path());
    }

    ::kt::testing::TemporaryDirectory directory{"kt-replay"};
    fs::path state = directory / "state";
    int files_ = 0;
};

TEST_F(ReplayToolTests, deliversEveryGoodLineAndReportsTheBadOnesByLineNumber) {
    auto gateway = startGateway();
    std::vector<std::string> lines = {R"({"name": "follow", "attributes": {"user": "quillarbor:users:3"}})",
                                      "{not json", R"({"name": "Pageview"})"};
    for (int i = 0; i < 25; ++i)
        lines.push_back(json{{"name", i % 2 ? "like" : "pageview"}, {"attributes", {{"i", i}}}}.dump());
    const auto run = replay(lines, gateway->baseURL(),
                            {"--min-batch", "10", "--client-id", "99", "--user-agent", "ReplayTool/3", "--user-urn",
                             "quillarbor:users:7", "--token", "tool-token", "--timeout", "20"});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    // 10 and 10 on reaching the minimum, 5 on the flush.
    // Every like is an attribution milestone too.
    EXPECT_EQ(summaryOf(run), summary(26, 25, 0, 3, 2, 1, 0, likeTokens(12)));
    // Which line says what is checked on the line reader; here, that it reaches standard error.
    EXPECT_NE(run.err.find("not sent to the gateway"), std::string::npos) << run.err;

    // The gateway keeps no credential values, only that one came.
    std::multiset<json> received, expected;
    for (int i = 0; i < 25; ++i) expected.insert(json::array({i, 99, "quillarbor:users:7", "ReplayTool/3", "present"}));
    for (const auto& row : gateway->lastEvents(100)) {
        const json payload = json::parse(row.payload);
        const json headers = json::parse(row.headers);
        received.insert(json::array({payload["i"], payload["client_id"], payload["user"], headers["User-Agent"],
                                     headers["Authorization"]}));
    }
    EXPECT_EQ(received, expected);
}

TEST_F(ReplayToolTests, trackingPlanLinesReachTheGatewayOnlyThroughTheRewrittenHost) {
    auto gateway = startGateway();
    const auto run = replay({R"({"identify": "quillarbor:users:7", "traits": {"plan": "go"}})",
                             R"({"track": "Track Liked", "properties": {"track_urn": "quillarbor:tracks:1"}})",
                             R"({"track": "Playlist Added To Downloads", "thirdParties": ["mo-engage"]})",
                             R"({"track": "Bad", "version": -1})",
                             R"({"plan": "trackLiked", "args": {"track_urn": "quillarbor:tracks:2"}})",
                             R"({"plan": "trackLiked", "args": {"track_urn": "tracks:2"}})",
                             R"({"plan": "noSuchOperation"})",
                             R"({"plan": "tracksAddedToPlayQueue", "args": {"from": 9, "track_urns": []}})",
                             // Numbers arrive as given: a fraction, an id past 2^53, a negative.
                             R"({"plan": "adRequested", "args": {"ad_component": 1, "last_ad_timer": 2.5,)"
                             R"( "placement": 2, "timestamp": 9007199254740993, "ad_capacity": -3}})"},
                            gateway->baseURL(),
                            {"--token", "tool-token", "--api-host", "collector.example/v1", "--timeout", "20"});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    // The client knows only "collector.example": the messages arrived because the rewriter
    // put the gateway's host in its place.
    EXPECT_EQ(summaryOf(run), summary(0, 0, 0, 0, 4, 0, 0, json::array(), 5));
    // A call the plan refuses is reported with its line and skipped.
    EXPECT_NE(run.err.find("line 6: the argument 'track_urn' of 'trackLiked' is not"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("line 7: unknown operation 'noSuchOperation'"), std::string::npos) << run.err;
    // An enumeration's raw value that names no case is bad data: reported, and the run goes on.
    EXPECT_NE(run.err.find("line 8: the argument 'from' of 'tracksAddedToPlayQueue' is 9, and "
                           "TracksAddedToPlayQueueFrom has no case with that raw value (0 to 4), skipped"),
              std::string::npos)
        << run.err;
    std::vector<std::string> received;
    for (const auto& m : gateway->lastMessages(10)) received.push_back(m.type + " " + m.name + " " + m.integrations);
    EXPECT_EQ(json::parse(gateway->lastMessages(1).at(0).message).at("properties").dump(),
              R"({"ad_capacity":-3,"ad_component":"video","last_ad_timer":2.5,"placement":"play_start",)"
              R"("ppid":null,"timestamp":9007199254740993})");
    EXPECT_EQ(received, (std::vector<std::string>{"identify quillarbor:users:7 {\"All\":false}",
                                                  "track Track Liked {\"All\":false}",
                                                  "track Playlist Added To Downloads {\"All\":false,\"MoEngage\":true}",
                                                  "track Track Liked {\"All\":false,\"MoEngage\":true}",
                                                  "track Ad Requested {\"All\":false}"}));
}

TEST_F(ReplayToolTests, eventsThatCouldNotBeDeliveredWaitInTheStateFolderForTheNextRun) {
    auto run = replay({R"({"name": "like", "attributes": {"i": 1}})", R"({"name": "repost", "attributes": {"i": 2}})",
                       R"({"name": "search", "attributes": {"i": 3}})"},
                      unreachable(), {"--timeout", "0.05"});
    EXPECT_EQ(run.exitCode, 1) << run.err;
    EXPECT_EQ(summaryOf(run), summary(3, 0, 3, 1, 0, 0, 0, likeTokens(1)));

    // The listing's format is checked in-process by the queue command's suite.
    EXPECT_EQ(queue({"--count"}).out, "3\n");
    run = queue();
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(std::count(run.out.begin(), run.out.end(), '\n'), 3) << run.out;

    // The next run, with nothing new to tag, delivers what waited.
    auto gateway = startGateway();
    run = replay({}, gateway->baseURL(), {"--timeout", "20"});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(summaryOf(run), summary(0, 3, 0, 1));
    EXPECT_EQ(gateway->stats().events, 3u);
}

// Connections refused every time: each event gets its three attempts, spaced by the wait
// loop, is dropped and counted under its reason, and the run says so in its exit code.
TEST_F(ReplayToolTests, eventsAGatewayNeverTakesAreDroppedCountedAndExitThree) {
    // And a tracking-plan message over the 32 KB a message may have.
    const auto big = json{{"track", "Comment Added To Track"}, {"properties", {{"text", std::string(40000, 'x')}}}};
    const auto run = replay({R"({"name": "like", "attributes": {"i": 1}})", R"({"name": "repost", "attributes": {"i": 2}})",
                             big.dump()},
                            unreachable(), {"--retry-pause", "0.05", "--timeout", "20"});
    EXPECT_EQ(run.exitCode, 3) << run.err;
    auto expected = summary(2, 0, 0, 3, 0, 0, 2, likeTokens(1));
    expected["product_analytics"] = {{"tracked", 1}, {"delivered", 0}, {"dropped", 1},
                                     {"dropped_by_reason", {{"too_large", 1}}}, {"waiting", 0}};
    EXPECT_EQ(summaryOf(run), expected);
    // The state folder keeps the count of what was dropped, for `queue` to show.
    const auto listing = queue({"--count"});
    EXPECT_EQ(listing.out, "0\n");
    EXPECT_NE(listing.err.find("dropped by earlier runs: 2 (failed_three_times 2)\n"
                               "product-analytics messages dropped by earlier runs: 1 (too_large 1)"),
              std::string::npos)
        << listing.err;
}

// At the time-out the answers to the requests in flight are still waited for (bounded), so
// what the gateway took is deleted and counted, not sent again by the next run.
TEST_F(ReplayToolTests, aShortTimeOutStillCollectsTheAnswersInFlight) {
    auto gateway = startGateway({.delay = std::chrono::milliseconds(400)});
    std::vector<std::string> lines;
    for (int i = 0; i < 30; ++i) lines.push_back(json{{"name", "like"}, {"attributes", {{"i", i}}}}.dump());
    const auto run = replay(lines, gateway->baseURL(), {"--min-batch", "10", "--timeout", "0.05"});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(summaryOf(run), summary(30, 30, 0, 3, 0, 0, 0, likeTokens(30)));
    // The last progress line comes after those answers and agrees with the summary.
    EXPECT_TRUE(run.err.substr(run.err.rfind("replay: "))
                    .starts_with("replay: 30 delivered, 0 dropped, 0 waiting (0 in flight), 3 batches\n"))
        << run.err;
    EXPECT_EQ(queue({"--count"}).out, "0\n");
    EXPECT_EQ(gateway->stats().events, 30u);
}

// The token can come from the environment or a file, where other local users cannot read
// it; the command line wins over a file.
TEST_F(ReplayToolTests, theTokenComesFromTheCommandLineAFileOrTheEnvironment) {
    std::ofstream(directory / "token") << "from-file\n";
    ReplayOptions options;
    options.tokenFile = (directory / "token").native();
    std::string error;
    EXPECT_EQ(replayConfiguration(options, KTEnvironment{}, error)->token, "from-file");
    options.token = "from-line";
    EXPECT_EQ(replayConfiguration(options, KTEnvironment{}, error)->token, "from-line");
    options = ReplayOptions{};
    options.tokenFile = (directory / "missing").native();
    EXPECT_FALSE(replayConfiguration(options, KTEnvironment{}, error));
    EXPECT_NE(error.find("cannot read the token file"), std::string::npos) << error;

    auto gateway = startGateway();
    ::setenv("KTANALYTICS_TOKEN", "from-environment", 1);
    const auto run = replay({R"({"name": "like"})"}, gateway->baseURL(), {"--timeout", "20"});
    ::unsetenv("KTANALYTICS_TOKEN");
    EXPECT_EQ(run.exitCode, 0) << run.err;
    const auto rows = gateway->lastEvents(10);
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(json::parse(rows[0].headers)["Authorization"], "present");
    EXPECT_EQ(json::parse(rows[0].payload)["client_id"], 1) << "the default client id, for the User-Agent";
}

// Promoted URLs are fired through the durable uploader and the milestones reported, in order.
TEST_F(ReplayToolTests, promotedURLsAreFiredAndAttributionTokensReported) {
    auto gateway = startGateway();
    const auto url = [&](const char* path) { return json{{"url", gateway->baseURL() + path}}; };
    const auto run = replay({json{{"name", "promoted_event"}, {"attributes", url("/track/impression/1")}}.dump(),
                             R"({"name": "like"})", R"({"name": "click", "attributes": {"click_name": "follow::add"}})",
                             R"({"name": "audio", "attributes": {"action": "play", "in_playlist": "quillarbor:system-playlists:7"}})",
                             json{{"name", "promoted_event"}, {"attributes", url("/track/click/1")}}.dump(),
                             R"({"name": "promoted_event", "attributes": {"no_url": true}})"},
                            gateway->baseURL(), {"--timeout", "20"});
    // The line without a URL is refused when tagged, counted, and makes the run exit 3.
    EXPECT_EQ(run.exitCode, 3) << run.err;
    const json summary = summaryOf(run);
    EXPECT_EQ(summary["promoted"], json::parse(R"({"fired":3,"restored":0,"delivered":2,"dropped":1,)"
                                               R"("dropped_by_reason":{"not_text":1},"waiting":0})"));
    EXPECT_EQ(summary["attribution_tokens"], json::parse(R"([{"token":"k4tq7v","count":1},{"token":"31x905","count":1},)"
                                                         R"({"token":"pqdse2","count":1}])"));
    EXPECT_EQ(gateway->stats().trackingByPrefix,
              (std::map<std::string, std::uint64_t>{{"/track/click", 1}, {"/track/impression", 1}}));
}

TEST_F(ReplayToolTests, aRunThatCannotStartSaysWhyAndExitsWithTwo) {
    auto run = testing::runTool({"replay", (directory / "missing.jsonl").native(), "--timeout", "1"}, directory.path());
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_NE(run.err.find("cannot read"), std::string::npos) << run.err;
    EXPECT_EQ(run.out, "");
    run = replay({R"({"name": "like"})"}, "ftp://127.0.0.1", {"--timeout", "1"});
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_NE(run.err.find("not http or https"), std::string::npos) << run.err;
}

}  // namespace
}  // namespace kt::tool
