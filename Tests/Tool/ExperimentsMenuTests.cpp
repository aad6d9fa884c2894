#include "Commands/ExperimentsMenu.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <thread>

#include "Firebase/FirebaseABExperiments.h"
#include "Firebase/FirebaseABManagerMenuViewController.h"
#include "Firebase/JsonFileRemoteConfig.h"
#include "Platform/UserDefaults.h"
#include "Support/TemporaryDirectory.h"

namespace kt::tool {
namespace {

DecodedKey decoded(MenuKey key, std::size_t length, int digit = 0) { return DecodedKey{key, digit, length}; }

TEST(DecodeKey, PlainKeys) {
    EXPECT_EQ(decodeKey("\r"), decoded(MenuKey::enter, 1));
    EXPECT_EQ(decodeKey("\n"), decoded(MenuKey::enter, 1));
    EXPECT_EQ(decodeKey("b"), decoded(MenuKey::back, 1));
    EXPECT_EQ(decodeKey("\x7f"), decoded(MenuKey::back, 1));
    EXPECT_EQ(decodeKey("\b"), decoded(MenuKey::back, 1));
    EXPECT_EQ(decodeKey("q"), decoded(MenuKey::quit, 1));
    EXPECT_EQ(decodeKey("\x03"), decoded(MenuKey::quit, 1));
    EXPECT_EQ(decodeKey("\x04"), decoded(MenuKey::quit, 1));
    EXPECT_EQ(decodeKey("7"), decoded(MenuKey::digit, 1, 7));
    EXPECT_EQ(decodeKey("0"), decoded(MenuKey::digit, 1, 0));
    EXPECT_EQ(decodeKey("x"), decoded(MenuKey::ignored, 1));
    // Only the first key is decoded; the rest stays for the next call.
    EXPECT_EQ(decodeKey("2q"), decoded(MenuKey::digit, 1, 2));
}

TEST(DecodeKey, ArrowSequencesInBothCursorModes) {
    EXPECT_EQ(decodeKey("\x1b[A"), decoded(MenuKey::up, 3));
    EXPECT_EQ(decodeKey("\x1b[B"), decoded(MenuKey::down, 3));
    EXPECT_EQ(decodeKey("\x1b[C"), decoded(MenuKey::enter, 3));
    EXPECT_EQ(decodeKey("\x1b[D"), decoded(MenuKey::back, 3));
    EXPECT_EQ(decodeKey("\x1bOA"), decoded(MenuKey::up, 3));
    EXPECT_EQ(decodeKey("\x1bOB\x1bOA"), decoded(MenuKey::down, 3));
    EXPECT_EQ(decodeKey("\x1b[1;5B"), decoded(MenuKey::down, 6));  // with a modifier
    EXPECT_EQ(decodeKey("\x1b[3~"), decoded(MenuKey::ignored, 4));  // Delete: swallowed whole
}

TEST(DecodeKey, UnfinishedSequencesWaitUnlessTheTerminalWentQuiet) {
    EXPECT_EQ(decodeKey("").key, MenuKey::incomplete);
    EXPECT_EQ(decodeKey("\x1b").key, MenuKey::incomplete);
    EXPECT_EQ(decodeKey("\x1b[").key, MenuKey::incomplete);
    EXPECT_EQ(decodeKey("\x1b[1;5").key, MenuKey::incomplete);
    EXPECT_EQ(decodeKey("\x1bO").key, MenuKey::incomplete);

    EXPECT_EQ(decodeKey("\x1b", false), decoded(MenuKey::back, 1));  // the Escape key
    EXPECT_EQ(decodeKey("\x1b[1;5", false), decoded(MenuKey::ignored, 5));
    EXPECT_EQ(decodeKey("\x1bq"), decoded(MenuKey::back, 1));  // Escape, then q
    EXPECT_EQ(decodeKey("\x1b[\x01"), decoded(MenuKey::ignored, 2));
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

TEST_F(ExperimentsMenuSessionTest, ArrowsWrapAndEachScreenKeepsItsCursor) {
    session.handle(decodeKey("\x1b[A"));  // up from the first row wraps to the last
    EXPECT_EQ(session.cursor(), 3u);
    EXPECT_EQ(screen()[5], "> 4. ios_upsell_experiment_variant");
    session.handle(decodeKey("\r"));
    EXPECT_EQ(screen()[0], "Experiments > ios_upsell_experiment_variant");
    EXPECT_EQ(screen()[2], "  remote: variantB");
    EXPECT_EQ(session.cursor(), 0u);

    session.handle(decodeKey("\r"));         // change
    session.handle(decodeKey("\x1b[B"));
    session.handle(decodeKey("\x1b[B"));
    session.handle(decodeKey("\r"));         // variantC
    EXPECT_EQ(screen()[3], "  override: variantC");
    EXPECT_EQ(session.cursor(), 0u);         // still on "change"
    session.handle(decodeKey("b"));
    EXPECT_EQ(session.cursor(), 3u);         // back on the row it came from
    EXPECT_EQ(FirebaseABManager(defaults).assignment<UpsellVariantExperiment>(), UpsellVariantExperiment::variantC);
}

TEST_F(ExperimentsMenuSessionTest, NumbersChooseDirectlyAndOutOfRangeNumbersAreRefused) {
    session.handle(decodeKey("9"));
    EXPECT_EQ(screen().back(), "no choice 9 here");
    EXPECT_EQ(navigation->depth(), 1u);
    session.handle(decodeKey("0"));
    EXPECT_EQ(navigation->depth(), 1u);

    EXPECT_EQ(session.handleLine(" 3 "), ExperimentsMenuSession::Outcome::keepGoing);
    EXPECT_EQ(screen()[0], "Experiments > dev_listen_ad_free_upsell_copy");
    session.handleLine("1");
    session.handleLine("2");
    EXPECT_EQ(FirebaseABManager(defaults).overriddenValue("dev_listen_ad_free_upsell_copy"), "listenAdFreeUpsellCopy");
    session.handleLine("2");  // clear
    EXPECT_EQ(FirebaseABManager(defaults).overriddenValue("dev_listen_ad_free_upsell_copy"), std::nullopt);

    session.handleLine("b");
    session.handleLine("b");
    EXPECT_EQ(screen().back(), "this is the first screen; q quits");
    session.handleLine("1x");
    EXPECT_EQ(screen().back(), "unknown choice \"1x\": type a number, b or q");
    EXPECT_EQ(session.handleLine("q"), ExperimentsMenuSession::Outcome::quit);
    EXPECT_EQ(session.handle(decodeKey("\x03")), ExperimentsMenuSession::Outcome::quit);
}


// ---------------------------------------------------------------------------------------
// The real tool, driven as a person would: in a terminal (tmux), by keys.

std::string quoted(const std::string& text) {
    std::string result = "'";
    for (char c : text) {
        if (c == '\'')
            result += "'\\''";
        else
            result += c;
    }
    return result += "'";
}

/// Runs a shell command; its standard output, and whether it exited with 0.
std::pair<std::string, bool> run(const std::string& command) {
    std::string output;
    FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    if (!pipe) return {"", false};
    char buffer[4096];
    std::size_t count;
    while ((count = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, count);
    const int status = ::pclose(pipe);
    return {output, status == 0};
}

bool tmuxIsInstalled() { return run("tmux -V").second; }

/// A shell in a detached tmux session of a fixed size, on a server of its own.
class TmuxTerminal {
public:
    explicit TmuxTerminal(const std::filesystem::path& socket) : socket_(socket) {
        started_ = run(tmux() + " -f /dev/null new-session -d -s menu -x 100 -y 30 /bin/sh").second;
    }
    ~TmuxTerminal() { run(tmux() + " kill-server"); }

    bool started() const { return started_; }

    /// Keys by tmux name ("Down", "Enter", "C-c") or literal text.
    void sendKeys(const std::vector<std::string>& keys) {
        std::string command = tmux() + " send-keys -t menu";
        for (const auto& key : keys) command.append(" ").append(quoted(key));
        run(command);
    }
    void typeLine(const std::string& text) {
        run(tmux() + " send-keys -t menu -l " + quoted(text));
        sendKeys({"Enter"});
    }

    std::string capture() { return run(tmux() + " capture-pane -p -t menu").first; }

    /// Polls the screen until `pattern` appears on it; a real process is drawing it, so this
    /// waits with a generous deadline rather than a fixed time.
    bool waitFor(const std::string& pattern) {
        const std::regex expression(pattern);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (std::chrono::steady_clock::now() < deadline) {
            lastScreen_ = capture();
            if (std::regex_search(lastScreen_, expression)) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }
    const std::string& lastScreen() const { return lastScreen_; }

private:
    std::string tmux() const { return "tmux -S " + quoted(socket_.string()); }

    std::filesystem::path socket_;
    bool started_ = false;
    std::string lastScreen_;
};

class ExperimentsCommandTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(std::filesystem::exists(KTANALYTICS_TOOL_PATH)) << "build the tool first: " << KTANALYTICS_TOOL_PATH;
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

    std::string menuCommand() const {
        return std::string(quoted(KTANALYTICS_TOOL_PATH)) + " experiments --state-dir " + quoted(stateDir.string()) +
               " --remote " + quoted(remoteFile.string());
    }

    /// True when the shell shows the terminal back in its usual line mode.
    bool terminalIsRestored(TmuxTerminal& terminal) {
        terminal.typeLine(
            "stty -a | tr ' ;' '\\n\\n' | grep -x -e icanon -e -icanon -e echo -e -echo | LC_ALL=C sort | tr '\\n' ' '; "
            "echo \"=$((40 + 2))\"");
        if (!terminal.waitFor("\\n[-a-z ]*=42")) return false;
        return std::regex_search(terminal.lastScreen(), std::regex("\\necho icanon =42"));
    }

    /// Every terminal gets a server of its own: a server being killed may still hold its socket.
    std::filesystem::path nextSocket() { return directory / ("tmux-" + std::to_string(++terminals) + ".sock"); }

    ::kt::testing::TemporaryDirectory directory{"kt-menuterminal"};
    int terminals = 0;
    std::filesystem::path stateDir = directory / "state";
    std::filesystem::path remoteFile = directory / "remote.json";
};

TEST_F(ExperimentsCommandTest, AnOverrideChosenWithArrowsIsWhatTheNextStartReturnsUntilCleared) {
    if (!tmuxIsInstalled()) GTEST_SKIP() << "tmux is not installed";
    {
        TmuxTerminal terminal(nextSocket());
        ASSERT_TRUE(terminal.started());
        terminal.typeLine(menuCommand() + "; echo menu-exit=$?");
        ASSERT_TRUE(terminal.waitFor("> 1\\. dev_ab_price_test")) << terminal.lastScreen();

        terminal.sendKeys({"Down", "Enter"});
        ASSERT_TRUE(terminal.waitFor("remote: control\\n\\s*override: \\(none\\)")) << terminal.lastScreen();
        terminal.sendKeys({"Enter"});  // "change"
        ASSERT_TRUE(terminal.waitFor("> 1\\. control\\n\\s*2\\. variantA")) << terminal.lastScreen();
        terminal.sendKeys({"Down", "Enter"});
        ASSERT_TRUE(terminal.waitFor("override: variantA")) << terminal.lastScreen();
        terminal.sendKeys({"q"});
        ASSERT_TRUE(terminal.waitFor("menu-exit=0")) << terminal.lastScreen();
        EXPECT_TRUE(terminalIsRestored(terminal)) << terminal.lastScreen();
    }
    {
        FirebaseABManager nextStart(openDefaults());
        EXPECT_EQ(nextStart.assignment<GracePeriodExperiment>(), GracePeriodExperiment::variantA);
        EXPECT_EQ(nextStart.assignment<PriceTestExperiment>(), PriceTestExperiment::discountedPrice);
    }
    {
        TmuxTerminal terminal(nextSocket());
        ASSERT_TRUE(terminal.started());
        terminal.typeLine(menuCommand() + "; echo menu-exit=$?");
        ASSERT_TRUE(terminal.waitFor("> 1\\. dev_ab_price_test")) << terminal.lastScreen();
        terminal.sendKeys({"2"});
        ASSERT_TRUE(terminal.waitFor("override: variantA")) << terminal.lastScreen();
        terminal.sendKeys({"2"});  // "clear"
        ASSERT_TRUE(terminal.waitFor("override: \\(none\\)")) << terminal.lastScreen();
        terminal.sendKeys({"Left"});
        ASSERT_TRUE(terminal.waitFor("> 2\\. dev_ab_offline_sync_grace_period_test")) << terminal.lastScreen();
        terminal.sendKeys({"C-c"});
        ASSERT_TRUE(terminal.waitFor("menu-exit=0")) << terminal.lastScreen();
        EXPECT_TRUE(terminalIsRestored(terminal)) << terminal.lastScreen();
    }
    FirebaseABManager nextStart(openDefaults());
    EXPECT_EQ(nextStart.overriddenValue("dev_ab_offline_sync_grace_period_test"), std::nullopt);
    EXPECT_EQ(nextStart.assignment<GracePeriodExperiment>(), GracePeriodExperiment::control);  // remote again
}

TEST_F(ExperimentsCommandTest, ATerminatedMenuLeavesTheTerminalUsable) {
    if (!tmuxIsInstalled()) GTEST_SKIP() << "tmux is not installed";
    TmuxTerminal terminal(nextSocket());
    ASSERT_TRUE(terminal.started());
    const auto pidFile = directory / "menu.pid";
    terminal.typeLine("sh -c 'echo $$ > " + pidFile.string() + "; exec \"$0\" \"$@\"' " + menuCommand() +
                      "; echo menu-exit=$?");
    ASSERT_TRUE(terminal.waitFor("> 1\\. dev_ab_price_test")) << terminal.lastScreen();
    terminal.sendKeys({"Down"});
    ASSERT_TRUE(terminal.waitFor("> 2\\. dev_ab_offline")) << terminal.lastScreen();

    pid_t pid = 0;
    std::ifstream(pidFile) >> pid;
    ASSERT_GT(pid, 0);
    ASSERT_EQ(::kill(pid, SIGTERM), 0);
    ASSERT_TRUE(terminal.waitFor("menu-exit=143")) << terminal.lastScreen();  // died of the signal
    EXPECT_TRUE(terminalIsRestored(terminal)) << terminal.lastScreen();
}

TEST_F(ExperimentsCommandTest, WithoutATerminalItReadsLines) {
    const auto script = directory / "script.txt";
    std::ofstream(script) << "4\n1\n4\nb\nq\n";
    const auto [output, succeeded] = run(menuCommand() + " < " + quoted(script.string()));
    EXPECT_TRUE(succeeded) << output;
    EXPECT_NE(output.find("override: variantD"), std::string::npos) << output;
    EXPECT_EQ(output.find("\x1b["), std::string::npos);  // no terminal drawing in a pipe
    EXPECT_EQ(FirebaseABManager(openDefaults()).assignment<UpsellVariantExperiment>(), UpsellVariantExperiment::variantD);
}

TEST_F(ExperimentsCommandTest, ABadRemoteFileIsReportedAndNothingRuns) {
    std::ofstream(remoteFile) << R"({"dev_ab_price_test": 3})";
    const auto [output, succeeded] = run(menuCommand() + " < /dev/null");
    EXPECT_FALSE(succeeded);
    EXPECT_NE(output.find("the value of \"dev_ab_price_test\" must be text"), std::string::npos) << output;
}

}  // namespace
}  // namespace kt::tool
