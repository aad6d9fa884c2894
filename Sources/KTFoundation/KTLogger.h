#pragma once
// The library's logger. Levels: 0 routine traces, 1 dispatch information, 2 warnings,
// 3 errors. Messages are formatted only when their level is enabled (see KT_LOG).

#include <memory>
#include <string>
#include <string_view>

namespace kt {

class KTLogger {
public:
    virtual ~KTLogger() = default;
    KTLogger() = default;
    KTLogger(const KTLogger&) = delete;
    KTLogger& operator=(const KTLogger&) = delete;

    virtual bool isEnabled(int level) const = 0;
    /// `file` is the source file as the system names it (for example
    /// "Sources/AnalyticsProvider/APAnalyticsController"), `function` the operation.
    virtual void logWithLevel(int level, std::string_view file, int line, std::string_view function,
                              std::string_view message) = 0;

    /// A logger that drops everything; the default where a caller passes none.
    static std::shared_ptr<KTLogger> null();
};

/// The default sink: spdlog. Messages below `threshold` are not formatted at all.
/// The default threshold is warnings (2), so the caller's road stays cheap.
std::shared_ptr<KTLogger> makeSpdlogLogger(int threshold = 2, std::string loggerName = "ktanalytics");

}  // namespace kt
