// The agent's state database: what each publishing command does to the
// published entities, and whom it notifies.
#include <gtest/gtest.h>

#include "agent/Scenario.h"
#include "agent/StateDatabase.h"

namespace AclAgent {
namespace {

// Records the attribute ids it hears from one notifier.
class Recorder : public Zov::PtrInterface::NotifieeConst {
 public:
  explicit Recorder(const Zov::PtrInterface* notifier) {
    notifierIs(notifier);
    isRegisteredNotifieeIs(true);
    hasNotificationActiveIs(true);
  }
  void onAttribute(Zov::AttributeId id, const void*) override { ids.push_back(id); }
  // The ids heard since the last call.
  std::vector<Zov::AttributeId> heard() { return std::exchange(ids, {}); }

  std::vector<Zov::AttributeId> ids;
};

using Ids = std::vector<Zov::AttributeId>;
const std::string kRangeError = "Zov::String::bytes > maxLength() not allowed";

class StateDatabaseTest : public ::testing::Test {
 protected:
  Zov::Ptr<Recorder> watch(const Zov::PtrInterface* notifier) {
    return Zov::Ptr<Recorder>(new Recorder(notifier));
  }
  McastDns::LinkStatus* link(const std::string& intf, std::uint32_t index = 0) {
    return db_.status()->linkStatus({Dovix::IntfId(Zov::String(intf)), index});
  }
  const L3::Intf::Status* intf(const std::string& name) {
    return db_.intfStatusDir()->intfStatus(Dovix::IntfId(Zov::String(name)));
  }

  StateDatabase db_;
};

TEST_F(StateDatabaseTest, PublishesTheFiveEntitiesAtTheirPaths) {
  auto& manager = *db_.entityManager();
  EXPECT_EQ(manager.entities().size(), 5u);
  EXPECT_EQ(manager.getEntity("mdns/config"), db_.config());
  EXPECT_EQ(manager.getEntity("mdns/status"), db_.status());
  EXPECT_EQ(manager.getEntity("l3/intf/status"), db_.intfStatusDir());
  EXPECT_EQ(manager.getEntity("ip/vrf/status/global"), db_.vrfStatusGlobal());
  EXPECT_EQ(manager.getEntity("cell/0/ip/vrf/status/local"), db_.vrfStatusLocal());
  EXPECT_TRUE(db_.config() && db_.status() && db_.intfStatusDir() && db_.vrfStatusGlobal() &&
              db_.vrfStatusLocal());
}

TEST_F(StateDatabaseTest, ConfigWritesNotifyOnlyRealChanges) {
  auto config = watch(db_.config().ptr());
  db_.gatewayEnabledIs(true);
  db_.gatewayEnabledIs(true);
  db_.gatewaySettingIs(5353);
  db_.gatewaySettingIs(5353);
  EXPECT_EQ(config->heard(), (Ids{258, 260}));
  EXPECT_TRUE(db_.config()->gatewayEnabled());
  EXPECT_EQ(db_.config()->gatewaySetting(), 5353);
}

TEST_F(StateDatabaseTest, LinkSetReplaceAndDel) {
  auto status = watch(db_.status().ptr());
  db_.linkStateIs({"Ethernet1", 0}, 1);
  db_.linkStateIs({"Ethernet1", 2}, 0);
  EXPECT_EQ(status->heard(), (Ids{260, 260}));
  ASSERT_TRUE(link("Ethernet1") && link("Ethernet1", 2));
  EXPECT_EQ(link("Ethernet1")->state(), 1);
  EXPECT_EQ(link("Ethernet1", 2)->state(), 0);

  // `link set` on an existing link changes its state in place.
  Zov::Ptr<McastDns::LinkStatus> first(link("Ethernet1"));
  auto watcher = watch(first.ptr());
  db_.linkStateIs({"Ethernet1", 0}, 7);
  db_.linkStateIs({"Ethernet1", 0}, 7);
  EXPECT_EQ(watcher->heard(), (Ids{259}));
  EXPECT_EQ(status->heard(), Ids{});
  EXPECT_EQ(link("Ethernet1"), first.ptr());

  // `link replace` puts a new entity there; the old one hears nothing.
  db_.linkStatusIs({"Ethernet1", 0}, 7);
  EXPECT_EQ(status->heard(), (Ids{260}));
  EXPECT_EQ(watcher->heard(), Ids{});
  ASSERT_NE(link("Ethernet1"), first.ptr());
  EXPECT_EQ(link("Ethernet1")->state(), 7);
  EXPECT_EQ(link("Ethernet1")->intfKey(), first->intfKey());
  db_.linkStatusIs({"Ethernet9", 0}, 1);
  EXPECT_EQ(status->heard(), (Ids{260}));

  db_.linkStatusDel({"Ethernet1", 0});
  db_.linkStatusDel({"Ethernet1", 0});
  EXPECT_EQ(status->heard(), (Ids{260}));
  EXPECT_EQ(link("Ethernet1"), nullptr);
  EXPECT_NE(link("Ethernet1", 2), nullptr);
}

TEST_F(StateDatabaseTest, IntfSetReplaceAndDel) {
  auto dir = watch(db_.intfStatusDir().ptr());
  db_.intfVrfIs("Ethernet1", "red");
  EXPECT_EQ(dir->heard(), (Ids{258}));
  Zov::Ptr<const L3::Intf::Status> first(intf("Ethernet1"));
  ASSERT_TRUE(first);
  auto watcher = watch(first.ptr());

  db_.intfVrfIs("Ethernet1", "blue");
  db_.intfVrfIs("Ethernet1", "blue");
  EXPECT_EQ(watcher->heard(), (Ids{259}));
  EXPECT_EQ(dir->heard(), Ids{});
  EXPECT_EQ(first->vrf(), L3::VrfName("blue"));

  db_.intfStatusIs("Ethernet1", "blue");
  EXPECT_EQ(dir->heard(), (Ids{258}));
  EXPECT_NE(intf("Ethernet1"), first.ptr());
  EXPECT_EQ(intf("Ethernet1")->vrf(), L3::VrfName("blue"));

  db_.intfStatusDel("Ethernet1");
  db_.intfStatusDel("Ethernet1");
  EXPECT_EQ(dir->heard(), (Ids{258}));
  EXPECT_EQ(intf("Ethernet1"), nullptr);
  EXPECT_EQ(watcher->heard(), Ids{});
}

TEST_F(StateDatabaseTest, AVrfNameOver100BytesIsRefusedAndChangesNothing) {
  const std::string longest(100, 'v');
  const std::string tooLong(101, 'v');
  db_.intfVrfIs("Ethernet1", longest);
  auto dir = watch(db_.intfStatusDir().ptr());
  auto watcher = watch(intf("Ethernet1"));
  auto global = watch(db_.vrfStatusGlobal().ptr());

  auto expectRangeError = [&](auto&& write) {
    try {
      write();
      ADD_FAILURE() << "no error";
    } catch (const Zov::RangeException& e) {
      EXPECT_EQ(e.what(), kRangeError);
    }
  };
  expectRangeError([&] { db_.intfVrfIs("Ethernet1", tooLong); });
  expectRangeError([&] { db_.intfStatusIs("Ethernet1", tooLong); });
  expectRangeError([&] { db_.intfVrfIs("Ethernet2", tooLong); });
  expectRangeError([&] { db_.vrfIs(VrfView::kGlobal, tooLong); });
  expectRangeError([&] { db_.vrfDel(VrfView::kGlobal, tooLong); });

  EXPECT_EQ(intf("Ethernet1")->vrf(), L3::VrfName(longest));
  EXPECT_EQ(intf("Ethernet2"), nullptr);
  EXPECT_TRUE(db_.vrfStatusGlobal()->vrf().empty());
  EXPECT_EQ(dir->heard(), Ids{});
  EXPECT_EQ(watcher->heard(), Ids{});
  EXPECT_EQ(global->heard(), Ids{});
}

TEST_F(StateDatabaseTest, VrfAddAndDelInEachView) {
  auto global = watch(db_.vrfStatusGlobal().ptr());
  auto local = watch(db_.vrfStatusLocal().ptr());
  db_.vrfIs(VrfView::kGlobal, "red");
  db_.vrfIs(VrfView::kGlobal, "red");
  db_.vrfIs(VrfView::kLocal, "blue");
  EXPECT_EQ(global->heard(), (Ids{258}));
  EXPECT_EQ(local->heard(), (Ids{258}));
  EXPECT_TRUE(db_.vrfStatusGlobal()->vrf(L3::VrfName("red")));
  EXPECT_FALSE(db_.vrfStatusLocal()->vrf(L3::VrfName("red")));

  db_.vrfDel(VrfView::kLocal, "red");
  db_.vrfDel(VrfView::kGlobal, "red");
  EXPECT_EQ(global->heard(), (Ids{258}));
  EXPECT_EQ(local->heard(), Ids{});
  EXPECT_TRUE(db_.vrfStatusGlobal()->vrf().empty());
}

TEST_F(StateDatabaseTest, WritesToAnOmittedPathRaiseAndChangeNothing) {
  db_.entityDel(StatePath::kMdnsStatus);
  db_.entityDel(StatePath::kVrfStatusLocal);
  EXPECT_EQ(db_.entityManager()->getEntity("mdns/status"), nullptr);
  EXPECT_EQ(db_.entityManager()->getEntity("cell/0/ip/vrf/status/local"), nullptr);
  EXPECT_EQ(db_.entityManager()->entities().size(), 3u);

  auto expectOmitted = [](auto&& write, const std::string& path) {
    try {
      write();
      ADD_FAILURE() << "no error for " << path;
    } catch (const StateDatabaseException& e) {
      EXPECT_EQ(e.what(), path + " holds no entity (it was omitted)");
    }
  };
  expectOmitted([&] { db_.linkStateIs({"Ethernet1", 0}, 1); }, "mdns/status");
  expectOmitted([&] { db_.linkStatusIs({"Ethernet1", 0}, 1); }, "mdns/status");
  expectOmitted([&] { db_.linkStatusDel({"Ethernet1", 0}); }, "mdns/status");
  expectOmitted([&] { db_.entityCopyIs(StatePath::kMdnsStatus); }, "mdns/status");
  // The omitted path is named even when the name would be refused too.
  expectOmitted([&] { db_.vrfIs(VrfView::kLocal, std::string(101, 'v')); }, "ip/vrf/status/local");
  EXPECT_EQ(db_.entityManager()->entities().size(), 3u);

  // Other paths still take writes.
  db_.vrfIs(VrfView::kGlobal, "red");
  EXPECT_EQ(db_.vrfStatusGlobal()->vrf().size(), 1u);

  db_.loadedIs(true);
  try {
    db_.entityDel(StatePath::kMdnsConfig);
    ADD_FAILURE() << "omit after load";
  } catch (const StateDatabaseException& e) {
    EXPECT_STREQ(e.what(), "omit mdns/config is only allowed before load");
  }
  EXPECT_NE(db_.config(), nullptr);
}

TEST_F(StateDatabaseTest, RecreateCopiesContentIntoNewEntities) {
  db_.gatewayEnabledIs(true);
  db_.gatewaySettingIs(9);
  db_.linkStateIs({"Ethernet1", 3}, 1);
  db_.intfVrfIs("Ethernet1", "red");
  db_.vrfIs(VrfView::kGlobal, "red");
  db_.vrfIs(VrfView::kLocal, "blue");
  const std::string before = db_.stateText();

  auto oldConfig = db_.config();
  auto oldStatus = db_.status();
  auto oldDir = db_.intfStatusDir();
  auto oldGlobal = db_.vrfStatusGlobal();
  auto oldLocal = db_.vrfStatusLocal();
  Zov::Ptr<McastDns::LinkStatus> oldLink(link("Ethernet1", 3));
  Zov::Ptr<const L3::Intf::Status> oldIntf(intf("Ethernet1"));
  auto linkWatcher = watch(oldLink.ptr());
  auto statusWatcher = watch(oldStatus.ptr());
  for (StatePath path : kStatePaths) db_.entityCopyIs(path);

  EXPECT_EQ(db_.stateText(), before);
  EXPECT_NE(db_.config(), oldConfig);
  EXPECT_NE(db_.status(), oldStatus);
  EXPECT_NE(db_.intfStatusDir(), oldDir);
  EXPECT_NE(db_.vrfStatusGlobal(), oldGlobal);
  EXPECT_NE(db_.vrfStatusLocal(), oldLocal);
  EXPECT_EQ(db_.entityManager()->getEntity("cell/0/ip/vrf/status/local"), db_.vrfStatusLocal());
  EXPECT_NE(link("Ethernet1", 3), oldLink.ptr());
  EXPECT_NE(intf("Ethernet1"), oldIntf.ptr());
  EXPECT_NE(db_.vrfStatusGlobal()->vrf(L3::VrfName("red")), oldGlobal->vrf(L3::VrfName("red")));
  EXPECT_EQ(db_.config()->name(), oldConfig->name());

  // Later writes reach the new entities only.
  db_.linkStateIs({"Ethernet1", 3}, 0);
  db_.linkStateIs({"Ethernet2", 0}, 1);
  db_.intfVrfIs("Ethernet1", "green");
  db_.gatewayEnabledIs(false);
  EXPECT_EQ(linkWatcher->heard(), Ids{});
  EXPECT_EQ(statusWatcher->heard(), Ids{});
  EXPECT_EQ(oldLink->state(), 1);
  EXPECT_EQ(oldStatus->linkStatus().size(), 1u);
  EXPECT_EQ(oldIntf->vrf(), L3::VrfName("red"));
  EXPECT_TRUE(oldConfig->gatewayEnabled());
  EXPECT_EQ(link("Ethernet1", 3)->state(), 0);
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
