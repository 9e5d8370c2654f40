// Data descriptions written as JSON and read back.
#include "kelvo/datadescription.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "host.h"

namespace kelvo {
namespace {

class Frame final : public Implements<DescribeIOInterface> {
public:
    Result<void> DescribeIO(DataDescriber& io) override {
        KELVO_TRY(Describe(io, "_origin", _origin));
        return Describe(io, "_tint", _tint);
    }
    Vec3 _origin;
    Col3 _tint;
};

// Shaped like a light profile: a dictionary, arrays, scalars, text and a nested object.
class Profile final : public Implements<DescribeIOInterface> {
public:
    Result<void> DescribeIO(DataDescriber& io) override {
        if (_refuse) return UnsupportedArgumentError(KELVO_HERE, "Profiles cannot be serialised.");
        KELVO_TRY(Describe(io, "_properties", _properties));
        KELVO_TRY(Describe(io, "_anglesVertical", _anglesVertical));
        KELVO_TRY(Describe(io, "_counts", _counts));
        KELVO_TRY(Describe(io, "_dataMax", _dataMax));
        KELVO_TRY(Describe(io, "_checksum", _checksum));
        KELVO_TRY(Describe(io, "_isActive", _isActive));
        KELVO_TRY(Describe(io, "_scale", _scale));
        KELVO_TRY(Describe(io, "_name", _name));
        return Describe(io, "_frame", _frame);
    }
    DataDictionary _properties;
    std::vector<double, Allocator<double>> _anglesVertical;
    std::vector<int32_t> _counts;
    double _dataMax = 0;
    uint32_t _checksum = 0;
    bool _isActive = false;
    float _scale = 0;
    std::string _name;
    Frame _frame;
    bool _refuse = false;
};

class DataDescriptionTest : public testing::Test {
protected:
    void SetUp() override {
        host::Initialize();
        ASSERT_TRUE(_p._properties.Set(int64_t(1000), 3).Ok());
        ASSERT_TRUE(_p._properties.Set(int64_t(1002), std::string("Lux \xb0 caf\xe9")).Ok());
        ASSERT_TRUE(_p._properties.Set(int64_t(1008), Vec3{0.6096, 0, 1e-300}).Ok());
        ASSERT_TRUE(_p._properties.Set(Id("net.kelvo.test.matrix"), Matrix{{1, 2, 3}}).Ok());
        ASSERT_TRUE(
            _p._properties.Set(Id("net.kelvo.test.url"), Url("relative", "/tex/a.png")).Ok());
        _p._anglesVertical = {0, 22.5, 0.1, -HUGE_VAL, 1.0 / 3.0};
        _p._counts = {-2147483647 - 1, 7};
        _p._dataMax = std::nan("");
        _p._checksum = 0xfedcba98u;
        _p._isActive = true;
        _p._scale = 0.1f;
        _p._name = "caf\xc3\xa9";
        _p._frame._origin = {1, -2, 3.5};
        _p._frame._tint = {0.25, 0.5, 1};
    }
    Profile _p;
};

TEST_F(DataDescriptionTest, WritesMembersInOrderAndReadsThemBackExactly) {
    auto text = WriteDescription(_p);
    ASSERT_TRUE(text.Ok()) << text.GetError().Message();
    EXPECT_EQ(text->rfind("{\"description\":1,\"members\":{\"_properties\":{\"entries\":[", 0), 0u)
        << *text;
    EXPECT_NE(text->find("\"_anglesVertical\":[0.0,22.5,0.1,\"-inf\",0.3333333333333333]"),
              std::string::npos);
    EXPECT_NE(text->find("{\"latin1\":\"Lux \xc2\xb0 caf\xc3\xa9\"}"), std::string::npos);
    EXPECT_NE(text->find("\"_name\":\"caf\xc3\xa9\""), std::string::npos);

    Profile back;
    ASSERT_TRUE(ReadDescription(back, *text).Ok());
    EXPECT_EQ(back._properties, _p._properties);
    EXPECT_EQ(back._properties.Get<std::string>(int64_t(1002)), "Lux \xb0 caf\xe9");
    EXPECT_EQ(back._anglesVertical, _p._anglesVertical);
    EXPECT_EQ(back._counts, _p._counts);
    EXPECT_TRUE(std::isnan(back._dataMax));
    EXPECT_EQ(back._checksum, _p._checksum);
    EXPECT_TRUE(back._isActive);
    EXPECT_EQ(back._scale, 0.1f);
    EXPECT_EQ(back._name, _p._name);
    EXPECT_EQ(back._frame._origin, _p._frame._origin);
    EXPECT_EQ(back._frame._tint, _p._frame._tint);
    EXPECT_EQ(*WriteDescription(back), *text);
}

TEST_F(DataDescriptionTest, RefusedTypesReturnTheirOwnError) {
    _p._refuse = true;
    EXPECT_EQ(WriteDescription(_p).GetError().Message(), "Profiles cannot be serialised.");
    EXPECT_EQ(ReadDescription(_p, "{\"description\":1,\"members\":{}}").GetError().Message(),
              "Profiles cannot be serialised.");
    _p._refuse = false;
    ASSERT_TRUE(_p._properties.Set(int64_t(7), StrongRef<Object>(std::make_shared<Frame>())).Ok());
    EXPECT_EQ(WriteDescription(_p).GetError().Message(),
              "Illegal argument: The value under 7 cannot be serialised.");
}

TEST_F(DataDescriptionTest, BadDocumentsNameTheMember) {
    std::string good = *WriteDescription(_p);
    auto replaced = [&](const std::string& from, const std::string& to) {
        std::string t = good;
        size_t at = t.find(from);
        EXPECT_NE(at, std::string::npos) << from;
        return t.replace(at, from.size(), to);
    };
    Profile p;
    EXPECT_EQ(ReadDescription(p, replaced("\"_checksum\":4275878552", "\"_checksum\":-1"))
                  .GetError()
                  .Message(),
              "Illegal argument: Member _checksum is out of range.");
    EXPECT_EQ(ReadDescription(p, replaced("\"_checksum\":4275878552", "\"_checksum\":\"x\""))
                  .GetError()
                  .Message(),
              "Illegal argument: Member _checksum is not a UInt32.");
    EXPECT_EQ(ReadDescription(p, replaced("\"_dataMax\":\"nan\",", "")).GetError().Message(),
              "Illegal argument: Member _dataMax is missing.");
    EXPECT_EQ(
        ReadDescription(p, replaced("\"_isActive\":true", "\"_isActive\":1")).GetError().Message(),
        "Illegal argument: Member _isActive is not a bool.");
    EXPECT_EQ(
        ReadDescription(p, replaced("[-2147483648,7]", "[-2147483649,7]")).GetError().Message(),
        "Illegal argument: Member _counts is not an array of numbers of its type.");
    EXPECT_EQ(ReadDescription(p, replaced("\"type\":\"int64\"", "\"type\":\"float99\""))
                  .GetError()
                  .Message(),
              "Illegal argument: Member _properties is not a data dictionary.");
    EXPECT_EQ(ReadDescription(p, "{\"description\":1,").GetError().Message(),
              "Illegal argument: The text is no data description.");
    EXPECT_EQ(ReadDescription(p, "{\"description\":2,\"members\":{}}").GetError().Message(),
              "Illegal argument: Data description version 2 is not supported.");
}

}  // namespace
}  // namespace kelvo
