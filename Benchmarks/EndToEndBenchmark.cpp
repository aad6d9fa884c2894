// The whole road a user drives, end to end: N ordinary events tagged as fast as the caller
// can while uploads run against the development gateway on loopback, until every event is
// delivered. Beside it, in the same run, the floor: the file system work the pipeline cannot
// avoid (create, write, rename, extended attribute, read back and unlink the same number of
// files of the same size).
//
//   bench_EndToEndBenchmark [N ...]        (default: 1000 10000 100000)
//
// Each N runs in a child process of its own, so that its peak resident memory is its own;
// the gateway runs as a separate process (`ktanalytics gateway`, or the one at
// $KTANALYTICS_BENCH_GATEWAY), so that what it keeps of the events does not count against
// the SDK. Files go below $KTANALYTICS_BENCH_DIR.
//
// CPU time is the process's own (all its threads, from getrusage). System calls are counted
// by the kernel's raw_syscalls:sys_enter tracepoint when tracefs is mounted (as root:
// `mount -t tracefs nodev /sys/kernel/tracing`), otherwise shown as "-";
// scripts/syscalls-per-event.sh counts them by call under strace instead.

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
#include <linux/perf_event.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
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

// User and system CPU seconds of the whole process so far.
struct CPUTime {
    double user = 0, system = 0;
    static CPUTime now() {
        rusage usage{};
        ::getrusage(RUSAGE_SELF, &usage);
        const auto secondsOf = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
        return {secondsOf(usage.ru_utime), secondsOf(usage.ru_stime)};
    }
    CPUTime operator-(const CPUTime& o) const { return {user - o.user, system - o.system}; }
};

// Counts the system calls this process and the threads (and processes) it starts from now
// on make. Invalid where tracefs is not mounted or the kernel refuses the counter.
class SyscallCounter {
public:
    SyscallCounter() {
        std::uint64_t id = 0;
        for (const char* path : {"/sys/kernel/tracing/events/raw_syscalls/sys_enter/id",
                                 "/sys/kernel/debug/tracing/events/raw_syscalls/sys_enter/id"})
            if (FILE* f = std::fopen(path, "r")) {
                const bool read = std::fscanf(f, "%lu", &id) == 1;
                std::fclose(f);
                if (read) break;
            }
        if (id == 0) return;
        perf_event_attr attr{};
        attr.type = PERF_TYPE_TRACEPOINT;
        attr.size = sizeof attr;
        attr.config = id;
        attr.inherit = 1;
        attr.sample_period = 0;
        fd_ = static_cast<int>(::syscall(SYS_perf_event_open, &attr, 0, -1, -1, PERF_FLAG_FD_CLOEXEC));
    }
    ~SyscallCounter() {
        if (fd_ >= 0) ::close(fd_);
    }
    SyscallCounter(const SyscallCounter&) = delete;
    SyscallCounter& operator=(const SyscallCounter&) = delete;

    bool valid() const { return fd_ >= 0; }
    /// Calls so far, the threads that have ended included.
    std::uint64_t count() const {
        std::uint64_t value = 0;
        if (fd_ < 0 || ::read(fd_, &value, sizeof value) != sizeof value) return 0;
        return value;
    }

private:
    int fd_ = -1;
};

// "12.3" per event, or "-" without a counter.
std::string perEvent(bool valid, std::uint64_t calls, std::size_t count) {
    if (!valid) return "-";
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", static_cast<double>(calls) / static_cast<double>(count));
    return text;
}

// Marks where a part of the run begins and ends for scripts/syscalls-per-event.sh: a
// lookup of a path that does not exist, which strace shows with its name.
void mark(const char* name) {
    if (std::getenv("KTANALYTICS_BENCH_MARKS")) ::access((std::string("/ktanalytics-bench-mark/") + name).c_str(), F_OK);
}

// The floor: the same number of files, of the size of a stored event, through the bare
// system calls the store makes.
double floorSeconds(const std::filesystem::path& folder, std::size_t count, std::size_t size) {
    mark("floor-start");
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
    const double elapsed = seconds(Clock::now() - start);
    mark("floor-end");
    return elapsed;
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
    if (const char* running = std::getenv("KTANALYTICS_BENCH_GATEWAY"); running && *running) {
        gateway.url = running;
        return true;
    }
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
    double floor = 0;
    CPUTime floorCPU;
    std::uint64_t floorCalls = 0;
    bool counted = false;
    {
        SyscallCounter calls;
        const auto cpu = CPUTime::now();
        const auto before = calls.count();
        floor = floorSeconds(scratch.path() / "floor", count, archiveSize);
        floorCalls = calls.count() - before;
        floorCPU = CPUTime::now() - cpu;
        counted = calls.valid();
    }

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
    // Opened before the stack, so that its threads inherit the counter; after the gateway's
    // start, so that the gateway does not.
    SyscallCounter calls;
    std::string error;
    auto stack = AnalyticsStack::make(configuration, &error);
    if (!stack) {
        std::cerr << "bench: " << error << "\n";
        return 2;
    }

    std::uint64_t peakInMemory = 0;
    mark("road-start");
    const auto callsBefore = calls.count();
    const auto cpuBefore = CPUTime::now();
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
    const auto cpu = CPUTime::now() - cpuBefore;
    const auto roadCalls = calls.count() - callsBefore;
    mark("road-end");
    const auto stats = stack->statistics();

    const double n = static_cast<double>(count);
    std::printf("%8zu  %-5s  %8.2f  %9.1f  %6.2f  %6.2f  %9.1f  %8s  %6.2fx  %8llu  %9.1f  %9.1f  %9llu  %8.2f  %s\n",
                count, "road", total, total / n * 1e6, cpu.user, cpu.system, (cpu.user + cpu.system) / n * 1e6,
                perEvent(calls.valid(), roadCalls, count).c_str(), total / floor,
                static_cast<unsigned long long>(stats.upload.batchesSent),
                static_cast<double>(stats.upload.bytesGzipped) / n, static_cast<double>(maxResidentKilobytes()) / 1024.0,
                static_cast<unsigned long long>(peakInMemory), tagging,
                delivered && stats.upload.delivered == count ? "all delivered" : "INCOMPLETE");
    std::printf("%8zu  %-5s  %8.2f  %9.1f  %6.2f  %6.2f  %9.1f  %8s\n", count, "floor", floor, floor / n * 1e6,
                floorCPU.user, floorCPU.system, (floorCPU.user + floorCPU.system) / n * 1e6,
                perEvent(counted, floorCalls, count).c_str());
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
    std::printf("%8s  %-5s  %8s  %9s  %6s  %6s  %9s  %8s  %7s  %8s  %9s  %9s  %9s  %8s\n", "events", "part", "seconds",
                "us/event", "user s", "sys s", "CPU us/ev", "calls/ev", "/floor", "requests", "wire B/ev", "peak MiB",
                "in memory", "tagging s");
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
