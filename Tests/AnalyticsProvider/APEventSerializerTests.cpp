// Events, and the store that keeps each in a file of its own.

#include "KTAnalytics/AnalyticsProvider/APEvent.h"

#include <cerrno>
#include <fstream>
#include <tuple>

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "KTAnalytics/AnalyticsProvider/APEventBuilder.h"
#include "KTAnalytics/AnalyticsProvider/APEventFormatter.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventSerializer.h"
#include "KTAnalytics/Platform/Digest.h"
#include "KTAnalytics/Platform/KeyedArchive.h"
#include "Support/RecordingLogger.h"
#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

const std::set<std::string> kEventClasses{"APEvent", "string", "number", "dictionary", "array"};

// Same name and attributes as an APEvent, another class.
class OtherDescripting final : public APEventDescripting {
public:
    const std::string& name() const override { return name_; }
    const AttributeDictionary* attributes() const override { return nullptr; }
    std::string name_ = "pageview";
};

TEST(APEventTests, EqualityHashAndArchivesHoldAcrossNumberRepresentationsAndNullAttributes) {
    const auto a = APEvent::make("pageview", AttributeDictionary{{"page_name", "stream:main"}, {"n", 1}});
    for (const AttributeValue& n : {AttributeValue(1), AttributeValue(1u), AttributeValue(1.0)}) {
        SCOPED_TRACE(n.type_name());
        const auto b = APEvent::make("pageview", AttributeDictionary{{"n", n}, {"page_name", "stream:main"}});
        EXPECT_TRUE(a->isEqual(b.get()));
        EXPECT_EQ(a->hash(), b->hash());
    }
    // Null attributes equal only null attributes.
    const auto null = APEvent::make("pageview", std::nullopt);
    const auto empty = APEvent::make("pageview", AttributeDictionary::object());
    EXPECT_TRUE(null->isEqual(APEvent::make("pageview", std::nullopt).get()));
    EXPECT_FALSE(null->isEqual(empty.get()));
    EXPECT_FALSE(empty->isEqual(null.get()));
    EXPECT_FALSE(null->isEqual(APEvent::make("click", std::nullopt).get()));
    EXPECT_FALSE(a->isEqual(nullptr));
    OtherDescripting other;
    EXPECT_FALSE(null->isEqual(&other));
    EXPECT_EQ(APEvent::make("pageview", AttributeDictionary{{"x", 1}})->eventGatewayDictionary(),
              (AttributeDictionary{{"event", "pageview"}, {"version", "v1.27.36"}, {"payload", {{"x", 1}}}}));
    // Attributes, nested values and refused classes are read back by the keyed archive's and
    // the event store's suites; only an event without attributes is left to this one.
    const auto back = APEvent::unarchive(null->archivedData(), kEventClasses, nullptr);
    EXPECT_TRUE(back && back->isEqual(null.get()));
}

TEST(APEventTests, ProgrammingErrorsAreFatal) {
    EXPECT_DEATH(APEvent::make(std::nullopt, std::nullopt), "Invalid parameter not satisfying: name");
    EXPECT_DEATH(APEvent::make("pageview", std::nullopt)->eventGatewayDictionary(), "null payload");
    KeyedArchiver nameless(APEvent::kClassName);
    nameless.encodeValue(AttributeDictionary{{"a", 1}}, "_attributes");
    const auto bytes = nameless.finish();
    EXPECT_DEATH(APEvent::unarchive(bytes, kEventClasses, nullptr), "Invalid parameter not satisfying: name");
}

TEST(APEventBuilderTests, AddAttributeTakesTheFiveKindsAndTheRestIsFatal) {
    const auto event = APEventBuilder::builder().name("like").addAttribute("s", "text").addAttribute("n", 1.5)
                           .addAttribute("b", true).addAttribute("a", AttributeValue::array({1, 2}))
                           .addAttribute("d", AttributeDictionary{{"k", "v"}}).addAttribute("z", AttributeValue(nullptr)).build();
    EXPECT_EQ(*event->attributes(), (AttributeDictionary{{"s", "text"}, {"n", 1.5}, {"b", true}, {"a", {1, 2}},
                                                         {"d", {{"k", "v"}}}, {"z", nullptr}}));
    EXPECT_DEATH(APEventBuilder::builder().addAttribute(std::nullopt, 1), "Invalid parameter not satisfying: key");
    EXPECT_DEATH(APEventBuilder::builder().addAttribute("k", std::nullopt), "Invalid parameter not satisfying: value");
    EXPECT_DEATH(APEventBuilder::builder().addAttribute("k", value::date(Date{})),
                 "Invalid parameter not satisfying: \\[value isKindOfClass:NSString.class\\] \\|\\| "
                 "\\[value isKindOfClass:NSNumber.class\\]");
    EXPECT_DEATH(APEventBuilder::builder().build(), "Invalid parameter not satisfying: name");
}

// Reports carry it: only non-empty strings of the relevant keys and the extra ones asked for.
TEST(APEventFormatterTests, ShortDescriptions) {
    const std::vector<std::tuple<std::shared_ptr<const APEvent>, std::vector<std::string>, std::string>> cases = {
        {APEvent::make("click", AttributeDictionary{{"page_name", "stream:main"}, {"click_name", 3}, {"source", ""},
                                                    {"action", nullptr}, {"unrelated", "hidden"}}),
         {}, "click {page_name = stream:main}"},
        {APEvent::make("audio", AttributeDictionary{{"page_name", "tracks:player"}, {"pause_reason", "user"},
                                                    {"track", "quillarbor:tracks:1"}, {"other", "x"}}),
         {"track", "pause_reason", "track"},
         "audio {page_name = tracks:player; pause_reason = user; track = quillarbor:tracks:1}"},
        {APEvent::make("foreground", std::nullopt), {}, "foreground {}"},
    };
    for (const auto& [event, extraKeys, expected] : cases)
        EXPECT_EQ(APEventFormatter::shortDescriptionForEvent(*event, extraKeys), expected);
}

namespace fs = std::filesystem;

// A file system without user attributes, as tmpfs on older kernels or some network mounts.
struct UnsupportedAttributes final : FileAttributeStoring {
    std::optional<Bytes> attribute(const fs::path& file, const std::string&, int& error) const override {
        error = fs::exists(file) ? ENOTSUP : ENOENT;
        return std::nullopt;
    }
    int setAttribute(const fs::path&, const std::string&, const Bytes&) override { return EOPNOTSUPP; }
};

std::shared_ptr<const APEvent> event(const std::string& name, int n = 1) {
    return APEvent::make(name, AttributeDictionary{{"n", n}, {"page_name", "stream"}});
}

void writeFile(const fs::path& path, const std::string& contents) { std::ofstream(path, std::ios::binary) << contents; }
void writeBytes(const fs::path& path, const Bytes& bytes) { writeFile(path, std::string(bytes.begin(), bytes.end())); }

mode_t modeOf(const fs::path& path) {
    struct stat info {};
    EXPECT_EQ(::stat(path.c_str(), &info), 0);
    return info.st_mode & 0777;
}

std::size_t filesIn(const fs::path& dir) {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(dir), fs::directory_iterator()));
}

class APEventSerializerTests : public ::testing::Test {
protected:
    testing::TemporaryDirectory temp{"kt-serializer"};
    fs::path directory = APEventSerializer::eventCacheDirectory(temp / "caches");
    std::shared_ptr<testing::RecordingLogger> logger = std::make_shared<testing::RecordingLogger>();
};

TEST_F(APEventSerializerTests, StoresOneOwnerOnlyFileNamedByTheDigestOfItsContents) {
    APEventSerializer serializer(temp / "late" / "events", logger);
    EXPECT_EQ(serializer.serializedEventsCount(), 0u);
    auto e = event("pageview");
    auto stored = serializer.serializeEvent(e);
    ASSERT_TRUE(stored);
    EXPECT_EQ(modeOf(temp / "late" / "events"), 0700u);
    const Bytes archive = e->archivedData();
    EXPECT_EQ(stored->eventURL(), temp / "late" / "events" / (sha1Hex(archive.data(), archive.size()) + ".event"));
    EXPECT_EQ(serializer.increaseRetryCount(*stored), 1u);

    EXPECT_EQ(serializer.serializeEvent(event("pageview"))->eventURL(), stored->eventURL());
    EXPECT_EQ(serializer.retryCountForEventAtURL(stored->eventURL()), 0u);
    EXPECT_EQ(serializer.serializedEventsCount(), 1u);
    EXPECT_EQ(serializer.serializedEvents(), APSerializedEventSet{*stored});
}

TEST_F(APEventSerializerTests, RetryCountIsAnEightByteNativeAttributeThatOutlivesTheStore) {
    const std::uint64_t probe = 0;
    if (::setxattr(directory.c_str(), "user.probe", &probe, sizeof probe, 0) != 0 && errno == ENOTSUP)
        GTEST_SKIP() << "the temporary folder's file system keeps no user attributes";
    auto stored = *APEventSerializer(directory, logger).serializeEvent(event("like"));
    {
        APEventSerializer serializer(directory, logger);
        EXPECT_EQ(serializer.increaseRetryCount(stored), 1u);
        EXPECT_EQ(serializer.increaseRetryCount(stored), 2u);
        EXPECT_FALSE(serializer.usesRetryCountFiles());
    }
    std::uint64_t raw = 0;
    ASSERT_EQ(::getxattr(stored.eventURL().c_str(), "user.retry_count", &raw, sizeof raw), 8);
    EXPECT_EQ(raw, 2u);
    APEventSerializer restarted(directory, logger);
    EXPECT_EQ(restarted.retryCountForEventAtURL(stored.eventURL()), 2u);

    const std::uint32_t fourBytes = 5;
    ASSERT_EQ(::setxattr(stored.eventURL().c_str(), "user.retry_count", &fourBytes, sizeof fourBytes, 0), 0);
    EXPECT_EQ(restarted.retryCountForEventAtURL(stored.eventURL()), 0u);
    EXPECT_EQ(restarted.increaseRetryCount(stored), 1u);

    fs::remove(stored.eventURL());
    EXPECT_EQ(restarted.increaseRetryCount(stored), std::nullopt);  // a vanished event keeps no count
}

// Undecodable files go when read. Entries named like events that the store did not make are
// never opened in a way that blocks, followed or marked: whether a listing finds them, or
// they take the place of a file the store knows by name and opens without looking first.
TEST_F(APEventSerializerTests, UndecodableFilesAndEntriesTheStoreDidNotMakeGo) {
    const fs::path outside = temp / "outside";
    fs::create_directories(outside);
    writeBytes(outside / "valid.event", event("share", 9)->archivedData());
    writeBytes(outside / "linked.event", event("repost", 8)->archivedData());
    const auto bytes = [](Bytes b) { return [b](const fs::path& p) { writeBytes(p, b); }; };
    // A record without a name would stop the process if decoded.
    KeyedArchiver nameless(APEvent::kClassName);
    nameless.encodeValue(value::dictionary(), "_attributes");
    const std::string hex(40, 'a');
    struct Entry {
        std::string name;
        std::function<void(const fs::path&)> make;
        bool removed;
    };
    const std::vector<Entry> entries = {
        {"garbage.event", [](const fs::path& p) { writeFile(p, "not an archive"); }, true},
        // Null markers and dates are not among the classes the store reads back.
        {"withnull.event", bytes(APEvent("pageview", AttributeDictionary{{"x", nullptr}}).archivedData()), true},
        {"withdate.event", bytes(APEvent("pageview", AttributeDictionary{{"d", value::date(Date())}}).archivedData()), true},
        {"nameless.event", bytes(nameless.finish()), true},
        {hex + "1.event", [](const fs::path& p) { ASSERT_EQ(::mkfifo(p.c_str(), 0600), 0); }, true},
        {"x.event", [](const fs::path& p) { fs::create_directory(p); }, true},
        {"full.event", [](const fs::path& p) { fs::create_directories(p / "inside"); }, false},
        {hex + "2.event", [&](const fs::path& p) { fs::create_symlink(outside / "valid.event", p); }, true},
        {hex + "3.event", [&](const fs::path& p) { fs::create_symlink(outside / "missing.event", p); }, true},
        {hex + "4.event", [&](const fs::path& p) { fs::create_hard_link(outside / "linked.event", p); }, true},
    };
    {
        APEventSerializer known(directory, std::make_shared<testing::RecordingLogger>());
        for (const auto& e : entries) {
            e.make(directory / e.name);
            EXPECT_FALSE(known.serializedEventNamed(e.name)) << e.name;
            EXPECT_EQ(fs::exists(fs::symlink_status(directory / e.name)), !e.removed) << e.name;
        }
        const auto stats = known.statistics();
        EXPECT_EQ(std::vector<std::uint64_t>({stats.unreadableDeleted, stats.foreignEntriesRemoved}),
                  std::vector<std::uint64_t>({4, 5}));
    }
    for (const auto& e : entries)
        if (e.removed) e.make(directory / e.name);
    auto good = event("like");
    writeBytes(directory / "good.event", good->archivedData());

    // Files skipped are not read: the undecodable ones still count, the other entries never do.
    APEventSerializer serializer(directory, logger);
    const auto skipped = serializer.serializedEvents([](const fs::path& url) { return url.filename() != "good.event"; });
    EXPECT_EQ(skipped.size(), 1u);
    EXPECT_EQ(serializer.serializedEventsCount(), 5u);
    EXPECT_TRUE(logger->messages(3).empty());

    EXPECT_EQ(serializer.serializedEvents(), APSerializedEventSet{APSerializedEvent(good, directory / "good.event")});
    EXPECT_EQ(serializer.serializedEventsCount(), 1u);
    for (const auto& e : entries) EXPECT_EQ(fs::exists(fs::symlink_status(directory / e.name)), !e.removed) << e.name;
    EXPECT_EQ(filesIn(directory), 2u);  // good.event and full.event
    EXPECT_EQ(logger->messages(3).size(), 4u);
    EXPECT_TRUE(logger->contains("unable to unarchive analytics object at file://" + (directory / "garbage.event").native()));
    // What the links pointed at is untouched: still there, never given a retry count.
    EXPECT_TRUE(fs::exists(outside / "valid.event"));
    EXPECT_TRUE(fs::exists(outside / "linked.event"));
    EXPECT_EQ(::getxattr((outside / "valid.event").c_str(), "user.retry_count", nullptr, 0), -1);
    const auto stats = serializer.statistics();
    EXPECT_EQ(std::vector<std::uint64_t>({stats.unreadableDeleted, stats.foreignEntriesRemoved}),
              std::vector<std::uint64_t>({4, 5}));
}

// Leftovers of a killed write go only once old: another process may be writing a recent one.
TEST_F(APEventSerializerTests, CountAndListingFilterNamesDifferentlyAndOldTemporaryFilesGo) {
    writeFile(directory / "notes.txt", "hello");
    writeBytes(directory / "a.event", event("like")->archivedData());
    writeBytes(directory / "plainevent", event("share")->archivedData());
    writeFile(directory / ".hidden.event", "x");
    const fs::path old = directory / ".0123456789abcdef0123456789abcdef01234567.event.a1B2c3";
    const fs::path recent = directory / ".0123456789abcdef0123456789abcdef01234567.event.Zz9Yy8";
    writeFile(old, "half");
    writeFile(recent, "half");
    fs::last_write_time(old, fs::file_time_type::clock::now() - std::chrono::hours(1));

    APEventSerializer serializer(directory, logger);
    EXPECT_FALSE(fs::exists(old));
    EXPECT_TRUE(fs::exists(recent));
    EXPECT_EQ(serializer.serializedEventsCount(), 1u);
    EXPECT_EQ(serializer.serializedEvents().size(), 2u);
    EXPECT_EQ(serializer.serializedEventsCount(), 1u);
    EXPECT_TRUE(fs::exists(directory / "notes.txt"));
}

// As on tmpfs of older kernels or some network mounts; found on first use of a new folder too.
TEST_F(APEventSerializerTests, WithoutUserAttributesTheCountLivesInAHiddenSidecar) {
    APEventSerializer fresh(temp / "fresh", logger, std::make_shared<UnsupportedAttributes>());
    EXPECT_FALSE(fresh.usesRetryCountFiles());
    auto first = *fresh.serializeEvent(event("like"));
    EXPECT_EQ(fresh.increaseRetryCount(first), 1u);
    EXPECT_TRUE(fresh.usesRetryCountFiles());
    EXPECT_EQ(fresh.retryCountForEventAtURL(first.eventURL()), 1u);

    auto serializer = std::make_unique<APEventSerializer>(directory, logger, std::make_shared<UnsupportedAttributes>());
    EXPECT_TRUE(serializer->usesRetryCountFiles());
    auto stored = *serializer->serializeEvent(event("like"));
    EXPECT_EQ(serializer->increaseRetryCount(stored), 1u);
    EXPECT_EQ(serializer->increaseRetryCount(stored), 2u);
    const fs::path sidecar = directory / ("." + stored.eventURL().stem().native() + ".retry");
    EXPECT_EQ(fs::file_size(sidecar), 8u);  // throws if it is missing
    EXPECT_EQ(serializer->serializedEventsCount(), 1u);
    EXPECT_EQ(serializer->serializedEvents().size(), 1u);

    serializer = std::make_unique<APEventSerializer>(directory, logger, std::make_shared<UnsupportedAttributes>());
    EXPECT_EQ(serializer->retryCountForEventAtURL(stored.eventURL()), 2u);
    serializer->serializeEvent(event("like"));
    EXPECT_EQ(serializer->retryCountForEventAtURL(stored.eventURL()), 0u);
    EXPECT_EQ(serializer->increaseRetryCount(stored), 1u);
    serializer->deleteEvents(std::vector<APSerializedEvent>{stored});
    EXPECT_FALSE(fs::exists(sidecar));
    serializer.reset();
    EXPECT_EQ(filesIn(directory), 0u);
}

// A delivered event's file is kept, hidden, and written over by the next event (cut to its
// length); never a file that may carry a count (given one here, or found on disk), and
// never whatever takes a kept file's place. Kept files go with the store, or at the next
// start once the process that kept them has ended.
TEST_F(APEventSerializerTests, KeptFilesAreWrittenOverOnlyWhenNoCountCanPassOn) {
    for (const std::string& owner : {std::string("999999999"), std::string("1")})
        writeFile(directory / (".spare." + owner + ".0.0"), "x");
    writeBytes(directory / "earlier.event", event("share", 7)->archivedData());
    const fs::path outside = temp / "outside";
    writeFile(outside, "not the store's");
    auto serializer = std::make_unique<APEventSerializer>(directory, logger);
    EXPECT_FALSE(fs::exists(directory / ".spare.999999999.0.0"));
    EXPECT_TRUE(fs::remove(directory / ".spare.1.0.0"));  // a running process's stays
    const auto inode = [](const fs::path& path) {
        struct stat info {};
        EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
        return info.st_ino;
    };
    const auto spares = [&] {
        std::vector<fs::path> found;
        for (const auto& entry : fs::directory_iterator(directory))
            if (entry.path().filename().native().starts_with(".spare.")) found.push_back(entry.path());
        return found;
    };
    auto kept = *serializer->serializeEvent(APEvent::make("like", AttributeDictionary{{"long", std::string(300, 'x')}}));
    auto counted = *serializer->serializeEvent(event("like", 2));
    EXPECT_EQ(serializer->increaseRetryCount(counted), 1u);
    const auto earlier = *serializer->serializedEventNamed("earlier.event");
    const auto keptInode = inode(kept.eventURL());
    serializer->deleteEvents(std::vector<APSerializedEvent>{kept, counted, earlier});
    serializer->deleteEvents(APSerializedEventSet{kept});  // already gone: nothing to count down
    EXPECT_EQ(serializer->serializedEventsCount(), 0u);
    ASSERT_EQ(spares().size(), 1u);
    EXPECT_EQ(filesIn(directory), 1u);

    auto next = *serializer->serializeEvent(event("repost", 3));
    EXPECT_EQ(inode(next.eventURL()), keptInode);
    EXPECT_EQ(serializer->retryCountForEventAtURL(next.eventURL()), 0u);
    EXPECT_EQ(serializer->serializedEvents(), APSerializedEventSet{next});

    serializer->deleteEvents(std::vector<APSerializedEvent>{next});
    ASSERT_EQ(spares().size(), 1u);
    const fs::path spare = spares().front();
    fs::remove(spare);
    fs::create_hard_link(outside, spare);
    auto last = *serializer->serializeEvent(event("click", 4));
    std::ifstream stillOutside(outside);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(stillOutside), {}), "not the store's");
    EXPECT_EQ(fs::hard_link_count(outside), 1u);
    EXPECT_EQ(serializer->serializedEvents(), APSerializedEventSet{last});
    serializer->deleteEvents(std::vector<APSerializedEvent>{last});
    EXPECT_EQ(spares().size(), 1u);
    serializer.reset();
    EXPECT_EQ(filesIn(directory), 0u);
}

TEST(APSerializedEventTests, EqualityHashAndParameterChecks) {
    auto e = APEvent::make("like", AttributeDictionary{{"n", 1}});
    APSerializedEvent a(e, "/tmp/x.event");
    APSerializedEvent b(APEvent::make("like", AttributeDictionary{{"n", 1}}), "/tmp/x.event");
    EXPECT_EQ(a, b);
    EXPECT_EQ(a.hash(), b.hash());
    EXPECT_FALSE(a == APSerializedEvent(e, "/tmp/y.event"));

    EXPECT_DEATH(APSerializedEvent(nullptr, "/tmp/x.event"), "Invalid parameter not satisfying: event");
    EXPECT_DEATH(APSerializedEvent(e, ""), "Invalid parameter not satisfying: eventURL");
    testing::TemporaryDirectory temp{"kt-serializer"};
    APEventSerializer serializer(temp.path(), nullptr);
    EXPECT_DEATH(serializer.deleteEvents(APSerializedEventSet{}), "Invalid parameter not satisfying: \\[events count\\] > 0");
}

}  // namespace
}  // namespace kt
