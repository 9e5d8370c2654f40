// Allocation failures swept over everything the registries hold: every class and component
// is created, and its fallible operations run, with allocation n = 1, 2, ... failing until
// the whole run succeeds. Each failure must be "Out of memory.", leave no allocation behind
// once the object is released, and leave the object usable: running the operations again
// without a failure succeeds.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "host.h"
#include "kelvo/assetmanagement.h"
#include "kelvo/camera.h"
#include "kelvo/ies.h"
#include "kelvo/legacy_renderers/bsdf_legacy.h"
#include "kelvo/legacy_renderers/bsdfdata.h"
#include "kelvo/legacy_renderers/clothweavepattern.h"
#include "kelvo/legacy_renderers/microfacetdistribution.h"
#include "kelvo/legacy_renderers/microfacetdistributioncaches.h"
#include "kelvo/mediasession_output.h"
#include "kelvo/memorystream.h"
#include "kelvo/nodes/nodespace.h"
#include "kelvo/nodes/previewimage.h"
#include "kelvo/registry.h"
#include "kelvo/sceneobject.h"
#include "kelvo/texture.h"

namespace kelvo {
namespace {

using Operations = std::function<Result<void>(const StrongRef<Object>&)>;

template <typename I>
StrongRef<I> As(const StrongRef<Object>& o) {
    StrongRef<I> typed = Query<I>(o);
    EXPECT_TRUE(typed) << I::InterfaceId().Text();
    return typed;
}

const char kIes[] =
    "IESNA:LM-63-2002\nTILT=NONE\n1 1000 1 5 3 1 2 0.3 0.3 0\n1 1 100\n"
    "0 22.5 45 67.5 90\n0 45 90\n"
    "100 90 70 40 10\n100 85 60 30 5\n100 80 50 20 0\n";

Result<StrongRef<ImageInterface>> SmallImage() {
    KELVO_ASSIGN_OR_RETURN(auto image, CreateImage(8, 4));
    KELVO_ASSIGN_OR_RETURN(auto layer, CreateImageLayer(8, 4, kPixelRgba8, COLORPROFILE::SRGB));
    KELVO_TRY(image->AddLayer(layer));
    return image;
}

// The fallible operations of each interface, with inputs that exercise their allocations.
const std::map<Id, Operations>& Workloads() {
    static const std::map<Id, Operations> table = {
        {CameraInterface::InterfaceId(),
         [](const StrongRef<Object>& o) -> Result<void> {
             auto params = std::make_shared<DataDictionary>();
             KELVO_TRY(params->Set(CAMERAPARAMETERS::SCREENRESOLUTION, Vec2{64, 48}));
             return As<CameraInterface>(o)->Init(params, false);
         }},
        {BSDFLegacyInterface::InterfaceId(),
         [](const StrongRef<Object>& o) -> Result<void> {
             DataDictionary record;
             KELVO_TRY(record.Set(bsdfdata::kRoughness, 0.4));
             KELVO_TRY(record.Set(bsdfdata::kClothPattern, std::string("denim")));
             return As<BSDFLegacyInterface>(o)->Init(record);
         }},
        {MicrofacetDistributionInterface::InterfaceId(),
         [](const StrongRef<Object>& o) -> Result<void> {
             DataDictionary record;
             KELVO_TRY(record.Set(bsdfdata::kRoughness, 0.3));
             return As<MicrofacetDistributionInterface>(o)->Update(record);
         }},
        {MicrofacetDistributionCachesInterface::InterfaceId(),
         [](const StrongRef<Object>& o) -> Result<void> {
             auto caches = As<MicrofacetDistributionCachesInterface>(o);
             caches->Free();
             return caches->Alloc();
         }},
        {ClothWeavePatternInterface::InterfaceId(),
         [](const StrongRef<Object>& o) -> Result<void> {
             return As<ClothWeavePatternInterface>(o)->SetPattern("shantung", Vec2{2, 2});
         }},
        {IesInterface::InterfaceId(),
         [](const StrongRef<Object>& o) -> Result<void> {
             auto ies = As<IesInterface>(o);
             KELVO_ASSIGN_OR_RETURN(auto stream, MemoryInputStream::Make(std::string(kIes)));
             KELVO_TRY(ies->Init(stream));
             KELVO_TRY(ies->ConvertToText());
             KELVO_TRY(ies->GeneratePreviewImage(8));
             return OK();
         }},
        {SceneObjectInterface::InterfaceId(),
         [](const StrongRef<Object>& o) -> Result<void> {
             auto object = As<SceneObjectInterface>(o);
             for (const Id& a : object->GetAttributeIds())
                 KELVO_TRY(object->SetAttribute(a, object->GetAttribute(a)));
             if (auto camera = Query<CameraObjectInterface>(o)) {
                 KELVO_TRY(camera->CreateCamera(Vec2{32, 24}, false));
             }
             return OK();
         }},
        {TextureInterface::InterfaceId(),
         [](const StrongRef<Object>& o) -> Result<void> {
             auto texture = As<TextureInterface>(o);
             KELVO_ASSIGN_OR_RETURN(auto image, SmallImage());
             KELVO_TRY(texture->Init(image, {}));
             for (auto pyramid :
                  {TEXTUREPYRAMID::MIPMAP, TEXTUREPYRAMID::RIPMAP, TEXTUREPYRAMID::SUMMEDAREA})
                 KELVO_TRY(texture->Build(pyramid));
             return OK();
         }},
        {TextureSamplerInterface::InterfaceId(),
         [](const StrongRef<Object>& o) -> Result<void> {
             auto sampler = As<TextureSamplerInterface>(o);
             if (!sampler->GetTexture()) {  // Init happens once; a retry goes on from Prepare
                 KELVO_ASSIGN_OR_RETURN(auto texture, CreateComponent<TextureInterface>());
                 KELVO_ASSIGN_OR_RETURN(auto image, SmallImage());
                 KELVO_TRY(texture->Init(image, {}));
                 KELVO_TRY(sampler->Init(texture));
             }
             return sampler->Prepare(TEXTUREMODE::MIPMAP);
         }},
        // Submitting needs a running scheduler and a provider (the preview suites sweep
        // those); copying shares the attributes and is the request's own allocation.
        {nodes::PreviewImageRequestInterface::InterfaceId(),
         [](const StrongRef<Object>& o) -> Result<void> {
             KELVO_ASSIGN_OR_RETURN(auto copy, As<nodes::PreviewImageRequestInterface>(o)->Copy());
             copy->Reset();
             return OK();
         }},
        {nodes::NodeSpaceInterface::InterfaceId(),
         [](const StrongRef<Object>& o) -> Result<void> {
             KELVO_ASSIGN_OR_RETURN(auto description, NewObject<DataDictionary>());
             KELVO_ASSIGN_OR_RETURN(auto bundles, nodes::IdArrayImpl::Create({}, 1));
             KELVO_TRY(description->Set(nodes::NODESPACE::MATERIALEXCHANGEBUNDLEIDS,
                                        StrongRef<Object>(bundles)));
             return As<nodes::NodeSpaceInterface>(o)->Init(Id("net.kelvo.test.space"), description);
         }},
        {nodes::MaterialExchangeInterface::InterfaceId(),
         [](const StrongRef<Object>& o) -> Result<void> {
             DataDictionary material, target;
             KELVO_TRY(material.Set(nodes::NODESPACE::SPACENAME, "red"));
             return As<nodes::MaterialExchangeInterface>(o)->Convert(nodes::kViewportMaterialBundle,
                                                                     material, target);
         }},
        {nodes::NodeSpaceHelpersInterface::InterfaceId(),
         [](const StrongRef<Object>& o) -> Result<void> {
             KELVO_TRY(As<nodes::NodeSpaceHelpersInterface>(o)->GetNodeSpaceIds());
             return OK();
         }},
        {AssetManagementInterface::InterfaceId(),
         [](const StrongRef<Object>& o) -> Result<void> {
             auto assets = As<AssetManagementInterface>(o);
             KELVO_TRY(assets->Init(Url::FromFile("/tmp/kelvo-scene/scene.c4d")));
             KELVO_TRY(assets->AddSearchPath(Url::FromFile("/tmp/kelvo-textures"), 0, false));
             // The asset is missing: only running out of memory counts as failing here.
             auto found = assets->TranslatePath(*Url::FromText("relative:///tex/a.png"), 0);
             if (!found && found.GetError().Kind() == ERRORKIND::OUTOFMEMORY)
                 return found.GetError();
             return OK();
         }},
    };
    return table;
}

// Interfaces whose classes have no fallible operation beyond creation (answers computed
// from fixed tables, or the import steps the image tests sweep with real files).
const std::set<Id>& CreationOnly() {
    static const std::set<Id> ids = {
        Id("net.kelvo.image.interface.fileformat"),
        Id("net.kelvo.image.interface.fileformathandler"),
        Id("net.kelvo.image.interface.mediaimport"),
        Id("net.kelvo.image.interface.mediaexport"),
        Id("net.kelvo.image.interface.imagelayer"),
        Id("net.kelvo.render.interface.rendergeneral"),
        Id("net.kelvo.render.interface.texturemanagement"),
        // Its textures stay loaded for the module's life; its tests sweep a cache of their own.
        Id("net.kelvo.interface.previewimageplaceholder"),
        Id("net.kelvo.interface.unittest"),
        Id("net.kelvo.interface.speedtest"),
    };
    return ids;
}

TEST(FaultSweepTest, EveryRegisteredClassSurvivesEveryFailedAllocation) {
    int swept = 0;
    for (const EntryRecord* e : host::Entries()) {
        if (!e->create || (e->kind != ENTRYKIND::CLASS && e->kind != ENTRYKIND::COMPONENT))
            continue;
        auto found = Workloads().find(e->kindId);
        const Operations* ops = found == Workloads().end() ? nullptr : &found->second;
        ASSERT_TRUE(ops || CreationOnly().count(e->kindId))
            << e->GetId().Text() << " implements " << e->kindId.Text()
            << ", which has no workload: add one, or list it as creation only";
        ++swept;
        for (int64_t n = 1;; ++n) {
            ASSERT_LT(n, 100000) << e->GetId().Text();
            const int64_t before = host::LiveAllocations();
            bool done = false;
            {
                host::FailNthAllocation(n);
                Result<StrongRef<Object>> object = e->create();
                Result<void> run = OK();
                if (!object)
                    run = object.GetError();
                else if (ops)
                    run = (*ops)(*object);
                const bool failedNone = host::AllocationFailurePending();
                host::FailNthAllocation(0);
                done = run.Ok();
                // A run that succeeds past a failed allocation hid the shortage.
                EXPECT_TRUE(!done || failedNone) << e->GetId().Text() << " n=" << n;
                if (!done) {
                    ASSERT_EQ(run.GetError().Message(), "Out of memory.")
                        << e->GetId().Text() << " n=" << n;
                    if (object && ops) {
                        Result<void> retry = (*ops)(*object);
                        EXPECT_TRUE(retry.Ok()) << e->GetId().Text() << " n=" << n << ": "
                                                << retry.GetError().Message();
                    }
                }
            }
            ASSERT_EQ(host::LiveAllocations(), before) << e->GetId().Text() << " n=" << n;
            if (done) break;
        }
    }
    EXPECT_GT(swept, 30);
}

// The texture builds of every storage type, each pyramid on its own: allocation n fails
// until the build succeeds without reaching it. Each failure is "Out of memory." and leaves
// the pyramid unbuilt,
// a retry on the same texture builds it with the texels of an undisturbed build, and
// releasing the texture leaves nothing allocated.
TEST(FaultSweepTest, TextureBuildsSurviveEveryFailedAllocation) {
    auto picture = [](PixelFormat format) -> Result<StrongRef<ImageInterface>> {
        // Odd sides: the halving steps replicate edges, the rip grid is not square.
        constexpr int64_t kW = 7, kH = 5;
        KELVO_ASSIGN_OR_RETURN(auto image, CreateImage(kW, kH));
        KELVO_ASSIGN_OR_RETURN(auto layer, CreateImageLayer(kW, kH, format, COLORPROFILE::LINEAR));
        KELVO_ASSIGN_OR_RETURN(auto set,
                               layer->SetPixelHandler(kPixelRgba32f, COLORPROFILE::LINEAR));
        std::vector<float> row(4 * kW);
        for (int64_t y = 0; y < kH; ++y) {
            for (size_t i = 0; i < row.size(); ++i)
                row[i] = float((i * 7 + size_t(y) * 13) % 17) / 16.0f;
            KELVO_TRY(set->SetPixels(0, y, kW, row.data()));
        }
        KELVO_TRY(image->AddLayer(layer));
        return image;
    };
    // Every view of a pyramid as bytes.
    auto texels = [](const TextureInterface& t, TEXTUREPYRAMID pyramid) {
        std::string bytes;
        auto add = [&](const TextureLevelView& v) {
            static constexpr size_t kSize[] = {1, 2, 4, 4, 8};
            bytes.append(static_cast<const char*>(v.pixels),
                         size_t(v.width * v.height * v.channels) * kSize[size_t(v.type)]);
        };
        if (pyramid == TEXTUREPYRAMID::MIPMAP)
            for (int l = 0; l < t.GetMipLevelCount(); ++l) add(t.GetMipLevel(l));
        else if (pyramid == TEXTUREPYRAMID::RIPMAP)
            for (int x = 0; x < t.GetRipLevelCountX(); ++x)
                for (int y = 0; y < t.GetRipLevelCountY(); ++y) add(t.GetRipLevel(x, y));
        else
            add(t.GetSummedArea());
        return bytes;
    };
    int swept = 0;
    for (uint8_t channels : {3, 4})
        for (CHANNELTYPE type : {CHANNELTYPE::UINT8, CHANNELTYPE::UINT16, CHANNELTYPE::FLOAT32}) {
            auto image = picture(PixelFormat{channels, type});
            ASSERT_TRUE(image.Ok()) << image.GetError().Message();
            for (auto pyramid :
                 {TEXTUREPYRAMID::MIPMAP, TEXTUREPYRAMID::RIPMAP, TEXTUREPYRAMID::SUMMEDAREA}) {
                auto reference = *CreateComponent<TextureInterface>();
                ASSERT_TRUE(reference->Init(*image, {}).Ok());
                if (!reference->Build(pyramid)) continue;  // not offered for this storage
                const std::string expected = texels(*reference, pyramid);
                const std::string label = std::string(TextureStorageName(reference->GetStorage())) +
                                          " pyramid " + std::to_string(int(pyramid));
                ++swept;
                for (int64_t n = 1;; ++n) {
                    ASSERT_LT(n, 10000) << label;
                    const int64_t before = host::LiveAllocations();
                    bool done = false;
                    {
                        auto texture = *CreateComponent<TextureInterface>();
                        ASSERT_TRUE(texture->Init(*image, {}).Ok());
                        host::FailNthAllocation(n);
                        Result<void> built = texture->Build(pyramid);
                        const bool failedNone = host::AllocationFailurePending();
                        host::FailNthAllocation(0);
                        done = built.Ok();
                        // A build that succeeds past a failed allocation hid the shortage.
                        EXPECT_TRUE(!done || failedNone) << label << " n=" << n;
                        if (!done) {
                            ASSERT_EQ(built.GetError().Message(), "Out of memory.")
                                << label << " n=" << n;
                            EXPECT_FALSE(texture->IsBuilt(pyramid)) << label << " n=" << n;
                            ASSERT_TRUE(texture->Build(pyramid).Ok()) << label << " n=" << n;
                        }
                        EXPECT_EQ(texels(*texture, pyramid), expected) << label << " n=" << n;
                    }
                    ASSERT_EQ(host::LiveAllocations(), before) << label << " n=" << n;
                    if (done) break;
                }
            }
        }
    EXPECT_GE(swept, 14);
}

}  // namespace
}  // namespace kelvo
