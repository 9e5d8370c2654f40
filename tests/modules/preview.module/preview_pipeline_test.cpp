// Material swatches through the real preview pipeline: the preview module loaded as a
// library, its legacy-material node space and provider reached by id, requests submitted to
// the render module's scheduler. Orders are checked with the host's deterministic jobs,
// release and unload on the real queue, with the single-threaded Embree engine.
#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "host.h"
#include "kelvo/legacy_renderers/previewmaterial_json.h"
#include "kelvo/nodes/nodespace.h"
#include "kelvo/nodes/previewimage.h"
#include "kelvo/previewmaterials.h"
#include "kelvo/previewrenderer.h"
#include "kelvo/registry.h"
#include "preview_test_util.h"
#include "spaces/previewimage_scheduler.h"

namespace kelvo::nodes {
namespace {

namespace REQUEST = PREVIEWIMAGEREQUEST;

host::ModuleHandle g_previewModule = nullptr;

void LoadPreviewModule() {
    kelvo::testing_preview::LoadEngineModule();
    // The engine that builds on one thread: Embree's own build threads are not instrumented,
    // and these tests run under the sanitizers too.
    ASSERT_TRUE(
        host::ConfigSet("g_polygonIntersection", "net.kelvo.render.intersectionclass.embreesingle")
            .Ok());
    if (g_previewModule) return;
    auto module = host::LoadModule(KELVO_PREVIEW_MODULE);
    ASSERT_TRUE(module.Ok()) << module.GetError().Message();
    g_previewModule = *module;
}

// Every delivery of one swatch, as the result callback saw it.
struct Swatch {
    std::mutex lock;
    std::vector<int64_t> indices;
    std::string error;
    PreviewImageProviderOutputImage last;

    size_t Count() {
        std::lock_guard guard(lock);
        return indices.size();
    }
};

// Deliveries of every swatch in the order they arrived ("name:index").
struct Journal {
    std::mutex lock;
    std::string order;
    void Add(const std::string& entry) {
        std::lock_guard guard(lock);
        order += (order.empty() ? "" : " ") + entry;
    }
};

constexpr const char* kGgx =
    R"({"model":"ggxbrdf","data":{"roughness":0.3},"colour":[0.8,0.4,0.2]})";
constexpr const char* kLambert = R"({"model":"lambertbrdf","colour":[0.2,0.6,0.9]})";
constexpr const char* kOrenNayar = R"({"model":"orennayarbrdf"})";

// The material's typed entries, read once from its text as a requester does.
Result<void> ReadMaterial(const std::string& text, DataDictionary& into) {
    return ReadPreviewMaterialJson(nlohmann::json::parse(text, nullptr, false), into);
}

class PreviewPipelineTest : public ::testing::Test {
protected:
    void SetUp() override { LoadPreviewModule(); }
    void TearDown() override {
        host::SetDeterministicJobs(false);
        PreviewImageScheduler::Release();
        ASSERT_TRUE(PreviewImageScheduler::Create().Ok());  // as the module started it
    }

    // A request for material, size x size, count iterations, configured by hand as the
    // legacy space would.
    StrongRef<PreviewImageRequestInterface> Request(const std::string& name,
                                                    const std::string& material, int64_t count,
                                                    Swatch& swatch, bool priority = false,
                                                    int64_t size = 8) {
        auto request = CreatePreviewImageRequest();
        EXPECT_TRUE(request.Ok());
        DataDictionary& d = *(*request)->GetData();
        auto f = MakeResultCompleteFunc([this, name, &swatch](const Result<DataDictionary>& r) {
            std::lock_guard guard(swatch.lock);
            if (!r) {
                swatch.error = r.GetError().Message();
                journal.Add(name + ":error");
                return;
            }
            const int64_t index = r->Get<int64_t>(REQUEST::ITERATIONINDEX, -1);
            swatch.indices.push_back(index);
            if (const Data* image = r->Find(PREVIEWRESULT::IMAGE))
                if (const auto* img = GetOutputImage(*image)) swatch.last = *img;
            journal.Add(name + ":" + std::to_string(index));
        });
        (void)d.Set(REQUEST::RESULTCOMPLETEFUNC, *f);
        (void)d.Set(REQUEST::TEXTURESIZE, Vec2{double(size), double(size)});
        (void)d.Set(REQUEST::ITERATIONCOUNT, count);
        if (!material.empty()) {
            EXPECT_TRUE(ReadMaterial(material, d).Ok()) << material;
            (void)d.Set(REQUEST::SUBJECT, kLegacyMaterialNodeSpace);
        }
        (void)d.Set(REQUEST::PROVIDER, kPreviewImageProviderClass);
        if (priority) (void)d.Set(REQUEST::PURPOSE, int64_t(PREVIEWIMAGEPURPOSE::PRIORITY));
        return *request;
    }

    // The same swatch straight from the renderer class after `iterations` iterations.
    std::vector<float> Direct(const std::string& material, int64_t iterations, int64_t size = 8) {
        PreviewSettings settings;
        settings.width = settings.height = size;
        PreviewMaterial m;
        PreviewLight light;
        // The provider's own reading of the entries is what is compared; only the model and
        // colour of the three test materials matter here.
        auto made = CreateClass<PreviewRendererInterface>(kPreviewRendererClass);
        EXPECT_TRUE(made.Ok());
        m.data = *NewObject<DataDictionary>();
        if (material == kGgx) {
            m.model = Id("net.kelvo.render.bsdflegacyclass.ggxbrdf");
            (void)m.data->Set(Id("net.kelvo.render.bsdfdata.roughness"), 0.3);
            m.colour = {0.8, 0.4, 0.2};
        } else if (material == kLambert) {
            m.colour = {0.2, 0.6, 0.9};
        } else {
            m.model = Id("net.kelvo.render.bsdflegacyclass.orennayarbrdf");
        }
        auto& r = *made;
        EXPECT_TRUE(r->Init(settings, m, light).Ok());
        for (int64_t i = 0; i < iterations; ++i) EXPECT_TRUE(r->RenderIteration({}).Ok());
        std::vector<float> rgb(size_t(size * size * 3));
        EXPECT_TRUE(r->GetImage(rgb).Ok());
        return rgb;
    }

    static void ExpectImage(const PreviewImageProviderOutputImage& image,
                            const std::vector<float>& rgb) {
        ASSERT_TRUE(image.samples);
        ASSERT_EQ(image.samples->size() * 3, rgb.size());
        for (size_t i = 0; i < image.samples->size(); ++i) {
            const Col4f& c = (*image.samples)[i];
            ASSERT_EQ(c.r, rgb[i * 3]) << i;
            ASSERT_EQ(c.g, rgb[i * 3 + 1]) << i;
            ASSERT_EQ(c.b, rgb[i * 3 + 2]) << i;
            ASSERT_EQ(c.a, 1.0f);
        }
    }

    static bool WaitFor(const std::function<bool()>& done, double seconds = 30.0) {
        const auto until =
            std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        while (!done()) {
            if (std::chrono::steady_clock::now() > until) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return true;
    }

    static PreviewImageSchedulerStatistics Stats() {
        return *PreviewImageScheduler::GetStatistics();
    }

    Journal journal;
};

TEST_F(PreviewPipelineTest, SwatchesRefineRoundRobinInIterationOrderAndEndAsTheRendererAlone) {
    host::SetDeterministicJobs(true);
    ASSERT_TRUE(PreviewImageScheduler::Create(1).Ok());
    Swatch a, b, c;
    auto ra = Request("a", kGgx, 3, a), rb = Request("b", kLambert, 3, b),
         rc = Request("c", kOrenNayar, 3, c);
    for (auto* r : {&ra, &rb, &rc}) ASSERT_TRUE((*r)->Submit().Ok());
    host::RunPendingJobs();
    EXPECT_EQ(journal.order, "a:0 b:0 c:0 a:1 b:1 c:1 a:2 b:2 c:2");
    EXPECT_EQ(Stats().tasks, 0u);
    for (auto [swatch, material] : {std::pair{&a, kGgx}, {&b, kLambert}, {&c, kOrenNayar}}) {
        EXPECT_TRUE(swatch->last.isFinal);
        EXPECT_EQ(swatch->last.width, 8);
        ExpectImage(swatch->last, Direct(material, 3));
    }
}

TEST_F(PreviewPipelineTest, APrioritySwatchPreemptsTheRunningOneWhichResumesWhereItStood) {
    host::SetDeterministicJobs(true);
    ASSERT_TRUE(PreviewImageScheduler::Create(1).Ok());
    Swatch a, p;
    auto ra = Request("a", kGgx, 3, a);
    ASSERT_TRUE(ra->Submit().Ok());
    host::RunPendingJobs(1);  // a's first iteration; its second is queued on the job queue
    auto rp = Request("p", kLambert, 2, p, true);
    ASSERT_TRUE(rp->Submit().Ok());
    EXPECT_EQ(Stats().preemptions, 1u);
    host::RunPendingJobs();
    EXPECT_EQ(journal.order, "a:0 p:0 p:1 a:1 a:2");
    // The preempted iteration ran again in full: nothing of it was lost or counted twice.
    ExpectImage(a.last, Direct(kGgx, 3));
    ExpectImage(p.last, Direct(kLambert, 2));
}

TEST_F(PreviewPipelineTest, TheLegacySpaceDerivesFromTheBaseAndConfiguresRequestsThatRender) {
    // Known by id without making anything: a registered space, neither an unknown id nor a
    // class of another registry.
    EXPECT_TRUE(IsNodeSpaceRegistered(kLegacyMaterialNodeSpace));
    EXPECT_FALSE(IsNodeSpaceRegistered(Id("net.kelvo.nodespace.none")));
    EXPECT_FALSE(IsNodeSpaceRegistered(kPreviewImageProviderClass));
    auto helpers = CreateComponent<NodeSpaceHelpersInterface>();
    ASSERT_TRUE(helpers.Ok());
    auto space = (*helpers)->FindNodeSpace(kLegacyMaterialNodeSpace);
    ASSERT_TRUE(space.Ok()) << space.GetError().Message();
    StrongRef<const DataDictionary> description = (*space)->GetDescription();
    ASSERT_TRUE(description);
    EXPECT_EQ(description->Get<std::string>(NODESPACE::SPACENAME), "Legacy materials");
    EXPECT_EQ(description->Get<Id>(NODESPACE::SPACEID), kLegacyMaterialNodeSpace);
    // The base applied the exchange fallback.
    EXPECT_EQ(description->Get<Id>(NODESPACE::MATERIALEXCHANGECLASS),
              kMaterialExchangeDefaultClass);
    const Data* f = description->Find(NODESPACE::CONFIGUREPREVIEWIMAGEREQUESTFUNC);
    ASSERT_TRUE(f && f->Get<StrongRef<Object>>());
    auto configure = Query<ConfigurePreviewImageRequestInterface>(*f->Get<StrongRef<Object>>());
    ASSERT_TRUE(configure);

    // An empty material is the default one; a typed material's entries reach the request as
    // they are, and only its own: what the material holds beside them stays behind.
    DataDictionary material, request;
    ASSERT_TRUE(configure->Configure(material, request).Ok());
    EXPECT_EQ(request.Get<Id>(REQUEST::SUBJECT), kLegacyMaterialNodeSpace);
    EXPECT_FALSE(request.Contains(PREVIEWMATERIAL::MODEL));
    ASSERT_TRUE(ReadMaterial(kGgx, material).Ok());
    ASSERT_TRUE(material.Set(PREVIEWMATERIAL::SCENE, std::string("cube")).Ok());
    ASSERT_TRUE(material.Set(REQUEST::PURPOSE, int64_t(PREVIEWIMAGEPURPOSE::PRIORITY)).Ok());
    ASSERT_TRUE(configure->Configure(material, request).Ok());
    EXPECT_EQ(request.Get<Id>(PREVIEWMATERIAL::MODEL),
              Id("net.kelvo.render.bsdflegacyclass.ggxbrdf"));
    EXPECT_EQ(request.Get<double>(Id("net.kelvo.render.bsdfdata.roughness")), 0.3);
    EXPECT_EQ(request.Get<Col3>(PREVIEWMATERIAL::COLOUR), (Col3{0.8, 0.4, 0.2}));
    EXPECT_FALSE(request.Contains(REQUEST::PURPOSE));
    EXPECT_FALSE(request.Contains(PREVIEWMATERIAL::SCENE));
    // A requester holding only text: the space reads it once, its members winning over
    // entries beside it; bad text touches nothing.
    DataDictionary text, fromText;
    ASSERT_TRUE(text.Set(PREVIEWMATERIAL::COLOUR, Col3{1, 1, 1}).Ok());
    ASSERT_TRUE(text.Set(PREVIEWMATERIAL::JSON, std::string(kGgx)).Ok());
    ASSERT_TRUE(configure->Configure(text, fromText).Ok());
    EXPECT_EQ(fromText.Get<Col3>(PREVIEWMATERIAL::COLOUR), (Col3{0.8, 0.4, 0.2}));
    EXPECT_EQ(fromText.Get<double>(Id("net.kelvo.render.bsdfdata.roughness")), 0.3);
    EXPECT_FALSE(fromText.Contains(PREVIEWMATERIAL::JSON));
    const std::pair<Data, const char*> badTexts[] = {
        {std::string(R"({"colour":[1,)"),
         "Illegal argument: The material is not valid JSON (byte 14)."},
        {std::string(R"({"colour": [1e999, 1, 1]})"),
         "Illegal argument: The material holds a number beyond the range of doubles."},
        {std::string(R"({"colour": [1, 1]})"),
         "Illegal argument: colour must be an array of 3 numbers."},
        {int64_t(3), "Illegal argument: net.kelvo.preview.material.json must be a string."},
    };
    for (const auto& [bad, error] : badTexts) {
        DataDictionary given, filled;
        ASSERT_TRUE(given.Set(PREVIEWMATERIAL::JSON, bad).Ok());
        EXPECT_EQ(configure->Configure(given, filled).GetError().Message(), error);
        EXPECT_FALSE(filled.Contains(PREVIEWMATERIAL::COLOUR));
    }
    EXPECT_EQ(request.Get<Id>(REQUEST::PROVIDER), kPreviewImageProviderClass);
    EXPECT_EQ(request.Get<std::string>(REQUEST::SCENETYPE), "cube");
    EXPECT_EQ(request.Get<int64_t>(REQUEST::ITERATIONCOUNT), kPreviewDefaultIterations);

    // A request of the caller's own (size, count, callback) keeps them; the space adds the rest.
    host::SetDeterministicJobs(true);
    ASSERT_TRUE(PreviewImageScheduler::Create(1).Ok());
    Swatch a;
    auto ra = Request("a", "", 2, a);
    DataDictionary& data = *ra->GetData();
    (void)data.Set(REQUEST::SUBJECT, int64_t(0));
    (void)data.Set(REQUEST::PROVIDER, int64_t(0));
    ASSERT_TRUE(material.Set(PREVIEWMATERIAL::SCENE, std::string("sphere")).Ok());
    ASSERT_TRUE(configure->Configure(material, data).Ok());
    ASSERT_TRUE(ra->Submit().Ok());
    host::RunPendingJobs();
    EXPECT_EQ(journal.order, "a:0 a:1");
    ExpectImage(a.last, Direct(kGgx, 2));
}

TEST_F(PreviewPipelineTest, BadMaterialsAreRefusedWhenReadAndAnUnreadableTextureEndsOnlyItsSwatch) {
    // Read once, by the requester: every message names the member at fault.
    const std::pair<const char*, const char*> materials[] = {
        {R"({"color":[1,1,1]})", "Illegal argument: Unknown material member 'color'."},
        {R"({"data":{"shine":1}})", "Illegal argument: Unknown BSDF data key 'shine'."},
        {R"({"data":{"roughness":"0.3"}})", "Illegal argument: roughness must be a number."},
        {R"({"data":[0.3]})", "Illegal argument: data must be an object."},
        {"[1]", "Illegal argument: The material must be a JSON object."},
        {R"({"environment":"dark"})",
         "Illegal argument: environment must be an array of 3 numbers."},
        {R"({"colour":[1,"1",1]})", "Illegal argument: colour must be an array of 3 numbers."},
        {R"({"colour":[1,1]})", "Illegal argument: colour must be an array of 3 numbers."},
        {R"({"model":3})", "Illegal argument: model must be a string."},
        {R"({"textureMode":"trilinear"})",
         "Illegal argument: Unknown texture mode 'trilinear' (nearest, bilinear, mipmap, "
         "ripmap, summedarea)."},
        {R"({"ies":null})", "Illegal argument: ies must be a string."},
    };
    for (const auto& [text, error] : materials) {
        DataDictionary entries;
        Result<void> read = ReadMaterial(text, entries);
        ASSERT_FALSE(read.Ok()) << text;
        EXPECT_EQ(read.GetError().Message(), error) << text;
    }
    // Every member read to its type; the short model name made a full id.
    DataDictionary entries;
    ASSERT_TRUE(ReadMaterial(R"({"model":"net.kelvo.render.bsdflegacyclass.wardbrdf",
        "textureMode":"ripmap","texture":"wood.png","ies":"spot.ies","environment":[1,2,3],
        "data":{"simplemodel":true}})",
                             entries)
                    .Ok());
    EXPECT_EQ(entries.Get<Id>(PREVIEWMATERIAL::MODEL),
              Id("net.kelvo.render.bsdflegacyclass.wardbrdf"));
    EXPECT_EQ(entries.Get<int64_t>(PREVIEWMATERIAL::TEXTUREMODE), int64_t(TEXTUREMODE::RIPMAP));
    EXPECT_EQ(entries.Get<Col3>(PREVIEWMATERIAL::ENVIRONMENT), (Col3{1, 2, 3}));
    EXPECT_TRUE(entries.Find(PREVIEWMATERIAL::TEXTURE)->Get<Url>());
    EXPECT_TRUE(entries.Find(PREVIEWMATERIAL::IES)->Get<Url>());
    EXPECT_TRUE(entries.Get<bool>(Id("net.kelvo.render.bsdfdata.simplemodel")));

    // The request's own checks, at submit.
    Swatch s;
    const std::tuple<std::string, int64_t, std::string> requests[] = {
        {"stage", 2,
         "Illegal argument: Unknown scene 'stage' (open, sphere, cube, plane, backdrop)."},
        {"sphere", 0, "Illegal argument: Invalid iteration count 0."},
    };
    for (const auto& [scene, count, error] : requests) {
        auto r = Request("x", kLambert, count, s);
        (void)r->GetData()->Set(REQUEST::SCENETYPE, scene);
        Result<void> submitted = r->Submit();
        ASSERT_FALSE(submitted.Ok()) << scene;
        EXPECT_EQ(submitted.GetError().Message(), error);
    }
    auto none = Request("x", "", 2, s);
    for (Data subject : {Data(int64_t(1)), Data(std::string(kLambert)), Data()}) {
        (void)none->GetData()->Set(REQUEST::SUBJECT, subject);
        EXPECT_EQ(none->Submit().GetError().Message(),
                  "Illegal argument: The preview request has no material.");
    }

    // The texture is read by the first iteration: its error reaches the callback, naming
    // the file, and the swatch beside it renders to the end.
    Swatch broken, fine;
    auto rb = Request("broken", R"({"texture":"/nonexistent/wood.png"})", 4, broken);
    auto rf = Request("fine", kLambert, 2, fine);
    ASSERT_TRUE(rb->Submit().Ok());
    ASSERT_TRUE(rf->Submit().Ok());
    ASSERT_TRUE(WaitFor([&] { return fine.Count() == 2; }));
    ASSERT_TRUE(WaitFor([&] { return Stats().tasks == 0; }));
    std::lock_guard guard(broken.lock);
    EXPECT_TRUE(broken.indices.empty());
    EXPECT_NE(broken.error.find("/nonexistent/wood.png"), std::string::npos) << broken.error;
}

TEST_F(PreviewPipelineTest, AFailedAllocationAnywhereEndsTheSwatchWithAnErrorAndNothingRepeated) {
    host::SetDeterministicJobs(true);
    ASSERT_TRUE(PreviewImageScheduler::Create(1).Ok());
    bool clean = false;
    for (int64_t n = 1; n < 5000 && !clean; ++n) {
        Swatch s;
        auto r = Request("s", kGgx, 2, s);
        host::FailNthAllocation(n);
        Result<void> submitted = r->Submit();
        host::RunPendingJobs();
        host::FailNthAllocation(0);
        r->Reset();
        ASSERT_EQ(Stats().tasks, 0u) << n;
        std::lock_guard guard(s.lock);
        if (!submitted) {
            EXPECT_EQ(submitted.GetError().Message(), "Out of memory.") << n;
            continue;
        }
        // The images that did arrive came in order, each once; a failure ends the swatch.
        for (size_t i = 0; i < s.indices.size(); ++i) ASSERT_EQ(s.indices[i], int64_t(i)) << n;
        if (!s.error.empty()) {
            EXPECT_EQ(s.error, "Out of memory.") << n;
        } else {
            ASSERT_EQ(s.indices.size(), 2u) << n;
            clean = true;  // n lies beyond the allocations of a whole preview
        }
    }
    EXPECT_TRUE(clean);
}

TEST_F(PreviewPipelineTest, ReleasingARequestStopsItWithinOneIterationAndDeliversNothingMore) {
    Swatch a, b;
    auto ra = Request("a", kGgx, 100000, a, false, 16);
    auto rb = Request("b", kLambert, 100000, b, false, 16);
    ASSERT_TRUE(ra->Submit().Ok());
    ASSERT_TRUE(rb->Submit().Ok());
    ASSERT_TRUE(WaitFor([&] { return a.Count() >= 1 && b.Count() >= 1; }));
    ra->Reset();  // waits for a's running iteration, if any
    const size_t delivered = a.Count();
    ASSERT_TRUE(WaitFor([&] { return b.Count() >= 3; }));  // b goes on, a is gone
    EXPECT_EQ(a.Count(), delivered);
    EXPECT_EQ(Stats().tasks, 1u);
    rb->Reset();
    const PreviewImageSchedulerStatistics s = Stats();
    EXPECT_EQ(s.tasks, 0u);
    EXPECT_EQ(s.runningNormal + s.runningPriority, 0u);
    std::lock_guard guard(a.lock);
    for (size_t i = 0; i < a.indices.size(); ++i) EXPECT_EQ(a.indices[i], int64_t(i));
}

TEST_F(PreviewPipelineTest, UnloadingThePreviewModuleEndsItsPreviewsAndLeavesNothingRunning) {
    Swatch a;
    auto ra = Request("a", kLambert, 100000, a, false, 16);
    ASSERT_TRUE(ra->Submit().Ok());
    ASSERT_TRUE(WaitFor([&] { return a.Count() >= 1; }));
    {
        // Delivered samples are the provider module's objects: let go of them before it goes.
        std::lock_guard guard(a.lock);
        a.last = {};
    }
    host::UnloadModule(g_previewModule);
    g_previewModule = nullptr;
    const size_t delivered = a.Count();
    {
        const PreviewImageSchedulerStatistics s = Stats();
        EXPECT_EQ(s.tasks, 0u);
        EXPECT_EQ(s.runningNormal + s.runningPriority, 0u);
        std::lock_guard guard(a.lock);
        EXPECT_EQ(a.error,
                  "Illegal state: The preview image provider "
                  "net.kelvo.preview.previewimageprovider.pathtracer was unloaded.");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(a.Count(), delivered);
    ra->Reset();
    // Without the module its provider is gone; loaded again, it works as before.
    Swatch b;
    EXPECT_EQ(
        Request("b", kLambert, 1, b)->Submit().GetError().Message(),
        "Illegal argument: Class net.kelvo.preview.previewimageprovider.pathtracer not found.");
    LoadPreviewModule();
    auto rb = Request("b", kLambert, 1, b);
    ASSERT_TRUE(rb->Submit().Ok());
    ASSERT_TRUE(WaitFor([&] { return b.Count() == 1; }));
}

}  // namespace
}  // namespace kelvo::nodes
