// The root entity over an in-process state database: its mounts, mount
// completion and the life of its state machine.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "McastDns/AclPlugin/McastDnsAclPlugin.h"
#include "mocks/MockPluginContext.h"
#include "platform/Cell.h"
#include "platform/PlatformTesting.h"
#include "plugin/PluginTesting.h"

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
    publish(vrfLocalPath(), new Ip::AllVrfStatusLocal("local"));
  }
  ~AclPluginTest() override {
    listener_ = nullptr;
    plugin_ = nullptr;
    scheduler_->settle();
  }

  static Zov::String vrfLocalPath() { return Cell::path("ip/vrf/status/local", 0); }

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
  void complete() { entityManager_->mountsCompleteIs(Korvel::MountStatus::kSuccess); }
  AclPlugin& startAndComplete() {
    start();
    complete();
    return *plugin_;
  }

  std::size_t heard(Zov::AttributeId id) const {
    return std::count(listener_->ids_.begin(), listener_->ids_.end(), id);
  }

  Zov::Ptr<Korvel::EntityManager> entityManager_;
  Zov::Ptr<NiceMock<MockPluginContext>> context_;
  Zov::Ptr<Pell::TaskSchedulerRoot> scheduler_;
  Zov::Ptr<AclPlugin> plugin_;
  Zov::Ptr<ZovTesting::Listener> listener_;
};

TEST_F(AclPluginTest, InitRefusesAContextWithoutAStateDatabase) {
  plugin_ = AclPlugin::AclPluginIs("McastDns");
  EXPECT_THROW(plugin_->init(nullptr), Zov::NullPointerException);
  Zov::Ptr<NiceMock<MockPluginContext>> noDatabase(new NiceMock<MockPluginContext>);
  EXPECT_THROW(plugin_->init(noDatabase), Zov::NullPointerException);
  EXPECT_EQ(plugin_->context(), nullptr);
}

TEST_F(AclPluginTest, InitMountsTheFivePathsReadOnlyAndClosesTheGroupOnce) {
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
                vrfLocalPath().str() + " Ip::AllVrfStatusLocal"}));
  EXPECT_EQ(group->closes(), 1u);
  EXPECT_EQ(plugin.cpAclSm(), nullptr) << "completion never comes inside init";
}

TEST_F(AclPluginTest, InitAndCompletionTraceTheirSignaturesAtLevelEight) {
  PluginTesting::TraceCapture trace(1u << 8);
  startAndComplete();
  EXPECT_THAT(trace.texts("init"),
              ::testing::ElementsAre("void McastDns::AclPlugin::init(const Ptr&)"));
  EXPECT_THAT(trace.texts("doMountsComplete"),
              ::testing::ElementsAre(
                  "virtual void McastDns::AclPlugin::doMountsComplete(Korvel::MountStatus, "
                  "const Ptr&)"));
}

TEST_F(AclPluginTest, OnlyTheSameInputsContextAndAddressFamilyKeepTheStateMachine) {
  AclPlugin& plugin = startAndComplete();
  const std::pair<Zov::String, Zov::Entity*> replacements[] = {
      {"mdns/config", new Config("config")},
      {"mdns/status", new Status("status")},
      {"l3/intf/status", new L3::Intf::StatusDir("intf")},
      {"ip/vrf/status/global", new Ip::AllVrfStatusGlobal("global")},
      {vrfLocalPath(), new Ip::AllVrfStatusLocal("local")}};
  for (const auto& [path, entity] : replacements) {
    const Zov::Ptr<CpAclSm> before = plugin.cpAclSm();
    publish(path, entity);
    complete();
    EXPECT_NE(plugin.cpAclSm(), before) << path.str();
  }
  // Only another context is announced, and only it needs a new state machine.
  const Zov::Ptr<CpAclSm> before = plugin.cpAclSm();
  const std::size_t announced = heard(AclPlugin::kContext);
  plugin.contextIs(context_);
  EXPECT_EQ(heard(AclPlugin::kContext), announced);
  plugin.contextIs(contextOver(entityManager_));
  EXPECT_EQ(heard(AclPlugin::kContext), announced + 1);
  complete();
  EXPECT_NE(plugin.cpAclSm(), before) << "another context";

  const Zov::Ptr<CpAclSm> sm = plugin.cpAclSm();
  const auto again = [&](Dovix::AddressFamily af) {
    return plugin.cpAclSmIs(af, sm->mcastDnsConfig(), sm->mcastDnsStatus(), sm->l3IntfStatusDir(),
                            sm->allVrfStatusGlobal(), sm->allVrfStatusLocal(), sm->context());
  };
  EXPECT_EQ(again(Dovix::AddressFamily::kIpv4), sm);
  EXPECT_NE(again(Dovix::AddressFamily::kIpv6), sm);
}

TEST_F(AclPluginTest, ReplacedStateMachineIsGoneBeforeTheAnnouncement) {
  startAndComplete();
  const std::uint64_t live = PluginTesting::liveObjects("McastDns::CpAclSm");
  std::vector<std::uint64_t> liveAt388;
  listener_->hook_ = [&](Zov::AttributeId id, const void*) {
    if (id == AclPlugin::kCpAclSm)
      liveAt388.push_back(PluginTesting::liveObjects("McastDns::CpAclSm"));
  };
  publish("mdns/config", new Config("config"));
  complete();
  EXPECT_EQ(liveAt388, std::vector<std::uint64_t>{live});
}

TEST_F(AclPluginTest, RemovalAndDestructionSwitchTheStateMachineOff) {
  AclPlugin& plugin = startAndComplete();
  const Zov::Ptr<CpAclSm> removed = plugin.cpAclSmDel();
  EXPECT_FALSE(removed->hasNotificationActive());
  EXPECT_EQ(plugin.cpAclSm(), nullptr);
  EXPECT_EQ(heard(AclPlugin::kCpAclSm), 2u);
  EXPECT_EQ(plugin.cpAclSmDel(), nullptr);
  EXPECT_EQ(heard(AclPlugin::kCpAclSm), 2u) << "removing none announces nothing";

  complete();
  const Zov::Ptr<CpAclSm> kept = plugin.cpAclSm();
  listener_ = nullptr;
  plugin_ = nullptr;
  EXPECT_FALSE(kept->hasNotificationActive());
  EXPECT_EQ(kept->references(), 1u);
}

}  // namespace
}  // namespace McastDns::test
