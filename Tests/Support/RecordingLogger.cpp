#include "Support/RecordingLogger.h"

namespace kt::testing {

bool RecordingLogger::isEnabled(int level) const {
    std::lock_guard lock(mutex_);
    return level >= threshold_;
}

void RecordingLogger::logWithLevel(int level, std::string_view file, int line, std::string_view function,
                                   std::string_view message) {
    std::lock_guard lock(mutex_);
    if (level < threshold_)
        return;
    records_.push_back(LogRecord{level, std::string(file), line, std::string(function), std::string(message)});
    recorded_.notify_all();
}

void RecordingLogger::setThreshold(int threshold) {
    std::lock_guard lock(mutex_);
    threshold_ = threshold;
}

std::vector<LogRecord> RecordingLogger::records() const {
    std::lock_guard lock(mutex_);
    return records_;
}

std::vector<std::string> RecordingLogger::messages() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> result;
    for (const auto& record : records_)
        result.push_back(record.message);
    return result;
}

std::vector<std::string> RecordingLogger::messages(int level) const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> result;
    for (const auto& record : records_)
        if (record.level == level)
            result.push_back(record.message);
    return result;
}

bool RecordingLogger::contains(std::string_view fragment) const {
    std::lock_guard lock(mutex_);
    for (const auto& record : records_)
        if (record.message.find(fragment) != std::string::npos)
            return true;
    return false;
}

std::size_t RecordingLogger::count() const {
    std::lock_guard lock(mutex_);
    return records_.size();
}

void RecordingLogger::clear() {
    std::lock_guard lock(mutex_);
    records_.clear();
}

bool RecordingLogger::waitForCount(std::size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return recorded_.wait_for(lock, timeout, [&] { return records_.size() >= count; });
}

}  // namespace kt::testing
