// The cost of storing one more event while 10, 1,000, 10,000 or 100,000 wait on disk. After
// every stored event the uploader asks how many wait; the store answers from an in-memory
// index instead of listing the folder, so the cost per event stays flat as the queue grows.
//
// The pipeline runs on a virtual-time queue driven by this thread, so one iteration is the
// whole road of one event: tag, transform, archive, digest, write, count.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/APEventGatewayEventTransformer.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventGatewayBatchUploader.h"
#include "BenchmarkSupport.h"
#include "KTAnalytics/Platform/SerialQueue.h"

namespace kt::bench {
namespace {

// One prepared state folder per queue length, filled once and kept for the program's life
// (the benchmark function runs several times per argument).
class WaitingQueues {
public:
    static const std::filesystem::path& stateWith(std::size_t waiting) {
        static WaitingQueues queues;
        auto& entry = queues.folders_[waiting];
        if (!entry) {
            entry = std::make_unique<ScratchDirectory>("kt-bench-growth-" + std::to_string(waiting));
            fill(entry->path() / "state", waiting);
        }
        return entry->path();
    }

private:
    // Real archives of one transformed event under distinct names: the store counts and
    // indexes them like any other, and nothing here reads them back.
    static void fill(const std::filesystem::path& state, std::size_t count) {
        Bytes bytes;
        {
            auto stack = AnalyticsStack::make(storingConfiguration(state));
            auto event = APEvent::make("pageview", AttributeDictionary{{"page_name", "stream"}});
            bytes = std::dynamic_pointer_cast<const APEvent>(stack->transformer()->transform(*event))->archivedData();
        }
        const auto folder = AnalyticsStack::eventsDirectory(state);
        for (std::size_t i = 0; i < count; ++i) {
            char name[64];
            std::snprintf(name, sizeof name, "%040zx.event", i);
            const int fd = ::open((folder / name).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
            if (fd >= 0) {
                [[maybe_unused]] auto written = ::write(fd, bytes.data(), bytes.size());
                ::close(fd);
            }
        }
    }

    std::map<std::size_t, std::unique_ptr<ScratchDirectory>> folders_;
};

void BM_StoreOneMoreEvent(benchmark::State& state) {
    const auto waiting = static_cast<std::size_t>(state.range(0));
    auto queue = std::make_shared<VirtualTimeSerialQueue>();
    auto configuration = storingConfiguration(WaitingQueues::stateWith(waiting) / "state");
    configuration.queue = queue;
    auto stack = makeStack(std::move(configuration), state);
    if (!stack) return;
    const auto before = stack->statistics().upload.waiting;
    const auto folder = stack->eventSerializer()->cacheDirectory();
    std::set<std::string> prepared;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) prepared.insert(entry.path().filename());

    std::int64_t i = 0;
    for (auto _ : state) {
        stack->tagEvent(APEvent::make("pageview", AttributeDictionary{{"page_name", "stream"}, {"n", ++i}}));
        queue->runUntilIdle();
    }
    const auto after = stack->statistics().upload.waiting;
    if (before < waiting || after < before) state.SkipWithError("the queue did not hold what it should");
    // The next run with this argument starts from the same queue length.
    stack.reset();
    std::vector<std::filesystem::path> added;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        if (!prepared.count(entry.path().filename())) added.push_back(entry.path());
    for (const auto& path : added) std::filesystem::remove(path);
    state.SetItemsProcessed(state.iterations());
    state.counters["waiting_at_start"] = static_cast<double>(before);
}

// The question the uploader asks after every stored event, answered from the index.
void BM_CountWaitingFromTheIndex(benchmark::State& state) {
    const auto waiting = static_cast<std::size_t>(state.range(0));
    auto queue = std::make_shared<VirtualTimeSerialQueue>();
    auto configuration = storingConfiguration(WaitingQueues::stateWith(waiting) / "state");
    configuration.queue = queue;  // nothing runs behind this thread's back
    auto stack = makeStack(std::move(configuration), state);
    if (!stack) return;
    for (auto _ : state) benchmark::DoNotOptimize(stack->uploader()->numberOfEventsWaitingToBeUploaded());
    if (stack->uploader()->numberOfEventsWaitingToBeUploaded() < waiting) state.SkipWithError("wrong count");
    state.counters["waiting_at_start"] = static_cast<double>(waiting);
}

// The same question answered by listing the folder, as a store without an index would:
// the cost it would add to every stored event.
void BM_CountWaitingByListingTheFolder(benchmark::State& state) {
    const auto waiting = static_cast<std::size_t>(state.range(0));
    const auto folder = AnalyticsStack::eventsDirectory(WaitingQueues::stateWith(waiting) / "state");
    for (auto _ : state) {
        const auto count = countEventFiles(folder);
        benchmark::DoNotOptimize(count);
        if (count < waiting) state.SkipWithError("wrong count");
    }
    state.counters["waiting_at_start"] = static_cast<double>(waiting);
}

// Every measure runs over the same queue sizes, so the rows line up in the summary.
void waitingSizes(benchmark::internal::Benchmark* b) {
    for (long waiting : {10L, 1'000L, 10'000L, 100'000L}) b->Arg(waiting);
    b->ArgName("waiting");
}

BENCHMARK(BM_StoreOneMoreEvent)->Apply(waitingSizes)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CountWaitingFromTheIndex)->Apply(waitingSizes);
BENCHMARK(BM_CountWaitingByListingTheFolder)->Apply(waitingSizes)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace kt::bench

BENCHMARK_MAIN();
