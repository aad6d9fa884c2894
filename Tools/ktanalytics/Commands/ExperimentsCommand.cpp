// `ktanalytics experiments --state-dir DIR [--remote FILE]`: the experiment override menu.
// Overrides picked here land in DIR/defaults.sqlite3, where the A/B manager of any later
// run over the same folder finds them.

#include <CLI/CLI.hpp>

#include <filesystem>
#include <iostream>
#include <memory>

#include <unistd.h>

#include "Commands/Commands.h"
#include "Commands/ExperimentsMenu.h"
#include "KTAnalytics/Firebase/FirebaseABManagerMenuViewController.h"
#include "KTAnalytics/Firebase/JsonFileRemoteConfig.h"
#include "KTAnalytics/Platform/UserDefaults.h"

namespace kt::tool {

namespace {

struct ExperimentsOptions {
    std::string stateDir;
    std::string remoteFile;
};

int runExperiments(const ExperimentsOptions& options) {
    const std::filesystem::path stateDir(options.stateDir);
    std::error_code problem;
    std::filesystem::create_directories(stateDir, problem);
    if (problem) {
        std::cerr << "ktanalytics experiments: cannot create " << stateDir.string() << ": " << problem.message() << '\n';
        return 1;
    }
    std::string error;
    auto defaults = UserDefaults::open(stateDir / "defaults.sqlite3", &error);
    if (!defaults) {
        std::cerr << "ktanalytics experiments: " << error << '\n';
        return 1;
    }

    std::shared_ptr<RemoteConfigProviding> remote;
    if (options.remoteFile.empty()) {
        remote = std::make_shared<JsonFileRemoteConfig>(std::map<std::string, std::string>{});
    } else {
        remote = JsonFileRemoteConfig::load(options.remoteFile, &error);
        if (!remote) {
            std::cerr << "ktanalytics experiments: " << error << '\n';
            return 1;
        }
    }

    auto navigation = std::make_shared<MenuNavigationStack>();
    navigation->push(std::make_shared<FirebaseABManagerMenuViewController>(defaults, remote));
    ExperimentsMenuSession session(navigation);
    if (::isatty(STDIN_FILENO) && ::isatty(STDOUT_FILENO)) return runInteractiveMenu(session, STDIN_FILENO, STDOUT_FILENO);
    return runLineMenu(session, std::cin, std::cout);
}

}  // namespace

void registerExperimentsCommand(CLI::App& app, int& exitCode) {
    auto options = std::make_shared<ExperimentsOptions>();
    CLI::App* command = app.add_subcommand(
        "experiments", "Show the experiments' remote values and pick or clear local overrides");
    command->add_option("--state-dir", options->stateDir, "Folder of the persisted state (created if needed)")
        ->required();
    command->add_option("--remote", options->remoteFile,
                        "JSON file with one object of remote-config key to text (default: no remote values)");
    command->footer(
        "Keys: Up/Down (or k/j) move, Enter or a number chooses, b/Backspace/Left go back, q quits.\n"
        "Without a terminal it reads lines: a number chooses, b goes back, q quits.");
    command->callback([options, &exitCode] { exitCode = runExperiments(*options); });
}

}  // namespace kt::tool
