#include "KTAnalytics/AnalyticsProvider/EventGateway/SessionIdProvider.h"

#include <sstream>

#include <gtest/gtest.h>

#include "KTAnalytics/KTFoundation/KeyValueStoring.h"
#include "KTAnalytics/Platform/UserDefaults.h"
#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

using namespace std::chrono_literals;

const Date kStart = Date(std::chrono::seconds(1700000000));  // 2023-11-14 22:13:20 UTC

UUID numberedUUID(std::uint8_t n) {
    std::array<std::uint8_t, 16> bytes{};
    bytes[15] = n;
    bytes[0] = 0xAB;
    return UUID(bytes);
}

class SessionIdProviderTest : public ::testing::Test {
protected:
    std::shared_ptr<SessionIdProvider> makeProvider() {
        return std::make_shared<SessionIdProvider>(
            store, [this] { return numberedUUID(++created); }, [this] { return now; },
            SessionIdProvider::kDefaultSessionDuration, [this] { return wall; }, &console);
    }

    std::optional<std::string> storedIdentifier() const { return defaults->string("session_id_provider.identifier"); }
    std::optional<Date> storedStartOfInactivity() const { return defaults->date("session_id_provider.startOfInactivity"); }

    testing::TemporaryDirectory directory{"kt-session-id"};
    std::shared_ptr<UserDefaults> defaults = std::make_shared<UserDefaults>(directory / "defaults.sqlite3");
    std::shared_ptr<KeyValueStoring> store = std::make_shared<UserDefaultsStore>(defaults, "session_id_provider");
    std::uint8_t created = 0;
    Date now = kStart;
    Date wall = kStart;
    std::ostringstream console;
};

// Restarts keep the id: the stack's tests check that across two stacks over one folder.
TEST_F(SessionIdProviderTest, AnInvalidStoredIdIsReplacedAndShortInactivityKeepsTheSession) {
    defaults->set("not-a-uuid", "session_id_provider.identifier");
    auto provider = makeProvider();
    const UUID id = provider->getSessionId();
    EXPECT_EQ(id, numberedUUID(1));

    now = kStart + 1500ms;  // the fraction of a second is not printed
    provider->becameInactive();
    wall = kStart + 10min;
    provider->becameActive();
    EXPECT_EQ(provider->getSessionId(), id);
    EXPECT_EQ(created, 1);
    EXPECT_EQ(console.str(), "SESSION ID: Creating new session id " + id.uuidString() + "\n"
                             "SESSION ID: User became inactive at 2023-11-14 22:13:21 +0000\n"
                             "SESSION ID: User became active. Resetting stored start of inactivity.\n");
}

TEST_F(SessionIdProviderTest, InactivityOfExactlyTheSessionDurationKeepsTheSessionAndOneMillisecondMoreEndsIt) {
    auto provider = makeProvider();
    const UUID original = provider->getSessionId();
    provider->becameInactive();
    wall = kStart + 1800s;
    EXPECT_EQ(provider->getSessionId(), original);

    wall = kStart + 1800s + 1ms;
    const UUID second = provider->getSessionId();
    const UUID third = provider->getSessionId();
    EXPECT_EQ(storedIdentifier(), third.uuidString());
    provider->becameActive();
    EXPECT_FALSE(storedStartOfInactivity());
    const UUID settled = provider->getSessionId();
    EXPECT_EQ(provider->getSessionId(), settled);
    EXPECT_EQ((std::vector<UUID>{second, third, settled}),
              (std::vector<UUID>{numberedUUID(2), numberedUUID(3), numberedUUID(4)}));

    // A start of inactivity in the future counts by its distance.
    now = wall + 10min;
    provider->becameInactive();
    EXPECT_EQ(provider->getSessionId(), settled);
    now = wall + 1800s + 1ms;
    provider->becameInactive();
    EXPECT_NE(provider->getSessionId(), settled);
}

TEST_F(SessionIdProviderTest, InactivityStoredBeforeARestartStillCountsAndClearForgetsIt) {
    const UUID original = makeProvider()->getSessionId();
    makeProvider()->becameInactive();
    wall = kStart + 45min;
    auto relaunched = makeProvider();
    relaunched->becameActive();
    const UUID next = relaunched->getSessionId();
    EXPECT_NE(next, original);
    EXPECT_EQ(relaunched->getSessionId(), next);

    relaunched->becameInactive();
    defaults->set("untouched", "other.key");
    relaunched->clear();
    EXPECT_EQ(defaults->keys(), std::vector<std::string>{"other.key"});
    EXPECT_EQ(defaults->string("other.key"), "untouched");
    EXPECT_EQ(relaunched->getSessionId(), numberedUUID(3));
}

// A store that loses dates: the provider cannot go on without the inactivity it just wrote.
class DateLosingStore final : public KeyValueStoring {
public:
    std::optional<std::string> string(const std::string&) const override { return std::nullopt; }
    std::optional<Date> date(const std::string&) const override { return std::nullopt; }
    std::optional<double> number(const std::string&) const override { return std::nullopt; }
    void setString(const std::optional<std::string>&, const std::string&) override {}
    void setDate(const std::optional<Date>&, const std::string&) override {}
    void setNumber(const std::optional<double>&, const std::string&) override {}
    void clear() override {}
};

TEST(SessionIdProviderDeathTest, AMissingStoreOrInactivityDateStopsTheProcess) {
    SessionIdProvider provider(std::make_shared<DateLosingStore>(), [] { return UUID::random(); },
                               SessionIdProvider::systemNow, SessionIdProvider::kDefaultSessionDuration);
    EXPECT_DEATH(provider.becameInactive(), "Expected 'startOfInactivity' not to be nil\\.");
    EXPECT_DEATH(SessionIdProvider(nullptr, [] { return UUID::random(); }, SessionIdProvider::systemNow),
                 "Invalid parameter not satisfying: store");
}

}  // namespace
}  // namespace kt
