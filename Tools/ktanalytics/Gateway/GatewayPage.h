#pragma once
// The gateway's live web page: its routes are added here, by the one call the endpoints make
// while installing theirs.

#include <httplib.h>

#include "Gateway/Page/LiveStreams.h"

namespace kt::gateway {

class GatewayStore;

/// Adds the page's routes to `server`: `GET /` (the page) and its files, `GET /live` (what
/// arrives, as server-sent events, at most `limits.maximumStreams` at once, 503 beyond) and
/// `GET /live/recent?limit=N` (the newest stored items, newest first, as the stream gives
/// them). Called once by GatewayEndpoints::install, after the gateway's own GET routes and
/// before the catch-all that answers 404 to bodies sent elsewhere, so a page route takes
/// precedence over that catch-all but not over `/stats`, `/events`, `/messages`, `/tracking`,
/// `/violations` or `/track/...`. The streams are fed by an arrival observer on `store`, which
/// must outlive `server`.
void registerPageRoutes(httplib::Server& server, GatewayStore& store, LiveLimits limits = {});

}  // namespace kt::gateway
