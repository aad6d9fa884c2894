// `ktanalytics replay`: the line reader in-process, and the built tool against a
// development gateway started in this process.

#include "Commands/ReplayCommand.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <thread>
#include <sstream>

#include "AnalyticsProvider/APEventNames.h"
#include "Gateway/DevelopmentGateway.h"
#include "Support/TemporaryDirectory.h"

namespace kt::tool {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

std::unordered_set<std::string> supportedNames() {
    APEventNames names;
    return {names.supportedEventNames().begin(), names.supportedEventNames().end()};
}

// ---- the line reader

TEST(ReplayLineTests, acceptsASupportedNameWithOrWithoutAttributes) {
    const auto supported = supportedNames();
    std::string problem;
    auto line = parseReplayLine(R"({"name": "share::prompt", "attributes": {"a": [1, "x"], "b": null}})", supported,
                                problem);
    ASSERT_TRUE(line) << problem;
    EXPECT_EQ(line->name, "share::prompt");
    EXPECT_EQ(line->attributes, (json{{"a", json::array({1, "x"})}, {"b", nullptr}}));

    for (const char* bare : {R"({"name": "like"})", R"({"name": "like", "attributes": null})"}) {
        line = parseReplayLine(bare, supported, problem);
        ASSERT_TRUE(line) << bare;
        EXPECT_EQ(line->attributes, json::object()) << bare;
    }
}

TEST(ReplayLineTests, refusesWhatCannotBeTaggedWithAReason) {
    const auto supported = supportedNames();
    const std::pair<const char*, const char*> cases[] = {
        {R"({"name": "like")", "not valid JSON"},
        {R"(["like"])", "not a JSON object"},
        {R"({"attributes": {}})", "no \"name\" string"},
        {R"({"name": 3})", "no \"name\" string"},
        // Names are exact and case-sensitive: tagging this one would stop the process.
        {R"({"name": "Like"})", "unsupported event name \"Like\""},
        {R"({"name": "like", "attributes": [1]})", "\"attributes\" is not an object"},
    };
    for (const auto& [text, reason] : cases) {
        std::string problem;
        EXPECT_FALSE(parseReplayLine(text, supported, problem)) << text;
        EXPECT_EQ(problem, reason) << text;
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
    EXPECT_EQ(result.lines, 5u);
    EXPECT_EQ(result.tagged, 3u);
    EXPECT_EQ(result.skipped, 2u);
    EXPECT_EQ(result.notForGateway, 1u);
    const auto text = diagnostics.str();
    EXPECT_NE(text.find("line 3: not valid JSON, skipped"), std::string::npos) << text;
    EXPECT_NE(text.find("line 6: unsupported event name \"nope\", skipped"), std::string::npos) << text;
    // Progress every two lines read.
    EXPECT_NE(text.find("replay: 4 lines read, 2 tagged"), std::string::npos) << text;
}

TEST(ReplayLineTests, theSummaryIsOneLineWithTheCountsInAFixedOrder) {
    ReplaySummary summary{.tagged = 5, .delivered = 3, .dropped = 1, .waiting = 1, .batches = 2, .skipped = 4,
                          .notForGateway = 0};
    summary.droppedByReason.counts[static_cast<std::size_t>(APEventDropReason::unreadable)] = 1;
    EXPECT_EQ(replaySummaryJSON(summary),
              R"({"tagged":5,"delivered":3,"dropped":1,"dropped_by_reason":{"failed_three_times":0,"rejected":0,)"
              R"("not_representable":0,"unreadable":1,"retry_count_lost":0,"too_deeply_nested":0,"not_stored":0},)"
              R"("waiting":1,"batches":2,"skipped":4,"not_for_gateway":0,)"
              R"("promoted":{"fired":0,"delivered":0,"waiting":0,"given_up":0},"attribution_tokens":[]})");
    EXPECT_EQ(replayExitCode(summary), kReplayStillWaiting);
    summary.waiting = 0;
    EXPECT_EQ(replayExitCode(summary), kReplayDropped);
}

TEST(ReplayLineTests, theOptionsBecomeAStackConfiguration) {
    KTEnvironment base;
    base.eventGatewayBaseURL = "http://127.0.0.1:9";
    ReplayOptions options;
    options.stateDir = "/tmp/somewhere";
    options.minBatch = 3;
    options.alpha = true;
    options.token = "t";
    std::string error;
    auto configuration = replayConfiguration(options, base, error);
    ASSERT_TRUE(configuration) << error;
    EXPECT_EQ(configuration->environment.eventGatewayBaseURL, "http://127.0.0.1:9");
    EXPECT_EQ(configuration->environment.minimumBatchSize, 3u);
    EXPECT_TRUE(configuration->environment.clientId.has_value());  // uploads always carry a User-Agent
    EXPECT_EQ(configuration->stateDirectory, "/tmp/somewhere");
    EXPECT_TRUE(configuration->alpha);
    EXPECT_EQ(configuration->token, "t");

    options.gateway = "gateway.example.org";
    EXPECT_FALSE(replayConfiguration(options, base, error));
    EXPECT_NE(error.find("gateway URL"), std::string::npos) << error;
}

// ---- the tool

struct ToolRun {
    int exitCode = -1;
    std::string out;
    std::string err;
};

std::string readFile(const fs::path& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Runs the built tool to completion; each run passes a --timeout, which bounds it.
ToolRun runTool(const std::vector<std::string>& arguments, const fs::path& scratch) {
    static int runs = 0;
    const fs::path out = scratch / ("out-" + std::to_string(runs));
    const fs::path err = scratch / ("err-" + std::to_string(runs++));
    const pid_t pid = fork();
    if (pid == 0) {
        const int o = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int e = ::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(o, STDOUT_FILENO);
        dup2(e, STDERR_FILENO);
        std::vector<std::string> args{KTANALYTICS_TOOL_PATH};
        args.insert(args.end(), arguments.begin(), arguments.end());
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    ToolRun run;
    int status = 0;
    if (pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status)) run.exitCode = WEXITSTATUS(status);
    run.out = readFile(out);
    run.err = readFile(err);
    return run;
}

json summaryOf(const ToolRun& run) {
    // Exactly one line on standard output.
    EXPECT_EQ(std::count(run.out.begin(), run.out.end(), '\n'), 1) << run.out;
    return json::parse(run.out, nullptr, false);
}

class ReplayToolTests : public ::testing::Test {
protected:
    std::unique_ptr<gateway::DevelopmentGateway> startGateway() {
        auto gateway = std::make_unique<gateway::DevelopmentGateway>(gateway::GatewayConfiguration{});
        EXPECT_TRUE(gateway->start()) << gateway->lastError();
        return gateway;
    }

    fs::path writeLines(const std::string& name, const std::vector<std::string>& lines) {
        const fs::path path = directory / name;
        std::ofstream out(path);
        for (const auto& line : lines) out << line << '\n';
        return path;
    }

    testing::TemporaryDirectory directory{"kt-replay"};
};

TEST_F(ReplayToolTests, deliversEveryGoodLineAndReportsTheBadOnesByLineNumber) {
    auto gateway = startGateway();
    std::vector<std::string> lines = {R"({"name": "follow", "attributes": {"user": "quillarbor:users:3"}})",
                                      "{not json", R"({"name": "Pageview"})"};
    for (int i = 0; i < 25; ++i)
        lines.push_back(json{{"name", i % 2 ? "like" : "pageview"}, {"attributes", {{"i", i}}}}.dump());
    const auto file = writeLines("session.jsonl", lines);

    const auto run = runTool({"replay", file.native(), "--gateway", gateway->baseURL(), "--state-dir",
                              (directory / "state").native(), "--min-batch", "10", "--client-id", "99",
                              "--user-agent", "ReplayTool/3", "--user-urn", "quillarbor:users:7", "--token",
                              "tool-token", "--timeout", "20"},
                             directory.path());
    EXPECT_EQ(run.exitCode, 0) << run.err;
    const json summary = summaryOf(run);
    EXPECT_EQ(summary["tagged"], 26);
    EXPECT_EQ(summary["delivered"], 25);
    EXPECT_EQ(summary["dropped"], 0);
    EXPECT_EQ(summary["waiting"], 0);
    EXPECT_EQ(summary["batches"], 3);  // 10 and 10 on reaching the minimum, 5 on the flush
    EXPECT_EQ(summary["skipped"], 2);
    EXPECT_EQ(summary["not_for_gateway"], 1);
    EXPECT_NE(run.err.find("line 2: not valid JSON"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("line 3: unsupported event name \"Pageview\""), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("not sent to the gateway"), std::string::npos) << run.err;

    const auto rows = gateway->lastEvents(100);
    ASSERT_EQ(rows.size(), 25u);
    std::set<int> seen;
    for (const auto& row : rows) {
        const json payload = json::parse(row.payload);
        const json headers = json::parse(row.headers);
        seen.insert(payload["i"].get<int>());
        EXPECT_EQ(payload["client_id"], 99);
        EXPECT_EQ(payload["user"], "quillarbor:users:7");
        EXPECT_EQ(headers["User-Agent"], "ReplayTool/3");
        EXPECT_EQ(headers["Authorization"], "present");  // the gateway keeps no credential values
    }
    EXPECT_EQ(seen.size(), 25u);
}

TEST_F(ReplayToolTests, eventsThatCouldNotBeDeliveredWaitInTheStateFolderForTheNextRun) {
    const fs::path state = directory / "state";
    std::string unreachable;
    {
        // A port that was just in use and is closed now.
        auto gateway = startGateway();
        unreachable = gateway->baseURL();
    }
    const auto file = writeLines("three.jsonl", {R"({"name": "like", "attributes": {"i": 1}})",
                                                 R"({"name": "repost", "attributes": {"i": 2}})",
                                                 R"({"name": "search", "attributes": {"i": 3}})"});
    auto run = runTool({"replay", file.native(), "--gateway", unreachable, "--state-dir", state.native(), "--timeout",
                        "0.05"},
                       directory.path());
    EXPECT_EQ(run.exitCode, 1) << run.err;
    json summary = summaryOf(run);
    EXPECT_EQ(summary["tagged"], 3);
    EXPECT_EQ(summary["delivered"], 0);
    EXPECT_EQ(summary["waiting"], 3);

    run = runTool({"queue", "--state-dir", state.native(), "--count"}, directory.path());
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.out, "3\n");
    run = runTool({"queue", "--state-dir", state.native()}, directory.path());
    EXPECT_EQ(run.exitCode, 0) << run.err;
    std::istringstream listed(run.out);
    std::set<std::string> names;
    for (std::string line; std::getline(listed, line);) {
        const json entry = json::parse(line);
        names.insert(entry["event"].get<std::string>());
        // Failed attempts are counted, and none of these reached the third.
        EXPECT_TRUE(entry["retry_count"].is_number_unsigned());
        EXPECT_LE(entry["retry_count"], 2);
        EXPECT_TRUE(entry["attributes"].contains("session_id"));
    }
    EXPECT_EQ(names, (std::set<std::string>{"like", "repost", "search"}));

    // The next run, with nothing new to tag, delivers what waited.
    auto gateway = startGateway();
    const auto empty = writeLines("empty.jsonl", {});
    run = runTool({"replay", empty.native(), "--gateway", gateway->baseURL(), "--state-dir", state.native(),
                   "--timeout", "20"},
                  directory.path());
    EXPECT_EQ(run.exitCode, 0) << run.err;
    summary = summaryOf(run);
    EXPECT_EQ(summary["tagged"], 0);
    EXPECT_EQ(summary["delivered"], 3);
    EXPECT_EQ(summary["waiting"], 0);
    EXPECT_EQ(gateway->stats().events, 3u);
}

// Connections refused every time: each event gets its three attempts, spaced by the wait
// loop, is dropped and counted under its reason, and the run says so in its exit code.
TEST_F(ReplayToolTests, eventsAGatewayNeverTakesAreDroppedCountedAndExitThree) {
    std::string unreachable;
    {
        auto gateway = startGateway();
        unreachable = gateway->baseURL();
    }
    const auto file = writeLines("two.jsonl", {R"({"name": "like", "attributes": {"i": 1}})",
                                               R"({"name": "repost", "attributes": {"i": 2}})"});
    const auto run = runTool({"replay", file.native(), "--gateway", unreachable, "--state-dir",
                              (directory / "state").native(), "--retry-pause", "0.05", "--timeout", "20"},
                             directory.path());
    EXPECT_EQ(run.exitCode, 3) << run.err;
    const json summary = summaryOf(run);
    EXPECT_EQ(summary["dropped"], 2);
    EXPECT_EQ(summary["dropped_by_reason"],
              json::parse(R"({"failed_three_times":2,"rejected":0,"not_representable":0,"unreadable":0,
                              "retry_count_lost":0,"too_deeply_nested":0,"not_stored":0})"));
    EXPECT_EQ(summary["waiting"], 0);

    // The state folder keeps the count of what was dropped, for `queue` to show.
    const auto queue = runTool({"queue", "--state-dir", (directory / "state").native(), "--count"}, directory.path());
    EXPECT_EQ(queue.out, "0\n");
    EXPECT_NE(queue.err.find("dropped by earlier runs: 2 (failed_three_times 2)"), std::string::npos) << queue.err;
}

// A gateway that comes up only after the first attempt failed: the pause before the next
// attempt lets it recover, and nothing is lost.
TEST_F(ReplayToolTests, aGatewayThatIsDownAtFirstCostsNoEvent) {
    int port = 0;
    {
        auto gateway = startGateway();
        port = gateway->port();
    }
    std::unique_ptr<gateway::DevelopmentGateway> late;
    std::thread starter([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        gateway::GatewayConfiguration configuration;
        configuration.port = port;
        late = std::make_unique<gateway::DevelopmentGateway>(configuration);
        EXPECT_TRUE(late->start()) << late->lastError();
    });
    const auto file = writeLines("one.jsonl", {R"({"name": "like", "attributes": {"i": 1}})"});
    const auto run = runTool({"replay", file.native(), "--gateway", "http://127.0.0.1:" + std::to_string(port),
                              "--state-dir", (directory / "state").native(), "--min-batch", "1", "--retry-pause",
                              "1", "--timeout", "30"},
                             directory.path());
    starter.join();
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(summaryOf(run)["delivered"], 1);
    EXPECT_EQ(late->stats().events, 1u);
}

// At the time-out the answers to the requests in flight are still waited for (bounded), so
// what the gateway took is deleted and counted, not sent again by the next run.
TEST_F(ReplayToolTests, aShortTimeOutStillCollectsTheAnswersInFlight) {
    gateway::GatewayConfiguration slow;
    slow.delay = std::chrono::milliseconds(400);
    gateway::DevelopmentGateway gateway(slow);
    ASSERT_TRUE(gateway.start()) << gateway.lastError();
    std::vector<std::string> lines;
    for (int i = 0; i < 30; ++i) lines.push_back(json{{"name", "like"}, {"attributes", {{"i", i}}}}.dump());
    const auto file = writeLines("thirty.jsonl", lines);
    const fs::path state = directory / "state";
    const auto run = runTool({"replay", file.native(), "--gateway", gateway.baseURL(), "--state-dir", state.native(),
                              "--min-batch", "10", "--timeout", "0.05"},
                             directory.path());
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(summaryOf(run)["delivered"], 30);
    EXPECT_EQ(runTool({"queue", "--state-dir", state.native(), "--count"}, directory.path()).out, "0\n");
    EXPECT_EQ(gateway.stats().events, 30u);
}

// The token can come from the environment or a file, where other local users cannot read
// it; the command line wins over a file.
TEST_F(ReplayToolTests, theTokenComesFromTheCommandLineAFileOrTheEnvironment) {
    const auto tokenFile = writeLines("token", {"from-file"});
    ReplayOptions options;
    options.tokenFile = tokenFile.native();
    std::string error;
    EXPECT_EQ(replayConfiguration(options, KTEnvironment{}, error)->token, "from-file");
    options.token = "from-line";
    EXPECT_EQ(replayConfiguration(options, KTEnvironment{}, error)->token, "from-line");
    options = ReplayOptions{};
    options.tokenFile = (directory / "missing").native();
    EXPECT_FALSE(replayConfiguration(options, KTEnvironment{}, error));
    EXPECT_NE(error.find("cannot read the token file"), std::string::npos) << error;

    auto gateway = startGateway();
    const auto file = writeLines("one.jsonl", {R"({"name": "like"})"});
    ::setenv("KTANALYTICS_TOKEN", "from-environment", 1);
    const auto run = runTool({"replay", file.native(), "--gateway", gateway->baseURL(), "--state-dir",
                              (directory / "state").native(), "--timeout", "20"},
                             directory.path());
    ::unsetenv("KTANALYTICS_TOKEN");
    EXPECT_EQ(run.exitCode, 0) << run.err;
    const auto rows = gateway->lastEvents(10);
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(json::parse(rows[0].headers)["Authorization"], "present");
}

TEST_F(ReplayToolTests, aRunThatCannotStartSaysWhyAndExitsWithTwo) {
    auto run = runTool({"replay", (directory / "missing.jsonl").native(), "--timeout", "1"}, directory.path());
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_NE(run.err.find("cannot read"), std::string::npos) << run.err;
    EXPECT_EQ(run.out, "");

    const auto file = writeLines("one.jsonl", {R"({"name": "like"})"});
    run = runTool({"replay", file.native(), "--gateway", "ftp://127.0.0.1", "--state-dir",
                   (directory / "state").native(), "--timeout", "1"},
                  directory.path());
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_NE(run.err.find("not http or https"), std::string::npos) << run.err;
}

}  // namespace
}  // namespace kt::tool
