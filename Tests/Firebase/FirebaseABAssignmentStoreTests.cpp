#include "Firebase/FirebaseABAssignmentStore.h"

#include <gtest/gtest.h>

#include "Platform/UserDefaults.h"
#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

using Dictionary = std::map<std::string, std::string>;

class FirebaseABAssignmentStoreTest : public ::testing::Test {
protected:
    testing::TemporaryDirectory directory{"kt-abstore"};
    std::shared_ptr<UserDefaults> defaults = std::make_shared<UserDefaults>(directory / "defaults.sqlite3");
};

TEST_F(FirebaseABAssignmentStoreTest, EveryChangeWritesTheWholeDictionaryBack) {
    FirebaseABAssignmentStore store(defaults, "assignments");
    store.set("a", "1");
    store.modify("b", [](std::optional<std::string>& entry) { entry = entry.value_or("") + "2"; });
    EXPECT_EQ(defaults->stringDictionary("assignments"), (Dictionary{{"a", "1"}, {"b", "2"}}));

    store.set("a", std::nullopt);
    EXPECT_EQ(store["a"], std::nullopt);
    EXPECT_EQ(defaults->stringDictionary("assignments"), (Dictionary{{"b", "2"}}));
    store.modify("b", [](std::optional<std::string>& entry) { entry.reset(); });
    EXPECT_EQ(defaults->stringDictionary("assignments"), Dictionary{});  // an empty dictionary, not nothing
}

TEST_F(FirebaseABAssignmentStoreTest, ResetRemovesOnlyTheStoredEntry) {
    FirebaseABAssignmentStore store(defaults, "assignments");
    store.set("a", "1");
    store.reset();
    EXPECT_EQ(defaults->object("assignments"), std::nullopt);
    EXPECT_EQ(store["a"], "1");
    store.set("b", "2");
    EXPECT_EQ(defaults->stringDictionary("assignments"), (Dictionary{{"a", "1"}, {"b", "2"}}));
}

TEST_F(FirebaseABAssignmentStoreTest, StartsFromAStoredDictionaryOfStringsOnly) {
    defaults->set(AttributeValue{{"a", "1"}}, "strings");
    defaults->set(AttributeValue{{"a", "1"}, {"n", 2}}, "mixed");
    defaults->set(AttributeValue("text"), "scalar");

    EXPECT_EQ(FirebaseABAssignmentStore(defaults, "strings").assignments(), (Dictionary{{"a", "1"}}));
    EXPECT_TRUE(FirebaseABAssignmentStore(defaults, "scalar").assignments().empty());
    FirebaseABAssignmentStore missing(defaults, "missing");
    EXPECT_EQ(defaults->object("missing"), std::nullopt);  // nothing written
    FirebaseABAssignmentStore mixed(defaults, "mixed");
    EXPECT_TRUE(mixed.assignments().empty());
    EXPECT_EQ(defaults->object("mixed"), (AttributeValue{{"a", "1"}, {"n", 2}}));  // left as it was
    mixed.set("b", "x");
    EXPECT_EQ(defaults->stringDictionary("mixed"), (Dictionary{{"b", "x"}}));
}

}  // namespace
}  // namespace kt
