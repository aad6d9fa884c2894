// The cost of the product-analytics client's `track` on the caller's thread: copying the
// arguments, reading the clock and handing one task to the client's own worker thread,
// while that worker builds, persists (SQLite) and batches the messages at the same time.
// Uploads go to a request queue that answers at once, so the queue never fills.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include "BenchmarkSupport.h"
#include "KTAnalytics/KTData/RequestQueue.h"
#include "KTAnalytics/Segment/Client/SEGAnalytics.h"

namespace kt::bench {
namespace {

constexpr std::int64_t kEventsPerRepetition = 10'000;

class DeliveringRequestQueue final : public RequestQueueing {
public:
    bool isNetworkReachable() const override { return true; }
    void sendRequest(HTTPRequest, ResultCallback callback) override { callback(0); }
};

void BM_SegmentTrack(benchmark::State& state) {
    ScratchDirectory directory("kt-bench-segment");
    auto configuration = SEGAnalyticsConfiguration::configurationWithWriteKey("bench");
    configuration.apiHost = "http://127.0.0.1:9";
    // A null worker: the client makes its own thread, as in production.
    SEGAnalyticsDependencies dependencies{std::make_shared<DeliveringRequestQueue>(), directory.path(), nullptr, nullptr};
    auto client = std::make_unique<SEGAnalytics>(std::move(configuration), std::move(dependencies));
    const std::optional<AttributeValue> properties =
        AttributeValue{{"track", "quillarbor:tracks:123"}, {"position", 3}, {"page_name", "stream"}};
    const std::optional<AttributeValue> options = AttributeValue{{"integrations", {{"Firebase", false}}}};
    // Each call timed on its own: the median is what a caller sees, unlike the mean that a
    // rare preempted hand-off drags up.
    const auto first = std::chrono::steady_clock::now();
    std::vector<double> nanoseconds;
    nanoseconds.reserve(static_cast<std::size_t>(state.max_iterations));
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        client->track("Track Played", properties, options);
        nanoseconds.push_back(std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count());
    }
    state.SetItemsProcessed(state.iterations());
    std::sort(nanoseconds.begin(), nanoseconds.end());
    state.counters["median_ns"] = nanoseconds[nanoseconds.size() / 2];
    state.counters["p99_ns"] = nanoseconds[nanoseconds.size() * 99 / 100];
    // Destruction waits for the worker to store what it was handed (after the loop: not in
    // the timings above). From the first call to the last message stored: the worker's pace.
    client.reset();
    state.counters["worker_us_per_message"] =
        std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - first).count() /
        static_cast<double>(state.iterations());
}

BENCHMARK(BM_SegmentTrack)
    ->Iterations(kEventsPerRepetition)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

}  // namespace
}  // namespace kt::bench

BENCHMARK_MAIN();
