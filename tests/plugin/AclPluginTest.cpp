// The root entity over an in-process state database: its mounts, mount
// completion and the life of its state machine.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "McastDns/AclPlugin/McastDnsAclPlugin.h"
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
    listener_ = nullptr;
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

TEST_F(AclPluginTest, InitRefusesABadContextOrMountsTheFivePathsReadOnly) {
  plugin_ = AclPlugin::AclPluginIs("McastDns");
  EXPECT_THROW(plugin_->init(nullptr), Zov::NullPointerException);
  Zov::Ptr<NiceMock<MockPluginContext>> noDatabase(new NiceMock<MockPluginContext>);
  EXPECT_THROW(plugin_->init(noDatabase), Zov::NullPointerException);
  EXPECT_EQ(plugin_->context(), nullptr);

  AclPlugin& plugin = start();
  const auto group = entityManager_->getMountGroup(plugin_);
  std::vector<std::string> mounts;
  for (const Korvel::Mount& mount : group->mounts()) {
    mounts.push_back(mount.path.str() + " " + mount.typeName.str());
    EXPECT_EQ(mount.flags.val(), Korvel::AllMountFlags::kRead);
    EXPECT_FALSE(mount.filter.filtered());
  }
  EXPECT_EQ(mounts,
            (std::vector<std::string>{
                "mdns/config McastDns::Config", "mdns/status McastDns::Status",
                "l3/intf/status L3::Intf::StatusDir", "ip/vrf/status/global Ip::AllVrfStatusGlobal",
                Cell::path("ip/vrf/status/local", 0).str() + " Ip::AllVrfStatusLocal"}));
  EXPECT_EQ(group->closes(), 1u);
  EXPECT_EQ(plugin.cpAclSm(), nullptr) << "completion never comes inside init";
}

TEST_F(AclPluginTest, CompletionBuildsKeepsReplacesAndDropsTheStateMachine) {
  AclPlugin& plugin = start();
  entityManager_->mountsCompleteIs(Korvel::MountStatus::kFailed);
  const CpAclSm* sm = plugin.cpAclSm().ptr();
  ASSERT_NE(sm, nullptr) << "built whatever the status";
  // The completion due from the loop finds the same seven inputs.
  scheduler_->settle();
  EXPECT_EQ(entityManager_->completions(), 2u);
  EXPECT_EQ(plugin.cpAclSm().ptr(), sm);
  EXPECT_EQ(heard(AclPlugin::kCpAclSm), 1u);

  // A new entity under a path, or a new context, makes the next completion
  // replace it; the old one is gone before 388 is heard.
  const std::uint64_t baseline = liveStateMachines() - 1;
  std::vector<std::uint64_t> liveAt388;
  listener_->hook_ = [&](Zov::AttributeId id, const void*) {
    if (id == AclPlugin::kCpAclSm) liveAt388.push_back(liveStateMachines() - baseline);
  };
  publish("mdns/config", new Config("config"));
  entityManager_->mountsCompleteIs(Korvel::MountStatus::kSuccess);
  publish("ip/vrf/status/global", new Ip::AllVrfStatusGlobal("global"));
  entityManager_->mountsCompleteIs(Korvel::MountStatus::kSuccess);
  const auto other = contextOver(entityManager_);
  plugin.contextIs(other);
  entityManager_->mountsCompleteIs(Korvel::MountStatus::kSuccess);
  EXPECT_EQ(liveAt388, (std::vector<std::uint64_t>{1, 1, 1}));
  EXPECT_EQ(plugin.cpAclSm()->context(), other);

  // Removal announces 388 and switches the state machine off; with none
  // held it announces nothing.
  Zov::Ptr<CpAclSm> removed = plugin.cpAclSmDel();
  EXPECT_FALSE(removed->hasNotificationActive());
  EXPECT_EQ(plugin.cpAclSmDel(), nullptr);
  EXPECT_EQ(heard(AclPlugin::kCpAclSm), 5u);

  // Destruction switches off a state machine held elsewhere and lets go of it.
  entityManager_->mountsCompleteIs(Korvel::MountStatus::kSuccess);
  Zov::Ptr<CpAclSm> kept = plugin.cpAclSm();
  listener_ = nullptr;
  plugin_ = nullptr;
  EXPECT_FALSE(kept->hasNotificationActive());
  EXPECT_EQ(kept->references(), 1u);
}

}  // namespace
}  // namespace McastDns::test
