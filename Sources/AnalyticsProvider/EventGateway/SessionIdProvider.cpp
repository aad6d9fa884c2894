#include "KTAnalytics/AnalyticsProvider/EventGateway/SessionIdProvider.h"

#include <cmath>
#include <ctime>
#include <iostream>
#include <mutex>

#include <fmt/format.h>

#include "KTAnalytics/KTFoundation/KeyValueStoring.h"
#include "KTAnalytics/Platform/Fatal.h"
#include "KTAnalytics/Platform/UserDefaults.h"

namespace kt {

namespace {

constexpr const char* kDefaultApplicationId = "ktanalytics";

// The shared provider and the store chosen for it. Never destroyed: the provider is read
// from the gateway's worker thread, which may outlive static destruction at exit.
struct SharedProviderState {
    std::mutex mutex;
    std::shared_ptr<KeyValueStoring> configuredStore;  // guarded by mutex
    std::shared_ptr<SessionIdProvider> instance;       // guarded by mutex
};

SharedProviderState& sharedProviderState() {
    static auto* state = new SharedProviderState;
    return *state;
}

std::shared_ptr<KeyValueStoring> makeDefaultStore() {
    std::string error;
    auto defaults = UserDefaults::open(UserDefaults::standardPath(kDefaultApplicationId), &error);
    if (!defaults) {
        // Without a writable configuration folder the session still works for this run.
        std::cout << "SESSION ID: Cannot open user defaults (" << error << "); keeping the session in memory"
                  << std::endl;
        defaults = UserDefaults::open(":memory:");
    }
    KT_EXPECT_NOT_NIL(defaults, "defaults");
    return std::make_shared<UserDefaultsStore>(std::move(defaults), SessionIdProvider::kStoreNameSpace);
}

}  // namespace

SessionIdProvider::SessionIdProvider(std::shared_ptr<KeyValueStoring> store, UUIDCreator uuidCreator,
                                     NowProvider nowProvider, Seconds sessionDuration, NowProvider wallClock,
                                     std::ostream* console)
    : store_(std::move(store)),
      uuidCreator_(std::move(uuidCreator)),
      nowProvider_(std::move(nowProvider)),
      sessionDuration_(sessionDuration),
      wallClock_(std::move(wallClock)),
      console_(console != nullptr ? console : &std::cout) {
    KT_PARAMETER_ASSERT_TEXT(store_, "store");
    KT_PARAMETER_ASSERT_TEXT(uuidCreator_, "uuidCreator");
    KT_PARAMETER_ASSERT_TEXT(nowProvider_, "nowProvider");
    KT_PARAMETER_ASSERT_TEXT(wallClock_, "wallClock");
}

Date SessionIdProvider::systemNow() { return std::chrono::system_clock::now(); }

std::shared_ptr<SessionIdProvider> SessionIdProvider::shared() {
    auto& state = sharedProviderState();
    std::lock_guard lock(state.mutex);
    if (!state.instance) {
        auto store = state.configuredStore ? state.configuredStore : makeDefaultStore();
        state.instance = std::make_shared<SessionIdProvider>(std::move(store), [] { return UUID::random(); },
                                                             systemNow, kDefaultSessionDuration);
    }
    return state.instance;
}

bool SessionIdProvider::configureShared(std::shared_ptr<KeyValueStoring> store) {
    KT_PARAMETER_ASSERT(store);
    auto& state = sharedProviderState();
    std::lock_guard lock(state.mutex);
    if (state.instance) return false;
    state.configuredStore = std::move(store);
    return true;
}

bool SessionIdProvider::isSessionExpired() const {
    const auto startOfInactivity = store_->date(kStartOfInactivityKey);
    if (!startOfInactivity) return false;
    // Absolute: a start of inactivity far in the future (a clock set back) ends the session too.
    const Seconds distance = wallClock_() - *startOfInactivity;
    return std::abs(distance.count()) > sessionDuration_.count();
}

UUID SessionIdProvider::getSessionId() {
    // While an old start of inactivity stays stored, every call makes a fresh id; only
    // becameActive() settles the session again.
    if (isSessionExpired()) return createNewSessionId();
    if (auto text = store_->string(kIdentifierKey)) {
        if (auto stored = UUID::fromString(*text)) return *stored;
    }
    return createNewSessionId();
}

UUID SessionIdProvider::createNewSessionId() {
    const UUID identifier = uuidCreator_();
    const std::string text = identifier.uuidString();
    store_->setString(text, kIdentifierKey);
    writeConsoleLine("SESSION ID: Creating new session id " + text);
    return identifier;
}

void SessionIdProvider::becameInactive() {
    store_->setDate(nowProvider_(), kStartOfInactivityKey);
    const auto stored = store_->date(kStartOfInactivityKey);
    KT_EXPECT_NOT_NIL(stored, "startOfInactivity");
    writeConsoleLine("SESSION ID: User became inactive at " + defaultDateDescription(*stored));
}

void SessionIdProvider::becameActive() {
    if (isSessionExpired()) store_->setString(std::nullopt, kIdentifierKey);
    store_->setDate(std::nullopt, kStartOfInactivityKey);
    writeConsoleLine("SESSION ID: User became active. Resetting stored start of inactivity.");
}

void SessionIdProvider::clear() { store_->clear(); }

void SessionIdProvider::writeConsoleLine(const std::string& line) const {
    // Several providers (several stacks, or the pipeline's queue and the app's thread) may
    // share one stream, and only the standard streams are safe to write from two threads.
    static std::mutex consoleMutex;
    std::lock_guard lock(consoleMutex);
    *console_ << (line + '\n') << std::flush;
}

std::string defaultDateDescription(Date date) {
    // Whole seconds, rounded toward the past, as the platform's description does.
    const auto seconds = std::chrono::floor<std::chrono::seconds>(date.time_since_epoch()).count();
    const std::time_t time = static_cast<std::time_t>(seconds);
    std::tm utc{};
    if (gmtime_r(&time, &utc) == nullptr) return fmt::format("{} seconds since 1970 +0000", seconds);
    return fmt::format("{:04d}-{:02d}-{:02d} {:02d}:{:02d}:{:02d} +0000", utc.tm_year + 1900, utc.tm_mon + 1,
                       utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
}

}  // namespace kt
