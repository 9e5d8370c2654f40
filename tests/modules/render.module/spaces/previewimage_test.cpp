// The preview pipeline with the host's deterministic jobs (every scheduling decision in a
// fixed order) and on a real one-thread queue.
#include <gtest/gtest.h>

#include "host.h"
#include "kelvo/diagnostics.h"
#include "previewimage_test_util.h"

namespace kelvo::nodes {
namespace {

using testing_previewimage::Recorder;
using testing_previewimage::SyntheticTask;

class PreviewSchedulerTest : public testing::Test {
protected:
    void SetUp() override { host::SetDeterministicJobs(true); }
    void TearDown() override {
        PreviewImageScheduler::Release();
        host::SetDeterministicJobs(false);
        ASSERT_TRUE(PreviewImageScheduler::Create().Ok());  // as the module started it
    }
    StrongRef<SyntheticTask> Task(int64_t count, int64_t stride = 1) {
        return *NewObject<SyntheticTask>(count, stride);
    }
    StrongRef<PreviewImageSchedulerEntry> Entry(const std::string& name,
                                                StrongRef<SyntheticTask> task) {
        auto entry = PreviewImageSchedulerEntry::Create(recorder.Request(name), task);
        EXPECT_TRUE(entry.Ok()) << entry.GetError().Message();
        return *entry;
    }
    StrongRef<PreviewImageSubscription> Submit(const StrongRef<PreviewImageSchedulerEntry>& e,
                                               bool priority = false) {
        auto sub = PreviewImageScheduler::SubmitEntry(e, priority);
        EXPECT_TRUE(sub.Ok());
        return *sub;
    }
    PreviewImageSchedulerStatistics Stats() { return *PreviewImageScheduler::GetStatistics(); }
    Recorder recorder;
};

TEST_F(PreviewSchedulerTest, LimitIsAboutHalfTheThreadsAtMostEight) {
    for (auto [threads, limit] : {std::pair{1, 1}, {2, 1}, {3, 1}, {6, 3}, {16, 8}, {64, 8}}) {
        ASSERT_TRUE(PreviewImageScheduler::Create(threads).Ok());
        EXPECT_EQ(Stats().limit, limit) << threads;
    }
}

TEST_F(PreviewSchedulerTest, TasksAreRefinedRoundRobinAndCompleteOnce) {
    ASSERT_TRUE(PreviewImageScheduler::Create(1).Ok());
    auto a = Entry("a", Task(2)), b = Entry("b", Task(2)), c = Entry("c", Task(2));
    auto sa = Submit(a), sb = Submit(b), sc = Submit(c);
    host::RunPendingJobs();
    EXPECT_EQ(recorder.Order(), "a:0 b:0 c:0 a:1 b:1 c:1");
    for (auto& e : {a, b, c}) {
        EXPECT_TRUE(e->GetCompletion()->IsSet());
        EXPECT_EQ(e->GetCompletionCount(), 1);
    }
    EXPECT_EQ(Stats().tasks, 0u);
}

TEST_F(PreviewSchedulerTest, PriorityPreemptsRunningNormalTasksWhichResumeOneIterationAtATime) {
    ASSERT_TRUE(PreviewImageScheduler::Create(6).Ok());  // limit 3
    auto n1 = Entry("n1", Task(2)), n2 = Entry("n2", Task(2)), p = Entry("p", Task(2));
    auto s1 = Submit(n1), s2 = Submit(n2);
    EXPECT_EQ(Stats().runningNormal, 2u);
    auto sp = Submit(p, true);
    // Both normal jobs were cancelled before they ran and went back to their queue.
    EXPECT_EQ(Stats().preemptions, 2u);
    EXPECT_EQ(Stats().runningNormal, 0u);
    EXPECT_EQ(Stats().queuedNormal, 2u);
    host::RunPendingJobs();
    EXPECT_EQ(recorder.Order(), "p:0 p:1 n1:0 n2:0 n1:1 n2:1");
    EXPECT_EQ(n1->GetCompletionCount(), 1);
}

TEST_F(PreviewSchedulerTest, PriorityTasksTakeTurnsTooAndATaskLeftAloneGoesOnAtOnce) {
    ASSERT_TRUE(PreviewImageScheduler::Create(1).Ok());
    auto n = Entry("n", Task(2)), p1 = Entry("p1", Task(2)), p2 = Entry("p2", Task(2));
    auto sn = Submit(n), s1 = Submit(p1, true), s2 = Submit(p2, true);
    host::RunPendingJobs();
    EXPECT_EQ(recorder.Order(), "p1:0 p2:0 p1:1 p2:1 n:0 n:1");
    EXPECT_EQ(n->GetCompletionCount(), 1);
    EXPECT_EQ(Stats().runningNormal + Stats().runningPriority + Stats().tasks, 0u);
}

TEST_F(PreviewSchedulerTest, SameTaskSubmittedTwiceKeepsOneEntryAndDeliversEachIndexOnce) {
    ASSERT_TRUE(PreviewImageScheduler::Create(1).Ok());
    auto a = Entry("a", Task(1)), b = Entry("b", Task(2));
    auto sa = Submit(a);
    auto sb1 = Submit(b), sb2 = Submit(b);
    EXPECT_EQ(Stats().tasks, 2u);
    EXPECT_EQ(Stats().queuedNormal, 2u);
    host::RunPendingJobs();
    EXPECT_EQ(recorder.Order(), "a:0 b:0 b:1");
    EXPECT_EQ(b->GetCompletionCount(), 1);
}

TEST_F(PreviewSchedulerTest, DeliversOnlyWhenTheIndexAdvances) {
    ASSERT_TRUE(PreviewImageScheduler::Create(1).Ok());
    auto task = Task(2, 2);  // indices 0, 0, 1
    auto e = Entry("a", task);
    auto s = Submit(e);
    host::RunPendingJobs();
    EXPECT_EQ(recorder.Order(), "a:0 a:1");
    EXPECT_EQ(task->Started(), 3);
}

TEST_F(PreviewSchedulerTest, IterationErrorsEndTheTask) {
    ASSERT_TRUE(PreviewImageScheduler::Create(1).Ok());
    auto task = Task(3);
    task->failWith = UnexpectedError(KELVO_HERE, "provider broke");
    auto e = Entry("a", task);
    auto s = Submit(e);
    host::RunPendingJobs();
    EXPECT_EQ(recorder.Order(), "a:provider broke");
    EXPECT_EQ(task->Started(), 1);
    // Without a task the start fails and the requester hears why.
    auto none = PreviewImageSchedulerEntry::Create(recorder.Request("none"));
    ASSERT_TRUE(none.Ok());
    auto sn = Submit(*none);
    EXPECT_EQ(recorder.Order(), "a:provider broke none:Illegal argument: Invalid user task");
    EXPECT_EQ(Stats().tasks, 0u);
}

TEST_F(PreviewSchedulerTest, CancelRemovesTheTaskAndLaterReportsAreUnknownUnlessQuiet) {
    ASSERT_TRUE(PreviewImageScheduler::Create(1).Ok());
    auto e = Entry("a", Task(3));
    auto s = Submit(e);
    const uint64_t id = e->GetId();
    s.reset();  // its queued job is cancelled at once
    EXPECT_EQ(Stats().tasks, 0u);
    host::RunPendingJobs();
    EXPECT_EQ(recorder.Order(), "");
    host::CapturedDiagnostics diag;
    PreviewImageScheduler::Finish(id, false, true);
    EXPECT_TRUE(diag.Lines().empty());
    PreviewImageScheduler::Finish(id, false, false);
    ASSERT_EQ(diag.Lines().size(), 1u);
    EXPECT_EQ(diag.Lines()[0], "Unknown task under Id " + std::to_string(id));
}

TEST_F(PreviewSchedulerTest, AStrayRequeueOfAnIteratingTaskFailsItAndFreesItsPlace) {
    ASSERT_TRUE(PreviewImageScheduler::Create(1).Ok());
    auto a = Entry("a", Task(2)), b = Entry("b", Task(1));
    auto sa = Submit(a);  // its iteration is queued
    host::CapturedDiagnostics diag;
    PreviewImageScheduler::Finish(a->GetId(), true, true);
    EXPECT_EQ(recorder.Order(), "a:Illegal state: The task has already started");
    EXPECT_EQ(Stats().runningNormal + Stats().tasks, 0u);
    // Forgotten at once: the end of its cancelled iteration is reported as unknown.
    ASSERT_EQ(diag.Lines().size(), 1u);
    EXPECT_EQ(diag.Lines()[0], "Unknown task under Id " + std::to_string(a->GetId()));
    auto sb = Submit(b);
    host::RunPendingJobs();
    EXPECT_EQ(recorder.Order(), "a:Illegal state: The task has already started b:0");
}

TEST_F(PreviewSchedulerTest, AfterShutdownSubmissionsGetAHandleButNothingStarts) {
    ASSERT_TRUE(PreviewImageScheduler::Create(1).Ok());
    // The iteration that runs ends; the task asks for the next one, which never starts.
    auto running = Entry("r", Task(3));
    auto sr = Submit(running);
    PreviewImageScheduler::Shutdown(false);
    EXPECT_EQ(recorder.Order(), "r:0");
    EXPECT_EQ(Stats().runningNormal, 0u);
    EXPECT_EQ(Stats().queuedNormal, 1u);
    auto e = Entry("a", Task(1));
    auto s = Submit(e);
    EXPECT_NE(s, nullptr);
    EXPECT_EQ(host::PendingJobs(), 0u);
    EXPECT_EQ(Stats().tasks, 1u);
    EXPECT_TRUE(Stats().stopped);
}

TEST_F(PreviewSchedulerTest, RequestsSubmitCopyAndReset) {
    ASSERT_TRUE(PreviewImageScheduler::Create(1).Ok());
    auto request = *CreatePreviewImageRequest();
    auto& data = *request->GetData();
    // Errors come back unchanged and no preview is held.
    EXPECT_EQ(request->Submit().GetError().Message(),
              "Illegal argument: Invalid ResultCompleteFunc()");
    data = recorder.Request("r");
    ASSERT_TRUE(data.Set(PREVIEWIMAGEREQUEST::TEXTURESIZE, Vec2{0, 64}).Ok());
    EXPECT_EQ(request->Submit().GetError().Message(), "Illegal argument: Invalid Image Size");
    ASSERT_TRUE(data.Set(PREVIEWIMAGEREQUEST::TEXTURESIZE, Vec2{1, 1}).Ok());
    auto task = Task(3);
    struct Provider final : Implements<PreviewImageProviderInterface> {
        StrongRef<SyntheticTask> task;
        PreviewImageRequestInterface* resetDuringSubmit = nullptr;
        Result<StrongRef<PreviewImageProviderTaskInterface>> CreateTask(
            const DataDictionary&) override {
            if (resetDuringSubmit) resetDuringSubmit->Reset();
            return StrongRef<PreviewImageProviderTaskInterface>(task);
        }
    };
    auto provider = *NewObject<Provider>();
    provider->task = task;
    ASSERT_TRUE(data.Set(PREVIEWIMAGEREQUEST::PROVIDER, StrongRef<Object>(provider)).Ok());
    ASSERT_TRUE(request->Submit().Ok());
    auto copy = *request->Copy();
    request->Reset();
    host::RunPendingJobs(1);
    EXPECT_EQ(recorder.Order(), "r:0");  // the copy keeps the preview alive
    copy.reset();
    host::RunPendingJobs();
    EXPECT_EQ(recorder.Order(), "r:0");
    EXPECT_EQ(Stats().tasks, 0u);
    // A priority purpose goes first; a second Submit cancels the first preview.
    ASSERT_TRUE(data.Set(PREVIEWIMAGEREQUEST::PURPOSE, int64_t(1)).Ok());
    provider->task = Task(2);
    ASSERT_TRUE(request->Submit().Ok());
    EXPECT_EQ(Stats().runningPriority, 1u);
    provider->task = Task(1);
    ASSERT_TRUE(request->Submit().Ok());
    host::RunPendingJobs();
    EXPECT_EQ(recorder.Order(), "r:0 r:0");
    // A Reset that comes while Submit runs (from another thread, or a callback) cancels the
    // preview being submitted.
    provider->task = Task(2);
    provider->resetDuringSubmit = request.get();
    ASSERT_TRUE(request->Submit().Ok());
    EXPECT_EQ(Stats().tasks, 0u);
    host::RunPendingJobs();
    EXPECT_EQ(recorder.Order(), "r:0 r:0");
    // The handle is handed over before the first iteration can start: the submitting thread
    // may not run again before the first callback, which may let go of the preview.
    size_t runningAtHandOver = 99;
    StrongRef<PreviewImageSubscription> handed;
    auto returned = PreviewImageScheduler::SubmitEntry(
        Entry("h", Task(1)), false, [&](StrongRef<PreviewImageSubscription> s) {
            runningAtHandOver = Stats().runningNormal;
            handed = std::move(s);
        });
    ASSERT_TRUE(returned.Ok());
    EXPECT_FALSE(*returned);
    EXPECT_EQ(runningAtHandOver, 0u);
    EXPECT_EQ(Stats().runningNormal, 1u);
    handed.reset();
    EXPECT_EQ(Stats().tasks, 0u);
    PreviewImageScheduler::Release();
    EXPECT_EQ(request->Submit().GetError().Message(),
              "Illegal state: Invalid Preview Image Scheduler");
}

TEST_F(PreviewSchedulerTest, ImagesAreResizedAndFlippedOnlyWhenAsked) {
    ASSERT_TRUE(PreviewImageScheduler::Create(1).Ok());
    auto plain = Task(1), flipped = Task(1), upscaled = Task(1);
    auto e1 = Entry("plain", plain);
    DataDictionary flip = recorder.Request("flip");
    ASSERT_TRUE(flip.Set(PREVIEWIMAGEREQUEST::FLIPVERTICALLY, true).Ok());
    auto e2 = *PreviewImageSchedulerEntry::Create(flip, flipped);
    DataDictionary up = recorder.Request("up", 4, 6);
    ASSERT_TRUE(up.Set(PREVIEWIMAGEREQUEST::UPSCALEPROGRESSION, true).Ok());
    auto e3 = *PreviewImageSchedulerEntry::Create(up, upscaled);
    auto s1 = Submit(e1), s2 = Submit(e2), s3 = Submit(e3);
    host::RunPendingJobs();
    auto d = recorder.Deliveries();
    ASSERT_EQ(d.size(), 3u);
    EXPECT_EQ(d[0].image.samples, plain->lastSamples);  // unchanged, not copied
    EXPECT_NE(d[1].image.samples, flipped->lastSamples);
    EXPECT_EQ((*d[1].image.samples)[0].g, 2.0f);  // rows reversed: source sample 2 first
    EXPECT_EQ((*d[1].image.samples)[2].g, 0.0f);
    EXPECT_EQ(d[2].image.width, 4);
    EXPECT_EQ(d[2].image.height, 6);
    EXPECT_EQ(d[2].image.samples->size(), 24u);
}

TEST(PreviewResizeTest, ScalesFlipsAndRefusesBadBuffers) {
    using E = PreviewImageSchedulerEntry;
    auto one = *NewObject<PreviewImageSamples>(1, Col4f{0.5f, 0.25f, 1, 1});
    auto big = *E::ResizeAndFlipSamplesBuffer(one, {1, 1}, {3, 2}, false);
    ASSERT_EQ(big->size(), 6u);
    for (const Col4f& c : *big) EXPECT_EQ(c, (Col4f{0.5f, 0.25f, 1, 1}));
    // Same size with flip: an exact copy with the rows reversed.
    auto rows = *NewObject<PreviewImageSamples>();
    for (int i = 0; i < 6; ++i) rows->push_back(Col4f{float(i), 0, 0, 1});
    auto flipped = *E::ResizeAndFlipSamplesBuffer(rows, {2, 3}, {2, 3}, true);
    EXPECT_EQ((*flipped)[0].r, 4.0f);
    EXPECT_EQ((*flipped)[1].r, 5.0f);
    EXPECT_EQ((*flipped)[5].r, 1.0f);
    // Bilinear between pixel centres: 0, 1 upscaled to four columns.
    auto ramp = *NewObject<PreviewImageSamples>();
    ramp->push_back(Col4f{0, 0, 0, 0});
    ramp->push_back(Col4f{1, 0, 0, 0});
    auto wide = *E::ResizeAndFlipSamplesBuffer(ramp, {2, 1}, {4, 1}, false);
    EXPECT_FLOAT_EQ((*wide)[0].r, 0.0f);
    EXPECT_FLOAT_EQ((*wide)[1].r, 0.25f);
    EXPECT_FLOAT_EQ((*wide)[2].r, 0.75f);
    EXPECT_FLOAT_EQ((*wide)[3].r, 1.0f);
    EXPECT_EQ(E::ResizeAndFlipSamplesBuffer(nullptr, {1, 1}, {1, 1}, false).GetError().Message(),
              "Illegal argument: Invalid Sample Buffer");
    EXPECT_EQ(E::ResizeAndFlipSamplesBuffer(one, {2, 1}, {1, 1}, false).GetError().Message(),
              "Illegal argument: Invalid sample buffer.");
}

// On a real one-thread queue: the same pipeline, and callbacks that let go of their preview.
class PreviewRealQueueTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(PreviewImageScheduler::Create(1).Ok()); }
    void TearDown() override { ASSERT_TRUE(PreviewImageScheduler::Create().Ok()); }
    Recorder recorder;
};

TEST_F(PreviewRealQueueTest, RoundRobinAndReleaseFromInsideTheOwnCallback) {
    std::vector<StrongRef<PreviewImageSchedulerEntry>> entries;
    std::vector<StrongRef<PreviewImageSubscription>> subs;
    // Created before any is submitted, so that the first cannot finish alone.
    PreviewImageScheduler::Shutdown(false);
    ASSERT_TRUE(PreviewImageScheduler::Create(1).Ok());
    for (const char* name : {"a", "b"}) {
        entries.push_back(*PreviewImageSchedulerEntry::Create(recorder.Request(name),
                                                              *NewObject<SyntheticTask>(2)));
    }
    for (auto& e : entries) subs.push_back(*PreviewImageScheduler::SubmitEntry(e, false));
    for (auto& e : entries) EXPECT_TRUE(e->GetCompletion()->WaitFor(10));
    auto order = recorder.Order();
    EXPECT_TRUE(order == "a:0 b:0 a:1 b:1" || order == "a:0 a:1 b:0 b:1") << order;

    // A callback that drops the last handle of its own preview: no deadlock, nothing after.
    auto task = *NewObject<SyntheticTask>(5);
    StrongRef<PreviewImageSubscription> self;
    std::mutex m;
    std::atomic<int> calls{0};
    DataDictionary d = recorder.Request("x");
    ASSERT_TRUE(d.Set(PREVIEWIMAGEREQUEST::RESULTCOMPLETEFUNC,
                      *MakeResultCompleteFunc([&](const Result<DataDictionary>&) {
                          calls.fetch_add(1);
                          std::lock_guard lock(m);
                          self.reset();
                      }))
                    .Ok());
    auto entry = *PreviewImageSchedulerEntry::Create(d, task);
    {
        std::lock_guard lock(m);
        self = *PreviewImageScheduler::SubmitEntry(entry, false);
    }
    EXPECT_TRUE(entry->GetCompletion()->WaitFor(10));
    PreviewImageScheduler::Shutdown(false);
    EXPECT_EQ(calls.load(), 1);
}

TEST_F(PreviewRealQueueTest, CancelWaitsForTheRunningIteration) {
    auto task = *NewObject<SyntheticTask>(3);
    task->blockUntilCancelled = true;
    auto entry = *PreviewImageSchedulerEntry::Create(recorder.Request("a"), task);
    auto sub = *PreviewImageScheduler::SubmitEntry(entry, false);
    while (task->Started() == 0) std::this_thread::yield();
    sub.reset();  // returns only once the iteration has ended
    EXPECT_TRUE(entry->GetCompletion()->IsSet());
    EXPECT_EQ(recorder.Order(), "");
    EXPECT_EQ(PreviewImageScheduler::GetStatistics()->tasks, 0u);
}

}  // namespace
}  // namespace kelvo::nodes
