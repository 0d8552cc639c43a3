// The watchers, the sweeps that keep them in step with the mounted
// collections, and the handlers' trace records. How changes turn into one
// refresh 10 ms later is shown end to end by the golden scenarios.
#include "StateMachineFixture.h"
#include "platform/ZovModule.h"

namespace McastDns::test {
namespace {

using WatchersTest = StateMachineTest;

TEST_F(WatchersTest, RemovedEntryLosesItsWatcherWhichIgnoresItsEntityFromThen) {
  auto eth1 = link("Ethernet1", 1);
  auto intf1 = intf("Ethernet1", "red");
  CpAclSm& sm = start();
  // Held here, so that their reactors still hear the entities.
  auto linkWatcher = sm.linkStatusAclSm(keyOf("Ethernet1"));
  auto intfWatcher = sm.l3IntfStatusAclSm(idOf("Ethernet1"));
  status_->linkStatusDel(keyOf("Ethernet1"));
  intfDir_->intfStatusDel(idOf("Ethernet1"));
  EXPECT_TRUE(sm.linkStatusAclSms().empty());
  EXPECT_TRUE(sm.l3IntfStatusAclSms().empty());
  advanceMs(10);
  eth1->stateIs(0);
  const_cast<L3::Intf::Status*>(intf1.ptr())->vrfIs(L3::VrfName("blue"));
  EXPECT_FALSE(sm.dirtyAcl());
}

// A sweep drops the watchers of gone keys without destroy(), so without a
// refresh, keeps the held ones and adopts new ones.
TEST_F(WatchersTest, SweepDropsGoneKeysQuietlyKeepsHeldOnesAndAdoptsNewOnes) {
  link("K2", 0);
  link("K3", 0);
  intf("K2", "red");
  CpAclSm& sm = start();
  auto k2 = sm.linkStatusAclSm(keyOf("K2"));
  auto k3 = sm.linkStatusAclSm(keyOf("K3"));
  sm.handleLinkStatus();
  sm.handleL3IntfStatus();
  sm.handleLinkStatus(keyOf("K9"));  // never watched
  sm.handleL3IntfStatus(idOf("K9"));
  EXPECT_FALSE(sm.dirtyAcl()) << "nothing changed";

  unseen([&] {
    status_->linkStatusDel(keyOf("K3"));
    intfDir_->intfStatusDel(idOf("K2"));
  });
  sm.handleLinkStatus();
  sm.handleL3IntfStatus();
  EXPECT_EQ(sm.linkStatusAclSms().size(), 1u);
  EXPECT_EQ(sm.linkStatusAclSm(keyOf("K2")), k2);
  EXPECT_TRUE(sm.l3IntfStatusAclSms().empty());
  EXPECT_TRUE(k3->initialized()) << "dropped without destroy()";
  EXPECT_FALSE(sm.dirtyAcl());

  unseen([&] { link("K1", 0); });
  sm.handleLinkStatus();
  EXPECT_TRUE(sm.linkStatusAclSm(keyOf("K1")));
  EXPECT_TRUE(sm.dirtyAcl()) << "the new watcher under K1 arms the refresh";
}

TEST_F(WatchersTest, WatcherIsCreatedOnceArmsOnceAndIsRemovedQuietly) {
  CpAclSm& sm = start();
  Zov::Ptr<LinkStatus> a(new LinkStatus(keyOf("A"), 0));
  auto first = sm.linkStatusAclSmIs(a);
  EXPECT_TRUE(sm.dirtyAcl());
  advanceMs(10);
  EXPECT_EQ(sm.linkStatusAclSmIs(a), first);
  EXPECT_FALSE(sm.dirtyAcl()) << "a held watcher is returned without a call";

  // Removal hands the watcher out once and calls nothing; so do the
  // operations by id that a tool uses.
  sm.linkStatusAclSmIs(Zov::Ptr<LinkStatus>(new LinkStatus(keyOf("B"), 0)));
  Zov::Ptr<const L3::Intf::Status> c(new L3::Intf::Status(idOf("C"), L3::VrfName("red")));
  const Zov::GenericValue added =
      Zov::genericIfMemberIs(sm, CpAclSm::kL3IntfStatusAclSm, std::vector<Zov::GenericValue>{c});
  EXPECT_EQ(added.asReference<L3IntfStatusAclSm>()->l3IntfStatus(), c);
  advanceMs(10);
  EXPECT_EQ(Zov::genericIfMember(sm, CpAclSm::kLinkStatusAclSm, Zov::GenericValue("A#0"))
                .asReference<LinkStatusAclSm>(),
            first);
  EXPECT_EQ(Zov::genericIfMemberDel(sm, CpAclSm::kLinkStatusAclSm, Zov::GenericValue("A#0"))
                .asReference<LinkStatusAclSm>(),
            first);
  EXPECT_TRUE(first->initialized());
  EXPECT_FALSE(sm.linkStatusAclSmDel(keyOf("A")));
  sm.linkStatusAclSmDelAll();
  sm.l3IntfStatusAclSmDelAll();
  EXPECT_TRUE(sm.linkStatusAclSms().empty());
  EXPECT_TRUE(sm.l3IntfStatusAclSms().empty());
  EXPECT_FALSE(sm.dirtyAcl());
}

TEST_F(WatchersTest, HandlersTraceTheirSignatureAtLevelEight) {
  using ::testing::ElementsAre;
  intf("Ethernet1", "red");
  link("Ethernet1", 1);
  TraceCapture trace(kHandlerLevels);
  start();
  for (const auto& r : trace.records()) {
    EXPECT_EQ(r.file, "/src/McastDns/AclPlugin/McastDnsAclPlugin");
  }
  EXPECT_THAT(trace.texts("handleInitialized"),
              ElementsAre("void McastDns::CpAclSm::handleInitialized()",
                          "void McastDns::L3IntfStatusAclSm::handleInitialized()",
                          "void McastDns::LinkStatusAclSm::handleInitialized()"));
  EXPECT_THAT(trace.texts("handleL3IntfStatus"),
              ElementsAre("void McastDns::CpAclSm::handleL3IntfStatus()",
                          "void McastDns::CpAclSm::handleL3IntfStatus(Dovix::IntfId)"));
  EXPECT_THAT(trace.texts("handleLinkStatus"),
              ElementsAre("void McastDns::CpAclSm::handleLinkStatus()",
                          "void McastDns::CpAclSm::handleLinkStatus(const McastDns::IntfKey&)"));

  status_->linkStatusDel(keyOf("Ethernet1"));
  intfDir_->intfStatusDel(idOf("Ethernet1"));
  EXPECT_THAT(trace.texts("destroy"), ElementsAre("void McastDns::LinkStatusAclSm::destroy()",
                                                  "void McastDns::L3IntfStatusAclSm::destroy()"));
}

}  // namespace
}  // namespace McastDns::test
