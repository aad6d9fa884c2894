// Events per second from `tagEvent` to a file on disk, set beside the floor: the bare system
// calls that put the same bytes in a file the way the store does (a temporary name, write,
// close, rename), plus the extended attribute the retry count lives in, in the same process
// and on the same disk.

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/APEventGatewayEventTransformer.h"
#include "BenchmarkSupport.h"

namespace kt::bench {
namespace {

constexpr int kEventsPerIteration = 1000;

std::vector<std::shared_ptr<const APEvent>> sessionEvents() {
    static const char* names[] = {"pageview", "audio", "like", "impression", "search"};
    std::vector<std::shared_ptr<const APEvent>> events;
    for (int i = 0; i < kEventsPerIteration; ++i)
        events.push_back(APEvent::make(names[i % 5], AttributeDictionary{{"page_name", "stream"},
                                                                       {"track", "quillarbor:tracks:123"},
                                                                       {"position", i}}));
    return events;
}

// Every iteration builds a stack over an empty folder, tags 1,000 distinct events and waits
// until the worker has written them all; only the tagging and the wait are measured.
void BM_TagToFileOnDisk(benchmark::State& state) {
    const auto events = sessionEvents();
    std::unique_ptr<ScratchDirectory> directory;
    for (auto _ : state) {
        state.PauseTiming();
        directory.reset();  // the last iteration's files go while the clock is stopped
        directory = std::make_unique<ScratchDirectory>("kt-bench-store");
        auto stack = makeStack(storingConfiguration(directory->path() / "state"), state);
        if (!stack) return;
        state.ResumeTiming();

        for (const auto& event : events) stack->tagEvent(event);
        stack->drainQueue(std::chrono::minutes(2));

        state.PauseTiming();
        const auto stored = countEventFiles(stack->eventSerializer()->cacheDirectory());
        if (stored != events.size()) state.SkipWithError("not every event reached the disk");
        stack.reset();
        state.ResumeTiming();
    }
    directory.reset();
    state.SetItemsProcessed(state.iterations() * kEventsPerIteration);
}

// The archive of a transformed event: the bytes the store writes for one event.
Bytes storedBytes() {
    ScratchDirectory directory("kt-bench-bytes");
    AnalyticsStackConfiguration c = storingConfiguration(directory.path() / "state");
    auto stack = AnalyticsStack::make(c);
    auto transformed = stack->transformer()->transform(*sessionEvents().front());
    return std::dynamic_pointer_cast<const APEvent>(transformed)->archivedData();
}

// The same file operations with no SDK around them: mkostemp, write, close, rename and,
// when the argument is 1, setxattr of an 8-byte count.
void BM_BareSystemCalls(benchmark::State& state) {
    const Bytes bytes = storedBytes();
    const bool withAttribute = state.range(0) != 0;
    const std::uint64_t retryCount = 1;
    std::unique_ptr<ScratchDirectory> directory;
    for (auto _ : state) {
        state.PauseTiming();
        directory.reset();  // the last iteration's files go while the clock is stopped
        directory = std::make_unique<ScratchDirectory>("kt-bench-floor");
        const std::string folder = directory->path().native() + "/";
        state.ResumeTiming();

        for (int i = 0; i < kEventsPerIteration; ++i) {
            std::string temporary = folder + ".event.XXXXXX";
            const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
            if (fd < 0 || ::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()) ||
                ::close(fd) != 0) {
                state.SkipWithError("write failed");
                return;
            }
            char name[64];
            std::snprintf(name, sizeof name, "%040d.event", i);
            const std::string target = folder + name;
            if (::rename(temporary.c_str(), target.c_str()) != 0) {
                state.SkipWithError("rename failed");
                return;
            }
            if (withAttribute &&
                ::setxattr(target.c_str(), "user.retry_count", &retryCount, sizeof retryCount, 0) != 0) {
                state.SkipWithError("setxattr failed");
                return;
            }
        }
    }
    directory.reset();
    state.SetItemsProcessed(state.iterations() * kEventsPerIteration);
}

BENCHMARK(BM_TagToFileOnDisk)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_BareSystemCalls)->Arg(1)->Arg(0)->ArgName("xattr")->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace kt::bench

BENCHMARK_MAIN();
