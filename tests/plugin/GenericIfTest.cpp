// The plugin's type module and its generic attribute interface: the tables
// describe every attribute, and reads, writes, calls, collection operations
// and construction by id run the types' own accessors, setters and handlers.
#include "McastDns/AclPlugin/ZovModule.h"

#include <string>
#include <tuple>
#include <vector>

#include "McastDns/AclPlugin/McastDnsAclPlugin.h"
#include "StateMachineFixture.h"
#include "platform/PlatformTesting.h"

namespace McastDns::test {
namespace {

using ::testing::_;
using ::testing::HasSubstr;
using Zov::GenericValue;
using Values = std::vector<GenericValue>;
using ZovTesting::whatOf;

// Each type's attributes in id order from its first id: the name, the kind
// (Value, Reference, Collection, Operation) and the collection's key or the
// operation's arguments.
TEST(ZovModuleTest, TablesListEveryAttributeOfEveryType) {
  const std::tuple<const char*, Zov::AttributeId, std::string> expected[] = {
      {"McastDns::L3IntfStatusAclSm", 130,
       "l3IntfStatus R, intfId V, parent V, handleVrf O, destroy O, initialized V, "
       "handleInitialized O"},
      {"McastDns::LinkStatusAclSm", 130,
       "linkStatus R, intfKey V, parent V, handleState O, destroy O, initialized V, "
       "handleInitialized O"},
      {"McastDns::CpAclSm", 130,
       "af V, mcastDnsConfig R, mcastDnsStatus R, l3IntfStatusDir R, allVrfStatusGlobal R, "
       "allVrfStatusLocal R, context R, mdnsIptRule V, mdnsGwIptRule V, dirtyAcl V, "
       "refreshAclsDelay V, scheduler R, refreshAclsTask R, handleRefreshAcls O force, "
       "handleLinkChange O, l3IntfStatusAclSm C intfId, handleL3IntfStatus O intfId, "
       "linkStatusAclSm C intfKey, handleLinkStatus O intfKey, initialized V, "
       "handleInitialized O"},
      {"McastDns::AclPlugin", 386, "context R, init O context, cpAclSm R"},
  };
  const Zov::ZovModule& module = _McastDnsAclPlugin_95fe9596_zovModule;
  ASSERT_EQ(module.types.size(), std::size(expected));
  for (unsigned index = 0; index < module.types.size(); ++index) {
    const auto& [name, first, attributes] = expected[index];
    const Zov::ZovTypeInfo& type = module.types[index];
    EXPECT_STREQ(type.name, name);
    EXPECT_EQ(fwkTypeOf(TypeIndex(index)).name(), name);
    std::string rows;
    for (std::size_t i = 0; i < type.attributes.size(); ++i) {
      const Zov::AttributeInfo& info = type.attributes[i];
      EXPECT_EQ(type.attribute(first + i), &info) << info.name;
      rows += (i ? ", " : "") + std::string(info.name) + " " + "VRCO"[static_cast<int>(info.kind)];
      for (const char* arg : info.argumentNames) rows += std::string(" ") + arg;
      if (info.keyName) rows += std::string(" ") + info.keyName;
    }
    EXPECT_EQ(rows, attributes);
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

  static GenericValue read(const Zov::PtrInterface& object, Zov::AttributeId id) {
    return Zov::genericIfAttribute(object, id);
  }
};

TEST_F(GenericIfTest, ReadsReachTheTypedAccessors) {
  CpAclSm& sm = *sm_;
  const std::pair<Zov::AttributeId, const Zov::PtrInterface*> references[] = {
      {131, config_.ptr()},    {132, status_.ptr()},   {133, intfDir_.ptr()},
      {134, vrfGlobal_.ptr()}, {135, vrfLocal_.ptr()}, {136, context_.ptr()},
      {141, scheduler_.ptr()}};
  for (const auto& [id, expected] : references) {
    EXPECT_EQ(read(sm, id).asReference<const Zov::PtrInterface>().ptr(), expected) << id;
  }
  // A mounted input reads back read-only: it cannot be passed on as writable.
  EXPECT_THROW(read(sm, 131).asReference<Config>(), Zov::GenericArgsException);

  const auto& link = *sm.linkStatusAclSm(keyOf("Ethernet1"));
  EXPECT_EQ(read(link, 130).asReference<const LinkStatus>(), link.linkStatus());
  EXPECT_EQ(read(link, 132).asReference<CpAclSm>(), sm_);
}

TEST_F(GenericIfTest, WritesGoThroughTheirOwnSetters) {
  CpAclSm& sm = *sm_;
  Zov::genericIfAttributeIs(sm, 139, Values{true});
  EXPECT_TRUE(sm.dirtyAcl());
  EXPECT_TRUE(sm.initialized());

  // A new rule text waits for the next refresh.
  const Zov::String rule("-p udp --dport 5353 -j ACCEPT\n");
  const Zov::String gateway("-p tcp --dport 8853 -s 10.0.0.0/8 -j ACCEPT\n");
  Zov::genericIfAttributeIs(sm, 137, Values{rule});
  Zov::genericIfAttributeIs(sm, 138, Values{gateway});
  EXPECT_EQ(sm.mdnsIptRule(), rule);
  EXPECT_EQ(sm.mdnsGwIptRule(), gateway);
  EXPECT_CALL(context(),
              registerChainRule(_, _, L3::VrfName("red"), _, _, _, 0u, rule, _, _, _, _));
  Zov::genericIfCall(sm, 143, Values{true});

  // The refresh task: replaced with other settings, then removed once.
  Zov::genericIfAttributeIs(sm, 142, Values{scheduler_, 5, "otherTask"});
  const auto task = sm.refreshAclsTask();
  EXPECT_EQ(task->taskName(), Zov::String("otherTask"));
  EXPECT_EQ(task->taskPriority(), Pell::TaskPriority(5));
  EXPECT_EQ(Zov::genericIfAttributeDel(sm, 142).asReference<Pell::TimerTask>(), task);
  EXPECT_TRUE(Zov::genericIfAttributeDel(sm, 142).isNone());
  Zov::genericIfAttributeIs(sm, 149, Values{false});
  EXPECT_FALSE(sm.initialized());
  EXPECT_FALSE(sm.dirtyAcl());
}

TEST_F(GenericIfTest, CallsAndCollectionOperationsRunTheHandlers) {
  CpAclSm& sm = *sm_;
  Zov::genericIfCall(sm, 144, {});
  EXPECT_TRUE(sm.refreshAclsTask()->armed());
  Zov::genericIfCall(sm, 143, Values{false});
  EXPECT_FALSE(sm.dirtyAcl());

  // Entries published while the handlers were kept out are adopted by the
  // per-key calls, which take their keys' text forms.
  sm.initializedIs(false);
  intf("Ethernet2", "red");
  link("Ethernet2", 1, 7);
  sm.initializedIs(true);
  Zov::genericIfCall(sm, 146, Values{"Ethernet2"});
  Zov::genericIfCall(sm, 148, Values{"Ethernet2#7"});
  EXPECT_TRUE(sm.l3IntfStatusAclSm(Dovix::IntfId(Zov::String("Ethernet2"))));
  const auto watcher = sm.linkStatusAclSm(keyOf("Ethernet2", 7));
  ASSERT_TRUE(watcher);

  EXPECT_EQ(
      Zov::genericIfMember(sm, 147, GenericValue("Ethernet2#7")).asReference<LinkStatusAclSm>(),
      watcher);
  Zov::Ptr<const L3::Intf::Status> eth3(
      new L3::Intf::Status(Dovix::IntfId(Zov::String("Ethernet3")), L3::VrfName("blue")));
  const GenericValue added = Zov::genericIfMemberIs(sm, 145, Values{eth3});
  EXPECT_EQ(added.asReference<L3IntfStatusAclSm>()->l3IntfStatus(), eth3);
  EXPECT_EQ(Zov::genericIfMembers(sm, 145).size(), 3u);
  EXPECT_EQ(Zov::genericIfMemberDel(sm, 145, GenericValue("Ethernet3")), added);
  EXPECT_TRUE(Zov::genericIfMemberDel(sm, 145, GenericValue("Ethernet3")).isNone());

  // A watcher's destroy leaves it uninitialised.
  Zov::genericIfCall(*watcher, 134, {});
  EXPECT_FALSE(watcher->initialized());
}

TEST_F(GenericIfTest, RefusalsNameWhatWasWrongAndChangeNothing) {
  CpAclSm& sm = *sm_;
  const auto refreshes = sm.refreshes();
  const auto task = sm.refreshAclsTask();

  EXPECT_THAT(whatOf<Zov::UnknownAttributeException>([&] { read(sm, 151); }),
              AllOf(HasSubstr("McastDns::CpAclSm"), HasSubstr("151")));
  EXPECT_THAT(
      whatOf<Zov::AttributeAccessException>([&] { Zov::genericIfAttributeIs(sm, 130, Values{2}); }),
      AllOf(HasSubstr("130"), HasSubstr("af"), HasSubstr("cannot be written")));
  EXPECT_THROW(Zov::genericIfAttributeDel(sm, 139), Zov::AttributeAccessException);

  for (const char* bad : {"Ethernet1", "Ethernet1#", "Ethernet1#x", "Ethernet1#0x", "E#-1"}) {
    EXPECT_THAT(whatOf<Zov::GenericArgsException>(
                    [&] { Zov::genericIfMemberDel(sm, 147, GenericValue(bad)); }),
                HasSubstr("NAME#NUMBER"))
        << bad;
  }
  EXPECT_THROW(Zov::genericIfMemberIs(sm, 147, Values{config_}), Zov::GenericArgsException);
  EXPECT_THROW(Zov::genericIfAttributeIs(sm, 142, Values{scheduler_, -1, "t"}),
               Zov::GenericArgsException);

  EXPECT_FALSE(sm.dirtyAcl());
  EXPECT_EQ(sm.refreshes(), refreshes);
  EXPECT_EQ(sm.refreshAclsTask(), task);
}

TEST_F(GenericIfTest, ConstructionGoesThroughEachTypesCreation) {
  const Values smArgs{1, config_, status_, intfDir_, vrfGlobal_, vrfLocal_, context_};
  auto sm =
      Zov::ptrCast<CpAclSm>(Zov::genericIfConstructFromCtorArgs(fwkTypeOf(kCpAclSmType), smArgs));
  ASSERT_NE(sm, nullptr);
  EXPECT_TRUE(sm->hasNotificationActive());
  EXPECT_EQ(sm->linkStatusAclSms().size(), 1u) << "the sweeps ran";

  auto link = Zov::ptrCast<LinkStatusAclSm>(Zov::genericIfConstructFromCtorArgs(
      fwkTypeOf(kLinkStatusAclSmType), Values{status_->linkStatus(keyOf("Ethernet1")), sm}));
  ASSERT_NE(link, nullptr);
  EXPECT_EQ(link->parent(), sm.ptr());

  auto plugin = Zov::ptrCast<AclPlugin>(
      Zov::genericIfConstructFromCtorArgs(fwkTypeOf(kAclPluginType), Values{"McastDns"}));
  ASSERT_NE(plugin, nullptr);
  EXPECT_EQ(plugin->name(), Zov::String("McastDns"));
  EXPECT_THAT(whatOf<Zov::NewEntityArgsException>([&] {
                Zov::genericIfConstructFromCtorArgs(fwkTypeOf(kAclPluginType),
                                                    Values{"McastDns", context_});
              }),
              AllOf(HasSubstr("McastDns::AclPlugin"), HasSubstr("type index 3")));

  // The root's context and state machine, by id.
  Zov::genericIfAttributeIs(*plugin, 386, Values{context_});
  EXPECT_EQ(plugin->context(), context_);
  Zov::genericIfAttributeIs(*plugin, 388, smArgs);
  EXPECT_EQ(read(*plugin, 388).asReference<CpAclSm>()->mcastDnsStatus(), status_);
  const auto removed = Zov::genericIfAttributeDel(*plugin, 388).asReference<CpAclSm>();
  EXPECT_FALSE(removed->hasNotificationActive());
  EXPECT_EQ(plugin->cpAclSm(), nullptr);
}

}  // namespace
}  // namespace McastDns::test
