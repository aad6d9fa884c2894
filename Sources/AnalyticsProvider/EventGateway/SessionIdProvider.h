#pragma once
// The analytics session id: kept across launches in user defaults, and replaced when the
// application has been inactive for longer than the session duration (30 minutes).

#include <chrono>
#include <functional>
#include <iosfwd>
#include <memory>

#include "KTAnalytics/AnalyticsProvider/EventGateway/SessionIdProviding.h"
#include "KTAnalytics/Platform/AttributeValue.h"
#include "KTAnalytics/Platform/UUID.h"

namespace kt {

class KeyValueStoring;

class SessionIdProvider final : public SessionIdProviding {
public:
    using UUIDCreator = std::function<UUID()>;
    using NowProvider = std::function<Date()>;
    using Seconds = std::chrono::duration<double>;

    /// The name space of the persisted keys in user defaults.
    static constexpr const char* kStoreNameSpace = "session_id_provider";
    static constexpr const char* kIdentifierKey = "identifier";
    static constexpr const char* kStartOfInactivityKey = "startOfInactivity";
    static constexpr Seconds kDefaultSessionDuration{1800.0};

    /// `nowProvider` dates the start of inactivity; `wallClock` is what expiry is measured
    /// against (the real clock unless a test moves it). Console lines ("SESSION ID: ...")
    /// go to `console`, which must outlive the provider.
    SessionIdProvider(std::shared_ptr<KeyValueStoring> store, UUIDCreator uuidCreator, NowProvider nowProvider,
                      Seconds sessionDuration = kDefaultSessionDuration, NowProvider wallClock = systemNow,
                      std::ostream* console = nullptr);
    SessionIdProvider() = delete;

    /// The process-wide provider, created on first use over the store given to
    /// `configureShared`, or else over the standard user defaults of "ktanalytics".
    static std::shared_ptr<SessionIdProvider> shared();
    /// Chooses the store of the shared provider. Only effective before the first call of
    /// `shared()`; returns false (and changes nothing) afterwards.
    static bool configureShared(std::shared_ptr<KeyValueStoring> store);

    UUID getSessionId() override;
    /// The application left the foreground: remembers when.
    void becameInactive();
    /// The application is in the foreground again: ends an expired session.
    void becameActive();
    /// Forgets the session and the start of inactivity.
    void clear();

    Seconds sessionDuration() const { return sessionDuration_; }

    static Date systemNow();

private:
    bool isSessionExpired() const;
    UUID createNewSessionId();
    void writeConsoleLine(const std::string& line) const;

    const std::shared_ptr<KeyValueStoring> store_;
    const UUIDCreator uuidCreator_;
    const NowProvider nowProvider_;
    const Seconds sessionDuration_;
    const NowProvider wallClock_;
    std::ostream* const console_;
};

/// "2024-03-01 12:34:56 +0000": a date as the platform prints one, in UTC.
std::string defaultDateDescription(Date date);

}  // namespace kt
