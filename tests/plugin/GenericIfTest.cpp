// The plugin's type module and its generic attribute interface: the tables
// describe every attribute, and reads, writes, calls, collection operations
// and construction by id run the types' own accessors, setters and handlers.
#include "McastDns/AclPlugin/ZovModule.h"

#include "McastDns/AclPlugin/CpAclSmReactors.h"
#include "McastDns/AclPlugin/McastDnsAclPlugin.h"
#include "StateMachineFixture.h"
#include "platform/PlatformTesting.h"

namespace McastDns::test {
namespace {

using ::testing::_;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::UnorderedElementsAre;
using Zov::AttributeKind;
using Zov::GenericValue;
using Values = std::vector<GenericValue>;
using ZovTesting::whatOf;

TEST(ZovModuleTest, TablesListEveryAttributeOfEveryType) {
  struct Row {
    TypeIndex type;
    Zov::AttributeId id;
    const char* name;
    AttributeKind kind;
    std::vector<std::string> keyOrArgs;
  };
  constexpr auto kV = AttributeKind::kValue;
  constexpr auto kR = AttributeKind::kReference;
  constexpr auto kC = AttributeKind::kCollection;
  constexpr auto kO = AttributeKind::kOperation;
  const std::vector<Row> expected = {
      {kL3IntfStatusAclSmType, 130, "l3IntfStatus", kR, {}},
      {kL3IntfStatusAclSmType, 131, "intfId", kV, {}},
      {kL3IntfStatusAclSmType, 132, "parent", kV, {}},
      {kL3IntfStatusAclSmType, 133, "handleVrf", kO, {}},
      {kL3IntfStatusAclSmType, 134, "destroy", kO, {}},
      {kL3IntfStatusAclSmType, 135, "initialized", kV, {}},
      {kL3IntfStatusAclSmType, 136, "handleInitialized", kO, {}},
      {kLinkStatusAclSmType, 130, "linkStatus", kR, {}},
      {kLinkStatusAclSmType, 131, "intfKey", kV, {}},
      {kLinkStatusAclSmType, 132, "parent", kV, {}},
      {kLinkStatusAclSmType, 133, "handleState", kO, {}},
      {kLinkStatusAclSmType, 134, "destroy", kO, {}},
      {kLinkStatusAclSmType, 135, "initialized", kV, {}},
      {kLinkStatusAclSmType, 136, "handleInitialized", kO, {}},
      {kCpAclSmType, 130, "af", kV, {}},
      {kCpAclSmType, 131, "mcastDnsConfig", kR, {}},
      {kCpAclSmType, 132, "mcastDnsStatus", kR, {}},
      {kCpAclSmType, 133, "l3IntfStatusDir", kR, {}},
      {kCpAclSmType, 134, "allVrfStatusGlobal", kR, {}},
      {kCpAclSmType, 135, "allVrfStatusLocal", kR, {}},
      {kCpAclSmType, 136, "context", kR, {}},
      {kCpAclSmType, 137, "mdnsIptRule", kV, {}},
      {kCpAclSmType, 138, "mdnsGwIptRule", kV, {}},
      {kCpAclSmType, 139, "dirtyAcl", kV, {}},
      {kCpAclSmType, 140, "refreshAclsDelay", kV, {}},
      {kCpAclSmType, 141, "scheduler", kR, {}},
      {kCpAclSmType, 142, "refreshAclsTask", kR, {}},
      {kCpAclSmType, 143, "handleRefreshAcls", kO, {"force"}},
      {kCpAclSmType, 144, "handleLinkChange", kO, {}},
      {kCpAclSmType, 145, "l3IntfStatusAclSm", kC, {"intfId"}},
      {kCpAclSmType, 146, "handleL3IntfStatus", kO, {"intfId"}},
      {kCpAclSmType, 147, "linkStatusAclSm", kC, {"intfKey"}},
      {kCpAclSmType, 148, "handleLinkStatus", kO, {"intfKey"}},
      {kCpAclSmType, 149, "initialized", kV, {}},
      {kCpAclSmType, 150, "handleInitialized", kO, {}},
      {kAclPluginType, 386, "context", kR, {}},
      {kAclPluginType, 387, "init", kO, {"context"}},
      {kAclPluginType, 388, "cpAclSm", kR, {}},
  };
  const char* const typeNames[] = {"McastDns::L3IntfStatusAclSm", "McastDns::LinkStatusAclSm",
                                   "McastDns::CpAclSm", "McastDns::AclPlugin"};

  const Zov::ZovModule& module = _McastDnsAclPlugin_95fe9596_zovModule;
  ASSERT_EQ(module.types.size(), 4u);
  std::size_t rows = 0;
  for (unsigned index = 0; index < 4; ++index) {
    EXPECT_STREQ(module.types[index].name, typeNames[index]);
    EXPECT_EQ(fwkTypeOf(TypeIndex(index)).name(), typeNames[index]);
    rows += module.types[index].attributes.size();
  }
  EXPECT_EQ(rows, expected.size()) << "every attribute is listed once";
  for (const Row& row : expected) {
    SCOPED_TRACE(std::string(typeNames[row.type]) + " " + std::to_string(row.id));
    const Zov::AttributeInfo* info = module.types[row.type].attribute(row.id);
    ASSERT_NE(info, nullptr);
    EXPECT_STREQ(info->name, row.name);
    EXPECT_EQ(info->kind, row.kind);
    std::vector<std::string> keyOrArgs(info->argumentNames.begin(), info->argumentNames.end());
    if (info->keyName) keyOrArgs.push_back(info->keyName);
    EXPECT_EQ(keyOrArgs, row.keyOrArgs);
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

  Zov::GenericValue read(const Zov::PtrInterface& object, Zov::AttributeId id) {
    return Zov::genericIfAttribute(object, id);
  }
  static Values keysOf(const Values& members, Zov::AttributeId keyId) {
    Values keys;
    for (const GenericValue& m : members) {
      keys.push_back(Zov::genericIfAttribute(*m.asReference<const Zov::PtrInterface>(), keyId));
    }
    return keys;
  }
};

TEST_F(GenericIfTest, ReadsByIdMatchTheTypedAccessors) {
  CpAclSm& sm = *sm_;
  EXPECT_EQ(read(sm, 130), GenericValue(1));
  EXPECT_EQ(read(sm, 131), GenericValue(sm.mcastDnsConfig()));
  EXPECT_EQ(read(sm, 133).asReference<const L3::Intf::StatusDir>(), intfDir_);
  EXPECT_EQ(read(sm, 135).asReference<const Ip::AllVrfStatusLocal>(), vrfLocal_);
  EXPECT_EQ(read(sm, 136).asReference<Acl::PluginContext>(), context_);
  EXPECT_EQ(read(sm, 137).asText(), sm.mdnsIptRule());
  EXPECT_EQ(read(sm, 138).str(), R"("-p tcp --dport 8853 -j ACCEPT\n")");
  EXPECT_EQ(read(sm, 139), GenericValue(false));
  EXPECT_EQ(read(sm, 140).asFloating(), 0.01);
  EXPECT_EQ(read(sm, 141).asReference<Pell::TaskSchedulerRoot>(), scheduler_);
  EXPECT_EQ(read(sm, 142).asReference<Pell::TimerTask>(), sm.refreshAclsTask());
  EXPECT_EQ(read(sm, 149), GenericValue(true));
  // A mounted input reads back read-only: it cannot be passed on as writable.
  EXPECT_THROW(read(sm, 131).asReference<Config>(), Zov::GenericArgsException);

  const auto& link = *sm.linkStatusAclSm(keyOf("Ethernet1"));
  EXPECT_EQ(read(link, 130).asReference<const LinkStatus>(), link.linkStatus());
  EXPECT_EQ(read(link, 131), GenericValue("Ethernet1#0"));
  EXPECT_EQ(read(link, 132).asReference<CpAclSm>(), sm_);
  EXPECT_EQ(read(link, 135), GenericValue(true));
  const auto& l3 = *sm.l3IntfStatusAclSm(Dovix::IntfId(Zov::String("Ethernet1")));
  EXPECT_EQ(read(l3, 131), GenericValue("Ethernet1"));

  // Without an entity, the keys read as the empty name.
  auto bare = linkStatusAclSmFactory(nullptr, nullptr);
  EXPECT_EQ(read(*bare, 130), GenericValue());
  EXPECT_EQ(read(*bare, 131), GenericValue("#0"));
}

TEST_F(GenericIfTest, WritesGoThroughTheSettersAndReachTheNextRefresh) {
  CpAclSm& sm = *sm_;
  Zov::genericIfAttributeIs(sm, 139, Values{true});
  EXPECT_TRUE(sm.dirtyAcl());
  Zov::genericIfAttributeIs(sm, 149, Values{false});
  EXPECT_FALSE(sm.initialized());
  Zov::genericIfAttributeIs(sm, 149, Values{true});

  const Zov::String rule("-p udp --dport 5353 -j ACCEPT\n");
  Zov::genericIfAttributeIs(sm, 137, Values{rule});
  EXPECT_CALL(context(),
              registerChainRule(_, _, L3::VrfName("red"), _, _, _, 0u, rule, _, _, _, _));
  Zov::genericIfCall(sm, 143, Values{true});
  ::testing::Mock::VerifyAndClearExpectations(context_.ptr());

  // The refresh task: replaced with other settings, then removed.
  const auto before = sm.refreshAclsTask();
  Zov::genericIfAttributeIs(sm, 142, Values{scheduler_, 5, "otherTask"});
  ASSERT_NE(sm.refreshAclsTask(), before);
  EXPECT_EQ(sm.refreshAclsTask()->taskName(), Zov::String("otherTask"));
  EXPECT_EQ(sm.refreshAclsTask()->taskPriority(), Pell::TaskPriority(5));
  const auto task = sm.refreshAclsTask();
  EXPECT_EQ(Zov::genericIfAttributeDel(sm, 142).asReference<Pell::TimerTask>(), task);
  EXPECT_EQ(sm.refreshAclsTask(), nullptr);
  EXPECT_TRUE(Zov::genericIfAttributeDel(sm, 142).isNone());
}

TEST_F(GenericIfTest, CallsRunTheHandlers) {
  CpAclSm& sm = *sm_;
  const auto refreshes = sm.refreshes();
  Zov::genericIfCall(sm, 144, {});
  EXPECT_TRUE(sm.dirtyAcl());
  EXPECT_TRUE(sm.refreshAclsTask()->armed());
  Zov::genericIfCall(sm, 143, Values{false});
  EXPECT_EQ(sm.refreshes(), refreshes + 1);
  EXPECT_FALSE(sm.dirtyAcl());

  // A new entry reaches its per-key handler by its key's text form.
  Zov::Ptr<L3::Intf::Status> eth2(
      new L3::Intf::Status(Dovix::IntfId(Zov::String("Ethernet2")), L3::VrfName("red")));
  const_cast<L3::Intf::StatusDir&>(*intfDir_).intfStatusIs(eth2);
  sm.l3IntfStatusAclSmDel(eth2->intfId());
  Zov::genericIfCall(sm, 146, Values{"Ethernet2"});
  EXPECT_NE(sm.l3IntfStatusAclSm(eth2->intfId()), nullptr);

  Zov::Ptr<LinkStatus> eth2Link(new LinkStatus(keyOf("Ethernet2", 7), 1));
  status_->linkStatusIs(eth2Link);
  sm.linkStatusAclSmDel(keyOf("Ethernet2", 7));
  Zov::genericIfCall(sm, 148, Values{"Ethernet2#7"});
  EXPECT_NE(sm.linkStatusAclSm(keyOf("Ethernet2", 7)), nullptr);

  // A watcher's destroy announces its leaving and leaves it uninitialised.
  auto watcher = sm.linkStatusAclSmDel(keyOf("Ethernet2", 7));
  Zov::genericIfCall(*watcher, 134, {});
  EXPECT_FALSE(watcher->initialized());
}

TEST_F(GenericIfTest, KeyedCollectionsLookUpAddDeleteAndWalk) {
  CpAclSm& sm = *sm_;
  const GenericValue eth1("Ethernet1");
  EXPECT_EQ(Zov::genericIfMember(sm, 145, eth1).asReference<L3IntfStatusAclSm>(),
            sm.l3IntfStatusAclSm(Dovix::IntfId(Zov::String("Ethernet1"))));
  EXPECT_TRUE(Zov::genericIfHasMember(sm, 147, GenericValue("Ethernet1#0")));
  EXPECT_FALSE(Zov::genericIfHasMember(sm, 147, GenericValue("Ethernet1#1")));
  EXPECT_FALSE(Zov::genericIfHasMember(sm, 145, GenericValue("Ethernet9")));

  Zov::Ptr<const L3::Intf::Status> eth3(
      new L3::Intf::Status(Dovix::IntfId(Zov::String("Ethernet3")), L3::VrfName("blue")));
  const auto added = Zov::genericIfMemberIs(sm, 145, Values{eth3});
  EXPECT_EQ(added.asReference<L3IntfStatusAclSm>()->l3IntfStatus(), eth3);
  EXPECT_TRUE(sm.dirtyAcl()) << "a new watcher schedules a refresh";
  EXPECT_THAT(keysOf(Zov::genericIfMembers(sm, 145), 131),
              UnorderedElementsAre(GenericValue("Ethernet1"), GenericValue("Ethernet3")));

  EXPECT_EQ(Zov::genericIfMemberDel(sm, 145, GenericValue("Ethernet3")), added);
  EXPECT_EQ(sm.l3IntfStatusAclSms().size(), 1u);
  EXPECT_TRUE(Zov::genericIfMemberDel(sm, 145, GenericValue("Ethernet3")).isNone());
  EXPECT_THAT(keysOf(Zov::genericIfMembers(sm, 147), 131),
              ElementsAreArray({GenericValue("Ethernet1#0")}));
}

TEST_F(GenericIfTest, RefusalsNameWhatWasWrongAndChangeNothing) {
  CpAclSm& sm = *sm_;
  const auto refreshes = sm.refreshes();
  const auto unchanged = [&] {
    EXPECT_EQ(sm.af(), Dovix::AddressFamily::kIpv4);
    EXPECT_FALSE(sm.dirtyAcl());
    EXPECT_EQ(sm.refreshes(), refreshes);
    EXPECT_EQ(sm.linkStatusAclSms().size(), 1u);
    EXPECT_EQ(sm.mdnsIptRule(), Zov::String("-p udp --dport 5353 -d 224.0.0.251 -j ACCEPT\n"));
  };

  EXPECT_THAT(whatOf<Zov::UnknownAttributeException>([&] { read(sm, 151); }),
              AllOf(HasSubstr("McastDns::CpAclSm"), HasSubstr("151")));
  EXPECT_THAT(whatOf<Zov::UnknownAttributeException>(
                  [&] { Zov::genericIfCall(*sm.linkStatusAclSm(keyOf("Ethernet1")), 137, {}); }),
              AllOf(HasSubstr("McastDns::LinkStatusAclSm"), HasSubstr("137")));
  EXPECT_THAT(
      whatOf<Zov::AttributeAccessException>([&] { Zov::genericIfAttributeIs(sm, 130, Values{2}); }),
      AllOf(HasSubstr("130"), HasSubstr("af"), HasSubstr("cannot be written")));
  EXPECT_THROW(Zov::genericIfAttributeDel(sm, 139), Zov::AttributeAccessException);
  EXPECT_THROW(read(sm, 144), Zov::AttributeAccessException);
  EXPECT_THROW(Zov::genericIfCall(sm, 139, Values{true}), Zov::AttributeAccessException);
  EXPECT_THROW(Zov::genericIfMembers(sm, 143), Zov::AttributeAccessException);

  EXPECT_THAT(whatOf<Zov::GenericArgsException>([&] { Zov::genericIfCall(sm, 143, {}); }),
              AllOf(HasSubstr("handleRefreshAcls"), HasSubstr("force")));
  EXPECT_THAT(
      whatOf<Zov::GenericArgsException>([&] { Zov::genericIfCall(sm, 143, Values{"yes"}); }),
      AllOf(HasSubstr("143"), HasSubstr("expected bool"), HasSubstr("\"yes\"")));
  EXPECT_THROW(Zov::genericIfAttributeIs(sm, 139, Values{1}), Zov::GenericArgsException);
  EXPECT_THROW(Zov::genericIfAttributeIs(sm, 139, Values{true, true}), Zov::GenericArgsException);
  EXPECT_THROW(Zov::genericIfAttributeIs(sm, 137, Values{}), Zov::GenericArgsException);
  EXPECT_THAT(whatOf<Zov::GenericArgsException>(
                  [&] { Zov::genericIfMemberDel(sm, 147, GenericValue("Ethernet1")); }),
              HasSubstr("NAME#NUMBER"));
  EXPECT_THROW(Zov::genericIfMemberIs(sm, 147, Values{config_}), Zov::GenericArgsException);
  // The refresh task needs a scheduler, a priority in range and a name; the
  // old task stays when any of them is wrong.
  const auto task = sm.refreshAclsTask();
  EXPECT_THROW(Zov::genericIfAttributeIs(sm, 142, Values{scheduler_, -1, "t"}),
               Zov::GenericArgsException);
  EXPECT_THROW(Zov::genericIfAttributeIs(sm, 142, Values{config_, 3, "t"}),
               Zov::GenericArgsException);
  EXPECT_EQ(sm.refreshAclsTask(), task);
  unchanged();
}

TEST_F(GenericIfTest, ConstructionGoesThroughEachTypesCreation) {
  const Values smArgs{1, config_, status_, intfDir_, vrfGlobal_, vrfLocal_, context_};
  auto built = Zov::genericIfConstructFromCtorArgs(fwkTypeOf(kCpAclSmType), smArgs);
  auto sm = Zov::ptrCast<CpAclSm>(built);
  ASSERT_NE(sm, nullptr);
  EXPECT_TRUE(sm->initialized());
  EXPECT_TRUE(sm->hasNotificationActive());
  EXPECT_EQ(sm->mcastDnsStatus(), status_);
  EXPECT_EQ(sm->linkStatusAclSms().size(), 1u) << "the sweeps ran";

  auto link = Zov::ptrCast<LinkStatusAclSm>(Zov::genericIfConstructFromCtorArgs(
      fwkTypeOf(kLinkStatusAclSmType), Values{status_->linkStatus(keyOf("Ethernet1")), sm}));
  ASSERT_NE(link, nullptr);
  EXPECT_EQ(link->parent(), sm.ptr());
  EXPECT_TRUE(link->hasNotificationActive());
  auto l3 = Zov::ptrCast<L3IntfStatusAclSm>(Zov::genericIfConstructFromCtorArgs(
      fwkTypeOf(kL3IntfStatusAclSmType), Values{GenericValue(), GenericValue()}));
  ASSERT_NE(l3, nullptr);
  EXPECT_EQ(l3->parent(), nullptr);

  auto plugin = Zov::ptrCast<AclPlugin>(
      Zov::genericIfConstructFromCtorArgs(fwkTypeOf(kAclPluginType), Values{"McastDns"}));
  ASSERT_NE(plugin, nullptr);
  EXPECT_EQ(plugin->name(), Zov::String("McastDns"));
  EXPECT_EQ(read(*plugin, 388), GenericValue());
  EXPECT_THAT(whatOf<Zov::NewEntityArgsException>([&] {
                Zov::genericIfConstructFromCtorArgs(fwkTypeOf(kAclPluginType),
                                                    Values{"McastDns", context_});
              }),
              AllOf(HasSubstr("McastDns::AclPlugin"), HasSubstr("type index 3")));

  const auto live = CpAclSm::allocTrackTypeInfo().liveObjects();
  EXPECT_THAT(whatOf<Zov::GenericArgsException>([&] {
                Zov::genericIfConstructFromCtorArgs(fwkTypeOf(kCpAclSmType),
                                                    Values(smArgs.begin(), smArgs.end() - 1));
              }),
              AllOf(HasSubstr("McastDns::CpAclSm"), HasSubstr("expected 7 values, got 6")));
  EXPECT_EQ(CpAclSm::allocTrackTypeInfo().liveObjects(), live);
}

TEST_F(GenericIfTest, TheRootReachesEverythingAndTeardownLeavesNothingLive) {
  auto plugin = AclPlugin::AclPluginIs("McastDns");
  Zov::genericIfAttributeIs(*plugin, 386, Values{context_});
  EXPECT_EQ(plugin->context(), context_);
  Zov::genericIfAttributeIs(*plugin, 388,
                            Values{1, config_, status_, intfDir_, vrfGlobal_, vrfLocal_, context_});
  auto sm = read(*plugin, 388).asReference<Zov::PtrInterface>();
  ASSERT_EQ(sm, plugin->cpAclSm());
  EXPECT_EQ(Zov::genericIfMembers(*sm, 147).size(), 1u);
  EXPECT_EQ(Zov::genericIfAttributeDel(*plugin, 388).asReference<CpAclSm>(), sm);
  EXPECT_FALSE(sm->hasNotificationActive());

  const Zov::AllocTrackTypeInfo* records[] = {
      &AclPlugin::allocTrackTypeInfo(),
      &CpAclSm::allocTrackTypeInfo(),
      &CpAclSm::ZovMcastDnsConfig::allocTrackTypeInfo(),
      &CpAclSm::ZovMcastDnsStatus::allocTrackTypeInfo(),
      &CpAclSm::ZovL3IntfStatusDir::allocTrackTypeInfo(),
      &CpAclSm::ZovRefreshAclsTask::allocTrackTypeInfo(),
      &LinkStatusAclSm::allocTrackTypeInfo(),
      &LinkStatusAclSm::ZovLinkStatus::allocTrackTypeInfo(),
      &L3IntfStatusAclSm::allocTrackTypeInfo(),
      &L3IntfStatusAclSm::ZovL3IntfStatus::allocTrackTypeInfo(),
  };
  EXPECT_EQ(CpAclSm::allocTrackTypeInfo().liveObjects(), 2u) << "the fixture's and the root's";
  plugin = nullptr;
  sm_ = nullptr;
  EXPECT_EQ(CpAclSm::allocTrackTypeInfo().liveObjects(), 1u) << "only the one held here";
  sm = nullptr;
  for (const auto* record : records) {
    EXPECT_EQ(record->liveObjects(), 0u) << record->typeName();
  }
}

}  // namespace
}  // namespace McastDns::test
