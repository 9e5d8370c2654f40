#include "context.h"

#include <unistd.h>

namespace kelvo::cli {
namespace fs = std::filesystem;

namespace {
fs::path ExecutableFolder() {
    std::error_code ec;
    fs::path exe = fs::read_symlink("/proc/self/exe", ec);
    return ec ? fs::current_path() : exe.parent_path();
}

fs::path FirstFolder(const fs::path& base, std::initializer_list<const char*> candidates) {
    std::error_code ec;
    for (const char* c : candidates)
        if (fs::is_directory(base / c, ec)) return fs::weakly_canonical(base / c, ec);
    return {};
}
}  // namespace

Context::Context() {
    fs::path bin = ExecutableFolder();
    moduleFolder = FirstFolder(bin, {"../modules", "../lib/kelvo/modules"});
    resourceFolder = FirstFolder(bin, {"../resources", "../share/kelvo/resources"});
    host::Initialize();
    host::SetResourceRoot(resourceFolder);
}

Context::~Context() {
    for (auto it = _modules.rbegin(); it != _modules.rend(); ++it) host::UnloadModule(*it);
}

Result<void> Context::LoadModules() {
    if (_loaded) return OK();
    _loaded = true;
    for (const std::string& s : settings) {
        size_t eq = s.find('=');
        if (eq == std::string::npos || eq == 0)
            return IllegalArgumentError(KELVO_HERE, "--set expects NAME=VALUE, not '@'.", s);
        KELVO_TRY(host::ConfigSet(s.substr(0, eq), s.substr(eq + 1)));
    }
    auto libraries = host::FindModuleLibraries(moduleFolder);
    if (libraries.empty())
        return IoError(KELVO_HERE, moduleFolder.string(), "No module libraries found in '@'.",
                       moduleFolder.string());
    for (const auto& lib : libraries) {
        KELVO_ASSIGN_OR_RETURN(host::ModuleHandle m, host::LoadModule(lib));
        _modules.push_back(m);
    }
    // Now that the variables are declared, values of the wrong type are reported.
    for (const std::string& s : settings) {
        size_t eq = s.find('=');
        KELVO_TRY(host::ConfigSet(s.substr(0, eq), s.substr(eq + 1)));
    }
    return OK();
}

}  // namespace kelvo::cli
