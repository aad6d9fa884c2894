#pragma once
// A KTLogger that keeps every line it is given, for tests that check what was logged.

#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KTAnalytics/KTFoundation/KTLogger.h"

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

    bool isEnabled(int level) const override { return level >= threshold_; }
    void logWithLevel(int level, std::string_view file, int line, std::string_view function,
                      std::string_view message) override {
        std::lock_guard lock(mutex_);
        if (level >= threshold_)
            records_.push_back({level, std::string(file), line, std::string(function), std::string(message)});
    }

    std::vector<LogRecord> records() const { std::lock_guard lock(mutex_); return records_; }
    std::vector<std::string> messages(std::optional<int> level = std::nullopt) const {
        std::vector<std::string> result;
        for (const auto& record : records())
            if (!level || record.level == *level) result.push_back(record.message);
        return result;
    }
    bool contains(std::string_view fragment) const {
        for (const auto& message : messages())
            if (message.find(fragment) != std::string::npos) return true;
        return false;
    }
    std::size_t count() const { std::lock_guard lock(mutex_); return records_.size(); }
    void clear() { std::lock_guard lock(mutex_); records_.clear(); }

private:
    mutable std::mutex mutex_;
    const int threshold_;
    std::vector<LogRecord> records_;  // guarded by mutex_
};

}  // namespace kt::testing
