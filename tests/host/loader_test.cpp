#include <elf.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "host.h"
#include "kelvo/registry.h"

namespace kelvo {
namespace {

// The names of the defined global symbols in a shared library's dynamic symbol table.
std::vector<std::string> ExportedSymbols(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<std::string> out;
    if (bytes.size() < sizeof(Elf64_Ehdr)) return out;
    auto* eh = reinterpret_cast<const Elf64_Ehdr*>(bytes.data());
    auto* sh = reinterpret_cast<const Elf64_Shdr*>(bytes.data() + eh->e_shoff);
    for (int i = 0; i < eh->e_shnum; ++i) {
        if (sh[i].sh_type != SHT_DYNSYM) continue;
        const char* names = bytes.data() + sh[sh[i].sh_link].sh_offset;
        auto* sym = reinterpret_cast<const Elf64_Sym*>(bytes.data() + sh[i].sh_offset);
        size_t n = sh[i].sh_size / sizeof(Elf64_Sym);
        for (size_t k = 1; k < n; ++k) {
            int bind = ELF64_ST_BIND(sym[k].st_info);
            if (sym[k].st_shndx == SHN_UNDEF || (bind != STB_GLOBAL && bind != STB_WEAK)) continue;
            out.emplace_back(names + sym[k].st_name);
        }
    }
    std::sort(out.begin(), out.end());
    return out;
}

// A slot the filler forgets would crash the first module that calls it, far from here.
TEST(LoaderTest, HostFillsEverySlotOfTheRecord) {
    KelvoHostSlots slots{};
    host::FillHostSlots(slots);
#define KELVO_CHECK_SLOT(ret, name, params) EXPECT_NE(slots.name, nullptr) << #name;
    KELVO_ALL_SLOTS(KELVO_CHECK_SLOT)
#undef KELVO_CHECK_SLOT
}

// A symbolic-link loop or a dangling link among the module folders is skipped; before, the
// first throwing std::filesystem call ended every command.
TEST(LoaderTest, LinkLoopsInTheModulesFolderAreSkipped) {
    namespace fs = std::filesystem;
    fs::path dir = fs::temp_directory_path() / ("kelvo_loop_" + std::to_string(::getpid()));
    fs::create_directories(dir / "real.module");
    std::ofstream(dir / "real.module" / "real.so") << "";
    fs::create_symlink(dir / "loop.module", dir / "loop.module");
    fs::create_symlink(dir / "real.module" / "gone.so", dir / "real.module" / "dangling.so");
    fs::create_symlink(dir / "real.module" / "self.so", dir / "real.module" / "self.so");
    std::vector<fs::path> found;
    EXPECT_NO_THROW(found = host::FindModuleLibraries(dir));
    EXPECT_EQ(found, std::vector<fs::path>{dir / "real.module" / "real.so"});
    fs::remove_all(dir);
}

std::string Fixture(const char* name) {
    return std::string(KELVO_FIXTURE_DIR) + "/" + name + ".so";
}

size_t RegistrySize(const char* id) {
    for (const auto& r : host::Registries())
        if (r.id.Text() == id) return r.members.size();
    return 0;
}

TEST(LoaderTest, RenderModuleExportsExactlyTheBindingAndTheYieldHook) {
    EXPECT_EQ(ExportedSymbols(KELVO_RENDER_MODULE),
              (std::vector<std::string>{"g_CpuYieldDelegate", "g_kelvo"}));
}

TEST(LoaderTest, LoadsBindsAndUnloadsTheRenderModule) {
    size_t typesBefore = RegistrySize("net.kelvo.registry.datatypes");
    auto module = host::LoadModule(KELVO_RENDER_MODULE);
    ASSERT_TRUE(module.Ok()) << module.GetError().Message();
    const KelvoModuleInfo& info = host::ModuleInfo(*module);
    EXPECT_STREQ(info.id, "net.kelvo.render");
    EXPECT_STREQ(info.name, "net.kelvo.render.module");
    EXPECT_STREQ(info.resourcePath[0], "modules");
    EXPECT_STREQ(info.resourcePath[1], "render.module");
    ASSERT_EQ(info.dependencyCount, 11u);
    for (size_t i = 0; i < 11; ++i) EXPECT_EQ(info.dependencies[i], host::Frameworks()[i]);

    EXPECT_NE(FindDataType(Id("net.kelvo.render.ray")), nullptr);
    EXPECT_EQ(RegistrySize("net.kelvo.registry.datatypes"), typesBefore + 12);
    EXPECT_EQ(g_kelvo.host.ConfigGetString("g_polygonIntersection").ValueOr("unset"), "");

    host::UnloadModule(*module);
    EXPECT_EQ(FindDataType(Id("net.kelvo.render.ray")), nullptr);
    EXPECT_EQ(RegistrySize("net.kelvo.registry.datatypes"), typesBefore);
    EXPECT_FALSE(g_kelvo.host.ConfigGetString("g_polygonIntersection").Ok());

    // A second load after unload starts from fresh records.
    module = host::LoadModule(KELVO_RENDER_MODULE);
    ASSERT_TRUE(module.Ok()) << module.GetError().Message();
    EXPECT_NE(FindDataType(Id("net.kelvo.render.ray")), nullptr);
    host::UnloadModule(*module);
}

TEST(LoaderTest, RefusesBrokenModulesWithClearErrors) {
    EXPECT_EQ(host::LoadModule(Fixture("kelvo_fixture_missing_dependency")).GetError().Message(),
              "Illegal state: Module net.kelvo.fixture depends on net.kelvo.nonexistent.framework, "
              "which is not loaded.");

    auto version = host::LoadModule(Fixture("kelvo_fixture_wrong_version"));
    EXPECT_NE(version.GetError().Message().find("was built for binding version"),
              std::string::npos);
    EXPECT_EQ(host::LoadModule(Fixture("kelvo_fixture_no_exports")).GetError().Message(),
              "Illegal state: Module " + Fixture("kelvo_fixture_no_exports") +
                  " does not export g_kelvo.");
    EXPECT_EQ(host::LoadModule("/nonexistent/kelvo_render.so").GetError().Kind(), ERRORKIND::IO);

    // A member whose registry nobody provides names its declaring file; nothing stays.
    EXPECT_EQ(host::LoadModule(Fixture("kelvo_fixture_bad_registry")).GetError().Message(),
              "Illegal state: Entry net.kelvo.fixture.member declared in "
              "tests/fixtures/fixture_module names registry net.kelvo.fixture.unknownregistry, "
              "which is not loaded.");
    EXPECT_EQ(FindEntry(Id("net.kelvo.fixture.member")), nullptr);
    EXPECT_EQ(RegistrySize("net.kelvo.fixture.registry"), 0u);
    EXPECT_TRUE(host::LoadedModules().empty());
}

// Start entries run in declaration order after the insertion, stop entries in reverse
// before the removal; a module being unloaded is announced to the others first; a failing
// start stops those started before it and unloads the module with its error.
TEST(LoaderTest, StartAndStopEntriesRunInOrderAndAFailingStartUndoesTheLoad) {
    using Lines = std::vector<std::string>;
    host::CapturedDiagnostics diagnostics;
    auto fixture = host::LoadModule(Fixture("kelvo_fixture_good"));
    ASSERT_TRUE(fixture.Ok()) << fixture.GetError().Message();
    EXPECT_EQ(diagnostics.Lines(), (Lines{"fixture: first started", "fixture: second started"}));
    auto render = host::LoadModule(KELVO_RENDER_MODULE);
    ASSERT_TRUE(render.Ok()) << render.GetError().Message();
    host::UnloadModule(*render);
    host::UnloadModule(*fixture);
    EXPECT_EQ(diagnostics.Lines(), (Lines{"fixture: first started", "fixture: second started",
                                          "fixture: net.kelvo.render unloading",
                                          "fixture: second stopped", "fixture: first stopped"}));

    host::CapturedDiagnostics failing;
    EXPECT_EQ(host::LoadModule(Fixture("kelvo_fixture_failing_start")).GetError().Message(),
              "Illegal state: The fixture cannot start.");
    EXPECT_EQ(failing.Lines(), (Lines{"fixture: first started", "fixture: first stopped"}));
    EXPECT_EQ(FindEntry(Id("net.kelvo.fixture.member")), nullptr);
    EXPECT_TRUE(host::LoadedModules().empty());
}

// Every allocation of the insertion may fail: the load then fails with the one
// out-of-memory error, leaves no entry and no allocation behind, and a retry loads.
TEST(LoaderTest, LoadSurvivesEveryFailedAllocation) {
    // A first load grows the tables' capacity, which they keep; that is no leak.
    auto warm = host::LoadModule(KELVO_RENDER_MODULE);
    ASSERT_TRUE(warm.Ok()) << warm.GetError().Message();
    host::UnloadModule(*warm);
    const int64_t before = host::LiveAllocations();
    const size_t registries = host::Registries().size();
    for (int64_t n = 1;; ++n) {
        host::FailNthAllocation(n);
        auto module = host::LoadModule(KELVO_RENDER_MODULE);
        host::FailNthAllocation(0);
        if (module.Ok()) {
            host::UnloadModule(*module);
            EXPECT_GT(n, 100);  // the sweep reached the render module's many entries
            break;
        }
        ASSERT_EQ(module.GetError().Message(), "Out of memory.") << n;
        ASSERT_EQ(FindDataType(Id("net.kelvo.render.ray")), nullptr) << n;
        ASSERT_EQ(host::Registries().size(), registries) << n;
        ASSERT_EQ(host::LiveAllocations(), before) << n;
    }
    EXPECT_EQ(host::LiveAllocations(), before);
}

TEST(LoaderTest, CleaningARecordTwiceLeavesNothingBehind) {
    host::Initialize();
    int64_t before = host::LiveAllocations();
    char* text = static_cast<char*>(Allocate(16));
    std::memcpy(text, "net.kelvo.x", 12);
    EntryRecord record{.kind = ENTRYKIND::CLASS,
                       .idText = text,
                       .idSize = 11,
                       .idAllocated = true,
                       .object = std::make_shared<Object>()};
    WeakRef<Object> watch = record.object;
    record.Cleanup();
    record.Cleanup();
    EXPECT_EQ(host::LiveAllocations(), before);
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(record.idText, nullptr);
    EXPECT_EQ(record.kind, ENTRYKIND::NONE);

    // A literal id is not released.
    EntryRecord literal{.idText = "net.kelvo.literal", .idSize = 17};
    literal.Cleanup();
    EXPECT_EQ(host::LiveAllocations(), before);
}

}  // namespace
}  // namespace kelvo
