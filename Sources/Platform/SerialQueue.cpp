#include "KTAnalytics/Platform/SerialQueue.h"

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <exception>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "KTAnalytics/Platform/Fatal.h"

namespace kt {

namespace {

using SteadyClock = std::chrono::steady_clock;

// Far enough to mean "never" without overflowing a time point.
constexpr std::chrono::nanoseconds kLongestDelay = std::chrono::hours(24 * 365 * 100);

std::chrono::nanoseconds clampDelay(std::chrono::nanoseconds delay) {
    return std::clamp(delay, std::chrono::nanoseconds::zero(), kLongestDelay);
}

template <class TimePoint>
struct DelayedTask {
    TimePoint deadline;
    std::uint64_t sequence;  // breaks deadline ties in submission order
    SerialQueue::Task task;
};

// std::push_heap builds a max-heap; "greater" puts the earliest deadline on top.
struct LaterFirst {
    template <class T>
    bool operator()(const T& a, const T& b) const {
        if (a.deadline != b.deadline)
            return a.deadline > b.deadline;
        return a.sequence > b.sequence;
    }
};

template <class T>
T popHeap(std::vector<T>& heap) {
    std::pop_heap(heap.begin(), heap.end(), LaterFirst{});
    T top = std::move(heap.back());
    heap.pop_back();
    return top;
}

template <class T>
void pushHeap(std::vector<T>& heap, T value) {
    heap.push_back(std::move(value));
    std::push_heap(heap.begin(), heap.end(), LaterFirst{});
}

}  // namespace

// ---------------------------------------------------------------------------------------
// ThreadSerialQueue

namespace {

// Everything the worker touches. The worker holds its own reference, so that a queue
// destroyed from one of its own tasks (the last owner released inside a task) cannot pull
// the state out from under the running loop.
struct WorkerCore {
    explicit WorkerCore(std::string label) : label(std::move(label)) {}

    const std::string label;
    std::mutex mutex;
    std::condition_variable wakeUp;
    std::deque<SerialQueue::Task> ready;                      // guarded by mutex
    std::deque<SerialQueue::Task> urgent;                     // guarded by mutex; runs before ready
    std::vector<DelayedTask<SteadyClock::time_point>> delayed;  // guarded by mutex (heap)
    std::uint64_t nextSequence = 0;                           // guarded by mutex
    bool sleeping = false;                                    // guarded by mutex
    bool stopping = false;                                    // guarded by mutex
    std::thread::id workerId;

    // A delayed task joins the end of the line when it falls due, exactly as if it had
    // been submitted then; promoting before every append keeps that order even when the
    // worker is busy and has not looked at the clock yet.
    void promoteDueLocked(SteadyClock::time_point now) {
        while (!delayed.empty() && delayed.front().deadline <= now)
            ready.push_back(popHeap(delayed).task);
    }

    void runTask(SerialQueue::Task& task) noexcept {
        // One faulty task must not take the queue (and every later task) down with it.
        try {
            task();
        } catch (const std::exception& error) {
            std::fprintf(stderr, "ThreadSerialQueue '%s': a task threw: %s\n", label.c_str(), error.what());
        } catch (...) {
            std::fprintf(stderr, "ThreadSerialQueue '%s': a task threw a non-standard exception\n", label.c_str());
        }
    }

    void run() {
        std::unique_lock lock(mutex);
        for (;;) {
            if (!delayed.empty())
                promoteDueLocked(SteadyClock::now());
            if (!urgent.empty() || !ready.empty()) {
                auto& line = urgent.empty() ? ready : urgent;
                SerialQueue::Task task = std::move(line.front());
                line.pop_front();
                lock.unlock();
                runTask(task);
                // Destroy the task's captures outside the lock: they may submit work or
                // release the last reference to this very queue.
                task = nullptr;
                lock.lock();
                continue;
            }
            if (stopping)
                break;
            sleeping = true;
            if (delayed.empty())
                wakeUp.wait(lock);
            else
                wakeUp.wait_until(lock, delayed.front().deadline);
            sleeping = false;
        }
        // Delayed tasks not yet due are dropped; release their captures now.
        auto dropped = std::move(delayed);
        delayed.clear();
        lock.unlock();
        dropped.clear();
    }
};

}  // namespace

struct ThreadSerialQueue::State {
    std::shared_ptr<WorkerCore> core;
    std::thread worker;
    std::once_flag stopOnce;
};

ThreadSerialQueue::ThreadSerialQueue(std::string label) : state_(std::make_unique<State>()) {
    state_->core = std::make_shared<WorkerCore>(std::move(label));
    std::unique_lock lock(state_->core->mutex);
    state_->worker = std::thread([core = state_->core] { core->run(); });
    state_->core->workerId = state_->worker.get_id();
}

ThreadSerialQueue::~ThreadSerialQueue() {
    shutdown();
}

void ThreadSerialQueue::async(Task task) { submit(std::move(task), false); }

void ThreadSerialQueue::asyncUrgent(Task task) { submit(std::move(task), true); }

bool ThreadSerialQueue::accepting() const {
    WorkerCore& core = *state_->core;
    std::lock_guard lock(core.mutex);
    return !core.stopping;
}

void ThreadSerialQueue::submit(Task task, bool urgent) {
    if (!task)
        return;
    WorkerCore& core = *state_->core;
    bool wake = false;
    {
        std::lock_guard lock(core.mutex);
        if (core.stopping)
            return;
        if (urgent) {
            core.urgent.push_back(std::move(task));
        } else {
            if (!core.delayed.empty())
                core.promoteDueLocked(SteadyClock::now());
            core.ready.push_back(std::move(task));
        }
        // The hot path: a busy worker will find the task on its own, so only a sleeping
        // one is signalled (and only once until it wakes).
        if (core.sleeping) {
            core.sleeping = false;
            wake = true;
        }
    }
    if (wake)
        core.wakeUp.notify_one();
}

void ThreadSerialQueue::asyncAfter(std::chrono::nanoseconds delay, Task task) {
    if (!task)
        return;
    if (delay <= std::chrono::nanoseconds::zero()) {
        async(std::move(task));
        return;
    }
    WorkerCore& core = *state_->core;
    bool wake = false;
    {
        std::lock_guard lock(core.mutex);
        if (core.stopping)
            return;
        auto deadline = SteadyClock::now() + std::chrono::duration_cast<SteadyClock::duration>(clampDelay(delay));
        pushHeap(core.delayed, DelayedTask<SteadyClock::time_point>{deadline, core.nextSequence++, std::move(task)});
        // A sleeping worker waits for the previous earliest deadline; it only needs to
        // hear about a task that is due sooner than that.
        if (core.sleeping && core.delayed.front().deadline == deadline) {
            core.sleeping = false;
            wake = true;
        }
    }
    if (wake)
        core.wakeUp.notify_one();
}

bool ThreadSerialQueue::drain(std::chrono::milliseconds timeout) {
    WorkerCore& core = *state_->core;
    KT_ASSERT(std::this_thread::get_id() != core.workerId,
              "ThreadSerialQueue::drain called from its own queue '" + core.label + "'");

    struct Marker {
        std::mutex mutex;
        std::condition_variable done;
        bool reached = false;
    };
    auto marker = std::make_shared<Marker>();
    bool wake = false;
    {
        std::lock_guard lock(core.mutex);
        if (core.stopping)
            return true;  // shut down: everything accepted has already run (or was dropped)
        core.promoteDueLocked(SteadyClock::now());
        core.ready.push_back([marker] {
            std::lock_guard markerLock(marker->mutex);
            marker->reached = true;
            marker->done.notify_all();
        });
        if (core.sleeping) {
            core.sleeping = false;
            wake = true;
        }
    }
    if (wake)
        core.wakeUp.notify_one();

    std::unique_lock markerLock(marker->mutex);
    return marker->done.wait_for(markerLock, timeout, [&] { return marker->reached; });
}

void ThreadSerialQueue::shutdown() {
    std::call_once(state_->stopOnce, [this] {
        WorkerCore& core = *state_->core;
        {
            std::lock_guard lock(core.mutex);
            core.stopping = true;
            core.sleeping = false;
        }
        core.wakeUp.notify_one();
        if (!state_->worker.joinable())
            return;
        if (std::this_thread::get_id() == core.workerId) {
            // Shut down (or destroyed) from one of its own tasks: joining would deadlock.
            // The worker keeps its own reference to the core, finishes the tasks already
            // accepted and ends by itself.
            state_->worker.detach();
            return;
        }
        state_->worker.join();
    });
}

const std::string& ThreadSerialQueue::label() const {
    return state_->core->label;
}

// ---------------------------------------------------------------------------------------
// VirtualTimeSerialQueue

struct VirtualTimeSerialQueue::State {
    mutable std::mutex mutex;
    std::chrono::nanoseconds now{0};                                   // guarded by mutex
    std::uint64_t nextSequence = 0;                                    // guarded by mutex
    std::vector<DelayedTask<std::chrono::nanoseconds>> tasks;          // guarded by mutex (heap)
    std::deque<Task> urgent;                                           // guarded by mutex

    // Takes the next task due at or before `limit`, moving the clock to its deadline.
    std::optional<Task> takeDue(std::chrono::nanoseconds limit) {
        std::lock_guard lock(mutex);
        if (!urgent.empty()) {
            Task task = std::move(urgent.front());
            urgent.pop_front();
            return task;
        }
        if (tasks.empty() || tasks.front().deadline > limit)
            return std::nullopt;
        auto next = popHeap(tasks);
        now = std::max(now, next.deadline);
        return std::move(next.task);
    }
};

VirtualTimeSerialQueue::VirtualTimeSerialQueue() : state_(std::make_unique<State>()) {}

VirtualTimeSerialQueue::~VirtualTimeSerialQueue() = default;

void VirtualTimeSerialQueue::async(Task task) {
    asyncAfter(std::chrono::nanoseconds::zero(), std::move(task));
}

void VirtualTimeSerialQueue::asyncAfter(std::chrono::nanoseconds delay, Task task) {
    if (!task)
        return;
    std::lock_guard lock(state_->mutex);
    auto deadline = state_->now + clampDelay(delay);
    pushHeap(state_->tasks, DelayedTask<std::chrono::nanoseconds>{deadline, state_->nextSequence++, std::move(task)});
}

// Exceptions thrown by a task propagate to the test that drives the queue: a test should
// see its failure rather than a line on stderr. The task is off the queue by then.
std::size_t VirtualTimeSerialQueue::runUntilIdle() {
    std::size_t count = 0;
    for (;;) {
        std::chrono::nanoseconds limit = now();
        auto task = state_->takeDue(limit);
        if (!task)
            return count;
        (*task)();
        ++count;
    }
}

std::size_t VirtualTimeSerialQueue::advance(std::chrono::nanoseconds by) {
    std::chrono::nanoseconds target = now() + clampDelay(by);
    std::size_t count = 0;
    while (auto task = state_->takeDue(target)) {
        (*task)();
        ++count;
    }
    std::lock_guard lock(state_->mutex);
    state_->now = std::max(state_->now, target);
    return count;
}

std::chrono::nanoseconds VirtualTimeSerialQueue::now() const {
    std::lock_guard lock(state_->mutex);
    return state_->now;
}

void VirtualTimeSerialQueue::asyncUrgent(Task task) {
    if (!task)
        return;
    std::lock_guard lock(state_->mutex);
    state_->urgent.push_back(std::move(task));
}

std::size_t VirtualTimeSerialQueue::pendingCount() const {
    std::lock_guard lock(state_->mutex);
    return state_->tasks.size() + state_->urgent.size();
}

}  // namespace kt
