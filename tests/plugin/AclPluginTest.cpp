// The root entity over an in-process state database: its mounts, mount
// completion and the life of its state machine.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "McastDns/AclPlugin/McastDnsAclPlugin.h"
#include "McastDns/AclPlugin/ZovModule.h"
#include "mocks/MockPluginContext.h"
#include "platform/Cell.h"
#include "platform/PlatformTesting.h"

namespace McastDns::test {
namespace {

using ::testing::NiceMock;
using ::testing::Return;

class AclPluginTest : public ::testing::Test {
 protected:
  AclPluginTest()
      : entityManager_(new Korvel::EntityManager),
        context_(contextOver(entityManager_)),
        scheduler_(Pell::TaskSchedulerRoot::findOrCreateScheduler()) {
    publish("mdns/config", new Config("config"));
    publish("mdns/status", new Status("status"));
    publish("l3/intf/status", new L3::Intf::StatusDir("intf"));
    publish("ip/vrf/status/global", new Ip::AllVrfStatusGlobal("global"));
    publish(Cell::path("ip/vrf/status/local", 0), new Ip::AllVrfStatusLocal("local"));
  }
  ~AclPluginTest() override {
    if (listener_) listener_->notifierIs(nullptr);
    plugin_ = nullptr;
    scheduler_->settle();
  }

  static Zov::Ptr<NiceMock<MockPluginContext>> contextOver(
      const Zov::Ptr<Korvel::EntityManager>& entityManager) {
    Zov::Ptr<NiceMock<MockPluginContext>> context(new NiceMock<MockPluginContext>);
    ON_CALL(*context, entityManager()).WillByDefault(Return(entityManager));
    return context;
  }

  void publish(const Zov::String& path, Zov::Entity* entity) {
    entityManager_->entityIs(path, Zov::Ptr<Zov::Entity>(entity));
  }

  // A started root entity whose announcements `listener_` records.
  AclPlugin& start() {
    plugin_ = aclPluginFactory("McastDns");
    listener_ = ZovTesting::Listener::listenerIs(plugin_.ptr());
    plugin_->init(context_);
    return *plugin_;
  }

  std::size_t heard(Zov::AttributeId id) const {
    return std::count(listener_->ids_.begin(), listener_->ids_.end(), id);
  }

  static std::uint64_t liveStateMachines() { return CpAclSm::allocTrackTypeInfo().liveObjects(); }

  Zov::Ptr<Korvel::EntityManager> entityManager_;
  Zov::Ptr<NiceMock<MockPluginContext>> context_;
  Zov::Ptr<Pell::TaskSchedulerRoot> scheduler_;
  Zov::Ptr<AclPlugin> plugin_;
  Zov::Ptr<ZovTesting::Listener> listener_;
};

TEST_F(AclPluginTest, MountsTheFivePathsReadOnlyAndClosesOnce) {
  AclPlugin& plugin = start();
  EXPECT_EQ(plugin.context(), context_);
  EXPECT_EQ(heard(AclPlugin::kContext), 1u);
  EXPECT_EQ(plugin.fwkType(), fwkTypeOf(kAclPluginType));

  const auto group = entityManager_->getMountGroup(plugin_);
  const std::vector<std::pair<std::string, std::string>> expected = {
      {"mdns/config", "McastDns::Config"},
      {"mdns/status", "McastDns::Status"},
      {"l3/intf/status", "L3::Intf::StatusDir"},
      {"ip/vrf/status/global", "Ip::AllVrfStatusGlobal"},
      {Cell::path("ip/vrf/status/local", 0).str(), "Ip::AllVrfStatusLocal"},
  };
  ASSERT_EQ(group->mounts().size(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const Korvel::Mount& mount = group->mounts()[i];
    EXPECT_EQ(mount.path.str(), expected[i].first);
    EXPECT_EQ(mount.typeName.str(), expected[i].second);
    EXPECT_EQ(mount.flags.val(), Korvel::AllMountFlags::kRead);
    EXPECT_FALSE(mount.filter.filtered());
  }
  EXPECT_EQ(group->closes(), 1u);
  EXPECT_EQ(plugin.cpAclSm(), nullptr) << "completion never comes inside init";
}

TEST_F(AclPluginTest, CompletionBuildsTheStateMachineWhateverItsStatus) {
  AclPlugin& plugin = start();
  entityManager_->mountsCompleteIs(Korvel::MountStatus::kFailed);
  const Zov::Ptr<CpAclSm> sm = plugin.cpAclSm();
  ASSERT_NE(sm, nullptr);
  EXPECT_EQ(heard(AclPlugin::kCpAclSm), 1u);
  EXPECT_EQ(sm->af(), Dovix::AddressFamily::kIpv4);
  EXPECT_EQ(sm->mcastDnsConfig(), entityManager_->getEntity("mdns/config"));
  EXPECT_EQ(sm->mcastDnsStatus(), entityManager_->getEntity("mdns/status"));
  EXPECT_EQ(sm->l3IntfStatusDir(), entityManager_->getEntity("l3/intf/status"));
  EXPECT_EQ(sm->allVrfStatusGlobal(), entityManager_->getEntity("ip/vrf/status/global"));
  EXPECT_EQ(sm->allVrfStatusLocal(),
            entityManager_->getEntity(Cell::path("ip/vrf/status/local", 0)));
  EXPECT_EQ(sm->context(), context_);
  EXPECT_TRUE(sm->hasNotificationActive());

  // The completion due from the loop finds the same seven inputs.
  scheduler_->settle();
  EXPECT_EQ(entityManager_->completions(), 2u);
  EXPECT_EQ(plugin.cpAclSm(), sm);
  EXPECT_EQ(heard(AclPlugin::kCpAclSm), 1u);
}

TEST_F(AclPluginTest, ANewEntityOrContextReplacesTheStateMachine) {
  AclPlugin& plugin = start();
  scheduler_->settle();
  const std::uint64_t baseline = liveStateMachines() - 1;
  std::vector<std::uint64_t> liveAt388;
  listener_->hook_ = [&](Zov::AttributeId id, const void*) {
    if (id == AclPlugin::kCpAclSm) liveAt388.push_back(liveStateMachines() - baseline);
  };

  for (const char* path : {"mdns/config", "ip/vrf/status/global"}) {
    SCOPED_TRACE(path);
    const CpAclSm* before = plugin.cpAclSm().ptr();
    const std::size_t heardBefore = heard(AclPlugin::kCpAclSm);
    if (std::string(path) == "mdns/config") {
      publish(path, new Config("config"));
    } else {
      publish(path, new Ip::AllVrfStatusGlobal("global"));
    }
    entityManager_->mountsCompleteIs(Korvel::MountStatus::kSuccess);
    EXPECT_NE(plugin.cpAclSm().ptr(), before);
    EXPECT_EQ(plugin.cpAclSm()->mcastDnsConfig(), entityManager_->getEntity("mdns/config"));
    EXPECT_EQ(heard(AclPlugin::kCpAclSm), heardBefore + 1);
  }
  // The old state machine was gone before 388 was heard.
  EXPECT_EQ(liveAt388, (std::vector<std::uint64_t>{1, 1}));

  const auto other = contextOver(entityManager_);
  plugin.contextIs(other);
  plugin.contextIs(other);
  EXPECT_EQ(heard(AclPlugin::kContext), 2u) << "the context already held is not announced";
  EXPECT_EQ(plugin.cpAclSm()->context(), context_);
  entityManager_->mountsCompleteIs(Korvel::MountStatus::kSuccess);
  EXPECT_EQ(plugin.cpAclSm()->context(), other);
  EXPECT_EQ(heard(AclPlugin::kCpAclSm), 4u);
  EXPECT_EQ(liveStateMachines(), baseline + 1);
}

TEST_F(AclPluginTest, DelAndDestructionSwitchTheStateMachineOff) {
  AclPlugin& plugin = start();
  EXPECT_EQ(plugin.cpAclSmDel(), nullptr);
  EXPECT_EQ(heard(AclPlugin::kCpAclSm), 0u);

  scheduler_->settle();
  Zov::Ptr<CpAclSm> removed = plugin.cpAclSmDel();
  ASSERT_NE(removed, nullptr);
  EXPECT_FALSE(removed->hasNotificationActive());
  EXPECT_EQ(plugin.cpAclSm(), nullptr);
  EXPECT_EQ(heard(AclPlugin::kCpAclSm), 2u);

  // Destruction: a state machine held elsewhere is switched off, and the
  // entity lets go of it and of the context.
  entityManager_->mountsCompleteIs(Korvel::MountStatus::kSuccess);
  Zov::Ptr<CpAclSm> kept = plugin.cpAclSm();
  ASSERT_TRUE(kept->hasNotificationActive());
  const std::uint32_t contextRefs = context_->references();
  listener_->notifierIs(nullptr);
  plugin_ = nullptr;
  EXPECT_FALSE(kept->hasNotificationActive());
  EXPECT_EQ(kept->references(), 1u);
  EXPECT_LT(context_->references(), contextRefs);
}

TEST_F(AclPluginTest, BadContextIsRefusedAndChangesNothing) {
  plugin_ = AclPlugin::AclPluginIs("McastDns");
  EXPECT_THROW(plugin_->init(nullptr), Zov::NullPointerException);
  Zov::Ptr<NiceMock<MockPluginContext>> noDatabase(new NiceMock<MockPluginContext>);
  EXPECT_THROW(plugin_->init(noDatabase), Zov::NullPointerException);
  EXPECT_EQ(plugin_->context(), nullptr);
}

}  // namespace
}  // namespace McastDns::test
