#include <gtest/gtest.h>

#include <cmath>

#include "host.h"
#include "kelvo/data.h"
#include "kelvo/matrix.h"
#include "kelvo/result.h"
#include "kelvo/url.h"

namespace kelvo {
namespace {

class CoreValuesTest : public testing::Test {
protected:
    static void SetUpTestSuite() { host::Initialize(); }
};

TEST_F(CoreValuesTest, IdsCompareByTextAndInternRuntimeText) {
    constexpr Id a("net.kelvo.a");
    static_assert(a.Hash() == detail::HashText("net.kelvo.a"));
    std::string text = "net.kelvo.a";
    auto b = Id::FromText(text);
    ASSERT_TRUE(b.Ok());
    text = "changed";  // the interned id does not depend on the caller's buffer
    EXPECT_EQ(*b, a);
    EXPECT_EQ(b->Text(), "net.kelvo.a");
    for (std::string_view bad : {std::string_view(""), std::string_view("a b"),
                                 std::string_view("tab\there"), std::string_view("nul\0x", 5)})
        EXPECT_EQ(Id::FromText(bad).GetError().Kind(), ERRORKIND::ILLEGALARGUMENT) << bad;
    EXPECT_EQ(Id::FromText("a b").GetError().Message(), "Illegal argument: Invalid id 'a b'.");
    EXPECT_FALSE(Id::FromText(std::string(256, 'x')).Ok());
    EXPECT_TRUE(Id::FromText(std::string(255, 'x')).Ok());
}

Result<int> Half(int v) {
    if (v % 2) return IllegalArgumentError(KELVO_HERE, "@ is odd (@).", v, "half");
    return v / 2;
}
Result<int> Quarter(int v) {
    KELVO_ASSIGN_OR_RETURN(int h, Half(v));
    return Half(h);
}

TEST_F(CoreValuesTest, ErrorsFormatAndPassThroughUnchanged) {
    auto r = Quarter(6);
    EXPECT_EQ(r.GetError().Message(), "Illegal argument: 3 is odd (half).");
    EXPECT_EQ(r.GetError().Location().Path(), "tests/host/core_values_test");
    EXPECT_EQ(*Quarter(8), 2);
    EXPECT_EQ(FormatMessage("@ and @", 1), "1 and @");  // surplus placeholders stay
    EXPECT_EQ(FormatMessage("none", 1, 2), "none");
    EXPECT_EQ(IllegalStateError(KELVO_HERE, "Invalid task").Message(),
              "Illegal state: Invalid task");
    Error oom = OutOfMemoryError();
    EXPECT_EQ(oom.Kind(), ERRORKIND::OUTOFMEMORY);
    EXPECT_EQ(oom.Message(), "Out of memory.");
    Error io = IoError(KELVO_HERE, "file:///x", "Cannot open @.", "file:///x");
    Error copy = io;
    EXPECT_EQ(copy.Url(), "file:///x");
}

TEST_F(CoreValuesTest, DictionariesReadMissingOrMistypedValuesAsFallback) {
    DataDictionary d;
    ASSERT_TRUE(d.Set(Id("net.kelvo.r"), 0.5).Ok());
    ASSERT_TRUE(d.Set(Id("net.kelvo.s"), "text").Ok());
    ASSERT_TRUE(d.Set(int64_t(7), Vec2{1, 2}).Ok());
    ASSERT_TRUE(d.Set(Id("net.kelvo.i"), 3).Ok());
    EXPECT_EQ(d.Get<double>(Id("net.kelvo.r")), 0.5);
    EXPECT_EQ(d.Get<double>(Id("net.kelvo.s"), -1.0), -1.0);
    EXPECT_EQ(d.Get<double>(Id("net.kelvo.none")), 0.0);
    EXPECT_EQ(d.Get<Vec2>(int64_t(7)), (Vec2{1, 2}));
    EXPECT_EQ(d.Get<int>(Id("net.kelvo.i")), 3);
    EXPECT_EQ(d.Get<std::string>(Id("net.kelvo.s")), "text");
    EXPECT_EQ(d.Size(), 4u);
    // Integer and id keys never collide.
    ASSERT_TRUE(d.Set(int64_t(0), true).Ok());
    EXPECT_EQ(d.Size(), 5u);

    host::FailAllAllocations();
    auto failed = d.Set(Id("net.kelvo.new"), 1.0);
    host::FailNthAllocation(0);
    EXPECT_EQ(failed.GetError().Kind(), ERRORKIND::OUTOFMEMORY);
    EXPECT_EQ(d.Size(), 5u);
}

TEST_F(CoreValuesTest, UrlsParseAndAppend) {
    auto u = Url::FromText("relative:///tex");
    ASSERT_TRUE(u.Ok());
    EXPECT_EQ(u->Scheme(), "relative");
    EXPECT_EQ(u->RelativePath(), "tex");
    EXPECT_EQ(u->Append("/a.png").ToString(), "relative:///tex/a.png");
    EXPECT_EQ(Url::FromFile("/tmp/").Append("a.png").ToString(), "file:///tmp/a.png");
    EXPECT_EQ(Url::FromText("/plain/path")->Scheme(), "file");
    EXPECT_FALSE(Url::FromText("").Ok());
    EXPECT_EQ(Url::FromText("://x").GetError().Message(), "Illegal argument: Invalid url '://x'.");
}

TEST_F(CoreValuesTest, MatrixInverseAndSingularIdentity) {
    Matrix m{{1, 2, 3}, {0, 2, 0}, {-3, 0, 0}, {0, 0, 0.5}};
    Matrix inv = Inverse(m);
    Vec3 p{0.3, -4, 7};
    Vec3 back = inv.TransformPoint(m.TransformPoint(p));
    EXPECT_NEAR(back.x, p.x, 1e-12);
    EXPECT_NEAR(back.y, p.y, 1e-12);
    EXPECT_NEAR(back.z, p.z, 1e-12);
    Matrix singular{{5, 5, 5}, {1, 0, 0}, {2, 0, 0}, {0, 0, 1}};
    EXPECT_EQ(Inverse(singular), Matrix{});
    Matrix nan{{0, 0, 0}, {NAN, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    EXPECT_EQ(Inverse(nan), Matrix{});
    EXPECT_EQ(Normalize(Vec3{}), Vec3{});
}

TEST_F(CoreValuesTest, AllocatorCountsAndInjectsFaults) {
    int64_t before = host::LiveAllocations();
    void* a = Allocate(64, 64);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(a) % 64, 0u);
    host::FailNthAllocation(2);
    void* b = Allocate(8);
    void* c = Allocate(8);  // the second from arming fails
    void* d = Allocate(8);
    EXPECT_NE(b, nullptr);
    EXPECT_EQ(c, nullptr);
    EXPECT_NE(d, nullptr);
    Free(a);
    Free(b);
    Free(d);
    Free(nullptr);
    EXPECT_EQ(host::LiveAllocations(), before);
    auto obj = NewObject<std::string>("x");
    ASSERT_TRUE(obj.Ok());
    host::FailAllAllocations();
    auto none = NewObject<std::string>("y");
    host::FailNthAllocation(0);
    EXPECT_EQ(none.GetError().Message(), "Out of memory.");
}

}  // namespace
}  // namespace kelvo
