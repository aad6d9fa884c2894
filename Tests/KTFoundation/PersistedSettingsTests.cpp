// What the SDK keeps in the defaults database: privacy choices and name-spaced values.

#include "KTFoundation/KeyValueStoring.h"
#include "KTFoundation/PersistedPrivacySettings.h"

#include <gtest/gtest.h>

#include "Platform/UserDefaults.h"
#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

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
