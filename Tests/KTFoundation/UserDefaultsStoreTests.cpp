#include "KTFoundation/KeyValueStoring.h"

#include <gtest/gtest.h>

#include "Platform/UserDefaults.h"
#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

class UserDefaultsStoreTests : public ::testing::Test {
protected:
    std::shared_ptr<UserDefaults> open() {
        std::string error;
        auto defaults = UserDefaults::open(dir_ / "defaults.sqlite3", &error);
        EXPECT_TRUE(defaults) << error;
        return defaults;
    }

    testing::TemporaryDirectory dir_{"kt-store"};
};

TEST_F(UserDefaultsStoreTests, KeysLiveUnderTheNameSpaceAndSurviveReopening) {
    const Date start(std::chrono::microseconds(1'650'000'000'000'001LL));
    {
        UserDefaultsStore store(open(), "session_id_provider");
        store.setString("E621E1F8-C36C-495A-93FC-0C247A3E6E5F", "identifier");
        store.setDate(start, "inactivityStart");
        store.setNumber(5, "playTrackCount");
    }
    auto defaults = open();
    EXPECT_EQ(defaults->string("session_id_provider.identifier"), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
    EXPECT_FALSE(defaults->object("identifier"));

    UserDefaultsStore store(defaults, "session_id_provider");
    EXPECT_EQ(store.string("identifier"), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
    EXPECT_EQ(store.date("inactivityStart"), start);
    EXPECT_EQ(store.number("playTrackCount"), 5.0);
    EXPECT_FALSE(store.string("inactivityStart"));  // a date is not a string

    store.setString(std::nullopt, "identifier");
    store.setDate(std::nullopt, "inactivityStart");
    store.setNumber(std::nullopt, "playTrackCount");
    EXPECT_FALSE(store.string("identifier"));
    EXPECT_FALSE(store.date("inactivityStart"));
    EXPECT_FALSE(store.number("playTrackCount"));
    EXPECT_TRUE(defaults->keys().empty());
}

TEST_F(UserDefaultsStoreTests, NameSpacesAreIsolatedAndClearTouchesOnlyItsOwn) {
    auto defaults = open();
    UserDefaultsStore a(defaults, "a");
    UserDefaultsStore ab(defaults, "ab");
    a.setString("from a", "key");
    ab.setString("from ab", "key");
    a.setNumber(1, "count");
    defaults->set("bare", "a");     // the name space's own name, no dot
    defaults->set("near", "a_key"); // shares the first letter only

    EXPECT_EQ(a.string("key"), "from a");
    EXPECT_EQ(ab.string("key"), "from ab");
    EXPECT_FALSE(ab.number("count"));

    a.clear();
    EXPECT_FALSE(a.string("key"));
    EXPECT_FALSE(a.number("count"));
    EXPECT_EQ(ab.string("key"), "from ab");
    EXPECT_EQ(defaults->string("a"), "bare");
    EXPECT_EQ(defaults->string("a_key"), "near");
}

}  // namespace
}  // namespace kt
