#pragma once
// Serial queues: work items run one at a time, in submission order, off the caller's thread.

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace kt {

class SerialQueue {
public:
    using Task = std::function<void()>;

    virtual ~SerialQueue() = default;
    SerialQueue() = default;
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    /// Submits a task; returns at once.
    virtual void async(Task task) = 0;
    /// Submits a task to run no earlier than `delay` from now, after the tasks already due.
    virtual void asyncAfter(std::chrono::nanoseconds delay, Task task) = 0;
    /// Submits a task to run before every task waiting now that was not itself submitted
    /// this way (those run in their own order). For work that must not wait behind a long
    /// backlog, such as handling the answers to requests. By default the same as `async`.
    virtual void asyncUrgent(Task task) { async(std::move(task)); }
    /// False once the queue takes no more tasks: it is shutting down and only finishes the
    /// ones it has.
    virtual bool accepting() const { return true; }
};

/// A queue backed by one worker thread. Destruction runs the tasks already submitted
/// for immediate execution, drops delayed ones that are not yet due, and joins.
class ThreadSerialQueue final : public SerialQueue {
public:
    explicit ThreadSerialQueue(std::string label);
    ~ThreadSerialQueue() override;

    void async(Task task) override;
    void asyncAfter(std::chrono::nanoseconds delay, Task task) override;
    void asyncUrgent(Task task) override;
    bool accepting() const override;

    /// Blocks until every task submitted before the call (and due by then) has run, or the
    /// time-out passes. Returns false on time-out. Never call it from the queue itself.
    bool drain(std::chrono::milliseconds timeout);
    /// Stops accepting tasks, runs what is due, joins the worker. Idempotent.
    void shutdown();

    const std::string& label() const;

private:
    void submit(Task task, bool urgent);
    struct State;
    std::unique_ptr<State> state_;
};

/// A deterministic queue for tests: nothing runs until the test says so, and time moves
/// only when the test advances it.
class VirtualTimeSerialQueue final : public SerialQueue {
public:
    VirtualTimeSerialQueue();
    ~VirtualTimeSerialQueue() override;

    void async(Task task) override;
    void asyncAfter(std::chrono::nanoseconds delay, Task task) override;
    void asyncUrgent(Task task) override;

    /// Runs every task due at the current virtual time, including those they submit.
    /// Returns the number of tasks run.
    std::size_t runUntilIdle();
    /// Moves virtual time forward by `by`, running each task when its time comes.
    std::size_t advance(std::chrono::nanoseconds by);
    /// Time elapsed on this queue since it was made.
    std::chrono::nanoseconds now() const;
    /// Tasks waiting, due or not.
    std::size_t pendingCount() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace kt
