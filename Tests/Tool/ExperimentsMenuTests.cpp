#include "Commands/ExperimentsMenu.h"

#include <gtest/gtest.h>

#include <fstream>
#include <tuple>

#include "KTAnalytics/Firebase/FirebaseABExperiments.h"
#include "KTAnalytics/Firebase/FirebaseABManagerMenuViewController.h"
#include "KTAnalytics/Firebase/JsonFileRemoteConfig.h"
#include "KTAnalytics/Platform/UserDefaults.h"
#include "Support/TemporaryDirectory.h"
#include "Tool/ToolProcess.h"

namespace kt::tool {
namespace {

// Terminals send arrows as escape sequences that may arrive split over several reads.
TEST(DecodeKey, EscapeSequencesAreDecodedWholeOrWaitedFor) {
    const std::tuple<const char*, bool, MenuKey, std::size_t> cases[] = {
        {"\x1b[A", true, MenuKey::up, 3},    {"\x1b[B", true, MenuKey::down, 3},
        {"\x1b[C", true, MenuKey::enter, 3}, {"\x1b[D", true, MenuKey::back, 3},
        {"\x1bOA", true, MenuKey::up, 3},             // application cursor mode
        {"\x1bOB\x1bOA", true, MenuKey::down, 3},     // only the first key is decoded
        {"\x1b[1;5B", true, MenuKey::down, 6},        // with a modifier
        {"\x1b[3~", true, MenuKey::ignored, 4},       // Delete: swallowed whole
        {"\x1b[\x01", true, MenuKey::ignored, 2},     // malformed: dropped up to the stray byte
        {"\x1bq", true, MenuKey::back, 1},            // Escape, then q
        {"\x1b", false, MenuKey::back, 1},            // the Escape key, once the terminal went quiet
        {"\x1b[1;5", false, MenuKey::ignored, 5},   {"2q", true, MenuKey::digit, 1},
        {"", true, MenuKey::incomplete, 0},           // unfinished: wait for more
        {"\x1b", true, MenuKey::incomplete, 0},       {"\x1b[", true, MenuKey::incomplete, 0},
        {"\x1b[1;5", true, MenuKey::incomplete, 0},   {"\x1bO", true, MenuKey::incomplete, 0},
    };
    for (const auto& [input, moreMayFollow, key, length] : cases) {
        SCOPED_TRACE(::testing::PrintToString(std::string(input)) + (moreMayFollow ? "" : ", quiet"));
        const DecodedKey decoded = decodeKey(input, moreMayFollow);
        EXPECT_EQ(decoded.key, key);
        EXPECT_EQ(decoded.length, length);
    }
}

class ExperimentsMenuSessionTest : public ::testing::Test {
protected:
    void SetUp() override { navigation->push(std::make_shared<FirebaseABManagerMenuViewController>(defaults, remote)); }

    std::vector<std::string> screen() const { return session.render(); }

    ::kt::testing::TemporaryDirectory directory{"kt-menusession"};
    std::shared_ptr<UserDefaults> defaults = std::make_shared<UserDefaults>(directory / "defaults.sqlite3");
    std::shared_ptr<RemoteConfigProviding> remote = std::make_shared<JsonFileRemoteConfig>(
        std::map<std::string, std::string>{{"ios_upsell_experiment_variant", "variantB"}});
    std::shared_ptr<MenuNavigationStack> navigation = std::make_shared<MenuNavigationStack>();
    ExperimentsMenuSession session{navigation};
};

TEST_F(ExperimentsMenuSessionTest, ArrowsWrapEachScreenKeepsItsCursorAndNumbersChooseDirectly) {
    session.handle(decodeKey("\x1b[A"));  // up from the first row wraps to the last
    EXPECT_EQ(session.cursor(), 3u);
    EXPECT_EQ(screen(), (std::vector<std::string>{"Experiments", "", "  1. dev_ab_price_test",
                                                  "  2. dev_ab_offline_sync_grace_period_test",
                                                  "  3. dev_listen_ad_free_upsell_copy",
                                                  "> 4. ios_upsell_experiment_variant"}));
    session.handle(decodeKey("\r"));
    EXPECT_EQ(screen()[0], "Experiments > ios_upsell_experiment_variant");
    EXPECT_EQ(screen()[2], "  remote: variantB");
    EXPECT_EQ(session.cursor(), 0u);

    session.handle(decodeKey("\r"));         // change
    for (int i = 0; i < 2; ++i) session.handle(decodeKey("\x1b[B"));
    session.handle(decodeKey("\r"));         // variantC
    EXPECT_EQ(screen()[3], "  override: variantC");
    EXPECT_EQ(session.cursor(), 0u);         // still on "change"
    session.handle(decodeKey("b"));
    EXPECT_EQ(session.cursor(), 3u);         // back on the row it came from

    session.handle(decodeKey("9"));
    EXPECT_EQ(screen().back(), "no choice 9 here");
    EXPECT_EQ(navigation->depth(), 1u);
    session.handle(decodeKey("0"));
    EXPECT_EQ(navigation->depth(), 1u);

    EXPECT_EQ(session.handleLine(" 3 "), ExperimentsMenuSession::Outcome::keepGoing);
    EXPECT_EQ(screen()[0], "Experiments > dev_listen_ad_free_upsell_copy");
    for (const char* line : {"1", "2"}) session.handleLine(line);
    EXPECT_EQ(FirebaseABManager(defaults).overriddenValue("dev_listen_ad_free_upsell_copy"), "listenAdFreeUpsellCopy");
    session.handleLine("2");  // clear
    EXPECT_EQ(FirebaseABManager(defaults).overriddenValue("dev_listen_ad_free_upsell_copy"), std::nullopt);

    for (const char* line : {"b", "b"}) session.handleLine(line);
    EXPECT_EQ(screen().back(), "this is the first screen; q quits");
    session.handleLine("1x");
    EXPECT_EQ(screen().back(), "unknown choice \"1x\": type a number, b or q");
    EXPECT_EQ(session.handleLine("q"), ExperimentsMenuSession::Outcome::quit);
    EXPECT_EQ(session.handle(decodeKey("\x03")), ExperimentsMenuSession::Outcome::quit);
}

// The real tool, driven by keys on a pseudo-terminal of its own, as at a person's terminal.
using testing::ToolProcess;

class ExperimentsCommandTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::ofstream(remoteFile) << R"({"dev_ab_offline_sync_grace_period_test": "control",)"
                                     R"( "dev_ab_price_test": "discountedPrice"})";
        // The application ran once before and stored what remote config said.
        auto remote = JsonFileRemoteConfig::load(remoteFile);
        ASSERT_NE(remote, nullptr);
        FirebaseABManager(openDefaults()).updateAssignments(*remote, FirebaseABExperimentProvider::all());
    }

    std::shared_ptr<UserDefaults> openDefaults() const {
        std::filesystem::create_directories(stateDir);
        return std::make_shared<UserDefaults>(stateDir / "defaults.sqlite3");
    }

    std::vector<std::string> arguments() const {
        return {"experiments", "--state-dir", stateDir.string(), "--remote", remoteFile.string()};
    }

    ::kt::testing::TemporaryDirectory directory{"kt-menuterminal"};
    std::filesystem::path stateDir = directory / "state";
    std::filesystem::path remoteFile = directory / "remote.json";
};

TEST_F(ExperimentsCommandTest, ArrowsChooseAnOverrideForTheNextStartAndQuittingOrSIGTERMRestoresTheTerminal) {
    ToolProcess terminal(arguments());
    ASSERT_TRUE(terminal.waitFor("> 1. dev_ab_price_test")) << terminal.output();
    EXPECT_FALSE(terminal.isInLineMode());  // keys arrive one by one, unechoed
    terminal.send("\x1b[B\r");              // Down, Enter
    ASSERT_TRUE(terminal.waitFor("remote: control") && terminal.waitFor("override: (none)")) << terminal.output();
    terminal.send("\r");  // "change"
    ASSERT_TRUE(terminal.waitFor("2. variantA")) << terminal.output();
    terminal.send("\x1b[B\r");
    ASSERT_TRUE(terminal.waitFor("override: variantA")) << terminal.output();
    terminal.send("q");
    EXPECT_EQ(terminal.waitForExit(), "exit 0") << terminal.output();
    EXPECT_TRUE(terminal.isInLineMode());
    FirebaseABManager nextStart(openDefaults());
    EXPECT_EQ(nextStart.assignment<GracePeriodExperiment>(), GracePeriodExperiment::variantA);
    EXPECT_EQ(nextStart.assignment<PriceTestExperiment>(), PriceTestExperiment::discountedPrice);

    ToolProcess terminated(arguments());
    ASSERT_TRUE(terminated.waitFor("> 1. dev_ab_price_test")) << terminated.output();
    terminated.send("\x1b[B");
    ASSERT_TRUE(terminated.waitFor("> 2. dev_ab_offline")) << terminated.output();
    EXPECT_FALSE(terminated.isInLineMode());
    ASSERT_EQ(::kill(terminated.pid(), SIGTERM), 0);
    EXPECT_EQ(terminated.waitForExit(), "signal " + std::to_string(SIGTERM));  // it still dies of the signal
    EXPECT_TRUE(terminated.isInLineMode());
}

TEST_F(ExperimentsCommandTest, WithoutATerminalItReadsLinesAndRefusesABadRemoteFile) {
    const auto script = directory / "script.txt";
    std::ofstream(script) << "4\n1\n4\nb\nq\n";
    const auto run = testing::runTool(arguments(), directory.path(), script);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("override: variantD"), std::string::npos) << run.out;
    EXPECT_EQ(run.out.find("\x1b["), std::string::npos);  // no terminal drawing in a pipe
    EXPECT_EQ(FirebaseABManager(openDefaults()).assignment<UpsellVariantExperiment>(), UpsellVariantExperiment::variantD);

    std::ofstream(remoteFile) << R"({"dev_ab_price_test": 3})";
    const auto bad = testing::runTool(arguments(), directory.path(), script);
    EXPECT_GT(bad.exitCode, 0);
    EXPECT_NE(bad.err.find("the value of \"dev_ab_price_test\" must be text"), std::string::npos) << bad.err;
    EXPECT_EQ(bad.out.find("override:"), std::string::npos) << "nothing runs";
}

}  // namespace
}  // namespace kt::tool
