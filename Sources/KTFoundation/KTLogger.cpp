#include "KTAnalytics/KTFoundation/KTLogger.h"

#include <algorithm>

#include <spdlog/logger.h>
#include <spdlog/sinks/stdout_color_sinks.h>

namespace kt {

namespace {

class NullLogger final : public KTLogger {
public:
    bool isEnabled(int) const override { return false; }
    void logWithLevel(int, std::string_view, int, std::string_view, std::string_view) override {}
};

spdlog::level::level_enum spdlogLevel(int level) {
    switch (std::clamp(level, 0, 3)) {
    case 0: return spdlog::level::debug;
    case 1: return spdlog::level::info;
    case 2: return spdlog::level::warn;
    default: return spdlog::level::err;
    }
}

class SpdlogLogger final : public KTLogger {
public:
    SpdlogLogger(int threshold, std::shared_ptr<spdlog::logger> logger)
        : threshold_(threshold), logger_(std::move(logger)) {}

    bool isEnabled(int level) const override { return level >= threshold_; }

    void logWithLevel(int level, std::string_view file, int line, std::string_view function,
                      std::string_view message) override {
        if (!isEnabled(level))
            return;
        logger_->log(spdlogLevel(level), "[{}:{} {}] {}", file, line, function, message);
    }

private:
    const int threshold_;
    std::shared_ptr<spdlog::logger> logger_;
};

}  // namespace

std::shared_ptr<KTLogger> KTLogger::null() {
    static const std::shared_ptr<KTLogger> instance = std::make_shared<NullLogger>();
    return instance;
}

std::shared_ptr<KTLogger> makeSpdlogLogger(int threshold, std::string loggerName) {
    // Not registered in spdlog's global registry: two SDK instances (or a host that uses
    // the same name) must not collide, and filtering happens before formatting anyway.
    auto sink = std::make_shared<spdlog::sinks::stderr_color_sink_mt>();
    auto logger = std::make_shared<spdlog::logger>(std::move(loggerName), std::move(sink));
    logger->set_level(spdlog::level::trace);
    logger->flush_on(spdlog::level::warn);
    return std::make_shared<SpdlogLogger>(threshold, std::move(logger));
}

}  // namespace kt
