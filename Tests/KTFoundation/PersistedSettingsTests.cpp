// What the SDK keeps for the user: the credential, privacy choices and name-spaced values.

#include "KTAnalytics/KTFoundation/CredentialStore.h"

#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "KTAnalytics/KTFoundation/KeyValueStoring.h"
#include "KTAnalytics/KTFoundation/PersistedPrivacySettings.h"
#include "KTAnalytics/Platform/UserDefaults.h"
#include "Support/RecordingLogger.h"
#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

TEST(CredentialStoreTests, FileStoreKeepsTheTokenInAnOwnerOnlyFileAndRefusesHeaderBreakingOnes) {
    testing::TemporaryDirectory directory;
    auto path = directory / "secrets" / "credential";
    auto logger = std::make_shared<testing::RecordingLogger>();
    FileCredentialStore store(path, logger);
    EXPECT_EQ(store.credential(), std::nullopt) << "no file yet: signed out";
    for (const char* token : {"token-1", "token-2"}) {
        store.setCredential(token);
        std::stringstream text;
        text << std::ifstream(path).rdbuf();
        EXPECT_EQ(text.str(), token);
        struct stat info {};
        ASSERT_EQ(::stat(path.c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 07777, 0600u);
        EXPECT_EQ(FileCredentialStore(path, logger).credential(), token);
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(path.parent_path()), {}), 1)
        << "no temporary files left behind";
    EXPECT_EQ(logger->count(), 0u);

    std::ofstream(path) << "abc.def\n";
    EXPECT_EQ(store.credential(), "abc.def") << "a trailing line feed is not part of the token";
    std::ofstream(path) << "\n";
    EXPECT_EQ(store.credential(), std::nullopt);
    std::ofstream(path) << "abc\r\nX-Injected: 1";
    EXPECT_EQ(store.credential(), std::nullopt);
    EXPECT_EQ(logger->messages(3).size(), 1u);
    std::ofstream(path) << "good";
    store.setCredential("evil\r\nX-Injected: 1");
    EXPECT_EQ(store.credential(), "good") << "a refused token leaves the stored one alone";
    EXPECT_EQ(logger->messages(3).size(), 2u);

    FileCredentialStore blocked(path / "credential", logger);  // a file where the folder should be
    blocked.setCredential("token");                            // reported, not thrown
    EXPECT_EQ(blocked.credential(), std::nullopt);
    EXPECT_GT(logger->messages(3).size(), 2u);

    const auto logged = logger->count();
    store.setCredential(std::nullopt);
    EXPECT_FALSE(std::filesystem::exists(path));
    store.setCredential(std::nullopt);
    EXPECT_EQ(logger->count(), logged) << "signing out twice is no error";
}

TEST(CredentialStoreTests, InMemoryStoreIsSafeFromSeveralThreads) {
    InMemoryCredentialStore store("initial");
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&store, t] {
            for (int i = 0; i < 1000; ++i) {
                store.setCredential("token-" + std::to_string(t));
                EXPECT_EQ(store.credential().value_or("").rfind("token-", 0), 0u);
            }
        });
    threads.clear();  // joins them
    store.setCredential(std::nullopt);
    EXPECT_EQ(store.credential(), std::nullopt);
}

struct PersistedSettingsTest : ::testing::Test {
    testing::TemporaryDirectory directory{"kt-settings"};
    std::filesystem::path databasePath = directory / "defaults.sqlite3";
    std::shared_ptr<UserDefaults> defaults = std::make_shared<UserDefaults>(databasePath);
    PersistedPrivacySettings settings{defaults};
};

// Everything a settings object grants, in one text.
std::string granted(const PersistedPrivacySettings& s) {
    return std::string(s.isAnalyticsTrackingEnabled() ? "analytics " : "") +
           (s.isTargetedAdvertisingEnabled() ? "ads " : "") + (s.isiOSAdvertisingTrackingEnabled() ? "tracking " : "") +
           s.iabConsentString().value_or("");
}

TEST_F(PersistedSettingsTest, NothingIsGrantedBeforeConsentIsRecordedOrWhenItCannotBeRead) {
    EXPECT_EQ(granted(settings), "");

    defaults->set("yes please", PersistedPrivacySettings::settingsKey);
    EXPECT_FALSE(settings.isAnalyticsTrackingEnabled());
    defaults->set(AttributeValue{{"analytics_tracking_enabled", "true"}, {"iab_consent_string", 12}},
                  PersistedPrivacySettings::settingsKey);
    EXPECT_FALSE(settings.isAnalyticsTrackingEnabled());
    EXPECT_EQ(settings.iabConsentString(), std::nullopt);
    // A flag stored as a number (as property lists may hand booleans back) still counts.
    defaults->set(AttributeValue{{"analytics_tracking_enabled", 1}}, PersistedPrivacySettings::settingsKey);
    EXPECT_TRUE(settings.isAnalyticsTrackingEnabled());
}

TEST_F(PersistedSettingsTest, RecordedChoicesSurviveARestartUntilReplacedOrReset) {
    settings.updateWithPrivacySettings({.analyticsTrackingEnabled = true, .targetedAdvertisingEnabled = true,
                                        .iabConsentString = "CPXxRfAPXxRfAAfKABENB-CgAAAAAAAAAAYgAAAAAAAA",
                                        .iOSAdvertisingTrackingEnabled = true});
    // A new process: a new database connection and a new settings object.
    PersistedPrivacySettings reopened(std::make_shared<UserDefaults>(databasePath));
    EXPECT_EQ(granted(reopened), "analytics ads tracking CPXxRfAPXxRfAAfKABENB-CgAAAAAAAAAAYgAAAAAAAA");

    reopened.updateWithPrivacySettings({.analyticsTrackingEnabled = false});
    EXPECT_EQ(granted(settings), "");  // both read the same file

    // A reset forgets the choices and the analytics id, and nothing else.
    EXPECT_EQ(settings.analticsIdStorageKey(), "privacy_settings.analytics_id");
    defaults->set("analytics-id-1", settings.analticsIdStorageKey());
    defaults->set("kept", "session_id_provider.id");
    settings.updateWithPrivacySettings({.analyticsTrackingEnabled = true, .iabConsentString = "consent"});
    settings.resetPrivacySettings();
    EXPECT_EQ(granted(reopened), "");
    EXPECT_EQ(defaults->string(settings.analticsIdStorageKey()), std::nullopt);
    EXPECT_EQ(defaults->string("session_id_provider.id"), "kept");
}

// Reading and writing through a name space is checked by the session id provider's suite
// and the attributable events' suite; nothing there removes a number.
TEST_F(PersistedSettingsTest, StoreKeysLiveUnderTheirOwnNameSpaceAndAnAbsentNumberRemovesItsKey) {
    UserDefaultsStore store(defaults, "session_id_provider");
    store.setNumber(5, "playTrackCount");
    store.setNumber(std::nullopt, "playTrackCount");
    EXPECT_TRUE(defaults->keys().empty());

    UserDefaultsStore a(defaults, "a");
    UserDefaultsStore ab(defaults, "ab");
    a.setString("from a", "key");
    ab.setString("from ab", "key");
    defaults->set("bare", "a");      // the name space's own name, no dot
    defaults->set("near", "a_key");  // shares the first letter only
    EXPECT_EQ(a.string("key"), "from a");
    a.clear();
    EXPECT_FALSE(a.string("key"));
    EXPECT_EQ(defaults->keys(), (std::vector<std::string>{"a", "a_key", "ab.key"}));
}

}  // namespace
}  // namespace kt
