#include "Platform/SerialQueue.h"

#include <atomic>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kt {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;

// Holds the worker inside a task until released, so that a test can line up work behind it.
// Declare it before the queue: the queue must be gone (joined) before the gate is.
class Gate {
public:
    SerialQueue::Task blocker() {
        return [this, opened = opened_] {
            entered_.set_value();
            opened.wait();
        };
    }
    void waitUntilEntered() { entered_.get_future().wait(); }
    void open() { openPromise_.set_value(); }

private:
    std::promise<void> entered_;
    std::promise<void> openPromise_;
    std::shared_future<void> opened_ = openPromise_.get_future().share();
};

// Spins (never sleeps) until the steady clock has passed `delay` since `start`.
void spinPast(std::chrono::steady_clock::time_point start, std::chrono::nanoseconds delay) {
    while (std::chrono::steady_clock::now() <= start + delay) {
    }
}

// Appends to a log from the worker; read only after drain, which orders the accesses.
struct OrderLog {
    std::mutex mutex;
    std::vector<int> values;
    SerialQueue::Task append(int value) {
        return [this, value] {
            std::lock_guard lock(mutex);
            values.push_back(value);
        };
    }
    std::vector<int> snapshot() {
        std::lock_guard lock(mutex);
        return values;
    }
};

TEST(ThreadSerialQueueTests, RunsTasksOneAtATimeInSubmissionOrderPerProducer) {
    constexpr int kProducers = 4;
    constexpr int kTasksEach = 20000;
    std::vector<std::vector<int>> seen(kProducers);
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
    ThreadSerialQueue queue("order");

    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
            for (int i = 0; i < kTasksEach; ++i) {
                queue.async([&, p, i] {
                    if (running.fetch_add(1) != 0)
                        overlapped = true;
                    seen[p].push_back(i);
                    running.fetch_sub(1);
                });
            }
        });
    }
    for (auto& producer : producers)
        producer.join();
    ASSERT_TRUE(queue.drain(60s));

    EXPECT_FALSE(overlapped.load());
    for (int p = 0; p < kProducers; ++p) {
        ASSERT_EQ(seen[p].size(), static_cast<std::size_t>(kTasksEach)) << "producer " << p;
        for (int i = 0; i < kTasksEach; ++i)
            ASSERT_EQ(seen[p][i], i) << "producer " << p;
    }
}

TEST(ThreadSerialQueueTests, DelayedTasksRunInDeadlineOrderAndKeepTheirPlaceOnceDue) {
    OrderLog log;
    Gate gate;
    ThreadSerialQueue queue("delayed");
    queue.async(gate.blocker());
    gate.waitUntilEntered();

    // Deadlines 10 ms apart, so that slow submission (sanitizers, a loaded machine) cannot
    // reorder them.
    queue.asyncAfter(30ms, log.append(3));
    queue.asyncAfter(10ms, log.append(1));
    queue.asyncAfter(20ms, log.append(2));
    queue.asyncAfter(1h, log.append(99));  // never due during this test
    spinPast(std::chrono::steady_clock::now(), 30ms);
    // Submitted after the delayed ones fell due: runs after them.
    queue.async(log.append(4));
    gate.open();

    ASSERT_TRUE(queue.drain(60s));
    EXPECT_THAT(log.snapshot(), ElementsAre(1, 2, 3, 4));
}

TEST(ThreadSerialQueueTests, ImmediateTasksOvertakeDelayedTasksThatAreNotDue) {
    OrderLog log;
    ThreadSerialQueue queue("overtake");
    queue.asyncAfter(1h, log.append(1));
    queue.async(log.append(2));
    queue.async(log.append(3));
    ASSERT_TRUE(queue.drain(60s));
    EXPECT_THAT(log.snapshot(), ElementsAre(2, 3));
}

TEST(ThreadSerialQueueTests, DelayedTaskWakesASleepingWorker) {
    std::promise<void> ran;
    ThreadSerialQueue queue("wake");
    // Let the worker fall asleep with nothing to do, then hand it a short timer.
    ASSERT_TRUE(queue.drain(60s));
    queue.asyncAfter(1ms, [&] { ran.set_value(); });
    EXPECT_EQ(ran.get_future().wait_for(60s), std::future_status::ready);
}

TEST(ThreadSerialQueueTests, DrainTimesOutWhileTheWorkerIsBusyAndSucceedsAfterwards) {
    Gate gate;
    ThreadSerialQueue queue("drain");
    queue.async(gate.blocker());
    gate.waitUntilEntered();
    EXPECT_FALSE(queue.drain(10ms));
    gate.open();
    EXPECT_TRUE(queue.drain(60s));
}

TEST(ThreadSerialQueueTests, ShutdownRunsAcceptedTasksThenDropsEverythingLater) {
    auto queue = std::make_unique<ThreadSerialQueue>("shutdown");
    std::atomic<int> ran{0};
    auto delayedCapture = std::make_shared<int>(0);
    std::weak_ptr<int> delayedWatch = delayedCapture;

    for (int i = 0; i < 1000; ++i)
        queue->async([&] { ++ran; });
    queue->asyncAfter(1h, [capture = std::move(delayedCapture), &ran] { ran += 1000000; });
    queue->shutdown();

    EXPECT_EQ(ran.load(), 1000);
    EXPECT_TRUE(delayedWatch.expired()) << "the undue task must be released, not kept";

    queue->async([&] { ++ran; });
    queue->asyncAfter(0ns, [&] { ++ran; });
    EXPECT_TRUE(queue->drain(1s));
    queue->shutdown();  // idempotent
    queue.reset();
    EXPECT_EQ(ran.load(), 1000);
}

TEST(ThreadSerialQueueTests, DestructorRunsPendingImmediateTasks) {
    std::atomic<int> ran{0};
    {
        Gate gate;
        ThreadSerialQueue queue("destructor");
        queue.async(gate.blocker());
        gate.waitUntilEntered();
        for (int i = 0; i < 100; ++i)
            queue.async([&] { ++ran; });
        gate.open();
    }
    EXPECT_EQ(ran.load(), 100);
}

TEST(ThreadSerialQueueTests, ThrowingTaskDoesNotStopTheWorker) {
    std::atomic<bool> laterRan{false};
    ThreadSerialQueue queue("throws");
    ::testing::internal::CaptureStderr();
    queue.async([] { throw std::runtime_error("boom"); });
    queue.async([&] { laterRan = true; });
    bool drained = queue.drain(60s);
    std::string errors = ::testing::internal::GetCapturedStderr();

    EXPECT_TRUE(drained);
    EXPECT_TRUE(laterRan.load());
    EXPECT_THAT(errors, ::testing::HasSubstr("boom"));
    EXPECT_THAT(errors, ::testing::HasSubstr("throws"));
}

TEST(ThreadSerialQueueTests, QueueReleasedByItsOwnTaskEndsCleanly) {
    // The last owner of the queue goes away inside one of its tasks: joining there would
    // deadlock, so the queue must wind down without it.
    auto queue = std::make_shared<ThreadSerialQueue>("self-release");
    std::promise<void> mainLetGo;
    std::promise<void> released;
    auto done = released.get_future();
    queue->async([owner = queue, letGo = mainLetGo.get_future().share(), &released]() mutable {
        letGo.wait();
        owner.reset();
        released.set_value();
    });
    queue.reset();
    mainLetGo.set_value();
    EXPECT_EQ(done.wait_for(60s), std::future_status::ready);
}

TEST(VirtualTimeSerialQueueTests, NothingRunsUntilTheTestRunsTheQueue) {
    VirtualTimeSerialQueue queue;
    OrderLog log;
    queue.async(log.append(1));
    queue.async([&] {
        log.append(2)();
        queue.async(log.append(3));  // submitted while running: still part of this run
    });
    EXPECT_TRUE(log.snapshot().empty());
    EXPECT_EQ(queue.pendingCount(), 2u);

    EXPECT_EQ(queue.runUntilIdle(), 3u);
    EXPECT_THAT(log.snapshot(), ElementsAre(1, 2, 3));
    EXPECT_EQ(queue.pendingCount(), 0u);
    EXPECT_EQ(queue.now(), 0ns);
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
    EXPECT_EQ(queue.advance(120s), 2u);
    EXPECT_THAT(firedAt, ElementsAre(60s, 120s));
    EXPECT_EQ(queue.advance(1s), 1u);
    EXPECT_THAT(firedAt, ElementsAre(60s, 120s, 180s));
    // One long jump still fires every period, each at its own time.
    EXPECT_EQ(queue.advance(300s), 5u);
    EXPECT_EQ(firedAt.back(), 480s);
    EXPECT_EQ(queue.pendingCount(), 1u);
}

TEST(VirtualTimeSerialQueueTests, AdvanceRunsByDeadlineWithTiesInSubmissionOrder) {
    VirtualTimeSerialQueue queue;
    OrderLog log;
    queue.asyncAfter(20s, log.append(4));
    queue.asyncAfter(10s, log.append(2));
    queue.asyncAfter(10s, log.append(3));
    queue.async(log.append(1));
    // Immediate work submitted at 10 s runs after what was already due at 10 s.
    queue.asyncAfter(10s, [&] { queue.async(log.append(5)); });

    EXPECT_EQ(queue.advance(30s), 6u);
    EXPECT_THAT(log.snapshot(), ElementsAre(1, 2, 3, 5, 4));
    EXPECT_EQ(queue.now(), 30s);
}

}  // namespace
}  // namespace kt
