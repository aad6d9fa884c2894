// The tracking plan's product-analytics road, end to end: N events sent through the stack's
// `eventSender()` as fast as the caller can, each handed to the client's worker, run through
// the middlewares, committed to its SQLite queue, batched, gzip-compressed, re-addressed to
// the development gateway (started in this process on loopback, keeping what it receives in
// a SQLite file beside the state folder) and deleted once answered, until every message is
// delivered.
//
// Timed (manual time): from the first `send` to the return of `waitUntilDelivered`. Beside
// it, the caller's side of the same run: the send loop's time per call and the median and
// 99th percentile of each call timed on its own. Peak memory is the growth of the resident
// high-water mark over the run (reset through /proc/self/clear_refs where the kernel allows
// it); it includes the in-process gateway's work on each batch. Beside it, the whole process's
// peak (run one size per process, `--benchmark_filter=/100000/`, for a figure that owes
// nothing to an earlier run).
//
// Each run checks that the gateway received every message the client did not count as
// dropped (`queue_full`, `backlog_full`), none twice.

#include <benchmark/benchmark.h>

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "BenchmarkSupport.h"
#include "Gateway/DevelopmentGateway.h"
#include "KTAnalytics/TrackingArchitecture/EventSender.h"

namespace kt::bench {
namespace {

using Clock = std::chrono::steady_clock;


// Four properties as the plan's events carry them: an entity urn, a number, a short string
// and an absent value (sent as null).
TrackingProperties propertiesFor(std::size_t i) {
    return {{"track_urn", AttributeValue("quillarbor:tracks:" + std::to_string(100'000 + i))},
            {"position", AttributeValue(static_cast<std::int64_t>(i % 50))},
            {"source", AttributeValue("stream")},
            {"playlist_urn", std::nullopt}};
}

const char* const kNames[] = {"Track Played", "Track Liked", "Track Reposted", "Track Shared"};

// The message as the gateway stored it carries the event's name and properties, null
// included: the urn tells which call it was, and so which name it had.
bool arrivedWhole(const std::vector<gateway::StoredMessage>& last) {
    if (last.size() != 1 || last[0].type != "track") return false;
    const auto message = AttributeValue::parse(last[0].message, nullptr, false);
    if (!message.is_object() || !message.contains("properties")) return false;
    const auto& properties = message["properties"];
    const std::string urn = properties.value("track_urn", ""), prefix = "quillarbor:tracks:";
    if (urn.rfind(prefix, 0) != 0 || urn.size() == prefix.size()) return false;
    const std::size_t i = std::stoul(urn.substr(prefix.size())) - 100'000;
    return last[0].name == kNames[i % 4] && properties.contains("playlist_urn") && properties["playlist_urn"].is_null();
}

void BM_TrackingPlanToGateway(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    const auto* const names = kNames;
    std::vector<double> callNanoseconds;
    callNanoseconds.reserve(count);
    double sendLoopSeconds = 0, totalSeconds = 0;
    long peakGrowth = 0, peak = 0;
    bool peakWasReset = true;
    SEGAnalyticsStatistics client;
    gateway::GatewayStatistics received;

    for (auto _ : state) {
        ScratchDirectory scratch("kt-bench-tracking-plan");
        gateway::GatewayConfiguration gatewayConfiguration;
        gatewayConfiguration.dbPath = (scratch.path() / "gateway.sqlite3").string();
        gateway::DevelopmentGateway gateway(gatewayConfiguration);
        if (!gateway.start()) {
            state.SkipWithError(("the development gateway did not start: " + gateway.lastError()).c_str());
            return;
        }
        AnalyticsStackConfiguration configuration;
        configuration.environment.eventGatewayBaseURL = gateway.baseURL();
        configuration.environment.clientId = 3;
        configuration.environment.userAgent = "KTAnalytics-Bench/1";
        configuration.environment.segmentWriteKey = "bench-write-key";
        configuration.environment.shouldFlushAtRegularIntervals = false;
        configuration.stateDirectory = scratch.path() / "state";
        configuration.token = "bench-token";
        configuration.userUrn = "quillarbor:users:7";
        configuration.console = &silentConsole();
        auto stack = makeStack(std::move(configuration), state);
        if (!stack) return;
        auto& sender = *stack->eventSender();

        callNanoseconds.clear();
        peakWasReset = resetPeakResident() && peakWasReset;
        const long residentBefore = maxResidentKilobytes();

        // Notes when the worker has stored every message and when the last was delivered,
        // to tell the worker's pace from the uploads' and from the waiting call's own latency.
        std::atomic<bool> sampling{true};
        double storedSeconds = 0, deliveredSeconds = 0;
        const auto start = Clock::now();
        std::thread sampler([&] {
            while (sampling.load() && deliveredSeconds == 0) {
                const auto s = stack->statistics().segment;
                const double at = std::chrono::duration<double>(Clock::now() - start).count();
                if (storedSeconds == 0 && s.persisted >= count) storedSeconds = at;
                if (s.delivered >= count) deliveredSeconds = at;
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
        for (std::size_t i = 0; i < count; ++i) {
            const auto before = Clock::now();
            sender.send(names[i % 4], 1, propertiesFor(i));
            callNanoseconds.push_back(std::chrono::duration<double, std::nano>(Clock::now() - before).count());
        }
        sendLoopSeconds = std::chrono::duration<double>(Clock::now() - start).count();
        // The end of the burst is when the most wait for the client's worker.
        const auto atBurstEnd = stack->statistics().segment;
        // Neither stored nor refused: in the worker's line (other drops are none here).
        const std::uint64_t waitingAtBurstEnd =
            atBurstEnd.tracked - atBurstEnd.persisted -
            (atBurstEnd.droppedByReason.count("backlog_full") ? atBurstEnd.droppedByReason.at("backlog_full") : 0);
        state.counters["waiting_for_worker_at_burst_end"] = static_cast<double>(waitingAtBurstEnd);
        state.counters["backlog_MiB_at_burst_end"] = static_cast<double>(atBurstEnd.backlogBytes) / (1024.0 * 1024.0);
        if (waitingAtBurstEnd > 0)
            state.counters["counted_B_per_waiting_call"] =
                static_cast<double>(atBurstEnd.backlogBytes) / static_cast<double>(waitingAtBurstEnd);
        const bool delivered = stack->waitUntilDelivered(std::chrono::minutes(10));
        totalSeconds = std::chrono::duration<double>(Clock::now() - start).count();
        state.SetIterationTime(totalSeconds);
        sampling = false;
        sampler.join();
        state.counters["stored_all_ms"] = storedSeconds * 1e3;
        state.counters["delivered_all_ms"] = deliveredSeconds * 1e3;

        peakGrowth = std::max(peakGrowth, maxResidentKilobytes() - residentBefore);
        peak = std::max(peak, maxResidentKilobytes());
        client = stack->statistics().segment;
        received = gateway.stats();
        // More than the client's 1,000 waiting messages at once: the oldest give way; more
        // than the worker's backlog holds: the newest are refused. Both are counted (a burst
        // outrunning the uploads or the worker); anything else lost is a fault.
        const auto dropped = [&](const char* reason) {
            return client.droppedByReason.count(reason) ? client.droppedByReason.at(reason) : 0;
        };
        const auto queueFull = dropped("queue_full"), backlogFull = dropped("backlog_full");
        state.counters["dropped_queue_full"] = static_cast<double>(queueFull);
        state.counters["dropped_backlog_full"] = static_cast<double>(backlogFull);
        if (!delivered || client.delivered + queueFull + backlogFull != count) {
            std::string dropped;
            for (const auto& [reason, n] : client.droppedByReason) dropped += " " + reason + "=" + std::to_string(n);
            state.SkipWithError(("not every message was delivered: " + std::to_string(client.delivered) + " of " +
                                 std::to_string(count) + "; dropped:" + (dropped.empty() ? " none" : dropped))
                                    .c_str());
        }
        else if (received.messages != client.delivered || received.duplicateMessages != 0)
            state.SkipWithError(("the gateway received " + std::to_string(received.messages) + " messages (" +
                                 std::to_string(received.duplicateMessages) + " twice) instead of " +
                                 std::to_string(count))
                                    .c_str());
        else if (!arrivedWhole(gateway.lastMessages(1)))
            state.SkipWithError("the last message arrived without its name or urn or null property");
    }

    const auto n = static_cast<double>(count);
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * count));
    state.counters["us_per_message"] = totalSeconds / n * 1e6;
    state.counters["batches"] = static_cast<double>(client.batchesSent);
    state.counters["gzip_KiB"] = static_cast<double>(client.bytesSent) / 1024.0;
    state.counters["gzip_B_per_message"] = static_cast<double>(client.bytesSent) / n;
    state.counters["retries"] = static_cast<double>(client.retries);
    state.counters["peak_rss_growth_MiB"] = static_cast<double>(peakGrowth) / 1024.0;
    // The whole process: the in-process gateway and its store included.
    state.counters["peak_rss_MiB"] = static_cast<double>(peak) / 1024.0;
    state.counters["peak_mark_reset"] = peakWasReset ? 1 : 0;
    state.counters["send_loop_ns_per_call"] = sendLoopSeconds / n * 1e9;
    reportCallTimes(state, callNanoseconds, "send");
}

BENCHMARK(BM_TrackingPlanToGateway)
    ->Arg(1'000)
    ->Arg(10'000)
    ->Arg(100'000)
    ->Arg(1'000'000)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace kt::bench

BENCHMARK_MAIN();
