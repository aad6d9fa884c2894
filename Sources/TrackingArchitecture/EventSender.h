#pragma once
// The typed front of the tracking plan: each operation becomes one TrackingEvent handed to
// the broker.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "KTAnalytics/KTFoundation/DependencyRegistry.h"
#include "KTAnalytics/TrackingArchitecture/EventBrokering.h"
#include "KTAnalytics/TrackingArchitecture/EventSending.h"
#include "KTAnalytics/TrackingArchitecture/TrackingEvent.h"

namespace kt {

class EventSender final : public EventSending, public IdentityEventSending {
public:
    /// A broker over the process-wide product-analytics wrapper.
    EventSender();
    explicit EventSender(std::shared_ptr<EventBrokering> eventBroker);

    void flush() override;
    void identify(const std::string& userId, const AttributeValue& traits) override;

    const std::shared_ptr<EventBrokering>& eventBroker() const { return eventBroker_; }

#include "KTAnalytics/TrackingArchitecture/Plan/EventSenderOperations.inc"

    /// What every operation does: the pairs (in the plan's key order) become the event's
    /// properties, and the event goes to the broker. Two pairs with one key are a
    /// programming error and stop the process.
    void send(std::string name, std::int64_t version, TrackingProperties pairs,
              std::vector<std::string> thirdParties = {}) const;

private:
    std::shared_ptr<EventBrokering> eventBroker_;
};

/// Checks that the pairs' keys are unique (fatal otherwise) and returns them as the
/// properties of an event.
TrackingProperties uniqueProperties(TrackingProperties pairs);

namespace DependencyKeys {
/// The sender the host application registers; absent until it does.
inline constexpr DependencyKey<EventSending> eventSender{"eventSender"};
}  // namespace DependencyKeys

}  // namespace kt
