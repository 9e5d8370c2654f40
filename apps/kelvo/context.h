// What every subcommand shares: where the program lives, its modules and resources.
#pragma once

#include <CLI/CLI.hpp>
#include <filesystem>
#include <string>
#include <vector>

#include "host.h"

namespace kelvo::cli {

class Context {
public:
    // Finds the module and resource folders next to the executable, in the build tree
    // (bin/, modules/, resources/) and in an installed tree (bin/, lib/kelvo/modules/,
    // share/kelvo/resources/).
    Context();
    ~Context();

    // Loads every module library once; configuration values given with --set are applied
    // before the modules declare their variables and checked after.
    Result<void> LoadModules();

    std::vector<std::string> settings;  // NAME=VALUE from --set
    std::filesystem::path moduleFolder;
    std::filesystem::path resourceFolder;

private:
    bool _loaded = false;
    std::vector<host::ModuleHandle> _modules;
};

// Prints "kelvo: <message>" on stderr and returns the exit status 1.
int Fail(const Error& error);

// Each subcommand adds itself and its options; the callback runs the command and leaves
// its exit status in `status`.
void AddModulesCommand(CLI::App& app, Context& context, int& status);
void AddConfigCommand(CLI::App& app, Context& context, int& status);
void AddDemoCommand(CLI::App& app, Context& context, int& status);
void AddImageCommand(CLI::App& app, Context& context, int& status);
void AddCameraCommand(CLI::App& app, Context& context, int& status);

void AddBsdfCommand(CLI::App& app, Context& context, int& status);
void AddSelfTestCommand(CLI::App& app, Context& context, int& status);
void AddIesCommand(CLI::App& app, Context& context, int& status);
// Writes the preview of an IES file, opened through the image import, as a size x size
// picture (the format follows the output's suffix).
Result<void> WriteIesPreview(Context& context, const std::string& file, const std::string& output,
                             int64_t size);

}  // namespace kelvo::cli
