#pragma once
// The built tool as a child process: run to completion, or driven on a pseudo-terminal of
// its own, as at a person's terminal.

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <utmp.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace kt::tool::testing {

inline constexpr auto kDeadline = std::chrono::seconds(30);  // guards against a hang only

struct ToolRun {
    int exitCode = -1;
    std::string out;
    std::string err;
};

inline void execTool(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), KTANALYTICS_TOOL_PATH);
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    ::execv(argv[0], argv.data());
    ::_exit(127);
}

/// Runs the tool to completion, its output in files under `scratch` (a pipe could fill up
/// and stall it), its input from `input` or nothing. The tests' arguments bound its run time.
inline ToolRun runTool(const std::vector<std::string>& arguments, const std::filesystem::path& scratch,
                       const std::filesystem::path& input = "/dev/null") {
    static int runs = 0;
    const auto out = scratch / ("out-" + std::to_string(runs));
    const auto err = scratch / ("err-" + std::to_string(runs++));
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(::open(input.c_str(), O_RDONLY), STDIN_FILENO);
        ::dup2(::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
        ::dup2(::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
        execTool(arguments);
    }
    ToolRun run;
    int status = 0;
    if (pid > 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status)) run.exitCode = WEXITSTATUS(status);
    for (auto [path, text] : {std::pair{out, &run.out}, {err, &run.err}})
        *text = std::string(std::istreambuf_iterator<char>(std::ifstream(path).rdbuf()), {});
    return run;
}

/// The tool running alongside the test, on a pseudo-terminal of its own that carries its
/// standard output and error.
class ToolProcess {
public:
    explicit ToolProcess(const std::vector<std::string>& arguments) {
        winsize size{30, 100, 0, 0};
        if (::openpty(&master_, &slave_, nullptr, nullptr, &size) != 0) return;
        pid_ = ::fork();
        if (pid_ == 0) {
            ::close(master_);
            ::login_tty(slave_);
            execTool(arguments);
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
    const std::string& output() const { return output_; }
    void send(std::string_view keys) { EXPECT_EQ(::write(master_, keys.data(), keys.size()), ssize_t(keys.size())); }

    /// Reads until `text` appears in what came after the last match, and consumes it.
    bool waitFor(const std::string& text) {
        const auto deadline = std::chrono::steady_clock::now() + kDeadline;
        for (;;) {
            if (auto at = output_.find(text); at != std::string::npos) {
                skipped_ = output_.substr(0, at);
                output_.erase(0, at + text.size());
                return true;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            pollfd descriptor{master_, POLLIN, 0};
            char buffer[4096];
            if (left.count() <= 0 || ::poll(&descriptor, 1, static_cast<int>(left.count())) <= 0) return false;
            const ssize_t count = ::read(master_, buffer, sizeof buffer);
            if (count <= 0) return false;
            output_.append(buffer, std::size_t(count));
        }
    }

    /// The next line of output, or nullopt at its end or the deadline.
    std::optional<std::string> readLine() {
        return waitFor("\r\n") ? std::optional(skipped_) : std::nullopt;
    }

    /// Whether the terminal reads lines and echoes them, as a shell needs it.
    bool isInLineMode() const {
        termios settings{};
        return ::tcgetattr(slave_, &settings) == 0 && (settings.c_lflag & ICANON) && (settings.c_lflag & ECHO);
    }

    /// How the process ended, "exit N" or "signal N", or "running" at the deadline.
    std::string waitForExit() {
        const auto deadline = std::chrono::steady_clock::now() + kDeadline;
        while (!status_ && std::chrono::steady_clock::now() < deadline) {
            int status = 0;
            if (::waitpid(pid_, &status, WNOHANG) == pid_) status_ = status;
            else std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        if (!status_) return "running";
        return WIFEXITED(*status_) ? "exit " + std::to_string(WEXITSTATUS(*status_))
                                   : "signal " + std::to_string(WTERMSIG(*status_));
    }

private:
    int master_ = -1;
    int slave_ = -1;
    pid_t pid_ = -1;
    std::string output_;
    std::string skipped_;  // what came before the last match
    std::optional<int> status_;
};

}  // namespace kt::tool::testing
