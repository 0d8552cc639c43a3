// The plugin as the agent sees it: the real shared object, opened with
// dlopen, registered with the default loader, started, and closed again.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "McastDns/AclPlugin/McastDnsAclPlugin.h"
#include "McastDns/AclPlugin/Trace.h"
#include "agent/PluginHost.h"
#include "mocks/MockPluginContext.h"
#include "platform/Cell.h"

namespace {

using ::testing::_;
using ::testing::AnyNumber;
using ::testing::AtLeast;
using ::testing::HasSubstr;
using ::testing::NiceMock;
using ::testing::Return;

constexpr const char* kPluginPath = MCASTDNS_ACL_PLUGIN_PATH;

std::uint64_t liveObjects(const char* type) {
  const Zov::AllocTrackTypeInfo* record = Zov::AllocTrackTypeInfo::find(type);
  return record ? record->liveObjects() : 0;
}

class PluginLoadTest : public ::testing::Test {
 protected:
  using Context = NiceMock<MockPluginContext>;

  PluginLoadTest()
      : entityManager_(new Korvel::EntityManager),
        config_(new McastDns::Config("config")),
        status_(new McastDns::Status("status")),
        intfDir_(new L3::Intf::StatusDir("intf")),
        context_(new Context),
        scheduler_(Pell::TaskSchedulerRoot::findOrCreateScheduler()) {
    entityManager_->entityIs("mdns/config", config_);
    entityManager_->entityIs("mdns/status", status_);
    entityManager_->entityIs("l3/intf/status", intfDir_);
    entityManager_->entityIs("ip/vrf/status/global", new Ip::AllVrfStatusGlobal("global"));
    entityManager_->entityIs(Cell::path("ip/vrf/status/local", 0),
                             new Ip::AllVrfStatusLocal("local"));
    ON_CALL(*context_, entityManager()).WillByDefault(Return(entityManager_));
    nodes_ = loader()->nodes();
    registrations_ = loader()->registrations().size();
  }

  ~PluginLoadTest() override {
    host_.unloadAll();
    scheduler_->settle();
    Zov::TraceHandle::levelsByNameIs("McastDnsAclPlugin", 0);
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
  Zov::Ptr<Context> context_;
  Zov::Ptr<Pell::TaskSchedulerRoot> scheduler_;
  std::size_t nodes_ = 0;
  std::size_t registrations_ = 0;
};

TEST_F(PluginLoadTest, LoadingRegistersThePluginAndItsTypesOnce) {
  load();
  ASSERT_EQ(loader()->registrations().size(), registrations_ + 1);
  const Plugin::Impl::Registration& r = loader()->registrations().back();
  EXPECT_EQ(r.name, "McastDnsAclPlugin");
  EXPECT_EQ(r.pluginVersion, "");
  EXPECT_EQ(r.description, "");
  EXPECT_NE(r.object, nullptr);
  EXPECT_EQ(loader()->nodes(), nodes_ + 1);

  const Zov::ZovModule* module = Zov::zovModule("McastDnsAclPlugin");
  ASSERT_NE(module, nullptr);
  ASSERT_EQ(module->types.size(), 4u);
  EXPECT_STREQ(module->types[3].name, "McastDns::AclPlugin");

  ASSERT_NE(plugin(), nullptr);
  EXPECT_EQ(plugin()->aclPlugin(), nullptr) << "nothing starts before init";

  load();  // already open: nothing runs again
  EXPECT_EQ(loader()->registrations().size(), registrations_ + 1);
  EXPECT_EQ(host_.paths(), std::vector<std::string>{kPluginPath});
}

TEST_F(PluginLoadTest, AnObjectThatCannotBeOpenedChangesNothing) {
  load();
  const std::string missing = std::string(kPluginPath) + ".missing";
  try {
    host_.load(missing);
    FAIL() << "loading a missing object succeeded";
  } catch (const AclAgent::PluginLoadError& e) {
    EXPECT_THAT(e.what(), HasSubstr("cannot load plugin " + missing + ": "));
    EXPECT_THAT(e.what(), HasSubstr("No such file"));
  }
  EXPECT_EQ(host_.paths(), std::vector<std::string>{kPluginPath});
  EXPECT_EQ(loader()->registrations().size(), registrations_ + 1);
  EXPECT_THROW(host_.runInitCallers(nullptr), std::invalid_argument);
  EXPECT_EQ(plugin()->aclPlugin(), nullptr);
}

TEST_F(PluginLoadTest, InitTracesAtLevelZeroOnlyWhenEnabled) {
  std::vector<Zov::TraceRecord> records;
  Zov::TraceSink previous = Zov::traceSinkIs([&](const Zov::TraceRecord& record) {
    if (record.handle == "McastDnsAclPlugin") records.push_back(record);
  });
  load();
  start();
  EXPECT_TRUE(records.empty());
  EXPECT_NE(plugin()->aclPlugin(), nullptr) << "init goes on without its record";

  Zov::TraceHandle::levelsByNameIs("McastDnsAclPlugin", 1u << McastDns::kTraceInit);
  start();
  Zov::traceSinkIs(std::move(previous));
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, 0u);
  EXPECT_EQ(records[0].file, "/src/McastDns/AclPlugin/McastDnsAclPlugin");
  EXPECT_EQ(records[0].function, "init");
  EXPECT_EQ(records[0].text,
            "virtual void McastDns::McastDnsAclPlugin::init(Acl::PluginContext*)"
            "Loading McastDns Acl Plugin");
}

TEST_F(PluginLoadTest, InitStartsTheRootEntityAndASecondInitReplacesIt) {
  EXPECT_CALL(*context_, finishRegistration(_, _, _, _)).Times(AtLeast(1));
  load();
  start();
  Zov::Ptr<McastDns::AclPlugin> first = plugin()->aclPlugin();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->name(), Zov::String("McastDns"));
  EXPECT_EQ(first->context(), context_);
  EXPECT_EQ(entityManager_->getMountGroup(first)->mounts().size(), 5u);
  const std::uint64_t firstId = first->mounterId();

  // Started again before its mounts completed: the first entity goes at once
  // and its completion, already due, reaches nobody.
  const McastDns::AclPlugin* firstRaw = first.ptr();
  first = nullptr;
  start();
  EXPECT_NE(plugin()->aclPlugin().ptr(), firstRaw);
  EXPECT_EQ(Korvel::Mounter::find(firstId), nullptr);
  EXPECT_EQ(liveObjects("McastDns::AclPlugin"), 1u);
  scheduler_->settle();
  EXPECT_EQ(entityManager_->completions(), 1u);
  const Zov::Ptr<McastDns::CpAclSm> sm = plugin()->aclPlugin()->cpAclSm();
  ASSERT_NE(sm, nullptr);
  EXPECT_EQ(sm->context(), context_);
  EXPECT_EQ(sm->allVrfStatusGlobal(), entityManager_->getEntity("ip/vrf/status/global"));

  // Started once more after completion: the old entity takes its state
  // machine with it.
  start();
  scheduler_->settle();
  EXPECT_NE(plugin()->aclPlugin()->cpAclSm(), sm);
  EXPECT_EQ(sm->references(), 1u) << "only this test holds the replaced state machine";
  EXPECT_FALSE(sm->hasNotificationActive());
  EXPECT_EQ(liveObjects("McastDns::AclPlugin"), 1u);
  EXPECT_EQ(liveObjects("McastDns::CpAclSm"), 2u);
}

TEST_F(PluginLoadTest, UnloadingTearsEverythingDownAndNeverStartsThePluginAgain) {
  const McastDns::IntfKey key{Dovix::IntfId(Zov::String("Ethernet1")), 0};
  Zov::Ptr<McastDns::LinkStatus> link(new McastDns::LinkStatus(key, 1));
  status_->linkStatusIs(link);
  Zov::Ptr<const L3::Intf::Status> intf(
      new L3::Intf::Status(Dovix::IntfId(Zov::String("Ethernet1")), L3::VrfName("red")));
  intfDir_->intfStatusIs(intf);
  const std::uint64_t timerTasks = liveObjects("Pell::TimerTask");
  const std::uint32_t contextRefs = context_->references();

  load();
  start();
  scheduler_->settle();
  ASSERT_NE(plugin()->aclPlugin()->cpAclSm(), nullptr);
  EXPECT_EQ(liveObjects("McastDns::LinkStatusAclSm"), 1u);
  EXPECT_EQ(liveObjects("McastDns::L3IntfStatusAclSm"), 1u);
  EXPECT_GT(liveObjects("Pell::TimerTask"), timerTasks);
  EXPECT_FALSE(link->notifieeList()->empty());

  // From here on the context must hear nothing: not at teardown, not later.
  ::testing::Mock::VerifyAndClearExpectations(context_.ptr());
  EXPECT_CALL(*context_, entityManager()).Times(0);
  EXPECT_CALL(*context_, registerChainRule(_, _, _, _, _, _, _, _, _, _, _, _)).Times(0);
  EXPECT_CALL(*context_, unregisterChainRule(_, _, _, _, _, _, _)).Times(0);
  EXPECT_CALL(*context_, finishRegistration(_, _, _, _)).Times(0);

  host_.unloadAll();
  EXPECT_FALSE(host_.loaded());
  EXPECT_EQ(dlopen(kPluginPath, RTLD_NOW | RTLD_NOLOAD), nullptr) << "the object stayed mapped";

  // Nothing of the plugin holds anything of the process any more.
  EXPECT_EQ(context_->references(), contextRefs);
  EXPECT_TRUE(config_->notifieeList()->empty());
  EXPECT_TRUE(status_->notifieeList()->empty());
  EXPECT_TRUE(intfDir_->notifieeList()->empty());
  EXPECT_TRUE(link->notifieeList()->empty());
  EXPECT_TRUE(intf->notifieeList()->empty());
  EXPECT_EQ(link->references(), 2u);  // this test and the status
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

  // Loading again starts from scratch.
  ::testing::Mock::VerifyAndClearExpectations(context_.ptr());
  ON_CALL(*context_, entityManager()).WillByDefault(Return(entityManager_));
  load();
  ASSERT_NE(plugin(), nullptr);
  EXPECT_EQ(plugin()->aclPlugin(), nullptr);
  start();
  scheduler_->settle();
  EXPECT_NE(plugin()->aclPlugin()->cpAclSm(), nullptr);
}

}  // namespace
