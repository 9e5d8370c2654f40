// kelvo modules / kelvo config: what the loaded modules offer.
#include <iostream>

#include "cli_common.h"
#include "commands.h"

namespace kelvo::cli {
namespace {

const char* KindName(ENTRYKIND kind) {
    switch (kind) {
        case ENTRYKIND::REGISTRY:
            return "registry";
        case ENTRYKIND::REGISTRYMEMBER:
            return "object";
        case ENTRYKIND::CLASS:
            return "class";
        case ENTRYKIND::COMPONENT:
            return "component";
        case ENTRYKIND::DATATYPE:
            return "data type";
        case ENTRYKIND::CONFIGVARIABLE:
            return "configuration variable";
        case ENTRYKIND::LIFECYCLE:
            return "start and stop";
        default:
            return "none";
    }
}

// Classes, components and the like that go into no registry: reached by id alone.
std::vector<const EntryRecord*> OutsideRegistries() {
    std::vector<const EntryRecord*> out;
    for (const EntryRecord* e : host::Entries())
        if (e->registry.Text().empty()) out.push_back(e);
    return out;
}

}  // namespace

std::string ModulesJson() {
    JsonWriter w;
    w.Object().Key("modules").Array();
    for (auto m : host::LoadedModules()) {
        const KelvoModuleInfo& info = host::ModuleInfo(m);
        w.Object().Key("id").String(info.id).Key("name").String(info.name);
        w.Key("resourcePath")
            .Array()
            .String(info.resourcePath[0])
            .String(info.resourcePath[1])
            .End();
        w.Key("dependencies").Array();
        for (size_t i = 0; i < info.dependencyCount; ++i) w.String(info.dependencies[i]);
        w.End().End();
    }
    w.End().Key("registries").Array();
    for (const auto& reg : host::Registries()) {
        w.Object().Key("id").String(reg.id.Text()).Key("owner").String(reg.owner);
        w.Key("entries").Array();
        for (const EntryRecord* e : reg.members) {
            w.Object().Key("id").String(e->GetId().Text()).Key("kind").String(KindName(e->kind));
            if (e->kind == ENTRYKIND::DATATYPE) {
                auto* t = static_cast<const DataType*>(e->payload);
                w.Key("size").Integer(static_cast<long long>(t->ops.size));
                w.Key("align").Integer(static_cast<long long>(t->ops.align));
            }
            w.Key("declaredIn").String(e->source.Path()).End();
        }
        w.End().End();
    }
    w.End().Key("outsideRegistries").Array();
    for (const EntryRecord* e : OutsideRegistries())
        w.Object()
            .Key("id")
            .String(e->GetId().Text())
            .Key("kind")
            .String(KindName(e->kind))
            .Key("declaredIn")
            .String(e->source.Path())
            .End();
    w.End().Key("configuration").Array();
    for (const auto& c : host::ConfigVariables())
        w.Object().Key("name").String(c.name).Key("value").String(c.value).End();
    w.End().End();
    return w.Text();
}

void PrintModules(std::ostream& out) {
    for (auto m : host::LoadedModules()) {
        const KelvoModuleInfo& info = host::ModuleInfo(m);
        out << "module " << info.id << " (" << info.name << ", resources " << info.resourcePath[0]
            << "/" << info.resourcePath[1] << ")\n  depends on:";
        for (size_t i = 0; i < info.dependencyCount; ++i) out << ' ' << info.dependencies[i];
        out << "\n";
    }
    for (const auto& reg : host::Registries()) {
        out << "\nregistry " << reg.id.Text() << " (" << reg.owner << ", " << reg.members.size()
            << (reg.members.size() == 1 ? " entry)\n" : " entries)\n");
        for (const EntryRecord* e : reg.members)
            out << "  " << e->GetId().Text() << "  [" << KindName(e->kind) << "]\n";
    }
    const auto outside = OutsideRegistries();
    out << "\noutside any registry (" << outside.size()
        << (outside.size() == 1 ? " entry)\n" : " entries)\n");
    for (const EntryRecord* e : outside)
        out << "  " << e->GetId().Text() << "  [" << KindName(e->kind) << "]\n";
    out << "\nconfiguration variables\n";
    for (const auto& c : host::ConfigVariables())
        out << "  " << c.name << " = " << JsonString(c.value) << '\n';
}

void PrintConfig(std::ostream& out, bool json) {
    auto vars = host::ConfigVariables();
    if (json) {
        JsonWriter w;
        w.Array();
        for (const auto& c : vars)
            w.Object()
                .Key("name")
                .String(c.name)
                .Key("type")
                .String(c.type == CONFIGTYPE::BOOL ? "bool" : "string")
                .Key("value")
                .String(c.value)
                .Key("default")
                .String(c.defaultValue)
                .Key("help")
                .String(c.help)
                .End();
        out << w.End().Text() << '\n';
        return;
    }
    for (const auto& c : vars) {
        out << c.name << " = " << JsonString(c.value) << "  ("
            << (c.type == CONFIGTYPE::BOOL ? "bool" : "string") << ", default "
            << JsonString(c.defaultValue) << ")";
        if (!c.help.empty()) out << "  " << c.help;
        out << '\n';
    }
}

void AddModulesCommand(CLI::App& app, Context& context, int& status) {
    auto* cmd = app.add_subcommand(
        "modules",
        "List the modules, every registry with its entries, the classes outside any registry "
        "and the configuration variables, as loaded from the module libraries");
    auto json = std::make_shared<bool>(false);
    cmd->add_flag("--json", *json, "Write one JSON document instead of text");
    cmd->callback([&context, &status, json] {
        RunCommand(context, status, [&]() -> Result<void> {
            if (*json)
                std::cout << ModulesJson() << '\n';
            else
                PrintModules(std::cout);
            return OK();
        });
    });
}

void AddConfigCommand(CLI::App& app, Context& context, int& status) {
    auto* cmd = app.add_subcommand(
        "config",
        "Show the configuration variables with their values (after --set), types, "
        "defaults and help texts");
    auto json = std::make_shared<bool>(false);
    cmd->add_flag("--json", *json, "Write a JSON array instead of text");
    cmd->callback([&context, &status, json] {
        RunCommand(context, status, [&]() -> Result<void> {
            PrintConfig(std::cout, *json);
            return OK();
        });
    });
}

}  // namespace kelvo::cli
