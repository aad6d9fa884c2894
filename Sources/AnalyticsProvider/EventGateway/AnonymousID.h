#pragma once
// The anonymous ids a gateway event can carry as "anonymous_id". The composition root
// picks one of them as the attributes provider's anonymous-id source.

#include <functional>
#include <optional>
#include <string>

namespace kt::AnonymousID {

/// The device-scoped id of this application: the per-vendor device identifier, as an
/// upper-case UUID string. Computed once per process on first use (thread-safely) and
/// never changed afterwards, even if the platform would later give one; absent when the
/// platform has no identifier. By default it comes from the machine id, keyed with the
/// application id of the installed environment (KTEnvironment::sharedInstance()).
std::optional<std::string> quillarborAnonymousId();

/// Replaces where `quillarborAnonymousId` comes from. Only effective before its first use;
/// returns false (and changes nothing) once the id has been computed.
bool setQuillarborAnonymousIdSource(std::function<std::optional<std::string>()> source);

/// The anonymous id held by the product-analytics client of the tracking plan, read on
/// every call. That client is built by the composition root, which hands its getter in
/// with `setSegmentAnonymousIdSource`; until then this is the empty string.
std::string segmentAnonymousId();

/// Sets (or, with an empty function, removes) the getter behind `segmentAnonymousId`.
void setSegmentAnonymousIdSource(std::function<std::string()> source);

}  // namespace kt::AnonymousID
