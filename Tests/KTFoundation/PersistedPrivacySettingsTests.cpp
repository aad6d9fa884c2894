#include "KTFoundation/PersistedPrivacySettings.h"

#include <gtest/gtest.h>

#include "Platform/UserDefaults.h"
#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

struct PersistedPrivacySettingsTest : ::testing::Test {
    testing::TemporaryDirectory directory{"kt-privacy"};
    std::filesystem::path databasePath = directory / "defaults.sqlite3";
    std::shared_ptr<UserDefaults> defaults = std::make_shared<UserDefaults>(databasePath);
    PersistedPrivacySettings settings{defaults};
};

TEST_F(PersistedPrivacySettingsTest, NothingIsGrantedBeforeConsentIsRecorded) {
    EXPECT_FALSE(settings.isAnalyticsTrackingEnabled());
    EXPECT_FALSE(settings.isTargetedAdvertisingEnabled());
    EXPECT_FALSE(settings.isiOSAdvertisingTrackingEnabled());
    EXPECT_EQ(settings.iabConsentString(), std::nullopt);
}

TEST_F(PersistedPrivacySettingsTest, RecordedChoicesSurviveARestart) {
    settings.updateWithPrivacySettings({.analyticsTrackingEnabled = true,
                                        .targetedAdvertisingEnabled = false,
                                        .iabConsentString = "CPXxRfAPXxRfAAfKABENB-CgAAAAAAAAAAYgAAAAAAAA",
                                        .iOSAdvertisingTrackingEnabled = true});
    defaults.reset();

    // A new process: a new database connection and a new settings object.
    PersistedPrivacySettings reopened(std::make_shared<UserDefaults>(databasePath));
    EXPECT_TRUE(reopened.isAnalyticsTrackingEnabled());
    EXPECT_FALSE(reopened.isTargetedAdvertisingEnabled());
    EXPECT_TRUE(reopened.isiOSAdvertisingTrackingEnabled());
    EXPECT_EQ(reopened.iabConsentString(), "CPXxRfAPXxRfAAfKABENB-CgAAAAAAAAAAYgAAAAAAAA");
}

TEST_F(PersistedPrivacySettingsTest, AnUpdateReplacesEveryChoiceForEveryReaderOfTheSameStore) {
    PersistedPrivacySettings other(defaults);
    settings.updateWithPrivacySettings({.analyticsTrackingEnabled = true, .targetedAdvertisingEnabled = true,
                                        .iabConsentString = "first", .iOSAdvertisingTrackingEnabled = true});
    EXPECT_TRUE(other.isAnalyticsTrackingEnabled());
    settings.updateWithPrivacySettings({.analyticsTrackingEnabled = false});
    for (const auto* reader : {&settings, &other}) {
        EXPECT_FALSE(reader->isAnalyticsTrackingEnabled());
        EXPECT_FALSE(reader->isTargetedAdvertisingEnabled());
        EXPECT_FALSE(reader->isiOSAdvertisingTrackingEnabled());
        EXPECT_EQ(reader->iabConsentString(), std::nullopt);
    }
}

TEST_F(PersistedPrivacySettingsTest, ResetForgetsTheChoicesAndTheAnalyticsIdButNothingElse) {
    EXPECT_EQ(settings.analticsIdStorageKey(), "privacy_settings.analytics_id");
    defaults->set("analytics-id-1", settings.analticsIdStorageKey());
    defaults->set("kept", "session_id_provider.id");
    settings.updateWithPrivacySettings({.analyticsTrackingEnabled = true, .iabConsentString = "consent"});

    settings.resetPrivacySettings();

    EXPECT_FALSE(settings.isAnalyticsTrackingEnabled());
    EXPECT_EQ(settings.iabConsentString(), std::nullopt);
    EXPECT_EQ(defaults->string(settings.analticsIdStorageKey()), std::nullopt);
    EXPECT_EQ(defaults->string("session_id_provider.id"), "kept");
}

TEST_F(PersistedPrivacySettingsTest, UnreadableStoredValuesMeanNoConsent) {
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

}  // namespace
}  // namespace kt
