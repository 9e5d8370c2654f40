#include "kelvo/config.h"

#include <gtest/gtest.h>

#include "host.h"
#include "kelvo/diagnostics.h"

namespace kelvo {
namespace {

constexpr ConfigVariable kText{"g_testText", CONFIGTYPE::STRING, "dflt", false, ""};
constexpr ConfigVariable kFlag{"g_testFlag", CONFIGTYPE::BOOL, "", true, "A flag"};

EntryRecord MakeConfigEntry(const ConfigVariable& v) {
    return {.kind = ENTRYKIND::CONFIGVARIABLE,
            .idText = v.name,
            .idSize = std::string_view(v.name).size(),
            .payload = &v};
}

class ConfigTest : public testing::Test {
protected:
    static void SetUpTestSuite() { host::Initialize(); }
};

TEST_F(ConfigTest, ValuesSetBeforeDeclarationWinOverTheDefault) {
    ASSERT_TRUE(host::ConfigSet("g_testText", "early").Ok());
    EntryRecord text = MakeConfigEntry(kText), flag = MakeConfigEntry(kFlag);
    ASSERT_TRUE(host::InsertEntry(text).Ok());
    ASSERT_TRUE(host::InsertEntry(flag).Ok());
    EXPECT_EQ(*ConfigGetString("g_testText"), "early");
    EXPECT_TRUE(*ConfigGetBool("g_testFlag"));
    EXPECT_EQ(*ConfigGetString("g_testFlag"), "true");

    ASSERT_TRUE(host::ConfigSet("g_testFlag", "0").Ok());
    EXPECT_FALSE(*ConfigGetBool("g_testFlag"));
    EXPECT_EQ(host::ConfigSet("g_testFlag", "yes").GetError().Message(),
              "Illegal argument: Value 'yes' is not a bool for g_testFlag.");
    EXPECT_FALSE(*ConfigGetBool("g_testFlag"));  // a refused value changes nothing
    EXPECT_EQ(ConfigGetBool("g_testText").GetError().Message(),
              "Illegal argument: Configuration variable g_testText is not a bool.");

    bool listed = false;
    for (const auto& c : host::ConfigVariables())
        if (c.name == "g_testFlag") listed = c.help == "A flag" && c.defaultValue == "true";
    EXPECT_TRUE(listed);

    host::RemoveEntry(flag);
    host::RemoveEntry(text);
    EXPECT_FALSE(ConfigGetString("g_testText").Ok());
}

TEST_F(ConfigTest, DiagnosticsAreCapturedInOrder) {
    host::CapturedDiagnostics captured;
    DiagnosticOutput("TextureImpl::Init Error: @", "bad");
    DiagnosticWarning("second");
    EXPECT_EQ(captured.Lines(),
              (std::vector<std::string>{"TextureImpl::Init Error: bad", "second"}));
}

}  // namespace
}  // namespace kelvo
