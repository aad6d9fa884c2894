// `ktanalytics queue`: see QueueCommand.h.

#include "Commands/QueueCommand.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <iostream>
#include <memory>
#include <vector>

#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventSerializer.h"
#include "Commands/Commands.h"
#include "KTAnalytics/Platform/UserDefaults.h"
#include "KTAnalytics/Setup/AnalyticsStack.h"

namespace kt::tool {

namespace fs = std::filesystem;

std::optional<std::size_t> listStoredEvents(const fs::path& stateDirectory, bool countOnly, std::ostream& out,
                                            std::string& error) {
    std::error_code ec;
    if (!fs::is_directory(stateDirectory, ec)) {
        error = stateDirectory.native() + " is not a folder";
        return std::nullopt;
    }
    const fs::path events = AnalyticsStack::eventsDirectory(stateDirectory);
    if (!fs::is_directory(events, ec)) {
        // A state folder no run has stored events in yet.
        if (countOnly) out << 0 << '\n';
        return 0;
    }

    std::vector<fs::path> files;
    for (fs::directory_iterator it(events, ec), end; !ec && it != end; it.increment(ec)) {
        const auto& path = it->path();
        const auto name = path.filename().native();
        if (!name.empty() && name.front() != '.' && path.extension() == std::string(".") + APEventSerializer::kEventExtension)
            files.push_back(path);
    }
    if (countOnly) {
        out << files.size() << '\n';
        return files.size();
    }
    std::sort(files.begin(), files.end());

    // The store is used for reading only: its decoding and its retry counts (with the
    // fallback for file systems without user attributes) are the pipeline's own.
    APEventSerializer store(events, nullptr);
    for (const auto& path : files) {
        nlohmann::ordered_json line;
        line["file"] = path.filename().native();
        line["retry_count"] = store.retryCountForEventAtURL(path);
        if (auto event = store.unarchiveEventAtURL(path)) {
            line["event"] = event->name();
            line["attributes"] = event->attributes() ? nlohmann::ordered_json(*event->attributes()) : nullptr;
        } else {
            line["error"] = "cannot be decoded";
        }
        out << line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << '\n';
    }
    return files.size();
}

void describeDrops(const std::string& what, const std::map<std::string, std::uint64_t>& drops, std::ostream& out) {
    std::uint64_t total = 0;
    std::string reasons;
    for (const auto& [reason, count] : drops) {
        total += count;
        reasons += (reasons.empty() ? "" : ", ") + reason + " " + std::to_string(count);
    }
    out << what << " dropped by earlier runs: " << total;
    if (!reasons.empty()) out << " (" << reasons << ")";
    out << '\n';
}

void describeRecordedDrops(const fs::path& stateDirectory, std::ostream& out) {
    const fs::path path = stateDirectory / AnalyticsStack::kUserDefaultsFile;
    std::error_code ec;
    if (!fs::is_regular_file(path, ec)) return;
    auto defaults = UserDefaults::open(path);
    if (!defaults) return;
    const auto drops = AnalyticsStack::recordedDrops(defaults);
    out << "dropped by earlier runs: " << drops.total();
    std::string reasons;
    for (std::size_t i = 0; i < kEventDropReasonCount; ++i) {
        if (drops.counts[i] == 0) continue;
        if (!reasons.empty()) reasons += ", ";
        reasons += std::string(eventDropReasonKey(static_cast<APEventDropReason>(i))) + " " +
                   std::to_string(drops.counts[i]);
    }
    if (!reasons.empty()) out << " (" << reasons << ")";
    out << '\n';

    std::string error;
    if (auto messages = AnalyticsStack::recordedMessageDrops(stateDirectory, &error))
        describeDrops("product-analytics messages", *messages, out);
    else
        out << "product-analytics messages dropped by earlier runs: unknown (" << error << ")\n";
    describeDrops("promoted URLs", AnalyticsStack::recordedRequestDrops(stateDirectory), out);
}

std::optional<std::size_t> listStoredItems(const fs::path& stateDirectory, std::string_view road, bool countOnly,
                                           std::ostream& out, std::string& error) {
    if (road == "events") return listStoredEvents(stateDirectory, countOnly, out, error);
    std::error_code ec;
    if (!fs::is_directory(stateDirectory, ec)) {
        error = stateDirectory.native() + " is not a folder";
        return std::nullopt;
    }
    std::vector<std::string> lines;
    if (road == "messages") {
        auto messages = AnalyticsStack::storedMessages(stateDirectory, &error);
        if (!messages) {
            error = "the product-analytics queue cannot be read (" + error + ")";
            return std::nullopt;
        }
        lines = std::move(*messages);
    } else {
        for (auto& url : AnalyticsStack::storedURLs(stateDirectory))
            lines.push_back(nlohmann::json{{"url", std::move(url)}}.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
    }
    if (countOnly) out << lines.size() << '\n';
    else
        for (const auto& line : lines) out << line << '\n';
    return lines.size();
}

void registerQueueCommand(CLI::App& app, int& exitCode) {
    struct Options {
        std::string stateDir;
        std::string road = "events";
        bool count = false;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command =
        app.add_subcommand("queue", "List what waits on disk in a state folder: gateway events, product-analytics messages or promoted URLs");
    command->add_option("--state-dir", options->stateDir, "The state folder of a replay or demo run")->required();
    command->add_option("--road", options->road, "What to list: events (one object per file), messages (each as stored) or urls")
        ->check(CLI::IsMember({"events", "messages", "urls"}))
        ->capture_default_str();
    command->add_flag("--count", options->count, "Print only the number of waiting items");
    command->callback([options, &exitCode] {
        std::string error;
        const auto listed = listStoredItems(options->stateDir, options->road, options->count, std::cout, error);
        if (!listed) std::cerr << "ktanalytics queue: " << error << '\n';
        else describeRecordedDrops(options->stateDir, std::cerr);
        std::cout << std::flush;
        exitCode = listed ? 0 : 2;
    });
}

}  // namespace kt::tool
