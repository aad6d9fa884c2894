#include "KTAnalytics/Platform/SerialQueue.h"

#include <atomic>
#include <future>
#include <latch>
#include <numeric>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kt {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;

// Holds the worker inside a task until `opened` counts down, so that a test can line up work
// behind it. Declare the latches before the queue: the queue must be joined before they go.
SerialQueue::Task blocker(std::latch& entered, std::latch& opened) {
    return [&] {
        entered.count_down();
        opened.wait();
    };
}

// Appends to `log` when run; read it only after a drain, which orders the accesses.
SerialQueue::Task append(std::vector<int>& log, int value) {
    return [&log, value] { log.push_back(value); };
}

TEST(ThreadSerialQueueTests, RunsTasksOneAtATimeInSubmissionOrderPerProducer) {
    constexpr int kProducers = 4;
    constexpr int kTasksEach = 20000;
    std::vector<std::vector<int>> seen(kProducers);
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
    ThreadSerialQueue queue("order");
    std::vector<std::jthread> producers;
    for (int p = 0; p < kProducers; ++p)
        producers.emplace_back([&, p] {
            for (int i = 0; i < kTasksEach; ++i)
                queue.async([&, p, i] {
                    if (running.fetch_add(1) != 0) overlapped = true;
                    seen[p].push_back(i);
                    running.fetch_sub(1);
                });
        });
    producers.clear();  // joins them
    ASSERT_TRUE(queue.drain(60s));
    EXPECT_FALSE(overlapped.load());
    std::vector<int> expected(kTasksEach);
    std::iota(expected.begin(), expected.end(), 0);
    for (int p = 0; p < kProducers; ++p) EXPECT_EQ(seen[p], expected) << "producer " << p;
}

TEST(ThreadSerialQueueTests, UrgentTasksGoFirstThenDelayedOnesInDeadlineOrderKeepingTheirPlaceOnceDue) {
    std::vector<int> log;
    std::latch entered(1), opened(1);
    ThreadSerialQueue queue("delayed");
    queue.async(blocker(entered, opened));
    entered.wait();
    // Deadlines 10 ms apart, so that slow submission (sanitizers, a loaded machine) cannot
    // reorder them.
    queue.asyncAfter(30ms, append(log, 3));
    queue.asyncAfter(10ms, append(log, 1));
    queue.asyncAfter(20ms, append(log, 2));
    queue.asyncAfter(1h, append(log, 99));  // never due here: immediate tasks overtake it
    std::this_thread::sleep_for(30ms);
    queue.async(append(log, 4));  // submitted after the delayed ones fell due: runs after them
    queue.asyncUrgent(append(log, 10));
    queue.asyncUrgent(append(log, 11));
    EXPECT_FALSE(queue.drain(10ms)) << "the worker is held";
    opened.count_down();
    ASSERT_TRUE(queue.drain(60s));
    EXPECT_THAT(log, ElementsAre(10, 11, 1, 2, 3, 4));

    // The worker now sleeps until the hour is up; a sooner deadline must wake it.
    std::promise<void> ran;
    queue.asyncAfter(1ms, [&] { ran.set_value(); });
    EXPECT_EQ(ran.get_future().wait_for(60s), std::future_status::ready);
}

TEST(ThreadSerialQueueTests, DestructionAndShutdownRunAcceptedTasksThenDropEverythingLater) {
    std::atomic<int> ran{0};
    {
        std::latch entered(1), opened(1);
        ThreadSerialQueue queue("destructor");
        queue.async(blocker(entered, opened));
        entered.wait();
        for (int i = 0; i < 100; ++i) queue.async([&] { ++ran; });
        opened.count_down();
    }
    EXPECT_EQ(ran.load(), 100);

    ThreadSerialQueue queue("shutdown");
    auto delayedCapture = std::make_shared<int>(0);
    std::weak_ptr<int> delayedWatch = delayedCapture;
    for (int i = 0; i < 1000; ++i) queue.async([&] { ++ran; });
    queue.asyncAfter(1h, [capture = std::move(delayedCapture), &ran] { ran += 1000000; });
    queue.shutdown();
    EXPECT_EQ(ran.load(), 1100);
    EXPECT_TRUE(delayedWatch.expired()) << "the undue task must be released, not kept";
    queue.async([&] { ++ran; });
    queue.asyncAfter(0ns, [&] { ++ran; });
    queue.asyncUrgent([&] { ++ran; });
    EXPECT_TRUE(queue.drain(1s));
    queue.shutdown();  // idempotent
    EXPECT_EQ(ran.load(), 1100);
}

TEST(ThreadSerialQueueTests, ThrowingTaskDoesNotStopTheWorker) {
    std::atomic<bool> laterRan{false};
    ThreadSerialQueue queue("throws");
    ::testing::internal::CaptureStderr();
    queue.async([] { throw std::runtime_error("boom"); });
    queue.async([&] { laterRan = true; });
    EXPECT_TRUE(queue.drain(60s));
    const std::string errors = ::testing::internal::GetCapturedStderr();
    EXPECT_TRUE(laterRan.load());
    EXPECT_THAT(errors, ::testing::HasSubstr("ThreadSerialQueue 'throws': a task threw: boom"));
}

TEST(ThreadSerialQueueTests, QueueReleasedByItsOwnTaskEndsCleanly) {
    // The last owner of the queue goes away inside one of its tasks: joining there would
    // deadlock, so the queue must wind down without it.
    auto queue = std::make_shared<ThreadSerialQueue>("self-release");
    std::promise<void> mainLetGo, released;
    queue->async([owner = queue, letGo = mainLetGo.get_future().share(), &released]() mutable {
        letGo.wait();
        owner.reset();
        released.set_value();
    });
    queue.reset();
    mainLetGo.set_value();
    EXPECT_EQ(released.get_future().wait_for(60s), std::future_status::ready);
}

TEST(VirtualTimeSerialQueueTests, RunsOnlyWhenDrivenUrgentFirstThenByDeadlineWithTiesInSubmissionOrder) {
    VirtualTimeSerialQueue queue;
    std::vector<int> log;
    queue.asyncAfter(20s, append(log, 7));
    queue.asyncAfter(10s, append(log, 4));
    queue.asyncAfter(10s, append(log, 5));
    queue.async(append(log, 1));
    queue.async([&] {
        append(log, 2)();
        queue.async(append(log, 3));  // submitted while running: still part of this run
    });
    queue.asyncUrgent(append(log, 0));
    // Immediate work submitted at 10 s runs after what was already due at 10 s.
    queue.asyncAfter(10s, [&] { queue.async(append(log, 6)); });
    EXPECT_TRUE(log.empty());
    EXPECT_EQ(queue.pendingCount(), 7u);

    EXPECT_EQ(queue.runUntilIdle(), 4u);
    EXPECT_THAT(log, ElementsAre(0, 1, 2, 3));
    EXPECT_EQ(queue.now(), 0ns);
    EXPECT_EQ(queue.advance(30s), 5u);
    EXPECT_THAT(log, ElementsAre(0, 1, 2, 3, 4, 5, 6, 7));
    EXPECT_EQ(queue.now(), 30s);
    EXPECT_EQ(queue.pendingCount(), 0u);
}

TEST(VirtualTimeSerialQueueTests, ReArmingTimerRunsOncePerPeriodAtItsOwnDeadlines) {
    VirtualTimeSerialQueue queue;
    std::vector<std::chrono::nanoseconds> firedAt;
    std::function<void()> tick = [&] {
        firedAt.push_back(queue.now());
        queue.asyncAfter(60s, tick);
    };
    queue.asyncAfter(60s, tick);
    EXPECT_EQ(queue.runUntilIdle(), 0u);
    EXPECT_EQ(queue.advance(59s), 0u);
    EXPECT_EQ(queue.advance(1s), 1u);
    // One long jump still fires every period, each at its own time.
    EXPECT_EQ(queue.advance(300s), 5u);
    EXPECT_THAT(firedAt, ElementsAre(60s, 120s, 180s, 240s, 300s, 360s));
    EXPECT_EQ(queue.pendingCount(), 1u);
}

}  // namespace
}  // namespace kt
