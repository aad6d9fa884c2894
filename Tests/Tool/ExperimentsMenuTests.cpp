#include "Commands/ExperimentsMenu.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <utmp.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <sstream>
#include <thread>

#include "Firebase/FirebaseABExperiments.h"
#include "Firebase/FirebaseABManagerMenuViewController.h"
#include "Firebase/JsonFileRemoteConfig.h"
#include "Platform/UserDefaults.h"
#include "Support/TemporaryDirectory.h"

namespace kt::tool {
namespace {

// Terminals send arrows as escape sequences that may arrive split over several reads.
TEST(DecodeKey, EscapeSequencesAreDecodedWholeOrWaitedFor) {
    const struct {
        const char* input;
        bool moreMayFollow;
        MenuKey key;
        std::size_t length;
    } cases[] = {
        {"\x1b[A", true, MenuKey::up, 3},
        {"\x1b[B", true, MenuKey::down, 3},
        {"\x1b[C", true, MenuKey::enter, 3},
        {"\x1b[D", true, MenuKey::back, 3},
        {"\x1bOA", true, MenuKey::up, 3},             // application cursor mode
        {"\x1bOB\x1bOA", true, MenuKey::down, 3},     // only the first key is decoded
        {"\x1b[1;5B", true, MenuKey::down, 6},        // with a modifier
        {"\x1b[3~", true, MenuKey::ignored, 4},       // Delete: swallowed whole
        {"\x1b[\x01", true, MenuKey::ignored, 2},     // malformed: dropped up to the stray byte
        {"\x1bq", true, MenuKey::back, 1},            // Escape, then q
        {"\x1b", false, MenuKey::back, 1},            // the Escape key, once the terminal went quiet
        {"\x1b[1;5", false, MenuKey::ignored, 5},
        {"2q", true, MenuKey::digit, 1},
    };
    for (const auto& c : cases) {
        const DecodedKey decoded = decodeKey(c.input, c.moreMayFollow);
        EXPECT_EQ(decoded.key, c.key) << ::testing::PrintToString(std::string(c.input));
        EXPECT_EQ(decoded.length, c.length) << ::testing::PrintToString(std::string(c.input));
    }
    for (const char* unfinished : {"", "\x1b", "\x1b[", "\x1b[1;5", "\x1bO"})
        EXPECT_EQ(decodeKey(unfinished).key, MenuKey::incomplete) << ::testing::PrintToString(std::string(unfinished));
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
// The real tool, driven by keys on a pseudo-terminal of its own, as at a person's terminal.

using namespace std::chrono_literals;
constexpr auto kDeadline = 20s;  // guards against a hang only

/// The tool as a child process: on a pseudo-terminal of its own, or, given an input file,
/// without a terminal, reading that file and writing to "<input>.out".
class ToolProcess {
public:
    explicit ToolProcess(std::vector<std::string> arguments, const std::filesystem::path& input = {}) {
        winsize size{30, 100, 0, 0};
        if (input.empty() && ::openpty(&master_, &slave_, nullptr, nullptr, &size) != 0) return;
        pid_ = ::fork();
        if (pid_ == 0) {
            if (input.empty()) {
                ::close(master_);
                ::login_tty(slave_);
            } else {
                ::dup2(::open(input.c_str(), O_RDONLY), STDIN_FILENO);
                const int output = ::open((input.string() + ".out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
                ::dup2(output, STDOUT_FILENO);
                ::dup2(output, STDERR_FILENO);
            }
            std::vector<char*> argv{const_cast<char*>(KTANALYTICS_TOOL_PATH)};
            for (auto& argument : arguments) argv.push_back(argument.data());
            argv.push_back(nullptr);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
    }
    ~ToolProcess() {
        if (pid_ > 0 && !status_) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        for (int fd : {master_, slave_})
            if (fd >= 0) ::close(fd);
    }

    pid_t pid() const { return pid_; }
    void send(std::string_view keys) { EXPECT_EQ(::write(master_, keys.data(), keys.size()), ssize_t(keys.size())); }

    /// Reads what the tool draws until `text` appears in what came after the last match.
    bool waitFor(const std::string& text) {
        const auto deadline = std::chrono::steady_clock::now() + kDeadline;
        while (std::chrono::steady_clock::now() < deadline) {
            if (auto at = screen_.find(text); at != std::string::npos) {
                screen_.erase(0, at + text.size());
                return true;
            }
            pollfd descriptor{master_, POLLIN, 0};
            char buffer[4096];
            if (::poll(&descriptor, 1, 100) > 0) {
                const ssize_t count = ::read(master_, buffer, sizeof buffer);
                if (count > 0) screen_.append(buffer, std::size_t(count));
            }
        }
        return false;
    }
    const std::string& screen() const { return screen_; }

    /// Whether the terminal reads lines and echoes them, as a shell needs it.
    bool isInLineMode() const {
        termios settings{};
        return ::tcgetattr(slave_, &settings) == 0 && (settings.c_lflag & ICANON) && (settings.c_lflag & ECHO);
    }

    std::optional<int> waitForExit() {
        const auto deadline = std::chrono::steady_clock::now() + kDeadline;
        while (!status_ && std::chrono::steady_clock::now() < deadline) {
            int status = 0;
            if (::waitpid(pid_, &status, WNOHANG) == pid_) status_ = status;
            else std::this_thread::sleep_for(10ms);
        }
        return status_;
    }

private:
    int master_ = -1;
    int slave_ = -1;
    pid_t pid_ = -1;
    std::string screen_;
    std::optional<int> status_;
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

    std::vector<std::string> arguments() const {
        return {"experiments", "--state-dir", stateDir.string(), "--remote", remoteFile.string()};
    }

    ::kt::testing::TemporaryDirectory directory{"kt-menuterminal"};
    std::filesystem::path stateDir = directory / "state";
    std::filesystem::path remoteFile = directory / "remote.json";
};

TEST_F(ExperimentsCommandTest, ArrowsChooseAnOverrideForTheNextStartAndQuittingRestoresTheTerminal) {
    ToolProcess terminal(arguments());
    ASSERT_GT(terminal.pid(), 0);
    ASSERT_TRUE(terminal.waitFor("> 1. dev_ab_price_test")) << terminal.screen();
    EXPECT_FALSE(terminal.isInLineMode());  // keys arrive one by one, unechoed

    terminal.send("\x1b[B\r");  // Down, Enter
    ASSERT_TRUE(terminal.waitFor("remote: control") && terminal.waitFor("override: (none)")) << terminal.screen();
    terminal.send("\r");  // "change"
    ASSERT_TRUE(terminal.waitFor("2. variantA")) << terminal.screen();
    terminal.send("\x1b[B\r");
    ASSERT_TRUE(terminal.waitFor("override: variantA")) << terminal.screen();
    terminal.send("q");
    const auto status = terminal.waitForExit();
    ASSERT_TRUE(status && WIFEXITED(*status)) << terminal.screen();
    EXPECT_EQ(WEXITSTATUS(*status), 0);
    EXPECT_TRUE(terminal.isInLineMode());

    FirebaseABManager nextStart(openDefaults());
    EXPECT_EQ(nextStart.assignment<GracePeriodExperiment>(), GracePeriodExperiment::variantA);
    EXPECT_EQ(nextStart.assignment<PriceTestExperiment>(), PriceTestExperiment::discountedPrice);
}

TEST_F(ExperimentsCommandTest, ATerminatedMenuLeavesTheTerminalUsable) {
    ToolProcess terminal(arguments());
    ASSERT_GT(terminal.pid(), 0);
    ASSERT_TRUE(terminal.waitFor("> 1. dev_ab_price_test")) << terminal.screen();
    terminal.send("\x1b[B");
    ASSERT_TRUE(terminal.waitFor("> 2. dev_ab_offline")) << terminal.screen();
    EXPECT_FALSE(terminal.isInLineMode());

    ASSERT_EQ(::kill(terminal.pid(), SIGTERM), 0);
    const auto status = terminal.waitForExit();
    ASSERT_TRUE(status && WIFSIGNALED(*status));  // it still dies of the signal
    EXPECT_EQ(WTERMSIG(*status), SIGTERM);
    EXPECT_TRUE(terminal.isInLineMode());
}

TEST_F(ExperimentsCommandTest, WithoutATerminalItReadsLinesAndRefusesABadRemoteFile) {
    const auto script = directory / "script.txt";
    std::ofstream(script) << "4\n1\n4\nb\nq\n";
    auto run = [&] {
        ToolProcess tool(arguments(), script);
        const auto status = tool.waitForExit();
        std::stringstream output;
        output << std::ifstream(script.string() + ".out").rdbuf();
        return std::pair(status && WIFEXITED(*status) ? std::optional(WEXITSTATUS(*status)) : std::nullopt, output.str());
    };
    const auto [status, output] = run();
    EXPECT_EQ(status, 0);
    EXPECT_NE(output.find("override: variantD"), std::string::npos) << output;
    EXPECT_EQ(output.find("\x1b["), std::string::npos);  // no terminal drawing in a pipe
    EXPECT_EQ(FirebaseABManager(openDefaults()).assignment<UpsellVariantExperiment>(), UpsellVariantExperiment::variantD);

    std::ofstream(remoteFile) << R"({"dev_ab_price_test": 3})";
    const auto [badStatus, badOutput] = run();
    EXPECT_TRUE(badStatus && *badStatus != 0);
    EXPECT_NE(badOutput.find("the value of \"dev_ab_price_test\" must be text"), std::string::npos) << badOutput;
    EXPECT_EQ(badOutput.find("override:"), std::string::npos) << "nothing runs";
}

}  // namespace
}  // namespace kt::tool
