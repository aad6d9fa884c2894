#pragma once
// Every subcommand of the tool lives in its own file under Commands/ and exposes one
// function that adds it to the application. The callback stores the process exit code.

namespace CLI {
class App;
}

namespace kt::tool {

using CommandRegistrar = void (*)(CLI::App& app, int& exitCode);

/// The version printed by `ktanalytics --version`.
const char* versionString();

void registerGatewayCommand(CLI::App& app, int& exitCode);

void registerDemoCommand(CLI::App& app, int& exitCode);

void registerExperimentsCommand(CLI::App& app, int& exitCode);

/// `ktanalytics replay FILE`: tags a JSON-lines file through the gateway pipeline.
void registerReplayCommand(CLI::App& app, int& exitCode);

/// `ktanalytics queue --state-dir DIR`: the events waiting on disk.
void registerQueueCommand(CLI::App& app, int& exitCode);

/// `ktanalytics plan [OPERATION] [--json]`: the tracking plan's operations.
void registerPlanCommand(CLI::App& app, int& exitCode);

}  // namespace kt::tool
