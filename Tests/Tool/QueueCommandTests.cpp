// `ktanalytics queue`: the listing of a state folder's on-disk event queue.

#include "Commands/QueueCommand.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <set>
#include <sstream>

#include "AnalyticsProvider/EventGateway/Upload/APEventSerializer.h"
#include "Setup/AnalyticsStack.h"
#include "Support/TemporaryDirectory.h"

namespace kt::tool {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

TEST(QueueCommandTests, listsEachStoredEventWithItsRetryCountAndLeavesUndecodableFilesInPlace) {
    ::kt::testing::TemporaryDirectory directory{"kt-queue"};
    const fs::path state = directory / "state";
    std::ostringstream out;
    std::string error;
    EXPECT_EQ(listStoredEvents(state, true, out, error), std::nullopt);
    EXPECT_NE(error.find("is not a folder"), std::string::npos) << error;
    fs::create_directories(state);
    EXPECT_EQ(listStoredEvents(state, true, out, error), 0u) << "a state folder without a queue holds nothing";
    EXPECT_EQ(out.str(), "0\n");

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

    out.str("");
    EXPECT_EQ(listStoredEvents(state, false, out, error), 3u) << error;
    std::multiset<json> entries;  // in no particular order
    std::istringstream lines(out.str());
    for (std::string line; std::getline(lines, line);) entries.insert(json::parse(line));
    EXPECT_EQ(entries, (std::multiset<json>{
                           json{{"file", liked->eventURL().filename().native()}, {"event", "like"}, {"retry_count", 2},
                                {"attributes", {{"track", "quillarbor:tracks:9"}}}},
                           json{{"file", viewed->eventURL().filename().native()}, {"event", "pageview"},
                                {"retry_count", 0}, {"attributes", json::object()}},
                           json{{"file", garbage.filename().native()}, {"error", "cannot be decoded"},
                                {"retry_count", 0}},
                       }));
    EXPECT_TRUE(fs::exists(garbage)) << "looking is not touching";

    out.str("");
    EXPECT_EQ(listStoredEvents(state, true, out, error), 3u);
    EXPECT_EQ(out.str(), "3\n");
}

}  // namespace
}  // namespace kt::tool
