#include "KTAnalytics/Analytics/ConsoleFirebaseAnalytics.h"

#include "KTAnalytics/Analytics/Detail/ParameterDescription.h"

namespace kt {

ConsoleFirebaseAnalytics::ConsoleFirebaseAnalytics(std::ostream& out, std::string prefix)
    : out_(out), prefix_(std::move(prefix)) {}

void ConsoleFirebaseAnalytics::writeLine(const std::string& text) {
    std::lock_guard lock(writeMutex_);
    out_ << prefix_ << ' ' << text << '\n';
    out_.flush();
}

void ConsoleFirebaseAnalytics::logEventWithName(const std::string& name, const AttributeDictionary& parameters,
                                                bool shouldIncludeExtraUserInfo) {
    events_.fetch_add(1, std::memory_order_relaxed);
    writeLine("event " + name + " " + detail::describeParameters(parameters) +
              (shouldIncludeExtraUserInfo ? " (with user info)" : " (without user info)"));
}

void ConsoleFirebaseAnalytics::logEventWithName(const std::string& name, const AttributeDictionary& parameters) {
    events_.fetch_add(1, std::memory_order_relaxed);
    writeLine("event " + name + " " + detail::describeParameters(parameters));
}

void ConsoleFirebaseAnalytics::trackScreenWithName(const std::string& name) {
    screens_.fetch_add(1, std::memory_order_relaxed);
    writeLine("screen " + name);
}

void ConsoleFirebaseAnalytics::setScreenName(const std::string& screenName, const std::string& screenClass) {
    screens_.fetch_add(1, std::memory_order_relaxed);
    writeLine("screen " + screenName + " (class " + screenClass + ")");
}

void ConsoleFirebaseAnalytics::setUserIdentifier(const std::string& identifier) {
    userIdentifiers_.fetch_add(1, std::memory_order_relaxed);
    writeLine("user id " + detail::describeParameterValue(identifier));
}

void ConsoleFirebaseAnalytics::setUserProperty(const std::string& value, const std::string& forName) {
    userProperties_.fetch_add(1, std::memory_order_relaxed);
    writeLine("user property " + forName + " = " + detail::describeParameterValue(value));
}

ConsoleFirebaseAnalytics::Counts ConsoleFirebaseAnalytics::counts() const {
    return Counts{events_.load(std::memory_order_relaxed), screens_.load(std::memory_order_relaxed),
                  userIdentifiers_.load(std::memory_order_relaxed), userProperties_.load(std::memory_order_relaxed)};
}

}  // namespace kt
