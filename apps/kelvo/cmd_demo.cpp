// kelvo demo: runs what the tool can show on built-in sample data and writes the
// pictures and reports into a folder.
#include <fstream>
#include <iostream>

#include "context.h"
#include "json.h"

namespace kelvo::cli {

std::string ModulesReportJson();
void WriteConfigReport(std::ostream& out);
void WriteModulesReport(std::ostream& out);

namespace {
namespace fs = std::filesystem;

Result<void> WriteFile(const fs::path& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary);
    out << text;
    if (!out) return IoError(KELVO_HERE, path.string(), "Cannot write '@'.", path.string());
    return OK();
}

Result<void> RunDemo(Context& context, const fs::path& folder) {
    KELVO_TRY(context.LoadModules());
    std::error_code ec;
    fs::create_directories(folder, ec);
    if (ec) return IoError(KELVO_HERE, folder.string(), "Cannot create '@': @", folder.string(), ec.message());
    std::ostringstream modules, config;
    WriteModulesReport(modules);
    WriteConfigReport(config);
    KELVO_TRY(WriteFile(folder / "modules.txt", modules.str()));
    KELVO_TRY(WriteFile(folder / "modules.json", ModulesReportJson() + "\n"));
    KELVO_TRY(WriteFile(folder / "config.json", config.str()));
    std::cout << "kelvo demo: wrote modules.txt, modules.json, config.json to " << folder.string()
              << '\n';
    return OK();
}
}  // namespace

void AddDemoCommand(CLI::App& app, Context& context, int& status) {
    auto* cmd = app.add_subcommand(
        "demo", "Run the module on built-in sample data and write pictures and reports to a folder");
    auto* out = cmd->add_option("-o,--out", "Folder to write into")->default_val("kelvo-demo");
    cmd->callback([&context, &status, out] {
        if (auto r = RunDemo(context, out->as<std::string>()); !r) status = Fail(r.GetError());
    });
}

}  // namespace kelvo::cli
