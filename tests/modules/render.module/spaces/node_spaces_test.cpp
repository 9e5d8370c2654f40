// Node spaces: the base class's naming and material-exchange fallback, the fallback
// exchange class, the helpers' table and its life with the module, and the data type that
// refuses serialisation.
#include <gtest/gtest.h>

#include <string>

#include "host.h"
#include "kelvo/datadescription.h"
#include "kelvo/registry.h"
#include "spaces/node_spaces_impl.h"

namespace kelvo::nodes {
namespace {

constexpr Id kGlass("net.kelvo.test.nodespace.glass");
constexpr Id kBroken("net.kelvo.test.nodespace.broken");
constexpr Id kBundleA("net.kelvo.test.bundle.a");

const char kOverwriteWarning[] =
    "Warning for @: overwriting specified NODESPACE::MATERIALEXCHANGEBUNDLEIDS because "
    "fallback NODESPACE::MATERIALEXCHANGECLASS is defined by NodeSpaceBaseClass.";

// A space as another module writes one: it fills its own attributes and hands the
// description to an instance of the base class.
class GlassSpace final : public Implements<NodeSpaceInterface> {
public:
    Result<void> Init(const Id& spaceId, StrongRef<DataDictionary> description) override {
        KELVO_ASSIGN_OR_RETURN(_base, CreateClass<NodeSpaceInterface>(kNodeSpaceBaseClass));
        KELVO_TRY(description->Set(NODESPACE::SPACENAME, "Glass"));
        KELVO_ASSIGN_OR_RETURN(auto bundles, IdArrayImpl::Create({kBundleA}));
        KELVO_TRY(
            description->Set(NODESPACE::MATERIALEXCHANGEBUNDLEIDS, StrongRef<Object>(bundles)));
        return _base->Init(spaceId, std::move(description));
    }
    Id GetId() const override { return _base->GetId(); }
    StrongRef<const DataDictionary> GetDescription() const override {
        return _base->GetDescription();
    }
    StrongRef<ObservableInterface> GetObservable() const override { return _base->GetObservable(); }

private:
    StrongRef<NodeSpaceInterface> _base;
};

class BrokenSpace final : public Implements<NodeSpaceInterface> {
public:
    Result<void> Init(const Id&, StrongRef<DataDictionary>) override {
        return UnexpectedError(KELVO_HERE, "no node system");
    }
    Id GetId() const override { return {}; }
    StrongRef<const DataDictionary> GetDescription() const override { return nullptr; }
    StrongRef<ObservableInterface> GetObservable() const override { return nullptr; }
};

// A space class in the node-space registry for the life of the object.
struct RegisteredSpace {
    EntryRecord record;
    RegisteredSpace(const Id& id, CreateFunction create) {
        record.kind = ENTRYKIND::CLASS;
        record.idText = id.Text().data();
        record.idSize = id.Text().size();
        record.idHash = id.Hash();
        record.registry = kMaterialNodeSpacesRegistry;
        record.kindId = NodeSpaceInterface::InterfaceId();
        record.source = KELVO_HERE;
        record.create = create;
        EXPECT_TRUE(host::InsertEntry(record).Ok());
    }
    ~RegisteredSpace() { host::RemoveEntry(record); }
};

StrongRef<NodeSpaceInterface> BaseSpace() {
    auto made = CreateClass<NodeSpaceInterface>(kNodeSpaceBaseClass);
    EXPECT_TRUE(made.Ok()) << made.GetError().Message();
    return made ? *made : nullptr;
}

std::vector<Id, Allocator<Id>> Bundles(const DataDictionary& d) {
    return GetIdArray(d, NODESPACE::MATERIALEXCHANGEBUNDLEIDS);
}

TEST(NodeSpaceBaseClassTest, ExchangeFallbackKeepsOwnClassesAndReplacesLoneBundles) {
    constexpr Id kOwnClass("net.kelvo.test.materialexchange.own");
    struct Case {
        const char* what;
        bool ownClass;
        std::vector<Id, Allocator<Id>> specified;  // empty: no attribute at all
        bool emptyList;
        size_t warnings;
    };
    const Case cases[] = {
        {"own class with bundles", true, {kBundleA, kViewportMaterialBundle}, false, 0},
        {"own class with an empty list", true, {}, true, 0},
        {"bundles without a class", false, {kBundleA}, false, 1},
        {"neither", false, {}, false, 0},
    };
    for (const Case& c : cases) {
        host::CapturedDiagnostics diagnostics;
        auto description = std::make_shared<DataDictionary>();
        if (c.ownClass) {
            ASSERT_TRUE(description->Set(NODESPACE::MATERIALEXCHANGECLASS, kOwnClass).Ok());
        }
        if (!c.specified.empty() || c.emptyList) {
            auto ids = StrongRef<Object>(*IdArrayImpl::Create(c.specified));
            ASSERT_TRUE(description->Set(NODESPACE::MATERIALEXCHANGEBUNDLEIDS, ids).Ok());
        }
        auto space = BaseSpace();
        ASSERT_TRUE(space->Init(kGlass, description).Ok()) << c.what;
        if (c.ownClass) {
            EXPECT_EQ(description->Get<Id>(NODESPACE::MATERIALEXCHANGECLASS), kOwnClass);
            EXPECT_EQ(Bundles(*description), c.specified) << c.what;
            EXPECT_TRUE(description->Contains(NODESPACE::MATERIALEXCHANGEBUNDLEIDS)) << c.what;
        } else {
            EXPECT_EQ(description->Get<Id>(NODESPACE::MATERIALEXCHANGECLASS),
                      kMaterialExchangeDefaultClass);
            EXPECT_EQ(Bundles(*description),
                      (std::vector<Id, Allocator<Id>>{kViewportMaterialBundle}))
                << c.what;
        }
        const auto lines = diagnostics.Lines();
        ASSERT_EQ(lines.size(), c.warnings) << c.what;
        if (c.warnings) {
            EXPECT_NE(lines[0].find(FormatMessage(kOverwriteWarning, kGlass)), std::string::npos)
                << lines[0];
        }
        EXPECT_TRUE(space->GetObservable()) << c.what;
    }
}

TEST(NodeSpaceBaseClassTest, SpaceIsNamedAfterItsIdUnlessItHasAName) {
    for (const char* name : {static_cast<const char*>(nullptr), "", "Glass"}) {
        auto description = std::make_shared<DataDictionary>();
        if (name) {
            ASSERT_TRUE(description->Set(NODESPACE::SPACENAME, name).Ok());
        }
        auto space = BaseSpace();
        ASSERT_TRUE(space->Init(kGlass, description).Ok());
        EXPECT_EQ(description->Get<Id>(NODESPACE::SPACEID), kGlass);
        EXPECT_EQ(description->Get<std::string>(NODESPACE::SPACENAME),
                  name && *name ? name : std::string(kGlass.Text()));
        EXPECT_EQ(space->GetId(), kGlass);
        EXPECT_EQ(space->GetDescription(), description);
    }
    // A space left without a description cannot be named.
    EXPECT_EQ(BaseSpace()->Init(kGlass, nullptr).GetError().Message(),
              "Illegal argument: Node space net.kelvo.test.nodespace.glass has no description.");
}

TEST(NodeSpaceBaseClassTest, FailedAllocationsKeepWhatWasStoredAndLeakNothing) {
    bool succeeded = false;
    for (int64_t n = 1; !succeeded; ++n) {
        ASSERT_LT(n, 1000);
        const int64_t before = host::LiveAllocations();
        {
            auto description = std::make_shared<DataDictionary>();
            auto space = BaseSpace();
            host::FailNthAllocation(n);
            Result<void> r = space->Init(kGlass, description);
            host::FailNthAllocation(0);
            succeeded = r.Ok();
            if (!succeeded) {
                EXPECT_EQ(r.GetError().Kind(), ERRORKIND::OUTOFMEMORY) << n;
                // Attributes are written in this order; a failure keeps those before it.
                bool missing = false;
                for (const Id& key :
                     {NODESPACE::SPACEID, NODESPACE::SPACENAME,
                      NODESPACE::MATERIALEXCHANGEBUNDLEIDS, NODESPACE::MATERIALEXCHANGECLASS}) {
                    if (!description->Contains(key))
                        missing = true;
                    else
                        EXPECT_FALSE(missing) << key.Text() << " n=" << n;
                }
                EXPECT_FALSE(space->GetObservable()) << n;
            }
        }
        EXPECT_EQ(host::LiveAllocations(), before) << n;
    }
}

TEST(MaterialExchangeDefaultTest, AcceptsTheViewportBundleOnly) {
    auto made = CreateClass<MaterialExchangeInterface>(kMaterialExchangeDefaultClass);
    ASSERT_TRUE(made.Ok()) << made.GetError().Message();
    DataDictionary material, target;
    ASSERT_TRUE(material.Set(NODESPACE::SPACENAME, "red").Ok());
    // The same id from other storage, and one differing only in its last character.
    const std::string text(kViewportMaterialBundle.Text());
    std::string nearText = text;
    nearText.back() = 'x';
    const Id same = Id::Unchecked(text), near = Id::Unchecked(nearText);
    EXPECT_EQ((*made)->Convert(near, material, target).GetError().Message(),
              "Illegal argument: Condition materialType == viewportMaterialId not fulfilled.");
    EXPECT_EQ(target.Size(), 0u);
    ASSERT_TRUE((*made)->Convert(same, material, target).Ok());
    EXPECT_EQ(target, material);
}

TEST(NodeSpaceSetTest, SerialisationIsRefusedBothWays) {
    const DataType* type = FindDataType(kNodeSpacesDataType);
    ASSERT_NE(type, nullptr);
    NodeSpaceSet set;
    set.spaces.push_back(BaseSpace());
    // The value travels in dictionaries like any other.
    Data value = Data::Custom(type, &set);
    ASSERT_NE(value.GetCustom<NodeSpaceSet>(kNodeSpacesDataType), nullptr);
    EXPECT_EQ(value.GetCustom<NodeSpaceSet>(kNodeSpacesDataType)->spaces, set.spaces);

    auto written = WriteDescription(set);
    ASSERT_FALSE(written.Ok());
    EXPECT_EQ(written.GetError().Message(), "Can't serialize node spaces.");
    EXPECT_EQ(ReadDescription(set, R"({"description": 1, "members": {}})").GetError().Message(),
              "Can't serialize node spaces.");
    EXPECT_EQ(set.spaces.size(), 1u);
}

TEST(NodeSpaceDescriptionsTest, EveryAttributeIsDescribedForTheNodeSpacesModule) {
    size_t described = 0;
    for (const EntryRecord* e : RegistryMembers(kNodeAttributesRegistry)) {
        auto* d = static_cast<const NodeAttributeDescription*>(e->payload);
        if (!d || !(d->module == kNodeSpacesDescriptionModule)) continue;
        ++described;
        EXPECT_EQ(e->GetId(), d->attribute);
        EXPECT_STREQ(d->language, "local");
    }
    EXPECT_EQ(described, 18u);
    auto* exchange = static_cast<const NodeAttributeDescription*>(
        FindEntry(NODESPACE::MATERIALEXCHANGECLASS)->payload);
    EXPECT_STREQ(exchange->dataType, "id");
}

class NodeSpaceHelpersTest : public testing::Test {
protected:
    void TearDown() override {
        NodeSpaceHelpersImpl::Stop();
        ASSERT_TRUE(NodeSpaceHelpersImpl::Start().Ok());  // as the module started them
    }
    static StrongRef<NodeSpaceHelpersInterface> Helpers() {
        auto made = CreateComponent<NodeSpaceHelpersInterface>();
        EXPECT_TRUE(made.Ok());
        return made ? *made : nullptr;
    }
};

TEST_F(NodeSpaceHelpersTest, TableIsFilledFromTheRegistryLeavingBrokenSpacesOut) {
    RegisteredSpace glass(kGlass, &CreateInstance<GlassSpace>);
    RegisteredSpace broken(kBroken, &CreateInstance<BrokenSpace>);
    host::CapturedDiagnostics diagnostics;
    auto helpers = Helpers();
    ASSERT_TRUE(helpers->Init().Ok());
    auto lines = diagnostics.Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find(FormatMessage(kOverwriteWarning, kGlass)), std::string::npos);
    EXPECT_NE(lines[1].find("Node space net.kelvo.test.nodespace.broken left out: no node system"),
              std::string::npos);

    auto found = helpers->FindNodeSpace(Id::Unchecked(std::string(kGlass.Text())));
    ASSERT_TRUE(found.Ok());
    auto description = (*found)->GetDescription();
    EXPECT_EQ(description->Get<std::string>(NODESPACE::SPACENAME), "Glass");
    EXPECT_EQ(Bundles(*description), (std::vector<Id, Allocator<Id>>{kViewportMaterialBundle}));
    EXPECT_EQ(*helpers->GetNodeSpaceIds(), (std::vector<Id, Allocator<Id>>{kGlass}));
    EXPECT_EQ(helpers->FindNodeSpace(kBundleA).GetError().Message(),
              "Illegal argument: Node space net.kelvo.test.bundle.a not found.");
    // Every caller of the component shares one table.
    EXPECT_EQ(*Helpers()->FindNodeSpace(kGlass), *found);
}

TEST_F(NodeSpaceHelpersTest, SpacesOfLaterModulesAreMadeOnFirstDemandOnceAndDroppedAtUnload) {
    host::CapturedDiagnostics diagnostics;
    auto helpers = Helpers();
    ASSERT_TRUE(helpers->GetNodeSpaceIds()->empty());
    RegisteredSpace glass(kGlass, &CreateInstance<GlassSpace>);
    WeakRef<NodeSpaceInterface> made;
    {
        auto first = helpers->FindNodeSpace(kGlass);
        ASSERT_TRUE(first.Ok()) << first.GetError().Message();
        EXPECT_EQ(*helpers->FindNodeSpace(kGlass), *first);
        EXPECT_EQ(helpers->GetNodeSpaceIds()->size(), 1u);
        made = *first;
    }
    // The module owning the space's class is about to go: the space goes first.
    KelvoModuleInfo owner{};
    owner.firstEntry = &glass.record;
    NodeSpaceHelpersImpl::ProcessWide()->DropSpacesOf(owner);
    EXPECT_TRUE(made.expired());
}

TEST_F(NodeSpaceHelpersTest, UseAfterReleaseFailsAndLeavesTheTableAsItWas) {
    auto helpers = Helpers();
    auto space = BaseSpace();
    ASSERT_TRUE(space->Init(kGlass, std::make_shared<DataDictionary>()).Ok());
    ASSERT_TRUE(helpers->AddNodeSpace(space).Ok());
    NodeSpaceHelpersImpl::Stop();  // the module lets go of them; this holder keeps them
    const std::string inactive = "Illegal state: Condition _isActive == true not fulfilled.";
    EXPECT_EQ(helpers->FindNodeSpace(kGlass).GetError().Message(), inactive);
    EXPECT_EQ(helpers->GetNodeSpaceIds().GetError().Message(), inactive);
    EXPECT_EQ(helpers->AddNodeSpace(space).GetError().Message(), inactive);
    // A component asked for while the module is stopped is inactive too.
    EXPECT_EQ(Helpers()->FindNodeSpace(kGlass).GetError().Message(), inactive);
    // Activated again, the helpers hold what the registry offers, not the added space.
    ASSERT_TRUE(helpers->Init().Ok());
    EXPECT_TRUE(helpers->GetNodeSpaceIds()->empty());
}

}  // namespace
}  // namespace kelvo::nodes
