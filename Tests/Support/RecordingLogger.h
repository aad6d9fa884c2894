#pragma once
// A KTLogger that keeps every line it is given, for tests that check what was logged.

#include <condition_variable>
#include <cstddef>
#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KTFoundation/KTLogger.h"

namespace kt::testing {

struct LogRecord {
    int level = 0;
    std::string file;
    int line = 0;
    std::string function;
    std::string message;
};

/// Records lines at or above `threshold` (0 by default: everything). Thread-safe.
class RecordingLogger final : public KTLogger {
public:
    explicit RecordingLogger(int threshold = 0) : threshold_(threshold) {}

    bool isEnabled(int level) const override { std::lock_guard lock(mutex_); return level >= threshold_; }
    void logWithLevel(int level, std::string_view file, int line, std::string_view function,
                      std::string_view message) override;

    void setThreshold(int threshold) { std::lock_guard lock(mutex_); threshold_ = threshold; }
    std::vector<LogRecord> records() const { std::lock_guard lock(mutex_); return records_; }
    /// The messages, optionally only those of one level.
    std::vector<std::string> messages(std::optional<int> level = std::nullopt) const;
    /// True when some message contains `fragment`.
    bool contains(std::string_view fragment) const;
    std::size_t count() const { std::lock_guard lock(mutex_); return records_.size(); }
    void clear() { std::lock_guard lock(mutex_); records_.clear(); }
    /// Waits until at least `count` lines were recorded; false on time-out. For tests of
    /// work done on a real thread.
    bool waitForCount(std::size_t count, std::chrono::milliseconds timeout) const;

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable recorded_;
    int threshold_;                  // guarded by mutex_
    std::vector<LogRecord> records_;  // guarded by mutex_
};

}  // namespace kt::testing
