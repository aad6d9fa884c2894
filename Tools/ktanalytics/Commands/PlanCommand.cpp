// `ktanalytics plan`: the tracking plan as the sender knows it, for a person or as JSON.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <iostream>
#include <memory>
#include <string>

#include "Commands/Commands.h"
#include "KTAnalytics/TrackingArchitecture/Plan/TrackingPlanCatalogue.h"

namespace kt::tool {

namespace {

using tracking::PlanOperation;
using tracking::PlanProperty;

std::string keyList(const PlanOperation& operation) {
    std::string keys;
    for (const auto& property : operation.properties) {
        if (!keys.empty()) keys += ", ";
        keys += property.key;
    }
    return keys.empty() ? "(no properties)" : keys;
}

std::string thirdPartyList(const PlanOperation& operation) {
    std::string names;
    for (const auto name : operation.thirdParties) names += (names.empty() ? "" : ", ") + std::string(name);
    return names;
}

void listForPerson(std::ostream& out) {
    for (const auto& operation : tracking::planOperations()) {
        out << operation.name << "  \"" << operation.event << "\"  v" << operation.version;
        if (!operation.thirdParties.empty()) out << "  [" << thirdPartyList(operation) << "]";
        out << "\n    " << keyList(operation) << '\n';
    }
    out << tracking::planOperations().size() << " operations, " << tracking::planEnumerations().size()
        << " enumerations\n";
}

void listAsJson(std::ostream& out) {
    auto operations = nlohmann::ordered_json::array();
    for (const auto& operation : tracking::planOperations()) {
        auto properties = nlohmann::ordered_json::array();
        for (const auto& property : operation.properties) {
            nlohmann::ordered_json entry{{"key", property.key}, {"kind", tracking::wireKind(property)}};
            // An enumeration's strings, raw value 0 first: what its values may be on the wire.
            if (const auto* enumeration = property.kind == tracking::PropertyKind::enumeration
                                              ? tracking::findPlanEnumeration(property.enumeration)
                                              : nullptr) {
                auto cases = nlohmann::ordered_json::array();
                for (const auto text : enumeration->descriptions) cases.push_back(text);
                entry["cases"] = std::move(cases);
            }
            properties.push_back(std::move(entry));
        }
        auto thirdParties = nlohmann::ordered_json::array();
        for (const auto name : operation.thirdParties) thirdParties.push_back(name);
        operations.push_back({{"operation", operation.name},
                              {"event", operation.event},
                              {"version", operation.version},
                              {"thirdParties", std::move(thirdParties)},
                              {"properties", std::move(properties)}});
    }
    out << operations.dump(2) << '\n';
}

std::string_view argumentKind(const PlanProperty& property) {
    switch (property.kind) {
        case tracking::PropertyKind::string: return "string";
        case tracking::PropertyKind::boolean: return "boolean";
        case tracking::PropertyKind::number: return "number";
        case tracking::PropertyKind::map: return "map";
        case tracking::PropertyKind::maps: return "list of maps";
        case tracking::PropertyKind::strings: return "list of strings";
        case tracking::PropertyKind::urn: return "urn";
        case tracking::PropertyKind::urns: return "list of urns";
        case tracking::PropertyKind::enumeration: return property.enumeration;
    }
    return "";
}

void describe(const PlanOperation& operation, std::ostream& out) {
    out << operation.name << "\n  event: \"" << operation.event << "\"\n  version: " << operation.version << '\n';
    if (!operation.thirdParties.empty()) out << "  third parties: " << thirdPartyList(operation) << '\n';
    out << "  properties:" << (operation.properties.empty() ? " none\n" : "\n");
    for (const auto& property : operation.properties) {
        out << "    " << property.key << ": " << argumentKind(property) << (property.optional ? ", optional (null when absent)" : "")
            << '\n';
        if (property.kind != tracking::PropertyKind::enumeration) continue;
        if (const auto* enumeration = tracking::findPlanEnumeration(property.enumeration)) {
            std::int64_t raw = 0;
            for (const auto text : enumeration->descriptions) out << "      " << raw++ << " \"" << text << "\"\n";
        }
    }
}

}  // namespace

void registerPlanCommand(CLI::App& app, int& exitCode) {
    struct Options {
        std::string operation;
        bool json = false;
    };
    auto options = std::make_shared<Options>();
    auto* command = app.add_subcommand("plan", "List the tracking plan: operations, events, versions and property keys");
    command->add_option("operation", options->operation, "Show one operation with its enumerations' strings");
    command->add_flag("--json", options->json, "Every operation as JSON: operation, event, version, thirdParties, properties (an enumeration's with its cases)");
    command->callback([options, &exitCode] {
        if (options->operation.empty()) {
            options->json ? listAsJson(std::cout) : listForPerson(std::cout);
            exitCode = 0;
            return;
        }
        const auto* operation = tracking::findPlanOperation(options->operation);
        if (!operation) {
            std::cerr << "ktanalytics plan: no operation named '" << options->operation
                      << "' in the tracking plan (see `ktanalytics plan`)\n";
            exitCode = 2;
            return;
        }
        describe(*operation, std::cout);
        exitCode = 0;
    });
}

}  // namespace kt::tool
