#pragma once
// Shared by the benchmark programs (a header, so the build does not take it for a program):
// scratch folders on a real disk and stack configurations that never upload unless asked.

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <ostream>
#include <string>

#include <sys/resource.h>
#include <unistd.h>

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
