// `ktanalytics gateway`: the development event gateway as a server of its own, until
// SIGINT or SIGTERM.

#include <CLI/CLI.hpp>

#include <chrono>
#include <csignal>
#include <iostream>
#include <memory>

#include <pthread.h>

#include "Commands/Commands.h"
#include "Gateway/DevelopmentGateway.h"

namespace kt::tool {

namespace {

struct GatewayOptions {
    std::string host = "127.0.0.1";
    int port = 0;
    std::string db;
    double failRate = 0.0;
    int failStatus = 503;
    std::uint64_t seed = 0;
    bool seedGiven = false;
    int delayMs = 0;
    std::size_t maxBodyMiB = gateway::GatewayConfiguration{}.maxBodyBytes >> 20;
    std::size_t maxRawMiB = gateway::GatewayConfiguration{}.maxRawBytes >> 20;
    int requestDeadlineS = static_cast<int>(gateway::kDefaultRequestDeadline.count());
    bool strict = false;
};

int runGateway(const GatewayOptions& options) {
    // The signals are taken synchronously by this thread; blocking them before the server
    // starts its threads keeps any of those from being picked to run a default handler.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigset_t previous;
    pthread_sigmask(SIG_BLOCK, &signals, &previous);

    gateway::GatewayConfiguration configuration;
    configuration.host = options.host;
    configuration.port = options.port;
    configuration.dbPath = options.db;
    configuration.failRate = options.failRate;
    configuration.failStatus = options.failStatus;
    if (options.seedGiven) configuration.seed = options.seed;
    configuration.delay = std::chrono::milliseconds(options.delayMs);
    configuration.log = &std::cout;
    configuration.maxBodyBytes = options.maxBodyMiB << 20;
    configuration.maxRawBytes = options.maxRawMiB << 20;
    configuration.requestDeadline = std::chrono::seconds(options.requestDeadlineS);
    configuration.strict = options.strict;

    int exitCode = 0;
    {
        gateway::DevelopmentGateway server(configuration);
        if (!server.start()) {
            std::cerr << "ktanalytics gateway: " << server.lastError() << std::endl;
            exitCode = 1;
        } else {
            int received = 0;
            sigwait(&signals, &received);
            server.stop();
            std::cout << "stopped (" << (received == SIGINT ? "SIGINT" : "SIGTERM") << ")" << std::endl;
        }
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return exitCode;
}

}  // namespace

void registerGatewayCommand(CLI::App& app, int& exitCode) {
    auto options = std::make_shared<GatewayOptions>();
    CLI::App* command = app.add_subcommand(
        "gateway", "Run the development event gateway: stores uploads in SQLite and prints them live");
    command->add_option("--host", options->host, "Address to listen on")->capture_default_str();
    command->add_option("--port", options->port, "Port to listen on; 0 picks a free one")
        ->check(CLI::Range(0, 65535))
        ->capture_default_str();
    command->add_option("--db", options->db, "SQLite file for what is received (default: in memory)");
    command->add_option("--fail-rate", options->failRate, "Share of requests answered with --fail-status")
        ->check(CLI::Range(0.0, 1.0))
        ->capture_default_str();
    command->add_option("--fail-status", options->failStatus, "Status of an injected failure")
        ->check(CLI::Range(100, 599))
        ->capture_default_str();
    command->add_option("--seed", options->seed, "Seed of the failure draw (default: random)")
        ->each([options](const std::string&) { options->seedGiven = true; });
    command->add_option("--delay", options->delayMs, "Milliseconds added before answering each upload")
        ->check(CLI::Range(0, 600'000))
        ->capture_default_str();
    command->add_option("--max-body-mib", options->maxBodyMiB, "Largest upload body taken, in MiB (413 beyond)")
        ->check(CLI::Range(1, 4096))
        ->capture_default_str();
    command->add_option("--max-raw-mib", options->maxRawMiB, "Largest upload after gunzip, in MiB (413 beyond)")
        ->check(CLI::Range(1, 4096))
        ->capture_default_str();
    command->add_option("--request-deadline-s", options->requestDeadlineS,
                        "Seconds a request (headers and body) may take to arrive (408 beyond)")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
    command->add_flag("--strict", options->strict,
                      "Refuse (400) an upload or batch with an item that breaks the tracking plan or the event "
                      "rules, naming it and the rule; by default such items are stored and counted");
    command->callback([options, &exitCode] { exitCode = runGateway(*options); });
}

}  // namespace kt::tool
