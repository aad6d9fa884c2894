#pragma once
// The place of the gateway's live web page: its routes are added here, by the one call the
// endpoints make while installing theirs.

#include <httplib.h>

namespace kt::gateway {

class GatewayStore;

/// Adds the page's routes to `server`. Called once by GatewayEndpoints::install, after the
/// gateway's own GET routes and before the catch-all that answers 404 to bodies sent
/// elsewhere, so a page route takes precedence over that catch-all but not over `/stats`,
/// `/events`, `/messages`, `/tracking`, `/violations` or `/track/...`. What the page shows
/// live comes from `store`: its listings, its counts, and the arrival observers. A POST
/// route must take an httplib::ContentReader, as `/reset` does: httplib tries those before
/// plain handlers, so a plain one would lose to the catch-all.
/// There is no page yet: this adds no route.
void registerPageRoutes(httplib::Server& server, GatewayStore& store);

}  // namespace kt::gateway
