// `ktanalytics queue`: the listing of a state folder's on-disk event queue.

#include "Commands/QueueCommand.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <sstream>

#include "AnalyticsProvider/EventGateway/Upload/APEventSerializer.h"
#include "Setup/AnalyticsStack.h"
#include "Support/TemporaryDirectory.h"

namespace kt::tool {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

class QueueCommandTests : public ::testing::Test {
protected:
    testing::TemporaryDirectory directory{"kt-queue"};
    fs::path state = directory / "state";
};

TEST_F(QueueCommandTests, listsEachStoredEventWithItsRetryCountAndLeavesUndecodableFilesInPlace) {
    const fs::path events = AnalyticsStack::eventsDirectory(state);
    fs::create_directories(events);
    APEventSerializer store(events, nullptr);
    const auto liked = store.serializeEvent(APEvent::make("like", AttributeDictionary{{"track", "quillarbor:tracks:9"}}));
    const auto viewed = store.serializeEvent(APEvent::make("pageview", AttributeDictionary::object()));
    ASSERT_TRUE(liked && viewed);
    store.increaseRetryCount(*liked);
    store.increaseRetryCount(*liked);
    const fs::path garbage = events / "ffffffffffffffffffffffffffffffffffffffff.event";
    std::ofstream(garbage) << "not an archive";
    std::ofstream(events / "notes.txt") << "not an event";

    std::ostringstream out;
    std::string error;
    EXPECT_EQ(listStoredEvents(state, false, out, error), 3u) << error;

    std::map<std::string, json> byFile;
    std::istringstream lines(out.str());
    for (std::string line; std::getline(lines, line);) {
        const json entry = json::parse(line);
        byFile[entry["file"].get<std::string>()] = entry;
    }
    ASSERT_EQ(byFile.size(), 3u);
    const json& like = byFile.at(liked->eventURL().filename().native());
    EXPECT_EQ(like["event"], "like");
    EXPECT_EQ(like["retry_count"], 2);
    EXPECT_EQ(like["attributes"], (json{{"track", "quillarbor:tracks:9"}}));
    const json& view = byFile.at(viewed->eventURL().filename().native());
    EXPECT_EQ(view["retry_count"], 0);
    EXPECT_EQ(view["event"], "pageview");
    EXPECT_EQ(view["attributes"], json::object());
    const json& bad = byFile.at(garbage.filename().native());
    EXPECT_EQ(bad["error"], "cannot be decoded");
    EXPECT_FALSE(bad.contains("event"));
    // Looking is not touching.
    EXPECT_TRUE(fs::exists(garbage));

    std::ostringstream count;
    EXPECT_EQ(listStoredEvents(state, true, count, error), 3u);
    EXPECT_EQ(count.str(), "3\n");
}

TEST_F(QueueCommandTests, aStateFolderWithoutAQueueHoldsNothingAndAMissingOneIsAnError) {
    fs::create_directories(state);
    std::ostringstream out;
    std::string error;
    EXPECT_EQ(listStoredEvents(state, true, out, error), 0u);
    EXPECT_EQ(out.str(), "0\n");

    EXPECT_EQ(listStoredEvents(directory / "missing", true, out, error), std::nullopt);
    EXPECT_NE(error.find("is not a folder"), std::string::npos) << error;
}

}  // namespace
}  // namespace kt::tool
