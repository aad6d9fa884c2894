#include "Commands/DemoSession.h"

#include <random>
#include <string>

#include "KTAnalytics/AnalyticsProvider/APEventBuilder.h"
#include "KTAnalytics/Middleware/PageName.h"

namespace kt::tool {

namespace {

class SessionWriter {
public:
    explicit SessionWriter(std::uint64_t seed) : random_(seed) {}

    std::size_t pick(std::size_t n) { return std::uniform_int_distribution<std::size_t>(0, n - 1)(random_); }
    std::string track() { return "quillarbor:tracks:" + std::to_string(100000 + pick(900000)); }
    std::string user() { return "quillarbor:users:" + std::to_string(1000 + pick(9000)); }
    std::string clientEventId() { return "evt-" + std::to_string(++eventCounter_); }

    std::vector<std::shared_ptr<const APEventDescripting>> events;

    // Every event carries an id of its own: the store names files by their contents, so two
    // identical events tagged in the same millisecond would otherwise collapse into one.
    void add(const std::shared_ptr<const APEvent>& event) {
        AttributeDictionary attributes = event->attributes() ? *event->attributes() : AttributeDictionary::object();
        if (!attributes.contains("client_event_id")) attributes["client_event_id"] = clientEventId();
        events.push_back(APEvent::make(event->name(), std::move(attributes)));
    }

    void pageview(PageName page) {
        add(APEventBuilder::builder().setName("pageview").addAttribute("page_name", std::string(rawValue(page))).build());
        currentPage_ = std::string(rawValue(page));
    }

    void listen() {
        const std::string urn = track();
        std::int64_t position = 0;
        add(APEventBuilder::builder()
                .setName("audio")
                .addAttributes(AttributeDictionary{{"action", "play"},
                                                   {"track", urn},
                                                   {"track_urn", urn},
                                                   {"client_event_id", clientEventId()},
                                                   {"playhead_position", position},
                                                   {"page_name", currentPage_},
                                                   {"trigger", "manual"}})
                .build());
        add(APEventBuilder::builder()
                .setName("audio_performance")
                .addAttributes(AttributeDictionary{{"latency", 80 + static_cast<int>(pick(400))},
                                                   {"track_urn", urn},
                                                   {"protocol", "hls"},
                                                   {"type", "time_to_play"}})
                .build());
        position += 30000 + static_cast<std::int64_t>(pick(150000));
        const bool paused = pick(3) == 0;
        add(APEventBuilder::builder()
                .setName("audio")
                .addAttributes(AttributeDictionary{{"action", "pause"},
                                                   {"track", urn},
                                                   {"track_urn", urn},
                                                   {"client_event_id", clientEventId()},
                                                   {"playhead_position", position},
                                                   {"pause_reason", paused ? "pause" : "track_finished"},
                                                   {"page_name", currentPage_}})
                .build());
        lastTrack_ = urn;
    }

    void engage() {
        switch (pick(6)) {
            case 0:
                add(APEventBuilder::builder()
                        .setName("like")
                        .addAttributes(AttributeDictionary{{"track_urn", lastTrack_}, {"page_name", currentPage_}})
                        .build());
                break;
            case 1:
                add(APEventBuilder::builder()
                        .setName("repost")
                        .addAttributes(AttributeDictionary{{"track_urn", lastTrack_}, {"page_name", currentPage_}})
                        .build());
                break;
            case 2:
                add(APEventBuilder::builder()
                        .setName("share")
                        .addAttributes(AttributeDictionary{
                            {"track_urn", lastTrack_}, {"page_name", currentPage_}, {"share_target", "copy_link"}})
                        .build());
                break;
            case 3:
                add(APEventBuilder::builder()
                        .click(PageName::player, "player_controls", "shuffle")
                        .addAttribute("click_object", lastTrack_)
                        .build());
                break;
            case 4:
                add(APEventBuilder::builder()
                        .setName("list_view_interaction")
                        .addAttributes(AttributeDictionary{{"page_name", currentPage_}, {"action", "scroll"}})
                        .build());
                break;
            default:
                add(APEventBuilder::builder()
                        .setName("impression")
                        .addAttributes(AttributeDictionary{{"impression_name", "recommended_track"},
                                                           {"impression_object", track()},
                                                           {"page_name", currentPage_}})
                        .build());
        }
    }

    void search() {
        static const char* queries[] = {"lofi", "ambient piano", "drum and bass", "field recordings", "jazz"};
        add(APEventBuilder::builder()
                .setName("search")
                .addAttributes(AttributeDictionary{{"query", queries[pick(5)]}, {"page_name", "search:main"}})
                .build());
        pageview(PageName::searchResults);
    }

    void advert() {
        const std::string ad = "quillarbor:ads:" + std::to_string(500 + pick(500));
        add(APEventBuilder::builder()
                .setName("ad_request")
                .addAttributes(AttributeDictionary{{"ad_urn", ad}, {"monetization_type", "audio_ad"}})
                .build());
        add(APEventBuilder::builder()
                .setName("ad_delivery")
                .addAttributes(AttributeDictionary{{"ad_urn", ad}, {"monetization_type", "audio_ad"}})
                .build());
        add(APEventBuilder::builder()
                .setName("rich_media_stream")
                .addAttributes(AttributeDictionary{{"ad_urn", ad}, {"action", "play"}})
                .build());
    }

    void follow() {
        add(APEventBuilder::builder()
                .setName("foreground")
                .addAttributes(AttributeDictionary{{"page_name", currentPage_}, {"referrer", "launcher"}})
                .build());
        add(APEventBuilder::builder()
                .setName(pick(2) == 0 ? "unlike" : "unrepost")
                .addAttributes(AttributeDictionary{{"track_urn", lastTrack_}, {"page_name", currentPage_}})
                .build());
    }

private:
    std::mt19937_64 random_;
    std::uint64_t eventCounter_ = 0;
    std::string currentPage_ = "stream:main";
    std::string lastTrack_ = "quillarbor:tracks:1";
};

}  // namespace

std::vector<std::shared_ptr<const APEventDescripting>> makeDemoSession(std::size_t count, std::uint64_t seed) {
    static const PageName pages[] = {PageName::stream,    PageName::discover, PageName::likes,
                                     PageName::trackPage, PageName::player,   PageName::userProfile};
    SessionWriter writer(seed);
    writer.follow();  // the app comes to the foreground
    while (writer.events.size() < count) {
        writer.pageview(pages[writer.pick(std::size(pages))]);
        writer.listen();
        writer.engage();
        if (writer.pick(4) == 0) writer.search();
        if (writer.pick(6) == 0) writer.advert();
        if (writer.pick(10) == 0) writer.follow();
    }
    writer.events.resize(count);
    return std::move(writer.events);
}

}  // namespace kt::tool
