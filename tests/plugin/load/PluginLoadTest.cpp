// The plugin as the agent sees it: the real shared object, opened with
// dlopen, registered with the default loader, started, and closed again.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "McastDns/AclPlugin/McastDnsAclPlugin.h"
#include "agent/host/PluginHost.h"
#include "mocks/MockPluginContext.h"
#include "platform/Cell.h"
#include "plugin/PluginTesting.h"

namespace {

using PluginTesting::liveObjects;
using PluginTesting::TraceCapture;
using ::testing::_;
using ::testing::NiceMock;
using ::testing::Return;

constexpr const char* kPluginPath = MCASTDNS_ACL_PLUGIN_PATH;

class PluginLoadTest : public ::testing::Test {
 protected:
  PluginLoadTest()
      : entityManager_(new Korvel::EntityManager),
        config_(new McastDns::Config("config")),
        status_(new McastDns::Status("status")),
        intfDir_(new L3::Intf::StatusDir("intf")),
        context_(new NiceMock<MockPluginContext>),
        scheduler_(Pell::TaskSchedulerRoot::findOrCreateScheduler()) {
    entityManager_->entityIs("mdns/config", config_);
    entityManager_->entityIs("mdns/status", status_);
    entityManager_->entityIs("l3/intf/status", intfDir_);
    entityManager_->entityIs("ip/vrf/status/global", new Ip::AllVrfStatusGlobal("global"));
    entityManager_->entityIs(Cell::path("ip/vrf/status/local", 0),
                             new Ip::AllVrfStatusLocal("local"));
    ON_CALL(*context_, entityManager()).WillByDefault(Return(entityManager_));
  }

  ~PluginLoadTest() override {
    host_.unloadAll();
    scheduler_->settle();
  }

  static Plugin::Loader<Acl::PluginContext>* loader() { return Acl::DefaultPluginLoader(); }

  // The loaded plugin object, found through its registration.
  static McastDns::McastDnsAclPlugin* plugin() {
    using InitCaller = Plugin::PluginBase<Acl::PluginContext>::PluginBaseInitCaller;
    auto* caller = dynamic_cast<InitCaller*>(loader()->initCaller("McastDnsAclPlugin"));
    return caller ? static_cast<McastDns::McastDnsAclPlugin*>(caller->plugin()) : nullptr;
  }

  void load() { host_.load(kPluginPath); }
  void start() { host_.runInitCallers(context_.ptr()); }

  AclAgent::PluginHost host_;
  Zov::Ptr<Korvel::EntityManager> entityManager_;
  Zov::Ptr<McastDns::Config> config_;
  Zov::Ptr<McastDns::Status> status_;
  Zov::Ptr<L3::Intf::StatusDir> intfDir_;
  Zov::Ptr<NiceMock<MockPluginContext>> context_;
  Zov::Ptr<Pell::TaskSchedulerRoot> scheduler_;
  const std::size_t nodes_ = loader()->nodes();
  const std::size_t registrations_ = loader()->registrations().size();
};

TEST_F(PluginLoadTest, LoadingRegistersThePluginAndItsTypesOnce) {
  load();
  ASSERT_EQ(loader()->registrations().size(), registrations_ + 1);
  EXPECT_EQ(loader()->nodes(), nodes_ + 1);
  EXPECT_NE(Zov::zovModule("McastDnsAclPlugin"), nullptr);
  ASSERT_NE(plugin(), nullptr);
  EXPECT_EQ(plugin()->aclPlugin(), nullptr) << "nothing starts before init";

  // Loading it again, or an object that cannot be opened, changes nothing.
  load();
  EXPECT_THROW(host_.load(std::string(kPluginPath) + ".missing"), AclAgent::PluginLoadError);
  EXPECT_EQ(loader()->registrations().size(), registrations_ + 1);
  EXPECT_EQ(host_.paths(), std::vector<std::string>{kPluginPath});
}

TEST_F(PluginLoadTest, InitTracesTheLoadingAtLevelZeroOnlyWhenEnabled) {
  load();
  {
    TraceCapture trace(0);
    start();
    EXPECT_TRUE(trace.records().empty());
  }
  TraceCapture trace(1u << 0);
  start();
  ASSERT_EQ(trace.records().size(), 1u);
  EXPECT_EQ(trace.records()[0].function, "init");
  EXPECT_EQ(trace.records()[0].text,
            "virtual void McastDns::McastDnsAclPlugin::init(Acl::PluginContext*)"
            "Loading McastDns Acl Plugin");
}

// Started again before its mounts completed: the first entity goes at once,
// and its completion, already due, reaches nobody.
TEST_F(PluginLoadTest, SecondInitBeforeCompletionDropsTheFirstRoot) {
  load();
  start();
  const std::uint64_t firstId = plugin()->aclPlugin()->mounterId();
  start();
  EXPECT_EQ(Korvel::Mounter::find(firstId), nullptr);
  scheduler_->settle();
  EXPECT_EQ(entityManager_->completions(), 1u);
  EXPECT_NE(plugin()->aclPlugin()->cpAclSm(), nullptr);
}

TEST_F(PluginLoadTest, UnloadingTearsEverythingDownAndNeverStartsThePluginAgain) {
  const Dovix::IntfId eth1(Zov::String("Ethernet1"));
  Zov::Ptr<McastDns::LinkStatus> link(new McastDns::LinkStatus({eth1, 0}, 1));
  Zov::Ptr<const L3::Intf::Status> intf(new L3::Intf::Status(eth1, L3::VrfName("red")));
  status_->linkStatusIs(link);
  intfDir_->intfStatusIs(intf);
  const std::uint64_t timerTasks = liveObjects("Pell::TimerTask");
  const std::uint32_t contextRefs = context_->references();

  load();
  start();
  scheduler_->settle();
  ASSERT_NE(plugin()->aclPlugin()->cpAclSm(), nullptr);
  EXPECT_GT(liveObjects("Pell::TimerTask"), timerTasks);
  EXPECT_FALSE(link->notifieeList()->empty());

  // Nothing starts the plugin again once it is unloaded.
  EXPECT_CALL(*context_, entityManager()).Times(0);
  EXPECT_CALL(*context_, registerChainRule(_, _, _, _, _, _, _, _, _, _, _, _)).Times(0);
  EXPECT_CALL(*context_, unregisterChainRule(_, _, _, _, _, _, _)).Times(0);
  EXPECT_CALL(*context_, finishRegistration(_, _, _, _)).Times(0);

  host_.unloadAll();
  EXPECT_EQ(dlopen(kPluginPath, RTLD_NOW | RTLD_NOLOAD), nullptr) << "the object stayed mapped";

  // Nothing of the plugin holds anything of the process any more.
  EXPECT_EQ(context_->references(), contextRefs);
  const Zov::PtrInterface* watched[] = {config_.ptr(), status_.ptr(), intfDir_.ptr(), link.ptr(),
                                        intf.ptr()};
  for (const Zov::PtrInterface* entity : watched) {
    EXPECT_TRUE(entity->notifieeList()->empty());
  }
  EXPECT_EQ(liveObjects("Pell::TimerTask"), timerTasks);
  // Its types, records and trace handle went with it.
  EXPECT_EQ(Zov::zovModule("McastDnsAclPlugin"), nullptr);
  EXPECT_EQ(Zov::AllocTrackTypeInfo::find("McastDns::CpAclSm"), nullptr);
  EXPECT_EQ(Zov::TraceHandle::find("McastDnsAclPlugin"), nullptr);

  EXPECT_EQ(loader()->registrations().size(), registrations_);
  EXPECT_EQ(loader()->nodes(), nodes_);
  host_.runInitCallers(context_.ptr());
  entityManager_->mountsCompleteIs(Korvel::MountStatus::kSuccess);
  link->stateIs(0);
  scheduler_->settle();
}

}  // namespace
