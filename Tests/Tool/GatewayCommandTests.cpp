// `ktanalytics gateway` run as the built binary: it announces its address, serves, and
// stops cleanly on SIGTERM.

#include <gtest/gtest.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "AnalyticsProvider/EventGateway/Upload/GzipCodec.h"

namespace {

using namespace std::chrono_literals;

constexpr auto kDeadline = 30s;  // guards against a hang only

// The tool as a child process with its standard output on a pipe.
class ToolProcess {
public:
    explicit ToolProcess(std::vector<std::string> arguments) {
        int fds[2];
        if (pipe(fds) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            dup2(fds[1], STDOUT_FILENO);
            close(fds[0]);
            close(fds[1]);
            std::vector<char*> argv;
            static std::string tool = KTANALYTICS_TOOL_PATH;
            argv.push_back(tool.data());
            for (auto& a : arguments) argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(tool.c_str(), argv.data());
            _exit(127);
        }
        close(fds[1]);
        out_ = fds[0];
    }
    ~ToolProcess() {
        if (pid_ > 0 && !exitStatus_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (out_ >= 0) close(out_);
    }

    /// The next line of output, or nullopt at the end of output or the deadline.
    std::optional<std::string> readLine() {
        const auto deadline = std::chrono::steady_clock::now() + kDeadline;
        for (;;) {
            if (auto newline = buffer_.find('\n'); newline != std::string::npos) {
                std::string line = buffer_.substr(0, newline);
                buffer_.erase(0, newline + 1);
                return line;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) return std::nullopt;
            pollfd p{out_, POLLIN, 0};
            if (poll(&p, 1, static_cast<int>(left.count())) <= 0) return std::nullopt;
            char chunk[512];
            const ssize_t n = read(out_, chunk, sizeof chunk);
            if (n <= 0) return std::nullopt;
            buffer_.append(chunk, static_cast<std::size_t>(n));
        }
    }

    /// The exit status once the process has ended, or nullopt at the deadline.
    std::optional<int> waitForExit() {
        const auto deadline = std::chrono::steady_clock::now() + kDeadline;
        while (!exitStatus_ && std::chrono::steady_clock::now() < deadline) {
            int status = 0;
            if (waitpid(pid_, &status, WNOHANG) == pid_) exitStatus_ = status;
            else std::this_thread::sleep_for(10ms);
        }
        return exitStatus_;
    }

    pid_t pid() const { return pid_; }

private:
    pid_t pid_ = -1;
    int out_ = -1;
    std::string buffer_;
    std::optional<int> exitStatus_;
};

TEST(GatewayCommandTests, servesOnTheAnnouncedPortAndStopsCleanlyOnSIGTERM) {
    ToolProcess tool({"gateway", "--port", "0", "--seed", "1"});
    ASSERT_GT(tool.pid(), 0);
    const std::optional<std::string> first = tool.readLine();
    ASSERT_TRUE(first);
    const std::string prefix = "listening on http://127.0.0.1:";
    ASSERT_EQ(first->rfind(prefix, 0), 0u) << *first;
    const int port = std::stoi(first->substr(prefix.size()));
    ASSERT_GT(port, 0);

    httplib::Client client("127.0.0.1", port);
    const std::string body = kt::GzipCodec::gzippedData(
                                 R"([{"event":"play","version":"v1.27.36","payload":{"track":"quillarbor:tracks:9"}}])")
                                 .value();
    auto upload = client.Post("/v1/events", {{"Content-Encoding", "gzip"}}, body, "application/json");
    ASSERT_TRUE(upload);
    EXPECT_EQ(upload->status, 200);
    auto stats = client.Get("/stats");
    ASSERT_TRUE(stats);
    EXPECT_EQ(nlohmann::json::parse(stats->body)["events"], 1);

    EXPECT_EQ(tool.readLine(), std::optional<std::string>("POST /v1/events 200 events=1"));
    EXPECT_EQ(tool.readLine(), std::optional<std::string>("GET /stats 200 events=0"));

    ASSERT_EQ(kill(tool.pid(), SIGTERM), 0);
    const std::optional<int> status = tool.waitForExit();
    ASSERT_TRUE(status) << "the gateway did not stop";
    ASSERT_TRUE(WIFEXITED(*status));
    EXPECT_EQ(WEXITSTATUS(*status), 0);
}

TEST(GatewayCommandTests, outOfRangeFlagsAreRefusedBeforeListening) {
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"gateway", "--fail-rate", "1.5"}, {"gateway", "--fail-status", "99"},
          {"gateway", "--fail-status", "600"}, {"gateway", "--port", "70000"}}) {
        ToolProcess tool(arguments);
        EXPECT_EQ(tool.readLine(), std::nullopt) << arguments[1] << " " << arguments[2];
        const std::optional<int> status = tool.waitForExit();
        ASSERT_TRUE(status);
        ASSERT_TRUE(WIFEXITED(*status));
        EXPECT_NE(WEXITSTATUS(*status), 0) << arguments[1] << " " << arguments[2];
    }
}

}  // namespace
