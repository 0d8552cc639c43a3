// The plugin's type module and its generic attribute interface, as a tool
// sees them: every type numbers its attributes in order, and writes, calls
// and construction by id reach the types' own behaviour. Reads are shown by
// the golden scenario generic-show.
#include "McastDns/AclPlugin/PluginTypes.h"

#include <vector>

#include "McastDns/AclPlugin/McastDnsAclPlugin.h"
#include "StateMachineFixture.h"
#include "platform/PlatformTesting.h"

namespace McastDns::test {
namespace {

using ::testing::HasSubstr;
using Zov::GenericValue;
using Values = std::vector<GenericValue>;
using ZovTesting::whatOf;

// Ids run from the type's first id in declaration order, without gaps, and
// every attribute is found by its id and by its name and offers the accesses
// of its kind.
TEST(ZovModuleTest, EveryTypeNumbersItsAttributesInOrderWithoutGaps) {
  const Zov::ZovModule& module = _McastDnsAclPlugin_95fe9596_zovModule;
  ASSERT_EQ(module.types.size(), 4u);
  for (unsigned index = 0; index < module.types.size(); ++index) {
    const Zov::ZovTypeInfo& type = module.types[index];
    SCOPED_TRACE(type.name);
    EXPECT_EQ(fwkTypeOf(TypeIndex(index)).name(), type.name);
    ASSERT_FALSE(type.attributes.empty());
    const Zov::AttributeId first = type.attributes[0].id;
    for (std::size_t i = 0; i < type.attributes.size(); ++i) {
      const Zov::AttributeInfo& info = type.attributes[i];
      EXPECT_EQ(info.id, first + i) << info.name;
      EXPECT_EQ(type.attribute(info.id), &info);
      EXPECT_EQ(type.attribute(info.name), &info);
      switch (info.kind) {
        case Zov::AttributeKind::kOperation:
          EXPECT_TRUE(info.access.call) << info.name;
          break;
        case Zov::AttributeKind::kCollection:
          EXPECT_TRUE(info.keyName && info.access.member && info.access.memberIs &&
                      info.access.memberDel && info.access.members)
              << info.name;
          break;
        default:
          EXPECT_TRUE(info.access.read) << info.name;
      }
    }
  }
}

class GenericIfTest : public StateMachineTest {
 protected:
  // A link in state 1 on Ethernet1 in VRF red, with red known.
  void SetUp() override {
    link("Ethernet1", 1);
    intf("Ethernet1", "red");
    vrfGlobal_->vrfIs(L3::VrfName("red"));
    start();
  }

  static GenericValue read(const Zov::PtrInterface& object, const char* name) {
    return Zov::genericIfAttribute(object, Zov::genericIfAttributeInfo(object, name).id);
  }
  // Whether two values are the same, references by identity whether or not
  // they were given as writable.
  static bool same(const GenericValue& a, const GenericValue& b) {
    if (a.type() != GenericValue::Type::kReference) return a == b;
    return b.type() == GenericValue::Type::kReference &&
           a.asReference<const Zov::PtrInterface>() == b.asReference<const Zov::PtrInterface>();
  }
  // Every value of a generic construction reads back under its argument's name.
  static void expectReadsBack(const Zov::PtrInterface& object, const Values& values) {
    const Zov::ZovTypeInfo& type = Zov::genericIfType(object);
    ASSERT_EQ(type.constructorArgumentNames.size(), values.size());
    for (std::size_t i = 0; i < values.size(); ++i) {
      const char* name = type.constructorArgumentNames[i];
      EXPECT_TRUE(same(read(object, name), values[i])) << type.name << " " << name;
    }
  }
};

TEST_F(GenericIfTest, ConstructionTakesTheCreationsValuesAndReadsThemBack) {
  const Values smArgs{1, config_, status_, intfDir_, vrfGlobal_, vrfLocal_, context_};
  const auto sm =
      Zov::ptrCast<CpAclSm>(Zov::genericIfConstructFromCtorArgs(fwkTypeOf(kCpAclSmType), smArgs));
  ASSERT_NE(sm, nullptr);
  EXPECT_TRUE(sm->hasNotificationActive());
  expectReadsBack(*sm, smArgs);

  const Values linkArgs{status_->linkStatus(keyOf("Ethernet1")), sm};
  const auto link = Zov::genericIfConstructFromCtorArgs(fwkTypeOf(kLinkStatusAclSmType), linkArgs);
  expectReadsBack(*link, linkArgs);
}

TEST_F(GenericIfTest, WrittenRuleTextIsSentByTheNextRefresh) {
  const Zov::String rule("-p udp --dport 5353 -j ACCEPT\n");
  const auto calls = calls_;
  Zov::genericIfAttributeIs(*sm_, CpAclSm::kMdnsIptRule, Values{rule});
  EXPECT_EQ(calls_, calls) << "writing sends nothing";
  EXPECT_CALL(*context_, registerChainRule(::testing::_, ::testing::_, L3::VrfName("red"),
                                           ::testing::_, ::testing::_, ::testing::_, 0u, rule,
                                           ::testing::_, ::testing::_, ::testing::_, ::testing::_));
  Zov::genericIfCall(*sm_, CpAclSm::kHandleRefreshAcls, Values{true});
}

TEST_F(GenericIfTest, CallsRunTheHandlersWithKeysGivenAsTextAndFlagsUseTheirSetters) {
  CpAclSm& sm = *sm_;
  Zov::genericIfCall(sm, CpAclSm::kHandleLinkChange, {});
  EXPECT_TRUE(sm.refreshAclsTask()->armed());
  Zov::genericIfCall(sm, CpAclSm::kHandleRefreshAcls, Values{false});
  EXPECT_FALSE(sm.dirtyAcl());

  unseen([&] {
    intf("Ethernet2", "red");
    link("Ethernet2", 1, 7);
  });
  Zov::genericIfCall(sm, CpAclSm::kHandleL3IntfStatus, Values{"Ethernet2"});
  Zov::genericIfCall(sm, CpAclSm::kHandleLinkStatus, Values{"Ethernet2#7"});
  EXPECT_TRUE(sm.l3IntfStatusAclSm(idOf("Ethernet2")));
  const auto watcher = sm.linkStatusAclSm(keyOf("Ethernet2", 7));
  ASSERT_TRUE(watcher);
  Zov::genericIfCall(*watcher, LinkStatusAclSm::kDestroy, {});
  EXPECT_FALSE(watcher->initialized());

  // Flags are written through their setters.
  Zov::genericIfAttributeIs(sm, CpAclSm::kDirtyAcl, Values{true});
  EXPECT_TRUE(sm.dirtyAcl());
  Zov::genericIfAttributeIs(sm, CpAclSm::kInitialized, Values{false});
  EXPECT_FALSE(sm.initialized());
}

TEST_F(GenericIfTest, RefusalsNameWhatWasWrongAndChangeNothing) {
  CpAclSm& sm = *sm_;
  const auto calls = calls_;
  const auto task = sm.refreshAclsTask();
  EXPECT_THAT(whatOf<Zov::UnknownAttributeException>([&] { Zov::genericIfAttribute(sm, 151); }),
              AllOf(HasSubstr("McastDns::CpAclSm"), HasSubstr("151")));
  EXPECT_THAT(whatOf<Zov::AttributeAccessException>(
                  [&] { Zov::genericIfAttributeIs(sm, CpAclSm::kAf, Values{2}); }),
              AllOf(HasSubstr("130"), HasSubstr("af"), HasSubstr("cannot be written")));
  EXPECT_THROW(Zov::genericIfAttributeDel(sm, CpAclSm::kDirtyAcl), Zov::AttributeAccessException);
  for (const char* bad : {"Ethernet1", "Ethernet1#", "Ethernet1#x", "Ethernet1#0x", "E#-1"}) {
    EXPECT_THAT(whatOf<Zov::GenericArgsException>([&] {
                  Zov::genericIfMemberDel(sm, CpAclSm::kLinkStatusAclSm, GenericValue(bad));
                }),
                HasSubstr("NAME#NUMBER"))
        << bad;
  }
  EXPECT_THROW(Zov::genericIfMemberIs(sm, CpAclSm::kLinkStatusAclSm, Values{config_}),
               Zov::GenericArgsException);
  EXPECT_THROW(sm.linkStatusAclSmIs(nullptr), Zov::NullPointerException);
  EXPECT_THROW(sm.l3IntfStatusAclSmIs(nullptr), Zov::NullPointerException);
  EXPECT_THROW(
      Zov::genericIfAttributeIs(sm, CpAclSm::kRefreshAclsTask, Values{scheduler_, -1, "t"}),
      Zov::GenericArgsException);
  // A mounted input reads back read-only: it cannot be passed on as writable.
  EXPECT_THROW(read(sm, "mcastDnsConfig").asReference<Config>(), Zov::GenericArgsException);

  EXPECT_EQ(calls_, calls);
  EXPECT_FALSE(sm.dirtyAcl());
  EXPECT_EQ(sm.refreshAclsTask(), task);
  EXPECT_EQ(sm.linkStatusAclSms().size(), 1u);
  EXPECT_EQ(sm.l3IntfStatusAclSms().size(), 1u);
}

TEST_F(GenericIfTest, RootEntityIsBuiltFromItsNameAloneAndSetUpById) {
  const auto plugin = Zov::ptrCast<AclPlugin>(
      Zov::genericIfConstructFromCtorArgs(fwkTypeOf(kAclPluginType), Values{"McastDns"}));
  ASSERT_NE(plugin, nullptr);
  EXPECT_EQ(plugin->name(), Zov::String("McastDns"));
  EXPECT_THAT(whatOf<Zov::NewEntityArgsException>([&] {
                Zov::genericIfConstructFromCtorArgs(fwkTypeOf(kAclPluginType),
                                                    Values{"McastDns", context_});
              }),
              AllOf(HasSubstr("McastDns::AclPlugin"), HasSubstr("type index 3")));

  Zov::genericIfAttributeIs(*plugin, AclPlugin::kContext, Values{context_});
  EXPECT_EQ(plugin->context(), context_);
  const Values smArgs{1, config_, status_, intfDir_, vrfGlobal_, vrfLocal_, context_};
  Zov::genericIfAttributeIs(*plugin, AclPlugin::kCpAclSm, smArgs);
  expectReadsBack(*plugin->cpAclSm(), smArgs);
  Zov::genericIfAttributeDel(*plugin, AclPlugin::kCpAclSm);
  EXPECT_EQ(plugin->cpAclSm(), nullptr);
}

}  // namespace
}  // namespace McastDns::test
