// The time and the peak memory to upload 10,000 stored events to the development gateway,
// started in this process on loopback. The events are stored first, with the clock stopped;
// the measurement is one flush (every stored event goes in one request: the uploader puts no
// upper bound on a batch) and the wait until the store is empty: reading the files back,
// building and compressing the body, the transfer, the gateway's answer and the deletes.
//
// Peak memory is the growth of the process's resident-set high-water mark during the upload
// (getrusage's ru_maxrss, after resetting the mark through /proc/self/clear_refs where the
// kernel allows it). It includes the in-process gateway inflating and parsing the body.

#include <benchmark/benchmark.h>
#include <httplib.h>

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <thread>
#include <chrono>
#include <fstream>

#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/AnalyticsAttributeRegistry.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventGatewayBatchUploader.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventGatewayRequestFactory.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventSerializer.h"
#include "KTAnalytics/KTData/RequestQueue.h"
#include "KTAnalytics/KTFoundation/DependencyRegistry.h"
#include "KTAnalytics/Platform/SerialQueue.h"
#include "BenchmarkSupport.h"
#include "Gateway/DevelopmentGateway.h"

namespace kt::bench {
namespace {

constexpr int kStoredEvents = 10'000;


void storeEvents(const std::filesystem::path& state, benchmark::State& benchmarkState) {
    auto stack = makeStack(storingConfiguration(state), benchmarkState);
    if (!stack) return;
    static const char* names[] = {"pageview", "audio", "like", "impression", "search"};
    for (int i = 0; i < kStoredEvents; ++i)
        stack->tagEvent(APEvent::make(names[i % 5], AttributeDictionary{{"page_name", "stream"},
                                                                      {"track", "quillarbor:tracks:123"},
                                                                      {"position", i}}));
    stack->drainQueue(std::chrono::minutes(5));
}

// `receivedEvents` tells how many events the server has taken so far.
void uploadStoredEvents(benchmark::State& state, const std::string& baseURL,
                        const std::function<std::uint64_t()>& receivedEvents) {

    std::unique_ptr<ScratchDirectory> directory;
    long peakGrowth = 0;
    bool peakWasReset = true;
    std::uint64_t gzipped = 0, raw = 0;
    for (auto _ : state) {
        state.PauseTiming();
        directory.reset();
        directory = std::make_unique<ScratchDirectory>("kt-bench-upload");
        const auto stateFolder = directory->path() / "state";
        storeEvents(stateFolder, state);
        auto configuration = storingConfiguration(stateFolder, baseURL);
        configuration.requestTimeout = std::chrono::minutes(2);
        auto stack = makeStack(std::move(configuration), state);
        if (!stack) return;
        if (stack->statistics().upload.waiting != kStoredEvents) {
            state.SkipWithError("the events were not all stored");
            return;
        }
        const auto receivedBefore = receivedEvents();
        peakWasReset = resetPeakResident() && peakWasReset;
        const long residentBefore = maxResidentKilobytes();
        state.ResumeTiming();

        stack->flush();
        const bool delivered = stack->waitUntilDelivered(std::chrono::minutes(5));

        state.PauseTiming();
        peakGrowth = std::max(peakGrowth, maxResidentKilobytes() - residentBefore);
        const auto upload = stack->statistics().upload;
        if (!delivered || upload.delivered != kStoredEvents ||
            receivedEvents() - receivedBefore != static_cast<std::uint64_t>(kStoredEvents))
            state.SkipWithError("the gateway did not receive every event");
        gzipped = upload.bytesGzipped;
        raw = upload.bytesRaw;
        stack.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kStoredEvents);
    state.counters["peak_rss_growth_MiB"] = static_cast<double>(peakGrowth) / 1024.0;
    state.counters["peak_mark_reset"] = peakWasReset ? 1 : 0;
    state.counters["body_gzip_KiB"] = static_cast<double>(gzipped) / 1024.0;
    state.counters["body_raw_KiB"] = static_cast<double>(raw) / 1024.0;
}

void BM_Upload10000StoredEvents(benchmark::State& state) {
    ScratchDirectory gatewayFolder("kt-bench-gateway");
    gateway::GatewayConfiguration gatewayConfiguration;
    gatewayConfiguration.dbPath = (gatewayFolder.path() / "gateway.sqlite3").native();
    gateway::DevelopmentGateway gateway(gatewayConfiguration);
    if (!gateway.start()) {
        state.SkipWithError(("cannot start the gateway: " + gateway.lastError()).c_str());
        return;
    }
    uploadStoredEvents(state, gateway.baseURL(), [&gateway] { return gateway.stats().events; });
}

// The same upload to a server that only takes the body and answers 200: what remains of the
// peak is the SDK's own (reading the files back, the JSON body, its compression).
void BM_Upload10000StoredEventsToABareSink(benchmark::State& state) {
    httplib::Server server;
    std::atomic<std::uint64_t> received{0};
    server.Post("/v1/events", [&received](const httplib::Request&, httplib::Response& response) {
        received += kStoredEvents;  // every upload here carries the whole queue
        response.status = 200;
    });
    const int port = server.bind_to_any_port("127.0.0.1");
    // Bound and listening already: connections wait in the backlog until the loop accepts them.
    std::thread serving([&server] { server.listen_after_bind(); });
    uploadStoredEvents(state, "http://127.0.0.1:" + std::to_string(port), [&received] { return received.load(); });
    server.stop();
    serving.join();
}

// Holds every request it is given and answers none: what is measured is building them.
class HoldingRequestQueue final : public RequestQueueing {
public:
    bool isNetworkReachable() const override { return true; }
    void sendRequest(HTTPRequest request, ResultCallback) override { held.push_back(std::move(request)); }
    std::vector<HTTPRequest> held;
};

// Building the one request for 10,000 stored events (reading them back, writing and
// compressing the body), on the benchmark's own thread: the peak memory of that alone.
void BM_BuildTheRequestFor10000StoredEvents(benchmark::State& state) {
    long peakGrowth = 0;
    std::uint64_t gzipped = 0;
    for (auto _ : state) {
        state.PauseTiming();
        ScratchDirectory directory("kt-bench-build");
        storeEvents(directory.path() / "state", state);
        DependencyRegistry dependencies;
        auto serializer = std::make_shared<APEventSerializer>(
            AnalyticsStack::eventsDirectory(directory.path() / "state"), nullptr);
        auto factory = std::make_shared<APEventGatewayRequestFactory>(
            "http://127.0.0.1:9", std::make_shared<AnalyticsAttributeRegistry>(dependencies), JSONSafeSerialization(),
            nullptr, APEventGatewayRequestFactory::DateFormatter{}, true);
        auto requests = std::make_shared<HoldingRequestQueue>();
        auto queue = std::make_shared<VirtualTimeSerialQueue>();
        auto uploader = APEventGatewayBatchUploader::make(serializer, factory, requests, {}, 1'000'000, nullptr, queue,
                                                          nullptr, false, nullptr);
        resetPeakResident();
        const long residentBefore = maxResidentKilobytes();
        state.ResumeTiming();

        uploader->flush();
        queue->runUntilIdle();

        state.PauseTiming();
        peakGrowth = std::max(peakGrowth, maxResidentKilobytes() - residentBefore);
        if (requests->held.size() != 1 || uploader->statistics().inFlight != static_cast<std::uint64_t>(kStoredEvents))
            state.SkipWithError("not one request for every stored event");
        else
            gzipped = requests->held[0].body.size();
        state.ResumeTiming();
    }
    state.counters["peak_rss_growth_MiB"] = static_cast<double>(peakGrowth) / 1024.0;
    state.counters["body_gzip_KiB"] = static_cast<double>(gzipped) / 1024.0;
}

BENCHMARK(BM_BuildTheRequestFor10000StoredEvents)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Upload10000StoredEvents)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Upload10000StoredEventsToABareSink)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace kt::bench

BENCHMARK_MAIN();
