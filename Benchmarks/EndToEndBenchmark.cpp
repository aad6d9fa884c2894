// The whole road a user drives, end to end: N ordinary events tagged as fast as the caller
// can while uploads run against the development gateway on loopback, until every event is
// delivered. Beside it, in the same run, the floor: the file system work the pipeline cannot
// avoid (create, write, rename, extended attribute, read back and unlink the same number of
// files of the same size).
//
//   bench_EndToEndBenchmark [N ...]        (default: 1000 10000 100000)
//
// Each N runs in a child process of its own, so that its peak resident memory is its own;
// the gateway runs as a separate process (`ktanalytics gateway`), so that what it keeps of
// the events does not count against the SDK. Files go below $KTANALYTICS_BENCH_DIR.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventGatewayBatchUploader.h"
#include "BenchmarkSupport.h"
#include "KTAnalytics/Platform/Digest.h"
#include "KTAnalytics/Setup/AnalyticsStack.h"

namespace kt::bench {
namespace {

using Clock = std::chrono::steady_clock;

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

double peakResidentMiB() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

// About twelve attributes, as the application's ordinary events carry.
std::shared_ptr<const APEvent> ordinaryEvent(std::size_t i) {
    static const char* names[] = {"pageview", "audio", "like", "impression", "click", "search", "share", "repost"};
    return APEvent::make(names[i % 8], AttributeDictionary{{"page_name", "stream:main"},
                                                           {"track_urn", "quillarbor:tracks:" + std::to_string(i)},
                                                           {"position", i % 50},
                                                           {"source", "stream"},
                                                           {"query_urn", "quillarbor:queries:" + std::to_string(i * 7)},
                                                           {"trigger", "manual"},
                                                           {"policy", "ALLOW"},
                                                           {"player_type", "default"},
                                                           {"consumer_subs_plan", "none"},
                                                           {"protocol", "hls"},
                                                           {"duration", 123456 + i},
                                                           {"in_foreground", true}});
}

// The floor: the same number of files, of the size of a stored event, through the bare
// system calls the store makes.
double floorSeconds(const std::filesystem::path& folder, std::size_t count, std::size_t size) {
    std::vector<std::uint8_t> bytes(size, 'x');
    std::vector<std::string> names;
    names.reserve(count);
    const std::uint64_t retry = 1;
    const auto start = Clock::now();
    for (std::size_t i = 0; i < count; ++i) {
        std::memcpy(bytes.data(), &i, sizeof i);
        const std::string name = (folder / (sha1Hex(bytes.data(), bytes.size()) + ".event")).native();
        std::string temporary = (folder / ".tmp.XXXXXX").native();
        const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
        if (fd < 0 || ::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) std::abort();
        ::close(fd);
        if (::rename(temporary.c_str(), name.c_str()) != 0) std::abort();
        ::lsetxattr(name.c_str(), "user.retry_count", &retry, sizeof retry, 0);
        names.push_back(name);
    }
    std::vector<std::uint8_t> readBack(size);
    for (const auto& name : names) {
        const int fd = ::open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
        if (fd < 0 || ::read(fd, readBack.data(), readBack.size()) < 0) std::abort();
        ::close(fd);
    }
    for (const auto& name : names) ::unlink(name.c_str());
    return seconds(Clock::now() - start);
}

struct Gateway {
    pid_t pid = -1;
    std::string url;
    ~Gateway() {
        if (pid > 0) {
            ::kill(pid, SIGTERM);
            ::waitpid(pid, nullptr, 0);
        }
    }
};

// Starts `ktanalytics gateway --port 0` and reads the address it prints.
bool startGateway(Gateway& gateway) {
    int out[2];
    if (::pipe(out) != 0) return false;
    gateway.pid = ::fork();
    if (gateway.pid == 0) {
        ::dup2(out[1], STDOUT_FILENO);
        const int devnull = ::open("/dev/null", O_WRONLY);
        ::dup2(devnull, STDERR_FILENO);
        ::close(out[0]);
        ::execl(KTANALYTICS_TOOL_PATH, KTANALYTICS_TOOL_PATH, "gateway", "--port", "0", nullptr);
        ::_exit(127);
    }
    ::close(out[1]);
    std::string line;
    char c;
    while (::read(out[0], &c, 1) == 1 && c != '\n') line += c;
    // It goes on printing a line per request: read and forget them, or it would block.
    std::thread([fd = out[0]] {
        char buffer[4096];
        while (::read(fd, buffer, sizeof buffer) > 0) {
        }
        ::close(fd);
    }).detach();
    const auto at = line.find("http://");
    if (at == std::string::npos) return false;
    gateway.url = line.substr(at);
    return true;
}

int runOne(std::size_t count) {
    ScratchDirectory scratch("e2e");
    const auto sample = ordinaryEvent(count);
    const std::size_t archiveSize = sample->archivedData().size();
    std::filesystem::create_directories(scratch.path() / "floor");
    const double floor = floorSeconds(scratch.path() / "floor", count, archiveSize);

    Gateway gateway;
    if (!startGateway(gateway)) {
        std::cerr << "bench: the development gateway did not start\n";
        return 2;
    }
    AnalyticsStackConfiguration configuration;
    configuration.environment.eventGatewayBaseURL = gateway.url;
    configuration.environment.clientId = 3;
    configuration.environment.userAgent = "KTAnalytics-Bench/1";
    configuration.stateDirectory = scratch.path() / "state";
    configuration.console = &silentConsole();
    std::string error;
    auto stack = AnalyticsStack::make(configuration, &error);
    if (!stack) {
        std::cerr << "bench: " << error << "\n";
        return 2;
    }

    std::uint64_t peakInMemory = 0;
    const auto start = Clock::now();
    for (std::size_t i = 0; i < count; ++i) {
        stack->tagEvent(ordinaryEvent(i));
        if (i % 64 == 0) {
            const auto upload = stack->uploader()->statistics();
            const std::uint64_t handled = upload.stored + upload.dropped();
            if (i + 1 > handled) peakInMemory = std::max<std::uint64_t>(peakInMemory, i + 1 - handled);
        }
    }
    const double tagging = seconds(Clock::now() - start);
    stack->flush();
    const bool delivered = stack->waitUntilDelivered(std::chrono::minutes(10));
    const double total = seconds(Clock::now() - start);
    const auto stats = stack->statistics();

    std::printf("%8zu  %8.2f  %9.1f  %8.2f  %6.2fx  %8llu  %9.1f  %9.1f  %9llu  %8.2f  %s\n", count, total,
                total / static_cast<double>(count) * 1e6, floor, total / floor,
                static_cast<unsigned long long>(stats.upload.batchesSent),
                static_cast<double>(stats.upload.bytesGzipped) / static_cast<double>(count), peakResidentMiB(),
                static_cast<unsigned long long>(peakInMemory), tagging,
                delivered && stats.upload.delivered == count ? "all delivered" : "INCOMPLETE");
    std::fflush(stdout);
    return delivered && stats.upload.delivered == count ? 0 : 1;
}

}  // namespace
}  // namespace kt::bench

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == "--child") return kt::bench::runOne(std::stoul(argv[2]));
    std::vector<std::string> counts;
    for (int i = 1; i < argc; ++i) counts.emplace_back(argv[i]);
    if (counts.empty()) counts = {"1000", "10000", "100000"};
    std::printf("%8s  %8s  %9s  %8s  %7s  %8s  %9s  %9s  %9s  %8s\n", "events", "seconds", "us/event", "floor s",
                "/floor", "requests", "wire B/ev", "peak MiB", "in memory", "tagging s");
    std::fflush(stdout);
    int status = 0;
    for (const auto& count : counts) {
        const pid_t child = ::fork();
        if (child == 0) {
            ::execl("/proc/self/exe", argv[0], "--child", count.c_str(), nullptr);
            ::_exit(127);
        }
        int result = 0;
        ::waitpid(child, &result, 0);
        if (!WIFEXITED(result) || WEXITSTATUS(result) != 0) status = 1;
    }
    return status;
}
