#include "KTAnalytics/TrackingArchitecture/EventSender.h"

#include "KTAnalytics/Platform/Fatal.h"
#include "KTAnalytics/Segment/SegmentWrapper.h"
#include "KTAnalytics/TrackingArchitecture/EventBroker.h"

namespace kt {

EventSender::EventSender() : EventSender(std::make_shared<EventBroker>(SegmentWrapper::shared())) {}

EventSender::EventSender(std::shared_ptr<EventBrokering> eventBroker) : eventBroker_(std::move(eventBroker)) {
    KT_PARAMETER_ASSERT(eventBroker_);
}

void EventSender::flush() { eventBroker_->flush(); }

void EventSender::identify(const std::string& userId, const AttributeValue& traits) {
    // Handed on by reference: the client refuses (and counts) traits nested too deeply
    // before anything copies them.
    if (traits.is_object())
        eventBroker_->identify(userId, traits);
    else
        eventBroker_->identify(userId, AttributeValue::object());
}

TrackingProperties uniqueProperties(TrackingProperties pairs) {
    // An event has a handful of keys: comparing each with those before it costs less than
    // building a set on the caller's thread for every event.
    for (auto it = pairs.begin(); it != pairs.end(); ++it)
        for (auto before = pairs.begin(); before != it; ++before)
            if (before->first == it->first) fatalError("Duplicate property key '" + it->first + "' in a tracking event");
    return pairs;
}

void EventSender::send(std::string name, std::int64_t version, TrackingProperties pairs,
                       std::vector<std::string> thirdParties) const {
    eventBroker_->track(TrackingEvent{std::move(name), version, uniqueProperties(std::move(pairs)),
                                      std::move(thirdParties)});
}

}  // namespace kt
