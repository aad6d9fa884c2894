#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APSerializedEvent.h"

#include "KTAnalytics/Platform/Fatal.h"
#include "KTAnalytics/Platform/KeyedArchive.h"

namespace kt {

namespace {
constexpr std::string_view kFileScheme = "file://";
}

APSerializedEvent::APSerializedEvent(std::shared_ptr<const APEvent> event, std::filesystem::path eventURL)
    : event_(std::move(event)), eventURL_(std::move(eventURL)) {
    KT_PARAMETER_ASSERT_TEXT(event_ != nullptr, "event");
    KT_PARAMETER_ASSERT_TEXT(!eventURL_.empty(), "eventURL");
    // The file is named by the digest of the event's bytes, so the event's name and the
    // path already tell handles apart. Hashing the attributes as well would cost time on
    // every set operation, and nlohmann's hash depends on how a number happens to be held
    // (a decoded 1 is unsigned, a built one signed) while equality does not.
    hash_ = std::hash<std::string>{}(event_->name()) ^ std::hash<std::string>{}(eventURL_.native());
}

bool APSerializedEvent::operator==(const APSerializedEvent& other) const {
    if (this == &other) return true;
    return eventURL_ == other.eventURL_ && event_->isEqual(other.event_.get());
}

std::string APSerializedEvent::description() const {
    return std::string("<") + kClassName + ": self.event=" + event_->description() + ", self.eventURL=" +
           std::string(kFileScheme) + eventURL_.native() + ">";
}

void APSerializedEvent::encodeWithCoder(KeyedArchiver& coder) const {
    KeyedArchiver event(APEvent::kClassName);
    event_->encodeWithCoder(event);
    coder.encodeObject(event, "_event");
    coder.encodeString(std::string(kFileScheme) + eventURL_.native(), "_eventURL");
}

std::optional<APSerializedEvent> APSerializedEvent::decode(const KeyedUnarchiver& coder) {
    std::shared_ptr<const APEvent> event;
    if (auto nested = coder.decodeObject("_event"); nested && nested->className() == APEvent::kClassName)
        event = APEvent::decode(*nested);
    std::filesystem::path url;
    if (auto text = coder.decodeString("_eventURL")) {
        std::string_view view(*text);
        if (view.starts_with(kFileScheme)) view.remove_prefix(kFileScheme.size());
        url = std::string(view);
    }
    return APSerializedEvent(std::move(event), std::move(url));
}

}  // namespace kt
