#include "Gateway/GatewayPage.h"

namespace kt::gateway {

// The page's routes go here (see the header); until it exists the gateway serves none.
void registerPageRoutes(httplib::Server&, GatewayStore&) {}

}  // namespace kt::gateway
