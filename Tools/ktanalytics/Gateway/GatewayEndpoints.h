#pragma once
// The gateway's HTTP side: its routes, the injected failures and delays, the reading of
// request bodies within their limits, and the answers. What is stored and counted is the
// store's; this side decides what reaches it.

#include <memory>

#include "Gateway/DevelopmentGateway.h"
#include "Gateway/GatewayServer.h"
#include "Gateway/GatewayStore.h"

namespace kt::gateway {

class GatewayEndpoints {
public:
    GatewayEndpoints(const GatewayConfiguration& configuration, GatewayStore& store, ErrorNote& errors);
    ~GatewayEndpoints();
    GatewayEndpoints(const GatewayEndpoints&) = delete;
    GatewayEndpoints& operator=(const GatewayEndpoints&) = delete;

    /// Installs every route and the server's settings; once, before the server listens.
    void install();
    HTTPServer& server();
    /// A line of the live log, when the configuration has one.
    void logLine(const std::string& line);

private:
    struct Handlers;
    std::unique_ptr<Handlers> handlers_;
};

}  // namespace kt::gateway
