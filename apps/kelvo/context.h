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

}  // namespace kelvo::cli
