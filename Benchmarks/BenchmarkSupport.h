#pragma once
// Shared by the benchmark programs (a header, so the build does not take it for a program):
// scratch folders on a real disk and stack configurations that never upload unless asked.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventSerializer.h"
#include "KTAnalytics/Setup/AnalyticsStack.h"

namespace kt::bench {

/// A fresh folder under $KTANALYTICS_BENCH_DIR (or the system's temporary folder), removed
/// with its contents on destruction. Files must land on the disk being measured, so the
/// scripts point the variable at the build folder's disk.
class ScratchDirectory {
public:
    explicit ScratchDirectory(const std::string& prefix) {
        static std::atomic<int> counter{0};
        const char* root = std::getenv("KTANALYTICS_BENCH_DIR");
        const std::filesystem::path base = root && *root ? std::filesystem::path(root) : std::filesystem::temp_directory_path();
        path_ = base / (prefix + "-" + std::to_string(::getpid()) + "-" + std::to_string(counter++));
        std::filesystem::remove_all(path_);
        std::filesystem::create_directories(path_);
    }
    ~ScratchDirectory() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

/// Swallows the session id service's console lines.
/// The process's peak resident memory so far, in KiB.
inline long maxResidentKilobytes() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

/// What is resident now, in KiB.
inline long residentKilobytes() {
    long pages = 0, resident = 0;
    std::ifstream statm("/proc/self/statm");
    statm >> pages >> resident;
    return resident * (::sysconf(_SC_PAGESIZE) / 1024);
}

/// The i-th of a stream of ordinary events: about twelve attributes, as the application's
/// events carry, under the gateway's names in turn.
inline std::shared_ptr<const APEvent> ordinaryEvent(std::size_t i) {
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

/// Reports single calls' times (sorted here) as `<name>_median_ns` and `<name>_p99_ns`.
template <class Number>
void reportCallTimes(benchmark::State& state, std::vector<Number>& nanoseconds, const std::string& name) {
    if (nanoseconds.empty()) return;
    std::sort(nanoseconds.begin(), nanoseconds.end());
    state.counters[name + "_median_ns"] = static_cast<double>(nanoseconds[nanoseconds.size() / 2]);
    state.counters[name + "_p99_ns"] = static_cast<double>(nanoseconds[nanoseconds.size() * 99 / 100]);
}

/// Lowers the high-water mark to what is resident now; false where the kernel refuses.
inline bool resetPeakResident() {
    std::ofstream clearRefs("/proc/self/clear_refs");
    clearRefs << "5";
    clearRefs.flush();
    return static_cast<bool>(clearRefs);
}

inline std::ostream& silentConsole() {
    static std::ostream stream(nullptr);
    return stream;
}

/// A stack that stores everything and uploads nothing: no batch is ever big enough and the
/// 60-second timer is off. `gatewayURL` only matters to stacks that are flushed.
inline AnalyticsStackConfiguration storingConfiguration(const std::filesystem::path& state,
                                                        const std::string& gatewayURL = "http://127.0.0.1:9") {
    AnalyticsStackConfiguration c;
    c.environment.eventGatewayBaseURL = gatewayURL;
    c.environment.clientId = 3;
    c.environment.userAgent = "KTAnalytics-Bench/1";
    c.environment.minimumBatchSize = 1'000'000'000;
    c.environment.shouldFlushAtRegularIntervals = false;
    c.stateDirectory = state;
    c.console = &silentConsole();
    return c;
}

inline std::unique_ptr<AnalyticsStack> makeStack(AnalyticsStackConfiguration configuration, benchmark::State& state) {
    std::string error;
    auto stack = AnalyticsStack::make(std::move(configuration), &error);
    if (!stack) state.SkipWithError(("cannot build the stack: " + error).c_str());
    return stack;
}

/// Counts the stored event files in a folder.
inline std::size_t countEventFiles(const std::filesystem::path& folder) {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        if (entry.path().extension() == ".event") ++count;
    return count;
}

}  // namespace kt::bench
