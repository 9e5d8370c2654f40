#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "host.h"
#include "kelvo/assetmanagement.h"
#include "kelvo/registry.h"

namespace kelvo {
namespace {
namespace fs = std::filesystem;

class AssetTest : public testing::Test {
protected:
    void SetUp() override {
        folder = fs::temp_directory_path() /
                 ("kelvo_assets_" + std::to_string(::getpid()) + "_" +
                  testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::create_directories(folder / "tex");
        fs::create_directories(folder / "extra");
        std::ofstream(folder / "a.png") << "a";
        std::ofstream(folder / "tex" / "b.png") << "b";
        std::ofstream(folder / "extra" / "c.png") << "c";
        auto made = CreateComponent<AssetManagementInterface>();
        ASSERT_TRUE(made.Ok()) << made.GetError().Message();
        assets = *made;
        ASSERT_TRUE(assets->Init(Url::FromFile(folder.string())).Ok());
    }
    void TearDown() override { fs::remove_all(folder); }
    static Url Rel(std::string_view path) { return *Url::FromText(path); }
    std::string FileUrl(const fs::path& p) { return Url::FromFile(p.string()).ToString(); }

    fs::path folder;
    StrongRef<AssetManagementInterface> assets;
};

TEST_F(AssetTest, OtherSchemesPassThroughUntouched) {
    // No file of that name exists: the url comes back without any file-system lookup.
    for (const char* text : {"file:///x.png", "http://host/x.png", "Relative:///a.png"}) {
        auto r = assets->TranslatePath(Rel(text), 0);
        ASSERT_TRUE(r.Ok()) << text;
        EXPECT_EQ(r->ToString(), text);
    }
}

TEST_F(AssetTest, BaseFolderServesEveryCategoryAndTexOnlyTextures) {
    for (int32_t category : {0, 1, 7}) {
        auto r = assets->TranslatePath(Rel("relative:///a.png"), category);
        ASSERT_TRUE(r.Ok());
        EXPECT_EQ(r->ToString(), FileUrl(folder / "a.png"));
    }
    auto tex = assets->TranslatePath(Rel("relative:///b.png"), ASSETCATEGORY_TEXTURE);
    ASSERT_TRUE(tex.Ok());
    EXPECT_EQ(tex->ToString(), FileUrl(folder / "tex" / "b.png"));

    auto missing = assets->TranslatePath(Rel("relative:///b.png"), ASSETCATEGORY_ANY);
    ASSERT_FALSE(missing.Ok());
    EXPECT_EQ(missing.GetError().Message(), "Asset not found.");
    EXPECT_EQ(missing.GetError().Kind(), ERRORKIND::IO);
    EXPECT_EQ(missing.GetError().Url(), "relative:///b.png");
    EXPECT_EQ(missing.GetError().Location().Path(),
              "modules/render.module/source/implementation/asset_impl");
}

TEST_F(AssetTest, AddedSearchPathOnlyServesItsCategory) {
    ASSERT_TRUE(assets->AddSearchPath(Rel("relative:///extra"), 2, true).Ok());
    EXPECT_FALSE(assets->TranslatePath(Rel("relative:///c.png"), 1).Ok());
    auto r = assets->TranslatePath(Rel("relative:///c.png"), 2);
    ASSERT_TRUE(r.Ok());
    EXPECT_EQ(r->ToString(), FileUrl(folder / "extra" / "c.png"));

    // Absolute search paths are used as they stand, not resolved against the base.
    ASSERT_TRUE(assets->AddSearchPath(Url::FromFile((folder / "tex").string()), 0, false).Ok());
    r = assets->TranslatePath(Rel("relative:///b.png"), 0);
    ASSERT_TRUE(r.Ok());
    EXPECT_EQ(r->ToString(), FileUrl(folder / "tex" / "b.png"));
}

TEST_F(AssetTest, FoldersAreNoAssetsAndInitTwiceKeepsTwoBuiltIns) {
    EXPECT_FALSE(assets->TranslatePath(Rel("relative:///tex"), 0).Ok());
    // A second Init only moves the base: the old folder's files are no longer found, and
    // a file found through a duplicated built-in entry would still resolve, so probe the
    // entry count through the search order instead.
    fs::path other = folder / "extra";
    ASSERT_TRUE(assets->Init(Url::FromFile(other.string())).Ok());
    EXPECT_FALSE(assets->TranslatePath(Rel("relative:///a.png"), 0).Ok());
    auto r = assets->TranslatePath(Rel("relative:///c.png"), 0);
    ASSERT_TRUE(r.Ok());
    EXPECT_EQ(r->ToString(), FileUrl(other / "c.png"));
}

TEST_F(AssetTest, OutOfMemoryInAddSearchPathLeavesTheListUnchanged) {
    // Grow the list to capacity so the next append must reallocate.
    for (int i = 0; i < 2; ++i)
        ASSERT_TRUE(assets->AddSearchPath(Rel("relative:///none"), 0, false).Ok());
    host::FailAllAllocations();
    auto failed = assets->AddSearchPath(Rel("relative:///extra"), 0, false);
    host::FailNthAllocation(0);
    ASSERT_FALSE(failed.Ok());
    EXPECT_EQ(failed.GetError().Kind(), ERRORKIND::OUTOFMEMORY);
    EXPECT_EQ(failed.GetError().Message(), "Out of memory.");
    EXPECT_FALSE(assets->TranslatePath(Rel("relative:///c.png"), 0).Ok());
    EXPECT_TRUE(assets->TranslatePath(Rel("relative:///a.png"), 0).Ok());
}

TEST(AssetInitTest, OutOfMemoryInInitKeepsTheEntriesAddedSoFar) {
    auto made = CreateComponent<AssetManagementInterface>();
    ASSERT_TRUE(made.Ok());
    fs::path folder =
        fs::temp_directory_path() / ("kelvo_assets_oom_" + std::to_string(::getpid()));
    fs::create_directories(folder);
    std::ofstream(folder / "a.png") << "a";
    // The first append allocates; the second one (the tex entry) grows and fails.
    host::FailNthAllocation(2);
    auto r = (*made)->Init(Url::FromFile(folder.string()));
    host::FailNthAllocation(0);
    ASSERT_FALSE(r.Ok());
    EXPECT_EQ(r.GetError().Kind(), ERRORKIND::OUTOFMEMORY);
    EXPECT_TRUE((*made)->TranslatePath(*Url::FromText("relative:///a.png"), 0).Ok());
    fs::remove_all(folder);
}

}  // namespace
}  // namespace kelvo
