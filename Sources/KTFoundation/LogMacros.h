#pragma once
// KT_LOG(logger, level, file, function, fmt, args...): formats with fmt only when the
// logger has the level enabled. Include in .cpp files only: it pulls in fmt.

#include <fmt/format.h>

#include "KTAnalytics/KTFoundation/KTLogger.h"

#define KT_LOG(logger, level, file, function, ...)                                               \
    do {                                                                                         \
        auto& kt_log_ref_ = (logger);                                                            \
        if (kt_log_ref_ && kt_log_ref_->isEnabled(level))                                        \
            kt_log_ref_->logWithLevel((level), (file), __LINE__, (function), fmt::format(__VA_ARGS__)); \
    } while (0)
