// The agent's state database: what each command does to the published
// entities, and whom it notifies (the golden scenarios show the rest).
#include <gtest/gtest.h>

#include "agent/Scenario.h"
#include "agent/StateDatabase.h"
#include "tests/platform/PlatformTesting.h"

namespace AclAgent {
namespace {

using Ids = std::vector<Zov::AttributeId>;

using ZovTesting::whatOf;

// The ids that `listener` heard since the last call.
Ids heard(ZovTesting::Listener* listener) {
  return std::exchange(listener->ids_, {});
}

class StateDatabaseTest : public ::testing::Test {
 protected:
  Zov::Ptr<ZovTesting::Listener> watch(const Zov::PtrInterface* notifier) {
    return ZovTesting::Listener::listenerIs(notifier);
  }
  McastDns::LinkStatus* link(const std::string& intf, std::uint32_t index = 0) {
    return db_.status()->linkStatus({Dovix::IntfId(Zov::String(intf)), index});
  }
  const L3::Intf::Status* intf(const std::string& name) {
    return db_.intfStatusDir()->intfStatus(Dovix::IntfId(Zov::String(name)));
  }

  StateDatabase db_;
};

// Interfaces follow the same pattern; the golden scenarios show both kinds.
TEST_F(StateDatabaseTest, SetChangesInPlaceReplacePutsANewEntityDelAnnouncesOnce) {
  auto status = watch(db_.status().ptr());
  db_.linkStateIs({"Ethernet1", 0}, 1);
  Zov::Ptr<McastDns::LinkStatus> old(link("Ethernet1"));
  auto watcher = watch(old.ptr());
  EXPECT_EQ(heard(status.ptr()), (Ids{260}));

  // A set on an existing link changes it in place; a repeat is no change.
  db_.linkStateIs({"Ethernet1", 0}, 7);
  db_.linkStateIs({"Ethernet1", 0}, 7);
  EXPECT_EQ(heard(watcher.ptr()), (Ids{259}));
  EXPECT_EQ(heard(status.ptr()), Ids{});
  EXPECT_EQ(link("Ethernet1"), old.ptr());

  // A replace puts a new entity under the key; the old one hears nothing.
  db_.linkStatusIs({"Ethernet1", 0}, 7);
  EXPECT_EQ(heard(status.ptr()), (Ids{260}));
  ASSERT_NE(link("Ethernet1"), old.ptr());
  EXPECT_EQ(link("Ethernet1")->state(), 7);

  db_.linkStatusDel({"Ethernet1", 0});
  db_.linkStatusDel({"Ethernet1", 0});
  EXPECT_EQ(heard(status.ptr()), (Ids{260}));
  EXPECT_EQ(link("Ethernet1"), nullptr);
  EXPECT_EQ(heard(watcher.ptr()), Ids{});
}

TEST_F(StateDatabaseTest, AVrfNameOver100BytesIsRefusedAndChangesNothing) {
  const std::string longest(100, 'v'), tooLong(101, 'v');
  db_.intfVrfIs("Ethernet1", longest);
  auto dir = watch(db_.intfStatusDir().ptr());
  auto watcher = watch(intf("Ethernet1"));
  auto global = watch(db_.vrfStatusGlobal().ptr());

  const std::function<void()> writes[] = {
      [&] { db_.intfVrfIs("Ethernet1", tooLong); }, [&] { db_.intfStatusIs("Ethernet1", tooLong); },
      [&] { db_.intfVrfIs("Ethernet2", tooLong); }, [&] { db_.vrfIs(VrfView::kGlobal, tooLong); },
      [&] { db_.vrfDel(VrfView::kGlobal, tooLong); }};
  for (const auto& write : writes) {
    EXPECT_EQ(whatOf<Zov::RangeException>(write), "Zov::String::bytes > maxLength() not allowed");
  }
  EXPECT_EQ(intf("Ethernet1")->vrf(), L3::VrfName(longest));
  EXPECT_TRUE(db_.vrfStatusGlobal()->vrf().empty());
  EXPECT_EQ(heard(dir.ptr()), Ids{});
  EXPECT_EQ(heard(watcher.ptr()), Ids{});
  EXPECT_EQ(heard(global.ptr()), Ids{});
}

TEST_F(StateDatabaseTest, WritesToAnOmittedPathRaiseAndChangeNothing) {
  db_.entityDel(StatePath::kMdnsStatus);
  db_.entityDel(StatePath::kVrfStatusLocal);

  using E = StateDatabaseException;
  const std::string omitted = "mdns/status holds no entity (it was omitted)";
  EXPECT_EQ(whatOf<E>([&] { db_.linkStatusIs({"Ethernet1", 0}, 1); }), omitted);
  EXPECT_EQ(whatOf<E>([&] { db_.linkStatusDel({"Ethernet1", 0}); }), omitted);
  EXPECT_EQ(whatOf<E>([&] { db_.entityCopyIs(StatePath::kMdnsStatus); }), omitted);
  // The omitted path is named even when the name would be refused too.
  EXPECT_EQ(whatOf<E>([&] { db_.vrfIs(VrfView::kLocal, std::string(101, 'v')); }),
            "ip/vrf/status/local holds no entity (it was omitted)");
  EXPECT_EQ(db_.entityManager()->entities().size(), 3u);

  db_.loadedIs(true);
  EXPECT_EQ(whatOf<E>([&] { db_.entityDel(StatePath::kMdnsConfig); }),
            "omit mdns/config is only allowed before load");
  EXPECT_NE(db_.config(), nullptr);
}

TEST_F(StateDatabaseTest, RecreateCopiesContentIntoNewEntitiesAndLeavesTheOldAlone) {
  db_.gatewayEnabledIs(true);
  db_.linkStateIs({"Ethernet1", 3}, 1);
  db_.intfVrfIs("Ethernet1", "red");
  db_.vrfIs(VrfView::kGlobal, "red");
  db_.vrfIs(VrfView::kLocal, "blue");
  const std::string before = db_.stateText();
  auto oldConfig = db_.config();
  auto oldGlobal = db_.vrfStatusGlobal();
  auto oldLocal = db_.vrfStatusLocal();
  Zov::Ptr<McastDns::LinkStatus> oldLink(link("Ethernet1", 3));
  auto linkWatcher = watch(oldLink.ptr());
  for (StatePath path : kStatePaths) db_.entityCopyIs(path);

  EXPECT_EQ(db_.stateText(), before);
  EXPECT_NE(db_.config(), oldConfig);
  EXPECT_NE(db_.vrfStatusLocal(), oldLocal);
  EXPECT_EQ(db_.entityManager()->getEntity("cell/0/ip/vrf/status/local"), db_.vrfStatusLocal());
  EXPECT_NE(db_.vrfStatusGlobal()->vrf(L3::VrfName("red")), oldGlobal->vrf(L3::VrfName("red")));

  db_.linkStateIs({"Ethernet1", 3}, 0);
  EXPECT_EQ(heard(linkWatcher.ptr()), Ids{});
  EXPECT_EQ(oldLink->state(), 1);
}

TEST_F(StateDatabaseTest, StateTextIsSortedAndReadsBackAsAScenario) {
  db_.gatewaySettingIs(1);
  db_.linkStateIs({"b", 1}, 1);
  db_.linkStateIs({"a", 10}, 2);
  db_.linkStateIs({"a", 9}, 3);
  db_.intfVrfIs("b", "red");
  db_.intfVrfIs("a \"x\"", "");
  db_.vrfIs(VrfView::kLocal, "z");
  db_.vrfIs(VrfView::kLocal, "m");
  db_.vrfIs(VrfView::kGlobal, "z");
  db_.entityDel(StatePath::kVrfStatusGlobal);
  const std::string text = db_.stateText();
  EXPECT_EQ(text,
            "config gateway-enabled false\n"
            "config gateway-setting 1\n"
            "link set \"a\"#9 3\n"
            "link set \"a\"#10 2\n"
            "link set \"b\"#1 1\n"
            "intf set \"a \\\"x\\\"\" \"\"\n"
            "intf set \"b\" \"red\"\n"
            "vrf add local \"m\"\n"
            "vrf add local \"z\"\n"
            "omit ip/vrf/status/global\n");
  EXPECT_TRUE(parseScenario(text, "state").ok());
}

}  // namespace
}  // namespace AclAgent
