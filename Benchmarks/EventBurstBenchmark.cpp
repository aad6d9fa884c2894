// A burst of N ordinary events (about twelve attributes each) tagged through the stack as
// fast as the caller can, while the pipeline's queue stores them on disk (nothing is
// uploaded); until every event is stored or dropped. What it shows is the memory a burst
// costs: the process's peak resident memory, how many events waited for the queue at the
// end of the burst and what one of them cost, and how many the backlog's bound dropped
// (`backlog_full`).
//
// Peak memory is the resident high-water mark of the whole process, reset through
// /proc/self/clear_refs at the start of each run where the kernel allows it; run one size
// per process (`--benchmark_filter=/100000/`) for a figure that owes nothing to an earlier
// run. Beside it, the caller's side: the median and 99th percentile of each `tagEvent`,
// timed on its own.

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <string>
#include <vector>

#include "BenchmarkSupport.h"
#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/APEventGatewayAnalyticsProvider.h"

namespace kt::bench {
namespace {

using Clock = std::chrono::steady_clock;

void BM_EventBurst(benchmark::State& state) {
    using Provider = APEventGatewayAnalyticsProvider;
    const auto count = static_cast<std::size_t>(state.range(0));
    // Filled before the mark is reset, so that the timings' own pages count as the baseline.
    std::vector<float> callNanoseconds(count, 0.0f);

    for (auto _ : state) {
        ScratchDirectory scratch("kt-bench-burst");
        auto stack = makeStack(storingConfiguration(scratch.path() / "state"), state);
        if (!stack) return;
        const bool peakWasReset = resetPeakResident();
        const long residentBefore = maxResidentKilobytes();

        const auto start = Clock::now();
        for (std::size_t i = 0; i < count; ++i) {
            // Built outside the timed call and released after it, as a host tags its events.
            auto event = ordinaryEvent(i);
            const auto before = Clock::now();
            stack->tagEvent(event);
            callNanoseconds[i] = std::chrono::duration<float, std::nano>(Clock::now() - before).count();
        }
        const double taggingSeconds = std::chrono::duration<double>(Clock::now() - start).count();
        // The end of the burst is when the most wait.
        const auto& provider = *stack->gatewayProvider();
        const std::size_t waiting = provider.pendingEvents();
        const std::size_t backlogBytes = provider.backlogBytes();
        const long residentAtBurstEnd = residentKilobytes();
        const bool drained = stack->drainQueue(std::chrono::minutes(30));
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());

        const long peak = maxResidentKilobytes();
        const auto upload = stack->statistics().upload;
        const auto backlogFull = upload.dropped(APEventDropReason::backlogFull);
        // Past the store's own bound (`kMaximumStoredEvents`) the newest give way too.
        const auto queueFull = upload.dropped(APEventDropReason::queueFull);
        state.counters["peak_rss_MiB"] = static_cast<double>(peak) / 1024.0;
        state.counters["peak_rss_growth_MiB"] = static_cast<double>(peak - residentBefore) / 1024.0;
        state.counters["peak_mark_reset"] = peakWasReset ? 1 : 0;
        // Against the peak: what the store's index of what it stored adds while the backlog drains.
        state.counters["rss_at_burst_end_MiB"] = static_cast<double>(residentAtBurstEnd) / 1024.0;
        state.counters["tagging_ms"] = taggingSeconds * 1e3;
        state.counters["waiting_at_peak"] = static_cast<double>(waiting);
        state.counters["backlog_MiB_at_peak"] = static_cast<double>(backlogBytes) / (1024.0 * 1024.0);
        if (waiting > Provider::kCompactAbove)
            state.counters["counted_B_per_compact_event"] =
                static_cast<double>(backlogBytes) / static_cast<double>(waiting - Provider::kCompactAbove);
        if (waiting > 0)
            state.counters["rss_growth_B_per_waiting_event"] =
                static_cast<double>(peak - residentBefore) * 1024.0 / static_cast<double>(waiting);
        state.counters["stored"] = static_cast<double>(upload.stored);
        state.counters["dropped_backlog_full"] = static_cast<double>(backlogFull);
        state.counters["dropped_queue_full"] = static_cast<double>(queueFull);
        if (!drained || upload.stored + upload.dropped() != count || upload.dropped() != backlogFull + queueFull)
            state.SkipWithError(("not every event was stored or dropped for a bound: " +
                                 std::to_string(upload.stored) + " stored and " + std::to_string(upload.dropped()) +
                                 " dropped of " + std::to_string(count))
                                    .c_str());
    }

    state.SetItemsProcessed(static_cast<std::int64_t>(count));
    reportCallTimes(state, callNanoseconds, "tag");
}

BENCHMARK(BM_EventBurst)
    ->Arg(100'000)
    ->Arg(1'000'000)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace kt::bench

BENCHMARK_MAIN();
