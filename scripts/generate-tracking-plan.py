#!/usr/bin/env python3
"""Generates the tracking plan's C++ from its one table (TrackingPlan.txt).

Usage: generate-tracking-plan.py TABLE OUTPUT_DIR

Writes into OUTPUT_DIR/TrackingArchitecture/Plan/:
  TrackingPlanEnumerations.h / .cpp   the enumerations, their description tables
  EventSendingOperations.inc          the pure virtual operations of EventSending
  EventSenderOperations.inc / .cpp    EventSender's overrides, one `send` each
  PlanCall.cpp                        the operations called by name with JSON arguments
  TrackingPlanCatalogueData.cpp       the plan as data, for the tool
  TrackingPlanTypedCalls.inc          every typed operation called from a table, for tests
  TrackingPlanEnumerationRows.inc     every enumeration as a row of a test's table
Files whose text did not change are left untouched, so nothing recompiles needlessly.
"""

import keyword
import os
import re
import sys

PLAIN_KINDS = {"string", "bool", "number", "map", "maps", "strings"}
CPP_KEYWORDS = {
    "and", "auto", "bool", "break", "case", "catch", "char", "class", "const", "continue",
    "default", "delete", "do", "double", "else", "enum", "explicit", "export", "extern",
    "false", "float", "for", "friend", "goto", "if", "inline", "int", "long", "mutable",
    "namespace", "new", "not", "operator", "or", "private", "protected", "public",
    "register", "return", "short", "signed", "sizeof", "static", "struct", "switch",
    "template", "this", "throw", "true", "try", "typedef", "typename", "union",
    "unsigned", "using", "virtual", "void", "volatile", "while", "xor",
}


class PlanError(Exception):
    pass


def parse(path):
    operations, enumerations = [], {}
    current = None  # ("op", dict) or ("enum", name)
    with open(path, encoding="utf-8") as table:
        for number, raw in enumerate(table, 1):
            line = raw.rstrip("\n")
            where = f"{path}:{number}"
            if not line.strip() or line.lstrip().startswith("#"):
                continue
            if not line[0].isspace():
                if line.startswith("enum "):
                    name = line[5:].strip()
                    if not re.fullmatch(r"[A-Z]\w*", name) or name in enumerations:
                        raise PlanError(f"{where}: bad or repeated enumeration {name!r}")
                    enumerations[name] = []
                    current = ("enum", name)
                    continue
                m = re.fullmatch(r'(\w+)\s+"([^"]+)"(?:\s+version\s+(\d+))?(?:\s+thirdParties\s+(.+))?', line)
                if not m:
                    raise PlanError(f"{where}: not an operation line: {line!r}")
                name, event, version, third = m.groups()
                op = {
                    "name": name,
                    "event": event,
                    "version": int(version or 1),
                    "thirdParties": [t.strip() for t in third.split(",")] if third else [],
                    "properties": [],
                }
                operations.append(op)
                current = ("op", op)
                continue
            if current is None:
                raise PlanError(f"{where}: indented line outside an operation or enumeration")
            if current[0] == "enum":
                strings = re.findall(r'"([^"]*)"', line)
                if not strings:
                    raise PlanError(f"{where}: expected quoted strings")
                enumerations[current[1]].extend(strings)
                continue
            m = re.fullmatch(r"\s+(\w+)\s+(\w+)(\?)?", line)
            if not m:
                raise PlanError(f"{where}: not a property line: {line!r}")
            key, kind, optional = m.groups()
            current[1]["properties"].append({"key": key, "kind": kind, "optional": bool(optional)})
    check(operations, enumerations, path)
    return operations, enumerations


def check(operations, enumerations, path):
    names = [op["name"] for op in operations]
    if len(set(names)) != len(names):
        raise PlanError(f"{path}: an operation is listed twice")
    used = set()
    for op in operations:
        keys = [p["key"] for p in op["properties"]]
        if len(set(keys)) != len(keys):
            raise PlanError(f"{path}: {op['name']} repeats a key")
        for p in op["properties"]:
            if p["kind"] in PLAIN_KINDS or p["kind"] in ("urn", "urns"):
                continue
            if p["kind"] not in enumerations:
                raise PlanError(f"{path}: {op['name']}.{p['key']}: unknown kind {p['kind']!r}")
            used.add(p["kind"])
    for name, strings in enumerations.items():
        if not strings:
            raise PlanError(f"{path}: enumeration {name} has no strings")
        if len(set(strings)) != len(strings):
            raise PlanError(f"{path}: enumeration {name} repeats a string")
        if name not in used:
            raise PlanError(f"{path}: enumeration {name} is used by no property")


def camel(key):
    words = key.split("_")
    name = words[0] + "".join(w[:1].upper() + w[1:] for w in words[1:])
    return name + "_" if name in CPP_KEYWORDS or keyword.iskeyword(name) else name


def case_name(text):
    words = [w for w in re.split(r"[^A-Za-z0-9]+", text) if w]
    first = words[0]
    # "CTA" → "cta", "likedTracks" stays as written.
    first = first.lower() if first.isupper() else first[0].lower() + first[1:]
    name = first + "".join(w[0].upper() + w[1:] for w in words[1:])
    if name[0].isdigit():
        name = "_" + name
    return name + "_" if name in CPP_KEYWORDS else name


def case_names(enum, strings):
    names = [case_name(s) for s in strings]
    if len(set(names)) != len(names):
        raise PlanError(f"enumeration {enum}: two strings make one case name")
    return names


def cpp_string(text):
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'


def parameter_type(p):
    kind, optional = p["kind"], p["optional"]
    base = {
        "string": ("const std::string&", "const std::optional<std::string>&"),
        "bool": ("bool", "std::optional<bool>"),
        "number": ("PlanNumber", "std::optional<PlanNumber>"),
        "map": ("const AttributeValue&", "const std::optional<AttributeValue>&"),
        "maps": ("const AttributeValue&", "const std::optional<AttributeValue>&"),
        "strings": ("const AttributeValue&", "const std::optional<AttributeValue>&"),
        "urn": ("const Urn&", "const std::optional<Urn>&"),
        "urns": ("const std::vector<Urn>&", "const std::optional<std::vector<Urn>>&"),
    }.get(kind, (kind, f"std::optional<{kind}>"))
    return base[1] if optional else base[0]


def parameters(op):
    return ", ".join(f"{parameter_type(p)} {camel(p['key'])}" for p in op["properties"])


def wire_kind(p):
    if p["kind"] in PLAIN_KINDS:
        return "plain"
    return {"urn": "urn", "urns": "urn list"}.get(p["kind"], p["kind"])


HEADER = "// Generated from TrackingPlan.txt by scripts/generate-tracking-plan.py; edit the table, not this.\n"


def enumerations_header(enumerations):
    out = [HEADER, "#pragma once\n",
           "#include <cstdint>\n#include <string>\n",
           '#include "KTAnalytics/TrackingArchitecture/Plan/PlanEnumeration.h"\n',
           "namespace kt {\n"]
    for name, strings in enumerations.items():
        cases = case_names(name, strings)
        out.append(f"enum class {name} : std::int64_t {{ {', '.join(cases)} }};")
        out.append(f"/// The case's string; a value outside the cases stops the process.")
        out.append(f"std::string description({name} value);")
        out.append(f"template <> struct PlanEnumerationTraits<{name}> {{")
        out.append(f'    static constexpr std::string_view name = "{name}";')
        out.append(f"    static constexpr std::int64_t caseCount = {len(strings)};")
        out.append("};\n")
    out.append("}  // namespace kt\n")
    return "\n".join(out)


def catalogue_order(items, name=lambda item: item):
    """Sorted by name as std::string_view compares, so that lookups can search in halves."""
    return sorted(items, key=lambda item: name(item).encode())


def enumerations_source(enumerations):
    # The strings live once, in the catalogue's data; each description indexes into it.
    index = {name: i for i, name in enumerate(catalogue_order(enumerations))}
    out = [HEADER, '#include "KTAnalytics/TrackingArchitecture/Plan/TrackingPlanEnumerations.h"\n',
           "#include <string>\n", '#include "KTAnalytics/Platform/Fatal.h"',
           '#include "KTAnalytics/TrackingArchitecture/Plan/TrackingPlanCatalogue.h"\n', "namespace kt {\n",
           "namespace {",
           "std::string describe(std::size_t index, std::int64_t raw) {",
           "    const tracking::PlanEnumerationInfo& enumeration = tracking::planEnumerations()[index];",
           "    if (raw < 0 || raw >= static_cast<std::int64_t>(enumeration.descriptions.size()))",
           '        fatalError(std::string(enumeration.name) + " has no case with raw value " + std::to_string(raw));',
           "    return std::string(enumeration.descriptions[static_cast<std::size_t>(raw)]);",
           "}",
           "}  // namespace\n"]
    for name in enumerations:
        out.append(f"std::string description({name} value) {{")
        out.append(f"    return describe({index[name]}, static_cast<std::int64_t>(value));")
        out.append("}\n")
    out.append("}  // namespace kt\n")
    return "\n".join(out)


def sending_operations(operations):
    out = [HEADER]
    for op in operations:
        out.append(f"virtual void {op['name']}({parameters(op)}) = 0;")
    return "\n".join(out) + "\n"


def sender_operations_declarations(operations):
    out = [HEADER]
    for op in operations:
        out.append(f"void {op['name']}({parameters(op)}) override;")
    return "\n".join(out) + "\n"


def sender_operations_source(operations, enumerations):
    out = [HEADER, '#include "KTAnalytics/TrackingArchitecture/EventSender.h"\n',
           '#include "KTAnalytics/TrackingArchitecture/PropertyValue.h"\n', "namespace kt {\n",
           "// Without a description the value would be sent as its number."]
    out += [f"static_assert(tracking::PlanEnumeration<{name}>);" for name in enumerations]
    out.append("")
    for op in operations:
        pairs = ", ".join(f'{{"{p["key"]}", tracking::propertyValue({camel(p["key"])})}}' for p in op["properties"])
        third = ", {" + ", ".join(cpp_string(t) for t in op["thirdParties"]) + "}" if op["thirdParties"] else ""
        out.append(f"void EventSender::{op['name']}({parameters(op)}) {{")
        out.append(f'    send("{op["event"]}", {op["version"]}, {{{pairs}}}{third});')
        out.append("}\n")
    out.append("}  // namespace kt\n")
    return "\n".join(out)


READERS = {
    "string": "string", "bool": "boolean", "number": "number", "map": "map", "maps": "maps",
    "strings": "strings", "urn": "urn", "urns": "urns",
}


def plan_call_source(operations):
    out = [HEADER, '#include "KTAnalytics/TrackingArchitecture/Plan/PlanCall.h"\n',
           "#include <algorithm>\n#include <iterator>\n",
           '#include "KTAnalytics/TrackingArchitecture/EventSending.h"',
           '#include "KTAnalytics/TrackingArchitecture/Plan/Detail/ArgumentReader.h"\n',
           "namespace kt::tracking {\n", "namespace {\n",
           "using Call = void (*)(EventSending&, detail::ArgumentReader&);\n"]
    for op in operations:
        out.append(f"void {op['name']}(EventSending& sender, detail::ArgumentReader& read) {{")
        arguments = []
        for p in op["properties"]:
            var = camel(p["key"])
            prefix = "optional" if p["optional"] else ""
            if p["kind"] in READERS:
                reader = READERS[p["kind"]]
                reader = prefix + reader[0].upper() + reader[1:] if prefix else reader
                out.append(f'    auto {var} = read.{reader}("{p["key"]}");')
            else:
                reader = "optionalEnumeration" if p["optional"] else "enumeration"
                out.append(f'    auto {var} = read.{reader}<{p["kind"]}>("{p["key"]}");')
            # Required urns are read as optionals (a Urn has no empty value) and unwrapped
            # once every argument has been read.
            arguments.append(f"*{var}" if p["kind"] in ("urn", "urns") and not p["optional"] else var)
        out.append(f"    if (read.finish()) sender.{op['name']}({', '.join(arguments)});")
        out.append("}\n")
    out.append("constexpr std::pair<std::string_view, Call> kOperations[] = {")
    for op in catalogue_order(operations, lambda o: o["name"]):
        out.append(f'    {{"{op["name"]}", &{op["name"]}}},')
    out.append("};\n")
    out.append("}  // namespace\n")
    out.append("""std::optional<PlanCallError> callOperation(EventSending& sender, std::string_view operation,
                                          const AttributeValue& arguments) {
    const auto found = std::lower_bound(std::begin(kOperations), std::end(kOperations), operation,
                                        [](const auto& entry, std::string_view name) { return entry.first < name; });
    if (found == std::end(kOperations) || found->first != operation)
        return PlanCallError{std::string(operation), "", "unknown operation '" + std::string(operation) + "'"};
    detail::ArgumentReader read(operation, arguments);
    found->second(sender, read);
    return read.error();
}
""")
    out.append("}  // namespace kt::tracking\n")
    return "\n".join(out)


KINDS = {
    "string": "string", "bool": "boolean", "number": "number", "map": "map", "maps": "maps",
    "strings": "strings", "urn": "urn", "urns": "urns",
}


def catalogue_source(operations, enumerations):
    operations = catalogue_order(operations, lambda o: o["name"])
    enumerations = {name: enumerations[name] for name in catalogue_order(enumerations)}
    out = [HEADER, '#include "KTAnalytics/TrackingArchitecture/Plan/TrackingPlanCatalogue.h"\n',
           "#include <algorithm>\n", "namespace kt::tracking {\n", "namespace {\n",
           "using K = PropertyKind;\n"]
    for index, op in enumerate(operations):
        if op["properties"]:
            rows = []
            for p in op["properties"]:
                kind = KINDS.get(p["kind"], "enumeration")
                enum = cpp_string(p["kind"]) if kind == "enumeration" else '""'
                rows.append(f'{{"{p["key"]}", K::{kind}, {enum}, {"true" if p["optional"] else "false"}}}')
            out.append(f"constexpr PlanProperty properties{index}[] = {{{', '.join(rows)}}};")
        if op["thirdParties"]:
            out.append(f"constexpr std::string_view thirdParties{index}[] = {{{', '.join(cpp_string(t) for t in op['thirdParties'])}}};")
    out.append("\nconstexpr PlanOperation kOperations[] = {")
    for index, op in enumerate(operations):
        props = f"properties{index}" if op["properties"] else "{}"
        third = f"thirdParties{index}" if op["thirdParties"] else "{}"
        out.append(f'    {{"{op["name"]}", "{op["event"]}", {op["version"]}, {third}, {props}}},')
    out.append("};\n")
    for index, (name, strings) in enumerate(enumerations.items()):
        out.append(f"constexpr std::string_view strings{index}[] = {{{', '.join(cpp_string(s) for s in strings)}}};")
    out.append("\nconstexpr PlanEnumerationInfo kEnumerations[] = {")
    for index, name in enumerate(enumerations):
        out.append(f'    {{"{name}", strings{index}}},')
    out.append("};\n")
    out.append("}  // namespace\n")
    out.append("std::span<const PlanOperation> planOperations() { return kOperations; }\n")
    out.append("std::span<const PlanEnumerationInfo> planEnumerations() { return kEnumerations; }\n")
    out.append("}  // namespace kt::tracking\n")
    return "\n".join(out)


def typed_calls(operations):
    """Rows {operation, call} whose call passes each argument from a test's source of values."""
    out = [HEADER]
    for op in operations:
        arguments = []
        for p in op["properties"]:
            if p["kind"] in READERS:
                method = READERS[p["kind"]]
                method = "optional" + method[0].upper() + method[1:] if p["optional"] else method
                arguments.append(f'values.{method}("{p["key"]}")')
            else:
                method = "optionalEnumeration" if p["optional"] else "enumeration"
                arguments.append(f'values.template {method}<{p["kind"]}>("{p["key"]}")')
        out.append(f'{{"{op["name"]}", [](EventSending& sender, const auto& values) {{ '
                   f'sender.{op["name"]}({", ".join(arguments)}); }}}},')
    return "\n".join(out) + "\n"


def enumeration_rows(enumerations):
    """Rows {name, check} instantiating a test's check for every enumeration."""
    return HEADER + "".join(f'{{"{name}", &checkEnumeration<{name}>}},\n' for name in enumerations)


def write(path, text):
    try:
        with open(path, encoding="utf-8") as existing:
            if existing.read() == text:
                return
    except FileNotFoundError:
        pass
    with open(path + ".tmp", "w", encoding="utf-8") as out:
        out.write(text)
    os.replace(path + ".tmp", path)


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    try:
        operations, enumerations = parse(sys.argv[1])
    except PlanError as error:
        sys.exit(f"generate-tracking-plan: {error}")
    folder = os.path.join(sys.argv[2], "TrackingArchitecture", "Plan")
    os.makedirs(folder, exist_ok=True)
    outputs = {
        "TrackingPlanEnumerations.h": enumerations_header(enumerations),
        "TrackingPlanEnumerations.cpp": enumerations_source(enumerations),
        "EventSendingOperations.inc": sending_operations(operations),
        "EventSenderOperations.inc": sender_operations_declarations(operations),
        "EventSenderOperations.cpp": sender_operations_source(operations, enumerations),
        "PlanCall.cpp": plan_call_source(operations),
        "TrackingPlanCatalogueData.cpp": catalogue_source(operations, enumerations),
        "TrackingPlanTypedCalls.inc": typed_calls(operations),
        "TrackingPlanEnumerationRows.inc": enumeration_rows(enumerations),
    }
    for name, text in outputs.items():
        write(os.path.join(folder, name), text)


if __name__ == "__main__":
    main()
