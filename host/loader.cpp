// The module loader: loads a library, binds it, checks its framework dependencies,
// inserts its entries in dependency order and undoes all of it at unload.
#include <dlfcn.h>

#include <algorithm>
#include <mutex>
#include <thread>

#include "runtime_state.h"

namespace kelvo::host {

struct LoadedModule {
    std::filesystem::path path;
    void* handle = nullptr;  // null for modules linked into the process
    KelvoBinding* binding = nullptr;
    std::vector<EntryRecord*> declared;           // declaration order
    std::vector<EntryRecord*> inserted;           // insertion order
    std::vector<const ModuleLifecycle*> started;  // start order
};

namespace detail {
void FillRegistrySlots(KelvoHostSlots&);
void FillConfigSlots(KelvoHostSlots&);
void FillDiagnosticSlots(KelvoHostSlots&);
void FillAllocatorSlots(KelvoHostSlots&);
void FillFileSlots(KelvoHostSlots&);
void FillJobSlots(KelvoHostSlots&);
void FillImageSlots(KelvoHostSlots&);
void FillPixelConversionSlots(KelvoHostSlots&);
void FillMediaSessionSlots(KelvoHostSlots&);
void FillDescriptionSlots(KelvoHostSlots&);
void RegisterHostFileFormats();
void FillLexerSlots(KelvoHostSlots&);
void FillRandomSlots(KelvoHostSlots&);
void FillCpuSlots(KelvoHostSlots&);
void RegisterFrameworkRegistries();
}  // namespace detail

namespace {
std::mutex g_modulesMutex;
std::vector<std::unique_ptr<LoadedModule>> g_modules;

void HostYield() { std::this_thread::yield(); }

// Registries first (so members find them), then configuration variables and data types,
// then everything else in the dependency order of the framework owning its registry.
int Phase(const EntryRecord& e) {
    switch (e.kind) {
        case ENTRYKIND::REGISTRY:
            return 0;
        case ENTRYKIND::CONFIGVARIABLE:
            return 1;
        case ENTRYKIND::DATATYPE:
            return 2;
        default:
            return 3;
    }
}

void RemoveInserted(LoadedModule& m) {
    for (auto it = m.inserted.rbegin(); it != m.inserted.rend(); ++it) RemoveEntry(**it);
    m.inserted.clear();
}

const ModuleLifecycle* Lifecycle(const EntryRecord* e) {
    return e->kind == ENTRYKIND::LIFECYCLE ? static_cast<const ModuleLifecycle*>(e->payload)
                                           : nullptr;
}

// A failed load unloads the module, so its error must not point into the module's memory
// (its out-of-memory error and every error's source path live there).
Error CopyOfModuleError(const Error& e) {
    if (e.Kind() == ERRORKIND::OUTOFMEMORY) return Error::OutOfMemory();
    return Error(e.Kind(), KELVO_HERE, e.Message(), e.Url());
}

void Stop(LoadedModule& m) {
    for (auto it = m.started.rbegin(); it != m.started.rend(); ++it)
        if ((*it)->stop) (*it)->stop();
    m.started.clear();
}

Result<void> Start(LoadedModule& m) {
    for (EntryRecord* e : m.declared) {
        const ModuleLifecycle* life = Lifecycle(e);
        if (!life) continue;
        if (life->start) {
            Result<void> r = life->start();
            if (!r) {
                Stop(m);
                return CopyOfModuleError(r.GetError());
            }
        }
        m.started.push_back(life);
    }
    return OK();
}

void CleanUp(LoadedModule& m) {
    Stop(m);
    RemoveInserted(m);
    for (auto it = m.declared.rbegin(); it != m.declared.rend(); ++it) (*it)->Cleanup();
    m.declared.clear();
    m.binding->module.firstEntry = nullptr;
    m.binding->module.lastEntry = nullptr;
}

std::string Name(const LoadedModule& m) {
    return m.binding && m.binding->module.id ? m.binding->module.id : m.path.string();
}

Result<void> InsertInOrder(LoadedModule& m, const KelvoModuleInfo& info);

Result<void> Insert(LoadedModule& m) {
    const KelvoModuleInfo& info = m.binding->module;
    const auto& frameworks = Frameworks();
    for (size_t i = 0; i < info.dependencyCount; ++i) {
        const char* dep = info.dependencies[i];
        if (std::find(frameworks.begin(), frameworks.end(), dep) == frameworks.end())
            return IllegalStateError(KELVO_HERE, "Module @ depends on @, which is not loaded.",
                                     Name(m), dep);
    }
    try {
        return InsertInOrder(m, info);
    } catch (const std::bad_alloc&) {
        RemoveInserted(m);
        m.declared.clear();
        return Error::OutOfMemory();
    }
}

Result<void> InsertInOrder(LoadedModule& m, const KelvoModuleInfo& info) {
    for (EntryRecord* e = info.firstEntry; e; e = e->next) m.declared.push_back(e);
    std::vector<EntryRecord*> order = m.declared;
    m.inserted.reserve(order.size());
    std::stable_sort(order.begin(), order.end(), [](const EntryRecord* a, const EntryRecord* b) {
        int pa = Phase(*a), pb = Phase(*b);
        if (pa != pb) return pa < pb;
        return detail::RegistryRank(a->registry) < detail::RegistryRank(b->registry);
    });
    for (EntryRecord* e : order) {
        Result<void> r = InsertEntry(*e, info.id ? info.id : "module");
        if (!r) {
            RemoveInserted(m);
            return r.GetError();
        }
        m.inserted.push_back(e);
    }
    return OK();
}
}  // namespace

void FillHostSlots(KelvoHostSlots& slots) {
    detail::FillAllocatorSlots(slots);
    detail::FillRegistrySlots(slots);
    detail::FillConfigSlots(slots);
    detail::FillDiagnosticSlots(slots);
    detail::FillFileSlots(slots);
    detail::FillJobSlots(slots);
    detail::FillImageSlots(slots);
    detail::FillPixelConversionSlots(slots);
    detail::FillMediaSessionSlots(slots);
    detail::FillDescriptionSlots(slots);
    detail::FillLexerSlots(slots);
    detail::FillRandomSlots(slots);
    detail::FillCpuSlots(slots);
}

void Initialize() {
    static std::once_flag once;
    std::call_once(once, [] {
        FillHostSlots(g_kelvo.host);
        if (!g_CpuYieldDelegate) g_CpuYieldDelegate = &HostYield;
        detail::RegisterFrameworkRegistries();
        detail::RegisterHostFileFormats();
    });
}

Result<ModuleHandle> AttachModule(KelvoBinding& binding, void (**yieldDelegate)()) {
    Initialize();
    auto m = std::make_unique<LoadedModule>();
    m->binding = &binding;
    if (binding.version != KELVO_BINDING_VERSION || binding.size != sizeof(KelvoBinding))
        return IllegalStateError(KELVO_HERE,
                                 "Module @ was built for binding version @ (size @); the host has "
                                 "version @ (size @).",
                                 Name(*m), binding.version, binding.size, KELVO_BINDING_VERSION,
                                 sizeof(KelvoBinding));
    FillHostSlots(binding.host);
    if (yieldDelegate) *yieldDelegate = &HostYield;
    KELVO_TRY(Insert(*m));
    if (Result<void> started = Start(*m); !started) {
        CleanUp(*m);
        return started.GetError();
    }
    std::lock_guard lock(g_modulesMutex);
    g_modules.push_back(std::move(m));
    return g_modules.back().get();
}

Result<ModuleHandle> LoadModule(const std::filesystem::path& library) {
    Initialize();
    void* handle = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char* why = dlerror();
        return IoError(KELVO_HERE, library.string(), "Cannot load module @: @", library.string(),
                       why ? why : "unknown error");
    }
    auto* binding = static_cast<KelvoBinding*>(dlsym(handle, "g_kelvo"));
    auto* yield = reinterpret_cast<void (**)()>(dlsym(handle, "g_CpuYieldDelegate"));
    if (!binding || !yield) {
        dlclose(handle);
        return IllegalStateError(KELVO_HERE, "Module @ does not export @.", library.string(),
                                 binding ? "g_CpuYieldDelegate" : "g_kelvo");
    }
    Result<ModuleHandle> attached = AttachModule(*binding, yield);
    if (!attached) {
        // The records stay as the library's start-up filled them; unloading drops them.
        dlclose(handle);
        return attached.GetError();
    }
    (*attached)->path = library;
    (*attached)->handle = handle;
    return attached;
}

void UnloadModule(ModuleHandle module) {
    if (!module) return;
    std::unique_ptr<LoadedModule> owned;
    {
        std::lock_guard lock(g_modulesMutex);
        auto it = std::find_if(g_modules.begin(), g_modules.end(),
                               [&](const auto& p) { return p.get() == module; });
        if (it == g_modules.end()) return;
        owned = std::move(*it);
        g_modules.erase(it);
    }
    // The modules that stay let go of what they hold of this one while its code is there.
    std::vector<const ModuleLifecycle*> others;
    {
        std::lock_guard lock(g_modulesMutex);
        for (auto& other : g_modules)
            for (const ModuleLifecycle* life : other->started)
                if (life->moduleUnloading) others.push_back(life);
    }
    for (const ModuleLifecycle* life : others) life->moduleUnloading(owned->binding->module);
    CleanUp(*owned);
    if (owned->handle) dlclose(owned->handle);
}

const KelvoModuleInfo& ModuleInfo(ModuleHandle module) { return module->binding->module; }

std::vector<ModuleHandle> LoadedModules() {
    std::lock_guard lock(g_modulesMutex);
    std::vector<ModuleHandle> out;
    out.reserve(g_modules.size());
    for (auto& m : g_modules) out.push_back(m.get());
    return out;
}

namespace {
// The entries of a folder, without throwing: a symbolic-link loop, a vanished or unreadable
// entry is skipped rather than ending the program.
template <typename F>
void ForEachEntry(const std::filesystem::path& folder, F&& visit) {
    namespace fs = std::filesystem;
    std::error_code ec;
    fs::directory_iterator it(folder, ec), end;
    for (; !ec && it != end; it.increment(ec)) visit(*it);
}
}  // namespace

std::vector<std::filesystem::path> FindModuleLibraries(const std::filesystem::path& folder) {
    namespace fs = std::filesystem;
    std::vector<fs::path> out;
    std::error_code ec;
    if (!fs::is_directory(folder, ec)) return out;
    ForEachEntry(folder, [&](const fs::directory_entry& dir) {
        std::error_code dirEc;
        if (dir.path().extension() != ".module" || !dir.is_directory(dirEc)) return;
        ForEachEntry(dir.path(), [&](const fs::directory_entry& f) {
            std::error_code fileEc;
            if (f.path().extension() == ".so" && f.is_regular_file(fileEc)) out.push_back(f.path());
        });
    });
    std::sort(out.begin(), out.end());
    return out;
}

}  // namespace kelvo::host
