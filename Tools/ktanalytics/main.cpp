// ktanalytics: the command-line face of the SDK.

#include <CLI/CLI.hpp>

#include <iostream>

#include "Commands/Commands.h"

namespace kt::tool {
// Subcommands, one registrar each (defined in Commands/<Name>Command.cpp).
// registrars: begin
// registrars: end
}  // namespace kt::tool

int main(int argc, char** argv) {
    CLI::App app{"ktanalytics: the KTAnalytics SDK at work against a local event gateway", "ktanalytics"};
    app.set_version_flag("--version", std::string("ktanalytics ") + kt::tool::versionString());
    app.require_subcommand(0, 1);

    int exitCode = 0;
    const kt::tool::CommandRegistrar registrars[] = {
        // commands: begin
        &kt::tool::registerDemoCommand,
        &kt::tool::registerGatewayCommand,
        nullptr,
        &kt::tool::registerExperimentsCommand,
        &kt::tool::registerReplayCommand,
        &kt::tool::registerQueueCommand,
        &kt::tool::registerPlanCommand,
        // commands: end
    };
    for (auto registrar : registrars)
        if (registrar) registrar(app, exitCode);

    CLI11_PARSE(app, argc, argv);
    if (app.get_subcommands().empty()) {
        std::cout << app.help();
        return 0;
    }
    return exitCode;
}
