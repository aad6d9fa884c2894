#include "Support/RecordingLogger.h"

namespace kt::testing {

void RecordingLogger::logWithLevel(int level, std::string_view file, int line, std::string_view function,
                                   std::string_view message) {
    std::lock_guard lock(mutex_);
    if (level < threshold_)
        return;
    records_.push_back(LogRecord{level, std::string(file), line, std::string(function), std::string(message)});
    recorded_.notify_all();
}

std::vector<std::string> RecordingLogger::messages(std::optional<int> level) const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> result;
    for (const auto& record : records_)
        if (!level || record.level == *level)
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

bool RecordingLogger::waitForCount(std::size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return recorded_.wait_for(lock, timeout, [&] { return records_.size() >= count; });
}

}  // namespace kt::testing
