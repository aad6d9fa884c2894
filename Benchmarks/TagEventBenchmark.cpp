// The cost of `tagEvent` on the caller's thread, with the gateway provider registered and
// its worker storing the events on disk at the same time. The caller's road is the
// controller's name check and provider filter plus one hand-off to the pipeline's queue;
// transformation, archiving and the file write happen on the worker.

#include <benchmark/benchmark.h>

#include <chrono>

#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "BenchmarkSupport.h"

namespace kt::bench {
namespace {

constexpr std::int64_t kEventsPerRepetition = 10'000;

void tagRepeatedly(benchmark::State& state, const char* name) {
    ScratchDirectory directory("kt-bench-tag");
    auto stack = makeStack(storingConfiguration(directory.path() / "state"), state);
    if (!stack) return;
    // Events are immutable and shared: the application builds one and tags it.
    const auto event = APEvent::make(name, AttributeDictionary{{"page_name", "stream"},
                                                               {"track", "quillarbor:tracks:123"},
                                                               {"position", 3}});
    for (auto _ : state) stack->tagEvent(event);
    state.SetItemsProcessed(state.iterations());
    // Let the worker finish before the folder goes (after the loop: not measured).
    stack->drainQueue(std::chrono::minutes(2));
}

// "pageview" is in the gateway's vocabulary: the event is handed to the worker.
void BM_TagEvent(benchmark::State& state) { tagRepeatedly(state, "pageview"); }
// "follow" is supported but tracked by no registered provider: the controller's work alone.
void BM_TagEventNoProviderTakes(benchmark::State& state) { tagRepeatedly(state, "follow"); }

BENCHMARK(BM_TagEvent)->Iterations(kEventsPerRepetition)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_TagEventNoProviderTakes)->Iterations(kEventsPerRepetition)->Repetitions(5)->ReportAggregatesOnly(true);

}  // namespace
}  // namespace kt::bench

BENCHMARK_MAIN();
