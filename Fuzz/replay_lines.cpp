// `ktanalytics replay` reads a file a person writes: event lines {"name", "attributes"} and
// tracking-plan lines {"track"}, {"identify"} and {"plan", "args"}. Any file is read line by
// line into events, sent plan events and skipped lines, each non-blank line exactly one of
// them; nothing is sent anywhere (the sender's broker keeps what it gets).
#include <cstddef>
#include <cstdint>
#include <memory>
#include <sstream>
#include <string>
#include <unordered_set>
#include <vector>

#include "Commands/ReplayCommand.h"
#include "KTAnalytics/AnalyticsProvider/APEventNames.h"
#include "KTAnalytics/TrackingArchitecture/EventSender.h"
#include "KTAnalytics/TrackingArchitecture/Plan/PlanCall.h"

namespace {

struct KeepingBroker final : kt::EventBrokering {
    std::size_t tracked = 0, identified = 0;
    void track(kt::TrackingEvent) override { ++tracked; }
    void identify(const std::string&, const kt::AttributeValue&) override { ++identified; }
    void flush() override {}
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::unordered_set<std::string> supported = [] {
        const auto& names = kt::APEventNames().supportedEventNames();
        return std::unordered_set<std::string>(names.begin(), names.end());
    }();
    // The gateway takes a part of the supported names; which part only changes a count.
    static const std::unordered_set<std::string> gateway{"audio", "pageview", "click", "impression"};
    static const auto broker = std::make_shared<KeepingBroker>();
    static kt::EventSender sender(broker);
    broker->tracked = broker->identified = 0;

    std::istringstream input(std::string(reinterpret_cast<const char*>(data), size));
    std::ostringstream diagnostics;
    std::size_t tags = 0;
    // As the command sends each kind of line, on a sender whose broker keeps them.
    const auto result = kt::tool::tagReplayLines(
        input, supported, gateway,
        [&](const std::shared_ptr<const kt::APEventDescripting>& event) {
            if (!event) __builtin_trap();
            ++tags;
        },
        diagnostics, 7, [](kt::tool::TrackingLine&& line) -> std::optional<std::string> {
            using Kind = kt::tool::TrackingLine::Kind;
            if (line.kind == Kind::identify) sender.identify(line.name, line.traits);
            if (line.kind == Kind::track)
                sender.send(std::move(line.name), line.version, std::move(line.properties), std::move(line.thirdParties));
            if (line.kind == Kind::plan)
                if (auto error = kt::tracking::callOperation(sender, line.name, line.traits)) return error->message;
            return std::nullopt;
        });
    if (result.lines != result.tagged + result.tracked + result.skipped || result.tagged != tags ||
        result.notForGateway > result.tagged || broker->tracked + broker->identified != result.tracked)
        __builtin_trap();
    return 0;
}
